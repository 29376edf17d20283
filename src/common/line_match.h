#pragma once

#include <cstddef>

// Which lines of a file a removal drops. Every editor that shares these files takes a line of more than 4094 bytes,
// newline included, for several lines of at most 4094 bytes each.

enum class comparison { equal, prefix, suffix, substring, never };

// Takes every line that matches one of the strings, whose list ends in a null entry, out of the text, and returns the
// size of what is left. A newline at the end of a line or of a string counts for nothing, except in a substring, where
// it must be found too; `equal` looks only at what stands before a string's first newline. An empty string matches
// every line, or with `equal` every empty one.
std::size_t drop_lines(char *text, std::size_t size, const char *const *strings, comparison how);

enum class finding { none, possible, failed };

// Reads the open file to its end, from where its reading stands, and tells whether drop_lines could find anything
// there: for certain when it is `none`. `failed` leaves the error in errno. Needs 64 KiB of stack, whatever the file's
// size, and is many times faster than looking line by line.
finding search_lines(int fd, const char *const *strings, comparison how);
