#pragma once

#include <sys/stat.h>
#include <sys/types.h>

// The system calls of their names, for paths that lead through directories of other users. Whoever owns a directory may
// put a link in the place of anything in it, at any moment; so each of these goes from directory to directory by
// descriptor and follows a symbolic link, wherever it stands in the path, only when root made it and it has no second
// name. Any other link is refused with ELOOP. So is root's link, in a directory that is not root's, to what does not
// belong to the owner of that directory: he could have moved it there from another place. (An empty directory of root's
// is let pass: a new home for a mailbox.) In such a directory a file with several names is refused (EMLINK) unless it
// belongs to the owner of the directory, and so is a pipe (EPERM), which would hold up whoever opens it. Results and
// errno are those of the plain calls; success leaves errno as it was. Nothing is reported.

// Opens a file or directory, close-on-exec and without waiting. O_TRUNC takes effect once the file is found to be none
// of the refused.
int safe_open(const char *path, int flags, mode_t mode = 0);

// Opens the directory that holds what the path names; `name` is then the last part of the path, "." for a path that
// ends in a slash. Returns the descriptor, AT_FDCWD for a path of one part, or -1. close_dir takes any of them.
int safe_open_parent(const char *path, const char *&name);
void close_dir(int dir_fd);

// safe_open of one entry of an open directory.
int safe_open_at(int dir_fd, const char *name, int flags, mode_t mode = 0);

int safe_mkdir(const char *path, mode_t mode);
int safe_chown(const char *path, uid_t uid, gid_t gid);
int safe_chmod(const char *path, mode_t mode);
int safe_chdir(const char *path);
int safe_unlink(const char *path);
