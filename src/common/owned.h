#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

// Types that own and release a resource, so that no way out of a function has to. A descriptor whose failed close must
// be reported stays a plain int.

// The deleter of a std::unique_ptr that calls this function.
template <auto Release> struct releaser {
    template <typename Held> void operator()(Held *held) const
    {
        Release(held);
    }
};

// Text from malloc().
using owned_text = std::unique_ptr<char, releaser<std::free>>;

// A stream that was only read: a failed close is not reported.
using owned_stream = std::unique_ptr<FILE, releaser<fclose>>;

// An open descriptor, or -1. The destructor closes it and leaves errno as it was; release() hands it to the caller.
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
