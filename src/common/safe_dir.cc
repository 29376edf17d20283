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

bool fail(int error)
{
    errno = error;
    return false;
}

bool is_root_only(const struct stat &dir)
{
    return dir.st_uid == 0 && (dir.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void set_settled(safe_dir &dir, bool is_settled)
{
    dir.is_settled = is_settled;
    dir.is_alone = is_settled && is_root_only(dir.status);
}

// Goes on to what was just opened; false when it was not.
bool move_to(held_dir &at, int opened, bool is_settled)
{
    owned_fd owner(opened);
    if (opened < 0 || fstat(opened, &at.status) != 0)
        return false;
    at.fd = opened;
    at.owner = std::move(owner);
    set_settled(at, is_settled);
    return true;
}

// Whether an entry of a directory is settled: where others may write, the sticky bit keeps them from root's entries.
bool is_settled_in(const safe_dir &dir, const struct stat &entry)
{
    const bool is_sticky = dir.status.st_uid == 0 && (dir.status.st_mode & S_ISVTX) != 0 && entry.st_uid == 0;
    return dir.is_settled && (is_root_only(dir.status) || is_sticky);
}

bool walk_path(held_dir &at, std::string ahead, int &links);

// Begins at the root or at the current directory. Where that lies is looked at only when it may be root's alone.
bool begin_walk(held_dir &at, bool is_absolute)
{
    if (is_absolute)
        return move_to(at, open("/", dir_flags), true);
    text here;
    held_dir named;
    int links = 0;
    if (!move_to(at, open(".", dir_flags), false) || !is_root_only(at.status) || !getcwd(here.bytes, sizeof here.bytes))
        return at.fd >= 0;
    const bool is_same = move_to(named, open("/", dir_flags), true) && walk_path(named, here.bytes, links) &&
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
bool enter_part(held_dir &at, const char *name, std::string &ahead, int &links)
{
    held_dir entry;
    std::string target;
    entry.is_followed = at.is_followed;
    if (!move_to(entry, openat(at.fd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC), false))
        return false;
    if (S_ISDIR(entry.status.st_mode)) {
        set_settled(entry, is_settled_in(at, entry.status));
        at = std::move(entry);
        return true;
    }
    if (!S_ISLNK(entry.status.st_mode))
        return fail(at.is_alone || is_usable(at.status, entry.status) ? ENOTDIR : EMLINK);
    if (!at.is_alone || entry.status.st_uid != 0) {
        at.is_followed = true;
        return move_to(at, safe_follow(at, name, entry.status.st_uid, dir_flags), false);
    }
    if (!read_link(entry.fd, "", links, target))
        return false;
    ahead.insert(0, target + "/");
    return true;
}

// Goes into every part of a path.
bool walk_path(held_dir &at, std::string ahead, int &links)
{
    for (;;) {
        if (ahead.starts_with('/') && !move_to(at, open("/", dir_flags), true))
            return false;
        ahead.erase(0, ahead.find_first_not_of('/'));
        if (ahead.empty())
            return true;
        const std::string name = ahead.substr(0, ahead.find('/'));
        ahead.erase(0, ahead.find_first_not_of('/', name.size()));
        if (name != "." && !enter_part(at, name.c_str(), ahead, links))
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
    held_dir dir;           // AT_FDCWD where its path is left to the kernel
    unsigned long used = 0; // the greater, the later
};

std::array<known_dir, 12> known_dirs;
unsigned long uses = 0;

const held_dir *find_known(const std::string &path)
{
    const auto known =
        std::find_if(known_dirs.begin(), known_dirs.end(), [&](const known_dir &dir) { return dir.path == path; });
    if (known == known_dirs.end())
        return nullptr;
    struct stat now = known->dir.status;
    if (known->dir.fd != AT_FDCWD && (stat(path.c_str(), &now) != 0 || now.st_dev != known->dir.status.st_dev ||
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
    if (dir.is_alone && path.starts_with('/')) {
        dir.owner = {};
        dir.fd = AT_FDCWD;
    }
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
    held_dir at;
    if (parent) {
        const char *name = parent->fd == AT_FDCWD ? bare.c_str() : parts.name;
        if (move_to(at, openat(parent->fd, name, dir_flags | O_NOFOLLOW), false)) {
            at.is_followed = parent->is_followed;
            set_settled(at, is_settled_in(*parent, at.status));
            return remember(path, std::move(at));
        }
        if (errno != ENOTDIR)
            return nullptr;
    }
    int links = 0;
    return begin_walk(at, path.starts_with('/')) && walk_path(at, path, links) ? remember(path, std::move(at))
                                                                               : nullptr;
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
    dir = {AT_FDCWD};
    if (parts.dir == "./" && (stat(".", &dir.status) != 0 || !is_root_only(dir.status)))
        return dir.status.st_mode != 0;
    const held_dir *found = find_dir(parts.dir);
    if (!found)
        return false;
    dir = *found;
    if (dir.fd == AT_FDCWD)
        name = path;
    errno = former_errno;
    return true;
}

bool safe_find_end(const safe_dir &dir, const char *name, int &links, safe_end &end)
{
    std::string target;
    end.dir.is_followed = dir.is_followed;
    if (!read_link(dir.fd, name, links, target) ||
        !move_to(end.dir, openat(dir.fd, split(name).dir.c_str(), dir_flags), dir.is_alone))
        return false;
    const split_path parts = split(target.c_str());
    end.name = parts.name;
    return walk_path(end.dir, parts.dir, links);
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
