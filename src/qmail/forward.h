#pragma once

// Further deliveries of a mail name, appended to its ".qmail", and its aliases. Names come as the database holds them.
// Each operation removes an equal line before it adds its own. It returns 0, or ends the process with a report; nothing
// is undone. A ".qmail" that safe_open refuses is reported, and the operation returns 0.

// Forwards to an address (not null, with an "@"); its domain is converted to ASCII. ".qmail" gets popuser and 0600.
int add_forward(const char *mail_name, const char *domain, const char *address);

// Delivers to the autoresponder. ".qmail" keeps its owner and mode.
int add_autoresponder(const char *mail_name, const char *domain);

// Adds the line to users/assign by which mail for the alias, a local part, follows the mail name's ".qmail".
int add_mail_alias(const char *mail_name, const char *domain, const char *alias);
