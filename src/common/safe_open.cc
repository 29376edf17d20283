#include "common/safe_open.h"

#include "common/error.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int max_links = 40; // as many as the kernel follows in one path

// Where a path ends: an entry, there or not, of an open directory.
struct place {
    int dir;
    std::string name;
    int links;   // followed so far
    uid_t owner; // of the last directory, not root's, that held one of them; root where there was none
};

int close_failed(int fd)
{
    const int cause = errno;
    close_dir(fd);
    errno = cause;
    return -1;
}

int refuse(int fd, int error)
{
    errno = error;
    return close_failed(fd);
}

// Puts another directory into its place; false when there is none.
bool enter(place &at, int dir)
{
    if (dir < 0)
        return false;
    close_dir(at.dir);
    at.dir = dir;
    return true;
}

// The owner of a directory, or root when it can't be told.
uid_t owner_of(int dir)
{
    struct stat status;
    return fstatat(dir, "", &status, AT_EMPTY_PATH) == 0 ? status.st_uid : 0;
}

// What an entry opened with O_PATH leads to, when it is a link of root's. One of several names may have been given to
// it by anybody, anywhere.
bool read_link(int entry, place &at, std::string &target)
{
    struct stat status;
    char text[PATH_MAX];
    if (fstat(entry, &status) != 0)
        return false;
    if (status.st_uid != 0 || status.st_nlink != 1 || ++at.links > max_links) {
        errno = ELOOP;
        return false;
    }
    if (const uid_t owner = owner_of(at.dir); owner != 0)
        at.owner = owner;
    const ssize_t length = readlinkat(entry, "", text, sizeof text);
    target.assign(text, length < 0 ? 0 : static_cast<std::size_t>(length));
    return length > 0;
}

bool is_link(int entry)
{
    struct stat status;
    return fstat(entry, &status) == 0 && S_ISLNK(status.st_mode);
}

// Goes part by part down to the last one.
bool descend(place &at, std::string path)
{
    for (;;) {
        if (path.starts_with('/') && !enter(at, open("/", O_PATH | O_CLOEXEC)))
            return false;
        path.erase(0, path.find_first_not_of('/'));
        at.name = path.substr(0, path.find('/'));
        path.erase(0, path.find_first_not_of('/', at.name.size()));
        if (path.empty())
            return true;
        const int entry = openat(at.dir, at.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        if (entry < 0)
            return false;
        if (std::string target; !is_link(entry)) {
            enter(at, entry);
        } else if (read_link(entry, at, target)) {
            close(entry);
            path.insert(0, target + "/");
        } else {
            return close_failed(entry) == 0;
        }
    }
}

// Opens what the place holds, following it on where it is a link of root's.
int open_place(place &at, int flags, mode_t mode)
{
    for (;;) {
        if (at.name.empty())
            at.name = ".";
        const bool may_create = at.owner == 0 || owner_of(at.dir) == at.owner;
        const int fd = openat(at.dir, at.name.c_str(), (may_create ? flags : flags & ~O_CREAT) | O_NOFOLLOW, mode);
        if (fd >= 0 || (errno != ELOOP && errno != ENOTDIR))
            return fd;
        const int cause = errno;
        const int entry = openat(at.dir, at.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        if (entry < 0 || !is_link(entry))
            return refuse(entry, cause);
        std::string target;
        if (!read_link(entry, at, target))
            return close_failed(entry);
        close(entry);
        if (!descend(at, target))
            return -1;
    }
}

bool is_empty_dir(int fd)
{
    const int own = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *stream = own < 0 ? nullptr : fdopendir(own);
    if (!stream)
        return close_failed(own) == 0;
    int entries = 0;
    while (readdir(stream))
        ++entries;
    closedir(stream);
    return entries <= 2; // itself and the one above
}

// Whoever owns a directory can move root's link in it to where root did not mean it to be. So it may lead only to what
// is his, or stands in a directory of his, or to a new home that root has made for him.
bool is_within_rights(const place &at, int fd, const struct stat &status)
{
    return at.owner == 0 || status.st_uid == at.owner || owner_of(at.dir) == at.owner ||
           (S_ISDIR(status.st_mode) && status.st_uid == 0 && is_empty_dir(fd));
}

// Whether a file's only name is the one by which it was opened. The count alone does not tell: a second name that was
// removed after the file was opened by it is no longer counted. The kernel marks such an open file.
bool has_one_name(int fd, const struct stat &status)
{
    constexpr std::string_view mark = " (deleted)";
    char link[64];
    char path[PATH_MAX];
    format_text(link, "/proc/self/fd/%d", fd);
    const ssize_t length = status.st_nlink == 1 ? readlink(link, path, sizeof path) : -1;
    return length > 0 && !std::string_view(path, static_cast<std::size_t>(length)).ends_with(mark);
}

// 0 for a file that may be used, the error for one that may not.
int judge(const place &at, int fd)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return errno;
    if (!is_within_rights(at, fd, status))
        return ELOOP;
    const uid_t owner = owner_of(at.dir);
    if (owner == 0)
        return 0;
    if (S_ISFIFO(status.st_mode))
        return EPERM;
    return S_ISREG(status.st_mode) && status.st_uid != owner && !has_one_name(fd, status) ? EMLINK : 0;
}

int empty_file(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 ? ftruncate(fd, 0) : 0;
}

// The kernel's own way in one call where no link is met, part by part where one is.
int open_dir(const std::string &path)
{
    open_how how = {O_PATH | O_DIRECTORY | O_CLOEXEC, 0, RESOLVE_NO_SYMLINKS};
    const long fd = syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    if (fd >= 0 || (errno != ELOOP && errno != ENOSYS && errno != EPERM)) // EPERM: a filter that does not know the call
        return static_cast<int>(fd);
    place at = {openat(AT_FDCWD, ".", O_PATH | O_CLOEXEC), "", 0, 0};
    const int dir = at.dir >= 0 && descend(at, path) ? open_place(at, O_PATH | O_DIRECTORY | O_CLOEXEC, 0) : -1;
    const int refused = dir < 0 ? errno : judge(at, dir);
    close_dir(at.dir);
    return refused == 0 ? dir : refuse(dir, refused);
}

// Does something with an open file and closes it.
template <typename Change> int change_file(const char *path, int flags, Change change)
{
    const int former_errno = errno;
    const int fd = safe_open(path, O_RDONLY | flags);
    if (fd < 0)
        return -1;
    if (change(fd) != 0)
        return close_failed(fd);
    close(fd);
    errno = former_errno;
    return 0;
}

// Does something with an entry of the directory that holds it.
template <typename Change> int change_entry(const char *path, Change change)
{
    const int former_errno = errno;
    const char *name = nullptr;
    const int dir = safe_open_parent(path, name);
    if (dir == -1)
        return -1;
    if (change(dir, name) != 0)
        return close_failed(dir);
    close_dir(dir);
    errno = former_errno;
    return 0;
}

} // namespace

int safe_open_at(int dir_fd, const char *name, int flags, mode_t mode)
{
    const int former_errno = errno;
    const int checked_flags = (flags & ~O_TRUNC) | O_NONBLOCK | O_CLOEXEC;
    int fd = openat(dir_fd, name, checked_flags | O_NOFOLLOW, mode);
    int refused = fd < 0 ? errno : judge({dir_fd, "", 0, 0}, fd);
    if (fd < 0 && (refused == ELOOP || refused == ENOTDIR)) {
        place at = {openat(dir_fd, ".", O_PATH | O_CLOEXEC), name, 0, 0};
        fd = at.dir < 0 ? -1 : open_place(at, checked_flags, mode);
        refused = fd < 0 ? errno : judge(at, fd);
        close_dir(at.dir);
    }
    if (refused != 0)
        return refuse(fd, refused);
    if ((flags & O_TRUNC) != 0 && empty_file(fd) != 0)
        return close_failed(fd);
    errno = former_errno;
    return fd;
}

int safe_open_parent(const char *path, const char *&name)
{
    if (*path == '\0') {
        errno = ENOENT;
        return -1;
    }
    const char *slash = strrchr(path, '/');
    name = slash ? slash + 1 : path;
    if (*name == '\0')
        name = ".";
    if (!slash)
        return AT_FDCWD;
    const int former_errno = errno;
    const int dir = open_dir({path, static_cast<std::size_t>(slash - path) + 1});
    if (dir >= 0)
        errno = former_errno;
    return dir;
}

void close_dir(int dir_fd)
{
    if (dir_fd >= 0)
        close(dir_fd);
}

int safe_open(const char *path, int flags, mode_t mode)
{
    const char *name = nullptr;
    const int dir = safe_open_parent(path, name);
    if (dir == -1)
        return -1;
    const int fd = safe_open_at(dir, name, flags, mode);
    const int cause = errno;
    close_dir(dir);
    errno = cause;
    return fd;
}

int safe_mkdir(const char *path, mode_t mode)
{
    std::string entry = path; // which may end in slashes, as no other new entry may
    while (entry.size() > 1 && entry.ends_with('/'))
        entry.pop_back();
    return change_entry(entry.c_str(), [mode](int dir, const char *name) { return mkdirat(dir, name, mode); });
}

int safe_chown(const char *path, uid_t uid, gid_t gid)
{
    return change_file(path, 0, [uid, gid](int fd) { return fchown(fd, uid, gid); });
}

int safe_chmod(const char *path, mode_t mode)
{
    return change_file(path, 0, [mode](int fd) { return fchmod(fd, mode); });
}

int safe_chdir(const char *path)
{
    return change_file(path, O_DIRECTORY, [](int fd) { return fchdir(fd); });
}

int safe_unlink(const char *path)
{
    return change_entry(path, [](int dir, const char *name) { return unlinkat(dir, name, 0); });
}
