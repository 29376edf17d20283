#pragma once

#include "common/accounts.h"
#include "common/error.h"
#include "common/file_str.h"

// What the writers of qmail's files share: where the files lie, what their lines look like, who owns them.

// Looks up whichever of popuser's two ids is not known yet, that is, 0. True when both are known afterwards; an unknown
// user has then been reported by the lookup, once for each id.
bool find_popuser(user_ids &ids);

// find_popuser whose failure ends the process: "Unable to define UID or GID for user popuser".
void find_popuser_safe(user_ids &ids);

// True when a mail name or alias is there and begins with a letter, a digit, "_" or "-". Only that byte is looked at.
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

// Takes a line out of a file and adds it again. A line that cannot be taken out is reported with the text
// `not_removed`, unless that is null, and passed over. Returns how the adding ended.
edit_end renew_line(const char *path, const char *line, placement where, const char *not_removed);

// False when nothing may be deleted for a step that failed with this error: it was refused, or met a limit (of
// descriptors, of a file's size) that a plain system call would not have met or would have ended the process at.
bool may_undo(int error);

// The exit status with which a failed step below a mailbox directory is reported: 0 where it was refused, for then the
// run goes on, and 1 otherwise. In the first form errno tells.
int status_of_failure();
int status_of_failure(edit_end end);

// Gives a ".qmail" popuser as its owner, then mode 0600. A failure is "Unable to chown %s file: %s" (the path), or the
// same for chmod, and ends the process unless the file was refused.
void own_dot_qmail(const char *path, const user_ids &ids);
