#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

// A file's bytes in memory. Not a std::string, which would zero the block before the file is read into it.
struct content {
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

std::string_view view(const content &text);

// The most, in bytes, that is read of one file.
inline constexpr std::size_t max_content = std::size_t{1} << 30;

// Reads an open file from its current offset to its end into `text`, which must be empty. `expected` bytes are
// allocated at once, more when the file is longer. Returns true, or false with the error in errno: EFBIG for more than
// max_content bytes, ENOMEM when memory runs out, or read()'s.
bool read_rest(int fd, content &text, std::size_t expected);

// Writes the whole text. Returns 0, or the number of bytes that could not be written, with the error in errno.
std::size_t write_all(int fd, std::string_view text);

// write_all to a file that is open with O_APPEND. Returns true; or false with the error in errno, after trying to
// cut off what was written.
bool append_all(int fd, std::string_view text);

// Has the kernel copy the rest of one file to another. Returns true when it has copied all of it, at least one byte.
// After false, read and write go on where it stopped. Leaves errno as it was.
bool copy_within_kernel(int input, int output);
