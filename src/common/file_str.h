#pragma once

// The one editor of line files. It holds the file's named lock for the whole edit and opens files by the rule of
// safe_open. Changed content goes to PATH.tmp, which gets the file's owner and mode and is renamed over it: a reader
// sees either the old lines or the new ones. Only at_end writes to the file itself.

enum class edit {
    add = 0,             // mode: a placement
    remove = 1,          // mode ignored: drops every line whose text equals one of the strings
    remove_matching = 2, // mode: a match; drops every line that matches one of the strings
};

enum placement { at_start = 0, at_end = 1 };
enum match { prefix = 0, suffix = 1, substring = 2 };

// Performs one edit with the strings of a list that ends in a null pointer. Returns 0; or 1 after a report, with the
// failed step's error in errno. `remove` on a missing file returns 1 without a report. An unknown action or mode
// changes no line.
// - `add` ends each string with a newline and does not look for equal lines. at_start needs an existing file; without
//   one it leaves PATH.tmp behind, holding the new lines. at_end makes the file (0666 less the umask) and joins its
//   first line to a last line that has no newline. An append that fails is cut off again.
// - The removals compare without the newline at the end of a line or string; only `substring` includes it. `remove`
//   reads a string up to its first newline. An empty string matches every line, with `remove` every empty one. A line
//   of more than 4094 bytes, newline included, counts as several of at most 4094 each.
// - A removal that drops nothing only sets owner and mode anew. But a symbolic link, or one of several hard links, is
//   always replaced by a file of its own with the content.
// - A path of 4092 bytes or more, or refused by safe_open, is "file_str: Unable to stat file %s: %s\n"; a file of more
//   than 1 GiB is "Unable to read file %s: %s\n".
// - A failed write of more than 4096 bytes during `remove` ends the process: "cannot write a line to %s.tmp". A
//   PATH.tmp that cannot be made, or not renamed after at_start or remove_matching, is reported on standard error
//   alone.
int file_str(const char *path, const char *const *lines, edit action, int mode);

// file_str with the one string `line`.
int file_str_line(const char *path, const char *line, edit action, int mode);

// file_str_line with three results: `refused` when safe_open has refused the file or a directory on the way to it,
// `failed` for any other failure, the lock's included.
enum class edit_end { done, failed, refused };
edit_end file_str_end(const char *path, const char *line, edit action, int mode);

// Makes the file, with mode 0644 less the umask, unless it exists. Returns 0, or -1 after "Unable to create file %s:
// %s".
int create_file(const char *path);

// Empties the file, or makes it as create_file does. Returns 0, or -1 after "Unable to truncate or create file %s: %s".
int truncate_or_create_file(const char *path);
