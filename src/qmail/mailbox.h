#pragma once

// Mail names: each has a line in users/assign and a mailbox directory; one with a mailbox also has a record in
// users/poppasswd and a delivery to its Maildir. The domain directory must exist. Names come as the database holds
// them; a mail name must begin with a letter, a digit, "_" or "-". All but add_mailbox return 0. A failure ends the
// process with a report. Two are reported and passed over: an old line that cannot be removed, and what safe_open
// refuses in a mailbox directory. Where an operation undoes what it did, it does so only if may_undo of qmail/layout.h
// allows it.

// Writes the line of users/assign and makes the mailbox directory with a new ".qmail" ("| true", 0600) and an empty
// Maildir, all popuser's. Directories that exist keep their mode and content. A failure, except of ".qmail", is undone
// by remove_mailbox before the process ends. The working directory is the same afterwards. Returns 0, or 1 when
// safe_open refused the mailbox directory itself, so that nothing more can be done for the mail name.
int add_mailbox(const char *mail_name, const char *domain);

// Removes the line of users/assign, the poppasswd record and the mailbox directory with all its mail. The lines of the
// mail name's aliases stay.
int remove_mailbox(const char *mail_name, const char *domain);

// Writes the poppasswd record and appends "./Maildir/" to ".qmail", which gets popuser and mode 0600. `password` is
// encrypted. When `disabled` is not 0 no password matches it; when short_names_disabled is not 0 the login is the whole
// address. When the delivery cannot be added, remove_postbox undoes the record before the process ends.
int add_postbox(const char *mail_name, const char *domain, const char *password, int disabled,
                int short_names_disabled);

// Removes the record and the delivery line. Failures of either are only reported.
int remove_postbox(const char *mail_name, const char *domain);

// Replaces the poppasswd record, with the arguments of add_postbox; a null or empty password only removes it. The mail
// name only has to be non-empty.
int add_poppasswd_record(const char *mail_name, const char *domain, const char *password, int disabled,
                         int short_names_disabled);
