#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

// A file's bytes in memory; not a string, which would first fill with zeros what is then read over.
struct content {
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

std::string_view view(const content &text);

// What is read of one file at the most.
inline constexpr std::size_t max_content = std::size_t{1} << 30;

// Reads the open file to its end, from where its reading stands, into `text`, which is empty before; room for
// `expected` bytes is made at once. Returns false with the error in errno: EFBIG for more than max_content, ENOMEM
// without the memory.
bool read_rest(int fd, content &text, std::size_t expected);

// Returns how much could not be written, with the error in errno, or 0.
std::size_t write_all(int fd, std::string_view text);

// Writes to a file that is open for appending, and cuts it back to its former length when that fails, with the error in
// errno.
bool append_all(int fd, std::string_view text);

// Has the kernel copy what is left of one file to another; false where it does not, or not to the end. The rest can
// then be read and written. Leaves errno as it was.
bool copy_within_kernel(int input, int output);
