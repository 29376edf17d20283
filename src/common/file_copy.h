#pragma once

#include "common/error.h"
#include "common/safe_dir.h"

#include <sys/stat.h>

// A file's new content on its way: PATH.tmp, which is renamed over the file once it is whole. The copy is always a new
// file of ours, with mode 0600 until it gets the owner and mode of the file that it replaces: a link or a file that
// somebody left under its name must not receive the lines, which may hold password hashes.

struct file_copy {
    text path;
    safe_dir dir;
    const char *name; // in path
    int fd;
};

// Makes the copy for a file, which safe_find_dir has found in `dir` as `name`, after taking away whatever lies at its
// name, which is no directory. A failure returns -1 and is said on standard error alone: "Unable to open file PATH.tmp:
// %s".
int file_copy_begin(file_copy &copy, const char *path, const safe_dir &dir, const char *name);

// Gives an open file the owner and mode of another. Both are tried. Returns the name of the first call that failed,
// with its error, or null; errno stays as it was.
struct file_copy_failure {
    const char *call;
    int error;
};
file_copy_failure file_copy_own(int fd, const struct stat &status);

// Closes the copy. Returns the result of close().
int file_copy_close(file_copy &copy);

// Renames the closed copy over the file. Returns -1 with the error in errno; the copy is then gone.
int file_copy_commit(const file_copy &copy, const char *name);

// Takes the copy away, closing it if it is open. errno stays as it was.
void file_copy_drop(file_copy &copy);

// Says on standard error alone what became of the copy: "WHAT PATH.tmp: %s", with errno's text. errno stays as it was.
void file_copy_complain(const char *what, const file_copy &copy);
