#include "control/changes.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "common/safe_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using owned_dir = std::unique_ptr<DIR, releaser<closedir>>;

// A layer on its way through.
struct walk {
    changes &found;
    std::size_t layer;
    std::size_t name_at;
    const std::set<std::string> &passed_over;
};

bool same_attributes(const struct stat &one, const struct stat &other)
{
    return one.st_uid == other.st_uid && one.st_gid == other.st_gid && (one.st_mode & 07777) == (other.st_mode & 07777);
}

bool is_whiteout(const struct stat &status)
{
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(0, 0);
}

bool is_opaque(int dir)
{
    char value = 0;
    return fgetxattr(dir, "trusted.overlay.opaque", &value, 1) == 1 && value == 'y';
}

std::set<std::string> all_lists()
{
    std::set<std::string> paths;
    for (int number = 0; number < list_count; ++number) {
        const std::string path = list_path(static_cast<list_number>(number));
        paths.insert(dir_of(path) + "/" + name_of(path));
        paths.insert(real_path(path));
    }
    return paths;
}

// The bytes of an open regular file.
std::optional<std::string> bytes_of(int fd, const struct stat &status)
{
    content text{};
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    if (!read_rest(fd, text, static_cast<std::size_t>(status.st_size)))
        return std::nullopt;
    return std::string(view(text));
}

// What became of one path, if anything.
std::optional<kind> judge(const walk &at, const std::string &path, const struct stat &after, const struct stat &before)
{
    const bool existed = before.st_mode != 0;
    const bool was_dir = S_ISDIR(before.st_mode);
    if (is_whiteout(after)) {
        if (!existed || (path.ends_with(".tmp") && !was_dir && !is_below_maildir(path)))
            return std::nullopt; // a leftover of an edit that was cut off
        return was_dir || is_below_maildir(path) ? kind::loss : kind::removal;
    }
    if (S_ISDIR(after.st_mode) && !existed)
        return kind::new_directory;
    if (S_ISDIR(after.st_mode) != was_dir && existed)
        return kind::loss;
    if (was_dir)
        return same_attributes(after, before) ? std::nullopt : std::optional(kind::attributes);
    if (!S_ISREG(after.st_mode) || is_below_maildir(path))
        return kind::loss;
    if (!S_ISREG(before.st_mode))
        return kind::new_file;
    const change now = {kind::content, path, at.layer, at.name_at, before, after};
    if (after.st_size != before.st_size || new_bytes(at.found, now) != old_bytes(now))
        return kind::content;
    return same_attributes(after, before) ? std::nullopt : std::optional(kind::attributes);
}

bool walk_dir(const walk &at, const std::string &path, int fd);

bool walk_entry(const walk &at, const std::string &path, int dir, const char *name)
{
    struct stat after = {};
    struct stat before = {};
    if (fstatat(dir, name, &after, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    // A directory that root's link stands for is a place of its own.
    if (lstat(path.c_str(), &before) != 0)
        before = {};
    if (at.passed_over.contains(path))
        return true;
    std::optional<kind> what = judge(at, path, after, before);
    owned_fd entered;
    if (S_ISDIR(after.st_mode)) {
        entered = owned_fd(openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (entered.get() < 0)
            return false;
        if (S_ISDIR(before.st_mode) && is_opaque(entered.get()))
            what = kind::loss; // it was removed, with what was in it, and made again
    }
    if (what)
        at.found.entries.push_back({*what, path, at.layer, at.name_at, before, after});
    return entered.get() < 0 || walk_dir(at, path, entered.release());
}

bool walk_dir(const walk &at, const std::string &path, int fd)
{
    owned_fd held(fd);
    const owned_dir dir(fdopendir(fd));
    if (!dir)
        return false;
    [[maybe_unused]] const int stream_has_it = held.release();
    errno = 0;
    while (const struct dirent *entry = readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && !walk_entry(at, path + "/" + entry->d_name, fd, entry->d_name))
            return false;
        errno = 0;
    }
    return errno == 0;
}

enum class taking { none, done, failed };

// Takes a list's file from a directory of this layer or tree, if there is one.
taking take_list(int dir, const std::string &name, list_state &list)
{
    struct stat after = {};
    if (fstatat(dir, name.c_str(), &after, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? taking::none : taking::failed;
    list.after = file_bytes_at(dir, name.c_str());
    list.status_after = after;
    return list.after && S_ISREG(after.st_mode) ? taking::done : taking::failed;
}

// The same from the layer of the list's directory.
taking take_list(const stage &made, const changes &found, const std::string &path, list_state &list)
{
    for (std::size_t layer = 0; layer < made.where.covered.size(); ++layer) {
        if (made.where.covered[layer].named != dir_of(path))
            continue;
        if (const taking end = take_list(found.layers[layer].get(), name_of(path), list); end != taking::none)
            return end;
    }
    return taking::none;
}

// The list's file as the run left it, in its place or where root's link there leads; else as it was. False when what
// the run left cannot be read: it must not pass for an empty list.
bool read_list(const stage &made, changes &found, list_number number)
{
    list_state &list = found.lists[number];
    list.after = list.before;
    list.status_after = list.status_before;
    const std::string path = list_path(number);
    taking end = take_list(made, found, path, list);
    if (end == taking::none)
        end = take_list(made, found, real_path(path), list);
    return end != taking::failed;
}

void look_at_top(const stage &made, changes &found, std::size_t layer)
{
    const std::string &path = made.where.covered[layer].named;
    struct stat before = {};
    struct stat after = {};
    if (stat(path.c_str(), &before) == 0 && fstat(found.layers[layer].get(), &after) == 0 &&
        !same_attributes(before, after))
        found.entries.push_back({kind::attributes, path, layer, path.size(), before, after});
}

} // namespace

void note_lists(changes &found)
{
    clock_gettime(CLOCK_REALTIME_COARSE, &found.since);
    for (int number = 0; number < list_count; ++number) {
        list_state &list = found.lists[number];
        const std::string path = list_path(static_cast<list_number>(number));
        list.status_before = {};
        list.before.reset();
        if (stat(path.c_str(), &list.status_before) == 0)
            list.before = file_bytes_at(AT_FDCWD, path.c_str());
    }
}

bool find_changes(const stage &made, changes &found)
{
    const std::size_t count = made.where.covered.size();
    const std::set<std::string> lists = all_lists();
    found.layers.clear();
    found.entries.clear();
    for (std::size_t layer = 0; layer < count; ++layer)
        found.layers.push_back(open_layer(made, layer));
    for (int number = 0; number < list_count; ++number)
        if (!read_list(made, found, static_cast<list_number>(number)))
            return false;
    for (std::size_t layer = 0; layer < count; ++layer) {
        const place &at = made.where.covered[layer];
        if (!at.is_shown)
            continue;
        look_at_top(made, found, layer);
        const int fd = openat(found.layers[layer].get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || !walk_dir({found, layer, at.named.size() + 1, lists}, at.named, fd))
            return false;
    }
    std::sort(found.entries.begin(), found.entries.end(),
              [](const change &one, const change &other) { return one.path < other.path; });
    return true;
}

bool find_differences(owned_fd tree, changes &found)
{
    const std::set<std::string> lists = all_lists();
    found.layers.clear();
    found.entries.clear();
    found.layers.push_back(std::move(tree));
    const int root = found.layers[0].get();
    bool has_list = false;
    for (int number = 0; number < list_count; ++number) {
        list_state &list = found.lists[number];
        list.after = list.before;
        list.status_after = list.status_before;
        const std::string path = list_path(static_cast<list_number>(number));
        const std::string real = real_path(path);
        const std::string dir = real_path(dir_of(path));
        // It may be gone, and its directory with it.
        const std::string kept = !real.empty() ? real : (dir.empty() ? dir_of(path) : dir) + "/" + name_of(path);
        const taking end = take_list(root, kept.substr(1), list);
        if (end == taking::failed)
            return false;
        has_list = has_list || end == taking::done;
    }
    if (!has_list) {
        errno = ENOENT;
        return false;
    }
    const int fd = openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || !walk_dir({found, 0, 1, lists}, "", fd))
        return false;
    const std::string top = mailnames_dir() + "/";
    std::erase_if(found.entries, [&](const change &entry) {
        struct stat dir = {};
        return !S_ISREG(entry.after.st_mode) || entry.what == kind::loss || !entry.path.starts_with(top) ||
               stat(dir_of(entry.path).c_str(), &dir) != 0;
    });
    return true;
}

std::optional<std::string> file_bytes_at(int dir, const char *name)
{
    const owned_fd file(openat(dir, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
        return std::nullopt;
    return bytes_of(file.get(), status);
}

// Whoever owns a directory on the way may have put a link to any file of the system there since it was looked at.
std::optional<std::string> old_bytes(const change &of)
{
    safe_dir dir{};
    const char *name = nullptr;
    struct stat now = {};
    if (!safe_find_dir(of.path.c_str(), dir, name))
        return std::nullopt;
    const owned_fd file(openat(dir.fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0 || fstat(file.get(), &now) != 0 || !is_same_file(now, of.before))
        return std::nullopt;
    return bytes_of(file.get(), now);
}

std::optional<std::string> new_bytes(const changes &found, const change &of)
{
    return file_bytes_at(found.layers[of.layer].get(), of.path.c_str() + of.name_at);
}

bool is_list_changed(const list_state &list)
{
    return list.before != list.after || (list.after && !same_attributes(list.status_before, list.status_after));
}

bool is_same_file(const struct stat &one, const struct stat &other)
{
    return one.st_mode == other.st_mode && one.st_uid == other.st_uid && one.st_gid == other.st_gid &&
           one.st_size == other.st_size && one.st_ino == other.st_ino && one.st_dev == other.st_dev &&
           one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec &&
           one.st_ctim.tv_sec == other.st_ctim.tv_sec && one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}
