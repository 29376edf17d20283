#pragma once

#include "common/accounts.h"
#include "common/error.h"
#include "common/file_str.h"

// What the writers of qmail's files share: where the files lie, what their lines look like, who owns them.

// Looks up each of popuser's ids that is not known yet, which means 0. Returns true when both are known afterwards. An
// unknown user is reported once for each id.
bool find_popuser(user_ids &ids);

// find_popuser; false ends the process: "Unable to define UID or GID for user popuser".
void find_popuser_safe(user_ids &ids);

// True when a mail name or alias is not null and its first byte, all that is checked, is a letter, a digit, "_" or "-".
bool is_valid_mail_name(const char *name);

// True for null and for the empty string.
bool is_empty(const char *text);

// The ASCII form of a domain. A failure ends the process: "idn_toascii() failed: %s".
owned_text domain_toascii_safe(const char *domain);

// QMAIL_ROOT_D and a path below it that begins with "/".
text qmail_path(const char *below);

// QMAIL_MAILNAMES_D/DOMAIN, with the domain in its ASCII form here and below.
text domain_dir(const owned_text &ascii_domain);

// QMAIL_MAILNAMES_D/DOMAIN/NAME: a mailbox directory, or a file in the domain directory.
text mailbox_dir(const owned_text &ascii_domain, const char *name);

// QMAIL_MAILNAMES_D/DOMAIN/NAME/.qmail
text dot_qmail_path(const owned_text &ascii_domain, const char *mail_name);

// The users/assign line that delivers one local part, a mail name or an alias, to a mailbox directory.
text mailbox_line(const char *domain_id, const char *local_part, const user_ids &ids, const owned_text &ascii_domain,
                  const char *mail_name);

// Removes a line from a file, as far as that can be, and appends it again. Returns the end of the addition.
edit_end renew_line(const char *path, const char *line);

// Removes a line from users/assign and adds it again at the start; then the file gets mode 0600, as far as that can be.
// A failed removal is passed over after the report `not_removed`. Returns false when the line could not be added.
bool renew_assign_line(const char *line, const char *not_removed);

// False when nothing may be deleted for a step that failed with this error: safe_open refused it, or it met a limit (of
// descriptors, of a file's size) that a plain system call would not have met or would have ended the process at.
bool may_undo(int error);

// The exit status for the report of a step that failed below a mailbox directory: 0 where safe_open refused it, for
// then the run goes on, and 1 otherwise. The first form judges by errno.
int status_of_failure();
int status_of_failure(edit_end end);

// Sets a ".qmail"'s owner and group to `ids`, then its mode to 0600. Returns true; or false for a file that safe_open
// refused, after "Unable to chown %s file: %s" or the same with chmod. Any other failure is reported so, too, and ends
// the process.
bool own_dot_qmail(const char *path, const user_ids &ids);
