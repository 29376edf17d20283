#pragma once

#include <sys/types.h>

// The system's users, and paths with a given owner and mode. Everything here reports its own failures, never fatally.

// The uid (which = 0) or the primary gid (any other `which`) of a user. An unknown user is reported as "Unable to
// getpwnam for user %s" and gives 0, so that what the caller goes on to make belongs to root.
uid_t get_user_id(const char *name, int which);

// Both ids of a user from one lookup. An unknown user is reported as by get_user_id, once for each id, and gives 0
// twice.
struct user_ids {
    uid_t uid;
    gid_t gid;
};
user_ids get_user_ids(const char *name);

// Gives a path an owner and a mode, by the rule of safe_open. Returns 0, also when the path cannot be examined, or -1
// after "ERROR: unable to chown %s: %s\n" or "ERROR: unable to chmod %s: %s\n". Clears errno.
int set_owner_mode(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Makes a directory, or takes what is there, with this owner and exactly this mode. Returns 0, or -1 after "ERROR:
// Unable to mkdir %s: %s\n", or the same for chown and chmod. Clears errno on entry; a
// directory that was there leaves EEXIST behind.
int make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Renames a directory, never over something else. Returns 0, also when there is nothing to rename, or -1 after
// "Directory rename error: target directory %s already exists.\n" or "Remaming %s to %s failed: %s\n".
int rename_dir(const char *old_path, const char *new_path);

// 1 when `path` lies below `dir`, both being directories and no links themselves; 0 otherwise, so for a directory and
// itself, and for anything and "/". Reports nothing.
int is_inside_dir(const char *path, const char *dir);

// Fills `count` bytes with characters of crypt's salt alphabet, drawn with rand(), which the caller has seeded. No
// terminator is written.
void random_salt(char *buffer, int count);
