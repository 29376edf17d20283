#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

// Owners of what has to be released: whoever holds one need not name it at each way out. Where closing can fail in a
// way that somebody has to hear of, a descriptor stays a plain int.

// Calls a function to release what a std::unique_ptr holds.
template <auto Release> struct releaser {
    template <typename Held> void operator()(Held *held) const
    {
        Release(held);
    }
};

// Text from malloc().
using owned_text = std::unique_ptr<char, releaser<std::free>>;

// A stream that was read, whose closing nobody has to hear of.
using owned_stream = std::unique_ptr<FILE, releaser<fclose>>;

// A descriptor, or none (-1). Its release leaves errno as it was.
class owned_fd {
public:
    owned_fd() = default;
    explicit owned_fd(int fd) : fd_(fd)
    {
    }
    owned_fd(owned_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    owned_fd &operator=(owned_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~owned_fd()
    {
        const int former_errno = errno;
        if (fd_ >= 0)
            close(fd_);
        errno = former_errno;
    }
    [[nodiscard]] int get() const
    {
        return fd_;
    }
    [[nodiscard]] int release()
    {
        return std::exchange(fd_, -1);
    }

private:
    int fd_ = -1;
};
