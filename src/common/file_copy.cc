#include "common/file_copy.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

int file_copy_begin(file_copy &copy, const char *path, const safe_dir &dir, const char *name)
{
    copy.path = formatted("%s.tmp", path);
    copy.dir = dir;
    // The copy of what a path ending in a slash names, "." in its directory, lies in that directory, too.
    copy.name = copy.path.bytes + (strcmp(name, ".") == 0 ? strlen(path) : static_cast<std::size_t>(name - path));
    const int former_errno = errno;
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    copy.fd = owned_fd(openat(dir.fd, copy.name, flags, 0600));
    if (copy.fd.get() < 0 && errno == EEXIST && unlinkat(dir.fd, copy.name, 0) == 0)
        copy.fd = owned_fd(openat(dir.fd, copy.name, flags, 0600));
    if (copy.fd.get() < 0) {
        file_copy_complain("Unable to open file", copy);
        return -1;
    }
    errno = former_errno; // a leftover that is gone is no error of what follows
    return 0;
}

file_copy_failure file_copy_own(int fd, const struct stat &status)
{
    const int former_errno = errno;
    file_copy_failure failure{};
    if (fchown(fd, status.st_uid, status.st_gid) != 0)
        failure = {"chown", errno};
    if (fchmod(fd, status.st_mode & 07777) != 0 && !failure.call)
        failure = {"chmod", errno};
    errno = former_errno;
    return failure;
}

int file_copy_commit(const file_copy &copy, const char *name)
{
    if (renameat(copy.dir.fd, copy.name, copy.dir.fd, name) == 0)
        return 0;
    const int cause = errno;
    unlinkat(copy.dir.fd, copy.name, 0);
    errno = cause;
    return -1;
}

void file_copy_drop(file_copy &copy)
{
    const int former_errno = errno;
    copy.fd = {};
    unlinkat(copy.dir.fd, copy.name, 0);
    errno = former_errno;
}

void file_copy_complain(const char *what, const file_copy &copy)
{
    const int cause = errno;
    fprintf(stderr, "%s %s: %s\n", what, copy.path.c_str(), strerror(errno));
    fflush(stderr);
    errno = cause;
}
