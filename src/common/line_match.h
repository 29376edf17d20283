#pragma once

#include <cstddef>

// Which lines of a file a removal drops. A line of more than 4094 bytes, newline included, counts as several of at most
// 4094 bytes each, as in every editor that shares these files.

enum class comparison { equal, prefix, suffix, substring, never };

// Removes from the text, in place, every line that matches one of the strings; their list ends in a null pointer.
// Returns the size of what is left, in bytes. Lines and strings are compared without the newline at their end, with
// `substring` including it. `equal` reads a string up to its first newline. An empty string matches every line, with
// `equal` every empty one. `never` matches nothing.
std::size_t drop_lines(char *text, std::size_t size, const char *const *strings, comparison how);

enum class finding { none, possible, failed };

// Reads an open file from its current offset, at most to its end, and returns whether drop_lines could remove anything
// of it: `none` is certain, `possible` is not, `failed` leaves the error in errno. Needs 64 KiB of stack, whatever the
// file's size, and is many times faster than looking line by line.
finding search_lines(int fd, const char *const *strings, comparison how);
