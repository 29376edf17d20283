#pragma once

#include "common/error.h"
#include "common/safe_dir.h"

#include <sys/stat.h>

// A file's new content, written to PATH.tmp, which is renamed over the file when it is complete. The copy is always a
// new file of ours: what somebody left under its name must not receive the lines, which may hold password hashes. Its
// mode is 0600 until it gets the owner and mode of the file that it replaces. Nothing here ends the process.

struct file_copy {
    text path;
    safe_dir dir;
    const char *name; // points into path
    owned_fd fd;      // empty once it is closed
};

// Makes the copy of a file: `path`, which safe_find_dir has found in `dir` as `name`. Whatever has the copy's name is
// removed first, except a directory. Returns 0; or -1 with the error in errno, after "Unable to open file PATH.tmp: %s"
// on standard error alone.
int file_copy_begin(file_copy &copy, const char *path, const safe_dir &dir, const char *name);

// Gives an open file the owner and the mode of another, trying both. Returns the first call that failed, by name and
// error, or a null name when none did. Leaves errno as it was.
struct file_copy_failure {
    const char *call;
    int error;
};
file_copy_failure file_copy_own(int fd, const struct stat &status);

// Renames the copy, which the caller has closed, over the file, by its name in the directory. Returns 0; or -1 with the
// error in errno, after removing the copy.
int file_copy_commit(const file_copy &copy, const char *name);

// Removes the copy, after closing it if it is open. Leaves errno as it was.
void file_copy_drop(file_copy &copy);

// Prints "WHAT PATH.tmp: %s", with errno's text, on standard error alone. Leaves errno as it was.
void file_copy_complain(const char *what, const file_copy &copy);
