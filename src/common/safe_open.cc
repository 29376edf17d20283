#include "common/safe_open.h"

#include "common/owned.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int max_tries = 20; // at a place where somebody keeps changing what stands there

// How something is to be opened.
struct open_request {
    int flags;
    mode_t mode;
    bool is_lock;
    int links; // followed so far
};

int fail(int error)
{
    errno = error;
    return -1;
}

// Judges what was opened in a directory that is not root's alone, and empties it if that is wanted. False for what may
// not be used.
bool may_use(const safe_dir &dir, int fd, const open_request &wanted, safe_opened &opened)
{
    if (fstat(fd, &opened.status) != 0)
        return false;
    opened.keeps_owner = S_ISREG(opened.status.st_mode);
    if (wanted.is_lock && opened.keeps_owner)
        return true;
    if (!is_usable(dir.status, opened.status))
        return fail(EMLINK) == 0;
    return (wanted.flags & O_TRUNC) == 0 || opened.status.st_size == 0 || ftruncate(fd, 0) == 0;
}

// Makes a file where nothing stands; one that takes the place of a regular file gets that one's group and mode.
int make_entry(const safe_dir &dir, const char *name, const open_request &wanted, const struct stat &former)
{
    // In a directory of root's whoever left the former file chose its mode for a file that is root's now.
    const bool replaces = S_ISREG(former.st_mode) && dir.status.st_uid != 0;
    const mode_t kept_bits = former.st_gid == dir.status.st_gid ? 07777 : 01777; // nobody gets another's group by it
    owned_fd made(openat(dir.fd, name, wanted.flags | O_CREAT | O_EXCL, replaces ? 0600 : wanted.mode));
    if (made.get() < 0 || (fchown(made.get(), dir.status.st_uid, replaces ? former.st_gid : dir.status.st_gid) == 0 &&
                           (!replaces || fchmod(made.get(), former.st_mode & kept_bits) == 0)))
        return made.release();
    const int cause = errno;
    unlinkat(dir.fd, name, 0);
    return fail(cause);
}

int open_entry(const safe_dir &dir, const char *name, open_request &wanted, safe_opened &opened);

int open_link_end(const safe_dir &dir, const char *name, open_request &wanted, safe_opened &opened)
{
    safe_end end;
    if (!safe_find_end(dir, name, wanted.links, end))
        return -1;
    const int fd = open_entry(end.dir, end.name.c_str(), wanted, opened);
    opened.through_link = true;
    return fd;
}

int open_entry(const safe_dir &dir, const char *name, open_request &wanted, safe_opened &opened)
{
    const bool is_alone = dir.is_alone;
    const bool wants_dir = (wanted.flags & O_DIRECTORY) != 0;
    const int flags = is_alone ? wanted.flags : wanted.flags & ~(O_CREAT | O_TRUNC);
    struct stat entry = {};
    for (int tries = 0; tries < max_tries; ++tries) {
        owned_fd fd(openat(dir.fd, name, flags, wanted.mode));
        if (fd.get() >= 0 && (is_alone || wants_dir || may_use(dir, fd.get(), wanted, opened)))
            return fd.release();
        const int cause = errno;
        if (fd.get() < 0 && cause == ENOENT && !is_alone && (wanted.flags & O_CREAT) != 0) {
            const int made = make_entry(dir, name, wanted, entry);
            if (made >= 0 || errno != EEXIST)
                return made;
            continue;
        }
        if (cause == ENOENT || fstatat(dir.fd, name, &entry, AT_SYMLINK_NOFOLLOW) != 0)
            return fail(cause);
        const bool is_link = S_ISLNK(entry.st_mode);
        if (is_link && is_alone && entry.st_uid == 0)
            return open_link_end(dir, name, wanted, opened);
        if (is_link && wants_dir) {
            opened.is_followed = true;
            return safe_follow(dir, name, entry.st_uid, wanted.flags);
        }
        const bool is_leased = cause == EAGAIN; // which whoever owns the file may keep up for ever
        if (!is_link && (is_alone || (is_usable(dir.status, entry) && !is_leased)))
            return fail(cause);
        if ((wanted.flags & O_TRUNC) == 0 || wanted.is_lock)
            return fail(is_link ? ELOOP : EMLINK);
        if (unlinkat(dir.fd, name, 0) != 0 && errno != ENOENT)
            return -1;
    }
    return fail(ELOOP);
}

int open_at(const safe_dir &dir, const char *name, int flags, mode_t mode, bool is_lock, safe_opened &opened)
{
    const int former_errno = errno;
    open_request wanted = {flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode, is_lock, 0};
    opened = {};
    const int fd = open_entry(dir, name, wanted, opened);
    if (fd >= 0)
        errno = former_errno;
    return fd;
}

int open_path(const char *path, int flags, mode_t mode, bool is_lock, safe_opened &opened)
{
    safe_dir dir{};
    const char *name = nullptr;
    return safe_find_dir(path, dir, name) ? open_at(dir, name, flags, mode, is_lock, opened) : -1;
}

// Opens what is to be given an owner or a mode.
int open_to_give(const safe_dir &dir, const char *name, safe_kind kind, safe_opened &opened)
{
    const int former_errno = errno;
    if (kind == safe_kind::directory) {
        const int fd = open_at(dir, name, O_RDONLY | O_DIRECTORY, 0, false, opened);
        if (fd >= 0 || errno != ENOTDIR)
            return fd;
        errno = former_errno;
    }
    return open_at(dir, name, O_RDONLY, 0, false, opened);
}

int open_to_give(const char *path, safe_kind kind, safe_opened &opened)
{
    safe_dir dir{};
    const char *name = nullptr;
    return safe_find_dir(path, dir, name) ? open_to_give(dir, name, kind, opened) : -1;
}

// Whoever made a link can have it lead to where a step is bound to fail, so that failure says nothing of the system.
safe_step refused_below_link(bool is_followed, safe_step failed)
{
    if (is_followed)
        errno = ELOOP;
    return failed;
}

// A directory that is made may be named with slashes at the end, as no other new entry may.
std::string without_slashes(std::string path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

int give_owner(int fd, const safe_opened &opened, uid_t uid, gid_t gid)
{
    return fchown(fd, opened.keeps_owner ? static_cast<uid_t>(-1) : uid, gid);
}

} // namespace

bool is_refusal(int error)
{
    return error == ELOOP || error == EMLINK;
}

int safe_open_at(const safe_dir &dir, const char *name, int flags, mode_t mode, safe_opened &opened)
{
    owned_fd fd(open_at(dir, name, flags, mode, false, opened));
    const bool known = fd.get() < 0 || opened.status.st_mode != 0;
    return known || fstat(fd.get(), &opened.status) == 0 ? fd.release() : -1;
}

int safe_open(const char *path, int flags, mode_t mode)
{
    safe_opened opened;
    return open_path(path, flags, mode, false, opened);
}

int safe_open_lock(const char *path, int flags, mode_t mode)
{
    safe_opened opened;
    return open_path(path, flags, mode, true, opened);
}

int safe_mkdir(const char *path, mode_t mode)
{
    const std::string entry = without_slashes(path);
    safe_dir dir{};
    const char *name = nullptr;
    return safe_find_dir(entry.c_str(), dir, name) ? mkdirat(dir.fd, name, mode) : -1;
}

safe_step safe_make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    const std::string entry = without_slashes(path);
    safe_dir dir{};
    const char *name = nullptr;
    if (!safe_find_dir(entry.c_str(), dir, name) || (mkdirat(dir.fd, name, mode) != 0 && errno != EEXIST))
        return refused_below_link(dir.is_followed, safe_step::mkdir);
    safe_opened opened;
    const owned_fd fd(open_to_give(dir, name, safe_kind::directory, opened));
    if (fd.get() >= 0 && give_owner(fd.get(), opened, uid, gid) == 0)
        return safe_step::none;
    return refused_below_link(dir.is_followed || opened.is_followed, safe_step::chown);
}

int safe_chown(const char *path, safe_kind kind, uid_t uid, gid_t gid)
{
    safe_opened opened;
    const owned_fd fd(open_to_give(path, kind, opened));
    return fd.get() < 0 ? -1 : give_owner(fd.get(), opened, uid, gid);
}

int safe_chmod(const char *path, safe_kind kind, mode_t mode)
{
    safe_opened opened;
    const owned_fd fd(open_to_give(path, kind, opened));
    return fd.get() < 0 ? -1 : fchmod(fd.get(), mode);
}

safe_step safe_give(const char *path, safe_kind kind, uid_t uid, gid_t gid, mode_t mode)
{
    safe_opened opened;
    const owned_fd fd(open_to_give(path, kind, opened));
    if (fd.get() < 0 || give_owner(fd.get(), opened, uid, gid) != 0)
        return safe_step::chown;
    return fchmod(fd.get(), mode) == 0 ? safe_step::none : safe_step::chmod;
}

int safe_chdir(const char *path)
{
    const owned_fd fd(safe_open(path, O_PATH | O_DIRECTORY));
    return fd.get() < 0 ? -1 : fchdir(fd.get());
}

int safe_unlink(const char *path)
{
    safe_dir dir{};
    const char *name = nullptr;
    return safe_find_dir(path, dir, name) ? unlinkat(dir.fd, name, 0) : -1;
}
