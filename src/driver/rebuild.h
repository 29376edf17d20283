#pragma once

// Rebuilds qmail's files from the panel database, on a connection of its own. First it empties control/rcpthosts,
// control/virtualdomains, users/assign (down to its "." line) and users/poppasswd (a new one gets 0600), and prepares
// the mailnames directory, which stays the working directory. Then it calls the writers for every domain with the mail
// service, its aliases and its mail names, in the database's order. Last it rebuilds the antivirus engine's recipient
// list, when "drweb" and "drweb-qmail" are installed. A directory that cannot be prepared and rows that cannot be
// queried end the process with a report, as the writers may; the files stay as far as they are written. Reported and
// passed over are an unfit name, a second domain or alias of one ASCII form, an address of more than a line, a file
// that cannot be emptied, a limit or parameter that cannot be queried (it counts as missing), a password that cannot be
// encrypted, and a quota that cannot be written.
void rebuild_mail_config();
