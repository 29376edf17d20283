#include "common/file_bytes.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <unistd.h>
#include <utility>

namespace {

// Moves the text into a larger block; false without the memory for it.
bool make_room(content &text, std::size_t capacity)
{
    std::unique_ptr<char[]> block(new (std::nothrow) char[capacity]);
    if (!block) {
        errno = ENOMEM;
        return false;
    }
    if (text.size > 0)
        memcpy(block.get(), text.bytes.get(), text.size);
    text.bytes = std::move(block);
    return true;
}

} // namespace

std::string_view view(const content &text)
{
    return {text.bytes.get(), text.size};
}

bool read_rest(int fd, content &text, std::size_t expected)
{
    std::size_t capacity = std::min(expected, max_content) + 1; // one byte more: the end shows in the same call
    if (!make_room(text, capacity))
        return false;
    for (;;) {
        const ssize_t got = read(fd, text.bytes.get() + text.size, capacity - text.size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        text.size += static_cast<std::size_t>(got);
        if (text.size > max_content) {
            errno = EFBIG;
            return false;
        }
        if (text.size == capacity && !make_room(text, capacity *= 2)) // the file grew, or does not tell its size
            return false;
    }
}

std::size_t write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno != EINTR)
            break;
        if (put > 0)
            text.remove_prefix(static_cast<std::size_t>(put));
    }
    return text.size();
}

bool append_all(int fd, std::string_view text)
{
    const std::size_t unwritten = write_all(fd, text);
    if (unwritten == 0)
        return true;
    const int cause = errno;
    const auto put = static_cast<off_t>(text.size() - unwritten);
    const off_t end = lseek(fd, 0, SEEK_END);
    [[maybe_unused]] const int unsaid = end < put ? -1 : ftruncate(fd, end - put);
    errno = cause;
    return false;
}

bool copy_within_kernel(int input, int output)
{
    const int former_errno = errno;
    bool begun = false;
    ssize_t copied;
    while ((copied = copy_file_range(input, nullptr, output, nullptr, SSIZE_MAX, 0)) > 0)
        begun = true;
    errno = former_errno;
    return begun && copied == 0;
}
