#include "common/safe_dir.h"

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
    bool is_plain; // it and all before it are root's alone, and no link of somebody else's led to it
};

bool fail(int error)
{
    errno = error;
    return false;
}

// Goes on to what was just opened; false when it was not.
bool enter(held_dir &at, int opened)
{
    owned_fd fd(opened);
    if (opened < 0 || fstat(opened, &at.status) != 0)
        return false;
    at.fd = std::move(fd);
    at.is_plain = at.is_plain && is_root_alone(at.status);
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
    held_dir entry{owned_fd(), {}, at.is_plain};
    std::string target;
    if (!enter(entry, openat(at.fd.get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC)))
        return false;
    const bool is_alone = is_root_alone(at.status);
    if (S_ISDIR(entry.status.st_mode)) {
        at = std::move(entry);
        return true;
    }
    if (!S_ISLNK(entry.status.st_mode))
        return fail(is_alone || is_usable(at.status, entry.status) ? ENOTDIR : EMLINK);
    if (!is_alone || entry.status.st_uid != 0) {
        at.is_plain = false;
        return enter(at, safe_follow({at.fd.get(), at.status}, name, entry.status.st_uid, dir_flags));
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
        if (ahead.starts_with('/') && !enter(at, open("/", dir_flags)))
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

// The directories that the last paths led to. Nobody but root can change where the path of a plain one leads, so it is
// left to the kernel. The others are held open; one whose path has come to lead elsewhere is walked to again.
struct known_dir {
    std::string path;
    held_dir dir;
    unsigned long used; // the greater, the later
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
    if (!known->dir.is_plain && (stat(path.c_str(), &now) != 0 || now.st_dev != known->dir.status.st_dev ||
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
    if (dir.is_plain)
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
    held_dir at{owned_fd(), {}, parent && parent->is_plain};
    int links = 0;
    if (parent) {
        const bool entered = enter(at, parent->is_plain ? open(bare.c_str(), dir_flags | O_NOFOLLOW)
                                                        : openat(parent->fd.get(), parts.name, dir_flags | O_NOFOLLOW));
        if (entered || errno != ENOTDIR)
            return entered ? remember(path, std::move(at)) : nullptr;
    }
    at.is_plain = path.starts_with('/');
    const bool begun = enter(at, open(at.is_plain ? "/" : ".", dir_flags));
    return begun && walk(at, path, links) ? remember(path, std::move(at)) : nullptr;
}

} // namespace

bool is_root_alone(const struct stat &dir)
{
    return dir.st_uid == 0 && (dir.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

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
    dir.fd = AT_FDCWD;
    if (parts.dir == "./")
        return stat(".", &dir.status) == 0;
    const held_dir *found = find_dir(parts.dir);
    if (!found)
        return false;
    if (found->is_plain)
        name = path;
    else
        dir.fd = found->fd.get();
    dir.status = found->status;
    errno = former_errno;
    return true;
}

bool safe_find_end(const safe_dir &dir, const char *name, int &links, safe_end &end)
{
    std::string target;
    held_dir at{};
    if (!read_link(dir.fd, name, links, target) || !enter(at, openat(dir.fd, split(name).dir.c_str(), dir_flags)))
        return false;
    const split_path parts = split(target.c_str());
    if (!walk(at, parts.dir, links))
        return false;
    end = {std::move(at.fd), at.status, parts.name};
    return true;
}

int safe_follow(const safe_dir &dir, const char *name, uid_t link_owner, int flags)
{
    const uid_t wanted = is_root_alone(dir.status) ? link_owner : dir.status.st_uid;
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
