#pragma once

#include <mysql.h>
#include <string>
#include <string_view>

// What happens to mail for addresses that do not exist: a domain's ".qmail-default", of one line, and its line in
// control/rejectnonexist. Names come as the database holds them. Every failure ends the process with a report; only a
// parameter that cannot be queried counts as missing, after the lookup's report.

// Restores a domain's policy from its mail service's parameters: bounce with a message, deliver to one address, or
// reject. `domain_id` is the domain's id as text; `connection` is the caller's, open. Returns 0.
int set_nonexist_mail(const char *domain, const char *domain_id, MYSQL *connection);

// Sets the policy to bounce with this message, in which spaces replace newlines. Returns 0.
int set_bounce_message(const char *domain, const char *message);

// Returns the text escaped for the shell: a backslash before each special character, single quotes around a newline.
std::string shell_escape(std::string_view text);

// Appends the domain to control/rejectnonexist, even when it is there, or removes it when `reject` is 0. The file is
// made when it is missing, and gets mode 0644. Returns 0.
int set_reject(const char *domain, int reject);

// Removes the domain from control/rejectnonexist and appends it again, so that it is there once, at the end.
void renew_reject(const char *domain);

// Makes `line`, of any length, the only line of the domain's ".qmail-default", which gets popuser and mode 0600. After
// a failure the former line is gone. Returns 0.
int add_bounce(const char *domain, const char *line);
