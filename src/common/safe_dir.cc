#include "common/safe_dir.h"

#include "common/error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr int max_links = 40; // as many as the kernel follows in one path
constexpr int dir_flags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// A directory on the way.
struct held_dir {
    owned_fd fd;
    struct stat status;
    bool is_settled; // nobody but root can put another in its place
    bool is_alone;
    bool is_followed;
};

safe_dir view(const held_dir &held)
{
    return {held.fd.get(), held.status, held.is_alone, held.is_followed};
}

bool fail(int error)
{
    errno = error;
    return false;
}

bool is_root_only(const struct stat &dir)
{
    return dir.st_uid == 0 && (dir.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Goes on to what was just opened; false when it was not.
bool enter(held_dir &at, int opened, bool is_settled)
{
    owned_fd fd(opened);
    if (opened < 0 || fstat(opened, &at.status) != 0)
        return false;
    at.fd = std::move(fd);
    at.is_settled = is_settled;
    at.is_alone = is_settled && is_root_only(at.status);
    return true;
}

// Whether an entry of a directory is settled: where others may write, the sticky bit keeps them from root's entries.
bool is_settled_in(const held_dir &dir, const struct stat &entry)
{
    const bool is_sticky = dir.status.st_uid == 0 && (dir.status.st_mode & S_ISVTX) != 0 && entry.st_uid == 0;
    return dir.is_settled && (is_root_only(dir.status) || is_sticky);
}

bool walk(held_dir &at, std::string ahead, int &links);

// Begins at the root or at the current directory. Where that lies is looked at only when it may be root's alone.
bool begin(held_dir &at, bool is_absolute)
{
    if (is_absolute)
        return enter(at, open("/", dir_flags), true);
    text here;
    held_dir named{};
    int links = 0;
    if (!enter(at, open(".", dir_flags), false) || !is_root_only(at.status) || !getcwd(here.bytes, sizeof here.bytes))
        return at.fd.get() >= 0;
    const bool is_same = enter(named, open("/", dir_flags), true) && walk(named, here.bytes, links) &&
                         named.status.st_dev == at.status.st_dev && named.status.st_ino == at.status.st_ino;
    at.is_settled = at.is_alone = is_same && named.is_alone;
    return true;
}

bool read_link(int dir, const char *name, int &links, std::string &target)
{
    char text[PATH_MAX];
    if (++links > max_links)
        return fail(ELOOP);
    const ssize_t length = readlinkat(dir, name, text, sizeof text);
    target.assign(text, length < 0 ? 0 : static_cast<std::size_t>(length));
    return length >= 0;
}

// Goes into one entry of the directory. A link of root's is put in its place at the front of what is ahead.
bool step(held_dir &at, const char *name, std::string &ahead, int &links)
{
    held_dir entry{owned_fd(), {}, false, false, at.is_followed};
    std::string target;
    if (!enter(entry, openat(at.fd.get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC), false))
        return false;
    if (S_ISDIR(entry.status.st_mode)) {
        entry.is_settled = is_settled_in(at, entry.status);
        entry.is_alone = entry.is_settled && is_root_only(entry.status);
        at = std::move(entry);
        return true;
    }
    if (!S_ISLNK(entry.status.st_mode))
        return fail(at.is_alone || is_usable(at.status, entry.status) ? ENOTDIR : EMLINK);
    if (!at.is_alone || entry.status.st_uid != 0) {
        at.is_followed = true;
        return enter(at, safe_follow(view(at), name, entry.status.st_uid, dir_flags), false);
    }
    if (!read_link(entry.fd.get(), "", links, target))
        return false;
    ahead.insert(0, target + "/");
    return true;
}

// Goes into every part of a path.
bool walk(held_dir &at, std::string ahead, int &links)
{
    for (;;) {
        if (ahead.starts_with('/') && !enter(at, open("/", dir_flags), true))
            return false;
        ahead.erase(0, ahead.find_first_not_of('/'));
        if (ahead.empty())
            return true;
        const std::string name = ahead.substr(0, ahead.find('/'));
        ahead.erase(0, ahead.find_first_not_of('/', name.size()));
        if (name != "." && !step(at, name.c_str(), ahead, links))
            return false;
    }
}

// The part of a path up to its last slash, which stays, and what comes after it.
struct split_path {
    std::string dir;
    const char *name;
};

split_path split(const char *path)
{
    const std::string_view text = path;
    const std::size_t name = text.rfind('/') + 1; // 0 where there is no slash
    return {name == 0 ? "./" : std::string(text.substr(0, name)), name == text.size() ? "." : path + name};
}

// The directories that the last paths led to. Nobody but root can change where a path leads that is root's alone, so it
// is left to the kernel. The others are held open; one whose path has come to lead elsewhere is walked to again.
struct known_dir {
    std::string path;
    held_dir dir;
    unsigned long used; // the greater, the later
};

std::array<known_dir, 12> known_dirs;
unsigned long uses = 0;

bool is_left_to_kernel(const std::string &path, const held_dir &dir)
{
    return dir.is_alone && path.starts_with('/');
}

const held_dir *find_known(const std::string &path)
{
    const auto known =
        std::find_if(known_dirs.begin(), known_dirs.end(), [&](const known_dir &dir) { return dir.path == path; });
    if (known == known_dirs.end())
        return nullptr;
    struct stat now = known->dir.status;
    if (!is_left_to_kernel(known->path, known->dir) &&
        (stat(path.c_str(), &now) != 0 || now.st_dev != known->dir.status.st_dev ||
         now.st_ino != known->dir.status.st_ino)) {
        *known = {};
        return nullptr;
    }
    known->dir.status = now;
    known->used = ++uses;
    return &known->dir;
}

const held_dir *remember(const std::string &path, held_dir dir)
{
    const auto oldest = std::min_element(known_dirs.begin(), known_dirs.end(),
                                         [](const auto &one, const auto &other) { return one.used < other.used; });
    if (is_left_to_kernel(path, dir))
        dir.fd = owned_fd();
    *oldest = {path, std::move(dir), ++uses};
    return &oldest->dir;
}

const held_dir *find_dir(const std::string &path)
{
    if (const held_dir *known = find_known(path))
        return known;
    // Most new directories lie, under no link, in one that is known.
    const std::string bare = path.substr(0, path.find_last_not_of('/') + 1);
    const split_path parts = split(bare.c_str());
    const held_dir *parent = bare.empty() ? nullptr : find_known(parts.dir);
    held_dir at{owned_fd(), {}, false, false, parent && parent->is_followed};
    int links = 0;
    if (parent) {
        const bool is_held = parent->fd.get() >= 0;
        const bool entered = enter(
            at,
            openat(is_held ? parent->fd.get() : AT_FDCWD, is_held ? parts.name : bare.c_str(), dir_flags | O_NOFOLLOW),
            false);
        at.is_settled = entered && is_settled_in(*parent, at.status);
        at.is_alone = at.is_settled && is_root_only(at.status);
        if (entered || errno != ENOTDIR)
            return entered ? remember(path, std::move(at)) : nullptr;
    }
    at.is_followed = false;
    return begin(at, path.starts_with('/')) && walk(at, path, links) ? remember(path, std::move(at)) : nullptr;
}

} // namespace

bool is_usable(const struct stat &dir, const struct stat &entry)
{
    return S_ISDIR(entry.st_mode) || (S_ISREG(entry.st_mode) && entry.st_uid == dir.st_uid);
}

bool safe_find_dir(const char *path, safe_dir &dir, const char *&name)
{
    const int former_errno = errno;
    if (*path == '\0')
        return fail(ENOENT);
    const split_path parts = split(path);
    name = parts.name;
    dir = {AT_FDCWD, {}, false, false};
    if (parts.dir == "./" && (stat(".", &dir.status) != 0 || !is_root_only(dir.status)))
        return dir.status.st_mode != 0;
    const held_dir *found = find_dir(parts.dir);
    if (!found)
        return false;
    dir = view(*found);
    if (is_left_to_kernel(parts.dir, *found)) {
        dir.fd = AT_FDCWD;
        name = path;
    }
    errno = former_errno;
    return true;
}

bool safe_find_end(const safe_dir &dir, const char *name, int &links, safe_end &end)
{
    std::string target;
    held_dir at{owned_fd(), {}, false, false, dir.is_followed};
    if (!read_link(dir.fd, name, links, target) ||
        !enter(at, openat(dir.fd, split(name).dir.c_str(), dir_flags), dir.is_alone))
        return false;
    const split_path parts = split(target.c_str());
    if (!walk(at, parts.dir, links))
        return false;
    end.dir = view(at);
    end.fd = std::move(at.fd);
    end.name = parts.name;
    return true;
}

int safe_follow(const safe_dir &dir, const char *name, uid_t link_owner, int flags)
{
    const uid_t wanted = dir.is_alone ? link_owner : dir.status.st_uid;
    errno = ELOOP;
    if (wanted == 0)
        return -1;
    owned_fd end(openat(dir.fd, name, (flags & ~O_NOFOLLOW) | O_DIRECTORY | O_CLOEXEC));
    if (end.get() < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == EIO))
        return -1;
    struct stat found;
    if (end.get() >= 0 && fstat(end.get(), &found) == 0 && found.st_uid == wanted)
        return end.release();
    errno = ELOOP;
    return -1;
}
