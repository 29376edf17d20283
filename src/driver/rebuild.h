#pragma once

// Rebuilds qmail's files from the panel database: empties control/rcpthosts, control/virtualdomains, users/assign (down
// to its "." line) and users/poppasswd, makes sure of the mailnames directory, and calls the writers for every domain
// with the mail service, its aliases and its mail names, in the database's order. Opens and closes its own connection.
// What cannot be prepared or asked for is reported and ends the process, leaving the files as far as they were
// written; a file that cannot be emptied and a quota that cannot be written are reported and passed over. Leaves the
// working directory in the mailnames directory.
void rebuild_mail_config();
