#pragma once

// Further deliveries of a mail name, in its ".qmail" behind what mailbox has written there, and its aliases. Names come
// as the database holds them. Each takes an equal line out before it adds its own, and returns 0 or ends the process
// with a report; nothing is undone. A ".qmail" that safe_open refuses is reported, and the operation returns.

// Forwards to an address (non-null; it needs an "@"), its domain in ASCII form. ".qmail" gets popuser and mode 0600.
int add_forward(const char *mail_name, const char *domain, const char *address);

// Answers by the autoresponder. Owner and mode of ".qmail" stay.
int add_autoresponder(const char *mail_name, const char *domain);

// Delivers mail for the alias, a local part, by the mail name's ".qmail": a users/assign line.
int add_mail_alias(const char *mail_name, const char *domain, const char *alias);
