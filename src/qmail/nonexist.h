#pragma once

#include <mysql.h>
#include <string>
#include <string_view>

// What becomes of mail to addresses that nobody has: a domain's ".qmail-default" (one delivery line) and its line in
// control/rejectnonexist. Names come as the database holds them. Every failure is reported and ends the process; a
// parameter that cannot be looked up counts as missing.

// Restores a domain's policy from its mail service's parameters: bounce with a text, catch into an address, or reject.
// `domain_id` is the domain's id as text, `connection` an open one. Returns 0.
int set_nonexist_mail(const char *domain, const char *domain_id, MYSQL *connection);

// Bounces with this message, its newlines turned into spaces. Returns 0.
int set_bounce_message(const char *domain, const char *message);

// The text as a shell word: a backslash before what the shell would take for its own, newlines in single quotes.
std::string shell_escape(std::string_view text);

// Enters the domain in control/rejectnonexist (not looking for an equal line), or takes it out when `reject` is 0. The
// file is made when missing and gets mode 0644. Returns 0.
int set_reject(const char *domain, int reject);

// Takes the domain out of control/rejectnonexist and enters it again, so that it stands there once, at the end.
void renew_reject(const char *domain);

// Makes `line`, of any length, the only line of the domain's ".qmail-default", which gets popuser and mode 0600. A
// failure leaves the domain without one. Returns 0.
int add_bounce(const char *domain, const char *line);
