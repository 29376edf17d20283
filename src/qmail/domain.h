#pragma once

#include <mysql.h>

// Mail domains and domain aliases in control/rcpthosts, control/virtualdomains and users/assign, and the domain
// directory. Names come as the database holds them and enter files in their ASCII form. The writers return 0; a failure
// ends the process with a report. Reported and passed over are an old line that the add operations cannot remove, the
// line of rcpthosts in the remove operations, and a missing popuser in remove_mail_domain. After its edits of the
// control files each writer sends SIGHUP to qmail-send.

// Returns the id of a domain as text, in a static buffer that the next call overwrites. Looks for the ASCII form of the
// name, then, if there is no such row, for the name itself. Given a null connection it opens and closes its own; when
// that fails it reports so (not fatal) and returns null. An unknown domain and a failed query end the process with a
// report, a name with a backslash or a quote by an assertion.
const char *get_dom_id(const char *domain, MYSQL *connection);

// get_dom_id on a connection of its own; null ends the process: "Unable to define ID for domain %s".
const char *get_dom_id_safe(const char *domain);

// Makes the domain directory (popuser's, 0700) and the domain's lines; a disabled domain has only its line in
// users/assign. When the directory cannot be made, or a line cannot be added to a control file, remove_mail_domain
// undoes the addition and the process ends: with status 255 and no further message for the directory, else with 1.
// Nothing is undone, here and for aliases, where may_undo of qmail/layout.h forbids it.
int add_mail_domain(const char *domain, int disabled);

// Removes the domain's lines, the records of all its mailboxes and aliases, and its directory with everything in it.
int remove_mail_domain(const char *domain);

// Adds an alias, with the domain's id, to the control files, even for a disabled domain. When a line cannot be added,
// remove_domain_alias undoes the addition before the process ends.
int add_domain_alias(const char *domain, const char *alias);

// Removes the lines of a domain alias from the control files.
int remove_domain_alias(const char *domain, const char *alias);
