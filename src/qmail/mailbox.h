#pragma once

// Mail names: the users/assign line and mailbox directory, and, for those with a mailbox, the users/poppasswd record
// and the Maildir delivery. The domain directory must be there. Names come as the database holds them; a mail name
// begins with a letter, a digit, "_" or "-", or the operation ends the process. But for add_mailbox all return 0: what
// matters ends the process with a report, the failed removal of an old line is reported and passed over. What safe_open
// refuses in a mailbox directory or below it is reported and passed over, and nothing is undone for it.

// Writes the assign line, and makes the mailbox directory with a fresh ".qmail" ("| true", 0600) and an empty Maildir,
// all of popuser. What exists keeps its mode and what is in it, ".qmail" apart. A failure is undone by remove_mailbox
// (not that of ".qmail") and ends the process. The working directory is the same afterwards. Returns 0, or 1 when the
// mailbox directory itself was refused, so that nothing more can be done for the mail name.
int add_mailbox(const char *mail_name, const char *domain);

// Takes out the assign line, the poppasswd record and the mailbox directory with all the mail in it. The lines of the
// mail name's aliases stay.
int remove_mailbox(const char *mail_name, const char *domain);

// Writes the poppasswd record and appends "./Maildir/" to ".qmail", which gets popuser as its owner and mode 0600. The
// password is the encrypted one; a `disabled` domain's passwords match nothing; short_names_disabled makes the whole
// address the login. A delivery line that cannot be added is undone by remove_postbox and ends the process.
int add_postbox(const char *mail_name, const char *domain, const char *password, int disabled,
                int short_names_disabled);

// Takes out the record and the delivery line.
int remove_postbox(const char *mail_name, const char *domain);

// Replaces the poppasswd record, with the arguments of add_postbox; an empty password only removes it. Any non-empty
// mail name will do.
int add_poppasswd_record(const char *mail_name, const char *domain, const char *password, int disabled,
                         int short_names_disabled);
