#pragma once

// The one editor of line files. An edit holds the named lock of the file's path text from before it looks at the file
// until it is done; a changed file is a new copy, PATH.tmp, renamed over the old one with its owner and mode, so a
// reader sees the old lines or the new ones. Only at_end appends in place. Files are opened by the rule of safe_open.

enum class edit {
    add = 0,             // mode: a placement
    remove = 1,          // mode ignored: drops every line whose text equals one of the strings
    remove_matching = 2, // mode: a match; drops every line that matches one of the strings
};

enum placement { at_start = 0, at_end = 1 };
enum match { prefix = 0, suffix = 1, substring = 2 };

// Performs one edit with the strings of a list that ends in a null entry. Returns 0, or 1 after a report (`remove` on a
// missing file: without one), errno then being that of the step that failed. Unknown actions and placements change
// nothing.
// - A string's trailing newline counts for nothing, except in a substring, where it must be found too; `remove` looks
//   only at what stands before a string's first newline; an empty pattern matches every line.
// - A removal takes a line of more than 4094 bytes, newline included, for several lines of at most 4094 bytes each.
// - `add` does not look for equal lines; at_start needs an existing file (without one PATH.tmp stays, holding the new
//   lines), at_end makes it (0666 less the umask) and glues its first line to a last line that has no newline.
// - A removal that drops nothing leaves the file as it is, but for its owner and mode, which are set anew. A symbolic
//   link or one of several hard links is always replaced by a file of its own, which holds what the link led to.
// - A path of 4092 bytes or more and a file that safe_open refuses are "file_str: Unable to stat file %s: %s\n"; a file
// of
//   more than 1 GiB is "Unable to read file %s: %s\n".
// - A write that fails during `remove` ends the process: "cannot write a line to %s.tmp"; not so for a copy of 4096
//   bytes at most, which counts as one that cannot be closed. An append that fails is cut back. A failing PATH.tmp, or
//   its rename after at_start or remove_matching, is told on standard error alone.
int file_str(const char *path, const char *const *lines, edit action, int mode);

// file_str with the one string `line`.
int file_str_line(const char *path, const char *line, edit action, int mode);

// file_str_line that says more about a failure: `refused` when safe_open has refused the file or a directory on the way
// to it, which is not said of the lock.
enum class edit_end { done, failed, refused };
edit_end file_str_end(const char *path, const char *line, edit action, int mode);

// Makes sure that the file exists, keeping what it holds. A new file gets 0644 less the umask. Returns 0, or -1 after
// "Unable to create file %s: %s".
int create_file(const char *path);

// Empties the file, or makes it like create_file. Returns 0, or -1 after "Unable to truncate or create file %s: %s".
int truncate_or_create_file(const char *path);
