#pragma once

#include "common/error.h"

#include <sys/types.h>

// What the writers of qmail's files share: where the files lie, what their lines look like, who owns them.

using text_buffer = char[text_size];

// popuser's uid and primary gid; 0 means not known.
struct popuser_ids {
    uid_t uid;
    gid_t gid;
};

// Looks up whichever of the two is not known yet. True when both are known afterwards; an unknown user has then been
// reported by the lookup, once for each id.
bool find_popuser(popuser_ids &ids);

// find_popuser whose failure ends the process: "Unable to define UID or GID for user popuser".
void find_popuser_safe(popuser_ids &ids);

// True when a mail name or alias is there and begins with a letter, a digit, "_" or "-". Only that byte is looked at.
bool is_valid_mail_name(const char *name);

// True for none and for the empty string.
bool is_empty(const char *text);

// The ASCII form of a domain; the caller frees it. A failure ends the process: "idn_toascii() failed: %s".
char *domain_toascii_safe(const char *domain);

// QMAIL_ROOT_D and a path below it that begins with "/".
void qmail_path(text_buffer &path, const char *below);

// QMAIL_MAILNAMES_D/DOMAIN, with the domain in its ASCII form here and below.
void domain_dir(text_buffer &path, const char *ascii_domain);

// QMAIL_MAILNAMES_D/DOMAIN/NAME: a mailbox directory, or a file in the domain directory.
void mailbox_dir(text_buffer &path, const char *ascii_domain, const char *name);

// QMAIL_MAILNAMES_D/DOMAIN/NAME/.qmail
void dot_qmail_path(text_buffer &path, const char *ascii_domain, const char *mail_name);

// Gives a ".qmail" popuser as its owner, then mode 0600. A failure ends the process: "Unable to chown %s file: %s" (the
// path), or the same for chmod.
void own_dot_qmail_safe(const char *path, const popuser_ids &ids);

// The users/assign line that delivers one local part, a mail name or an alias, to a mailbox directory.
void mailbox_line(text_buffer &line, const char *domain_id, const char *local_part, const popuser_ids &ids,
                  const char *ascii_domain, const char *mail_name);
