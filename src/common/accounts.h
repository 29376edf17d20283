#pragma once

#include <sys/types.h>

// The system's users, and paths with a given owner and mode. No report here ends the process.

// Returns a user's uid (which = 0) or primary gid (any other `which`). An unknown user is reported as "Unable to
// getpwnam for user %s" and yields 0, so that what the caller makes next belongs to root.
uid_t get_user_id(const char *name, int which);

// Returns both ids of a user from one lookup. An unknown user is reported as by get_user_id, once for each id, and
// yields 0 for both.
struct user_ids {
    uid_t uid;
    gid_t gid;
};
user_ids get_user_ids(const char *name);

// Gives a path an owner and a mode, by the rule of safe_open. Returns 0, also when stat() fails, or -1 after "ERROR:
// unable to chown %s: %s\n" or "ERROR: unable to chmod %s: %s\n". Sets errno to 0 first.
int set_owner_mode(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Makes a directory, or takes the one that exists, and gives it this owner and exactly this mode, by the rule of
// safe_open. Returns 0, also for a directory that is gone again meanwhile; or -1 after "ERROR: Unable to mkdir %s:
// %s\n", or the same with chown or chmod. Sets errno to 0 first; a directory that existed leaves EEXIST in it.
int make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Renames a directory unless the new path exists. Returns 0, also when stat() of the old path fails, or -1 after
// "Directory rename error: target directory %s already exists.\n" or "Remaming %s to %s failed: %s\n".
int rename_dir(const char *old_path, const char *new_path);

// Returns 1 when `path` lies below `dir` and both are directories, not links to them. Returns 0 otherwise, also for two
// equal paths, for "/" as `dir`, and when a path cannot be examined. Reports nothing.
int is_inside_dir(const char *path, const char *dir);

// Fills `count` bytes with characters of crypt's salt alphabet, drawn with rand(), which the caller seeds. Writes no
// terminator.
void random_salt(char *buffer, int count);
