#pragma once

// Rebuilds qmail's files from the panel database: empties control/rcpthosts, control/virtualdomains, users/assign (down
// to its "." line) and users/poppasswd (a new one gets 0600), makes sure of the mailnames directory, and calls the
// writers for every domain with the mail service, its aliases and its mail names, in the database's order. At the end
// it rebuilds the antivirus engine's recipient list, when the components "drweb" and "drweb-qmail" are installed. Opens
// and closes its own connection and leaves the working directory in the mailnames directory. A directory that cannot be
// prepared and rows that cannot be asked for are reported and end the process, leaving the files as far as they were
// written. A file that cannot be emptied, a limit or parameter that cannot be looked up (it counts as missing), a
// password that cannot be encrypted and a quota that cannot be written are reported and passed over.
void rebuild_mail_config();
