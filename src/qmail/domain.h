#pragma once

#include <mysql.h>

// Mail domains and domain aliases in control/rcpthosts, control/virtualdomains and users/assign, and the domain
// directory. Names come as the database holds them and go into files in their ASCII form. The writers return 0; what
// matters ends the process with a report. A line that add_mail_domain or add_domain_alias cannot take out first is
// reported and passed over; in the two remove operations, but for the line of rcpthosts, it ends the process. Each
// signals qmail-send (SIGHUP) once its lines in the control files are as they should be.

// The id of a domain as text, in a static buffer that the next call overwrites. Asks for the ASCII form of the name
// and, when there is no such row and the name differs from it, for the name as it is. Without a connection it opens and
// closes one of its own; when it can't, it reports that (not fatal) and returns null. An unknown domain and a failed
// query end the process. A name with a backslash or a quote stops it by assertion.
const char *get_dom_id(const char *domain, MYSQL *connection);

// get_dom_id on a connection of its own, whose failure ends the process: "Unable to define ID for domain %s".
const char *get_dom_id_safe(const char *domain);

// Makes the domain directory (popuser's, 0700) and the domain's lines. A disabled domain keeps its directory and its
// assign line and loses the two others. A directory that cannot be made is undone and ends the process with status
// 255, without a further message; lines that cannot be added to the control files are undone likewise, status 1.
// Nothing is undone here and below when the failed step was refused by safe_open.
int add_mail_domain(const char *domain, int disabled);

// Takes out the domain's lines, the records of all its mailboxes and aliases, and its directory with all that is in it.
int remove_mail_domain(const char *domain);

// Enters an alias of a domain into the two control files, with the id of the domain, whatever the domain's state.
// A line that cannot be added is undone and ends the process.
int add_domain_alias(const char *domain, const char *alias);

// Takes the two lines of a domain alias out.
int remove_domain_alias(const char *domain, const char *alias);
