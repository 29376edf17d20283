#include "control/obstacles.h"

#include "common/conf.h"
#include "common/file_lock.h"
#include "qmail/layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr std::size_t mailbox_inodes = 8;
constexpr std::size_t mailbox_locks = 2;

std::string lock_dir()
{
    return std::string(PRODUCT_ROOT_D) + "/var/lock/files";
}

// What is wanted of one file system.
struct need {
    std::string path; // something on it
    std::uint64_t bytes;
    std::uint64_t inodes;
    std::uint64_t largest; // of the copies that take a file's place: they come one after the other
};
using needs = std::map<dev_t, need>;

void add_need(needs &all, const std::string &path, std::uint64_t bytes, std::uint64_t inodes, bool is_copy = false)
{
    const std::string there = existing(path);
    struct stat status = {};
    if (stat(there.c_str(), &status) != 0)
        return;
    need &wanted = all.try_emplace(status.st_dev, need{there, 0, 0, 0}).first->second;
    const auto block = static_cast<std::uint64_t>(status.st_blksize);
    const std::uint64_t whole = (bytes + block - 1) / block * block;
    if (is_copy)
        wanted.largest = std::max(wanted.largest, whole);
    wanted.bytes += is_copy ? 0 : whole;
    wanted.inodes += inodes;
}

std::vector<std::string> lacking(const needs &all)
{
    std::vector<std::string> causes;
    for (const auto &[device, wanted] : all) {
        struct statvfs now = {};
        if (statvfs(wanted.path.c_str(), &now) != 0)
            continue;
        const std::uint64_t bytes = wanted.bytes + wanted.largest;
        const std::uint64_t inodes = wanted.inodes + (wanted.largest > 0 ? 1 : 0);
        const std::uint64_t free_bytes = now.f_bfree * now.f_frsize;
        if (free_bytes < bytes)
            causes.push_back("no room at " + wanted.path + ": " + std::to_string(bytes) + " bytes to be written, " +
                             std::to_string(free_bytes) + " free: make room");
        if (now.f_files != 0 && now.f_ffree < inodes)
            causes.push_back("no room at " + wanted.path + ": " + std::to_string(inodes) + " files to be made, " +
                             std::to_string(now.f_ffree) + " free: make room");
    }
    return causes;
}

bool must_not_change(const std::string &path)
{
    struct statx status = {};
    constexpr auto kept = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) == 0 &&
           (status.stx_attributes & kept) != 0;
}

void add_obstacle(std::vector<std::string> &causes, const std::string &path, const std::string &obstacle)
{
    if (!obstacle.empty())
        causes.push_back(path + ": " + obstacle);
}

// Of a directory.
void add_obstacle_once(std::vector<std::string> &causes, std::set<std::string> &known, const std::string &path)
{
    if (known.insert(path).second)
        add_obstacle(causes, path, obstacle_at(path, true));
}

void find_obstacles_of(const change &entry, std::vector<std::string> &causes, std::set<std::string> &known, needs &all)
{
    const std::string dir = existing(dir_of(entry.path));
    const bool is_new = entry.what == kind::new_directory || entry.what == kind::new_file;
    const bool was_dir = S_ISDIR(entry.before.st_mode);
    add_obstacle_once(causes, known, was_dir ? entry.path : dir);
    if (entry.before.st_mode != 0 && !was_dir && must_not_change(entry.path))
        causes.push_back(entry.path + ": it must not be changed: take the attribute off with chattr -i or -a");
    const auto size = static_cast<std::uint64_t>(std::max<off_t>(entry.after.st_size, 1));
    if (is_new || entry.what == kind::content)
        add_need(all, dir, size, is_new ? 1 : 0, !is_new);
    if (S_ISDIR(entry.after.st_mode))
        return;
    struct stat copy = {};
    if (lstat((entry.path + ".tmp").c_str(), &copy) == 0 && S_ISDIR(copy.st_mode))
        causes.push_back(entry.path + ".tmp: it is in the way: move it away");
    add_obstacle_once(causes, known, lock_dir());
    if (access((lock_dir() + "/" + lock_file_name(entry.path.c_str())).c_str(), F_OK) != 0)
        add_need(all, lock_dir(), 0, 1);
}

} // namespace

std::string obstacle_at(const std::string &path, bool is_directory)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        return std::string(strerror(errno)) + ": restore it";
    if (is_directory && !S_ISDIR(status.st_mode))
        return "it is no directory: restore it";
    if (must_not_change(path))
        return "it must not be changed: take the attribute off with chattr -i or -a";
    if (access(path.c_str(), W_OK) != 0)
        return std::string(strerror(errno)) + ": make it writable";
    return "";
}

std::string obstacle_at_list(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        return errno == ENOENT ? "" : strerror(errno);
    const bool is_link = S_ISLNK(status.st_mode);
    if (is_link && (status.st_uid != 0 || stat(path.c_str(), &status) != 0))
        return "it is a link, but not root's to a file: put a file in its place";
    if (!S_ISREG(status.st_mode))
        return "it is no regular file: put one in its place";
    const std::string real = real_path(path);
    const std::string obstacle = obstacle_at(real, false);
    return obstacle.empty() && is_link ? obstacle_at(dir_of(real), true) : obstacle;
}

bool has_room_for(std::size_t mailboxes, std::string &cause)
{
    needs all;
    off_t largest = 0;
    for (int number = 0; number < list_count; ++number) {
        struct stat status = {};
        if (stat(list_path(static_cast<list_number>(number)).c_str(), &status) == 0)
            largest = std::max(largest, status.st_size);
    }
    for (const char *below : {"/control", "/users"})
        add_need(all, qmail_path(below).c_str(), 2 * static_cast<std::uint64_t>(largest), list_count);
    struct stat status = {};
    const auto block = stat(existing(QMAIL_MAILNAMES_D).c_str(), &status) == 0 ? status.st_blksize : 4096;
    add_need(all, QMAIL_MAILNAMES_D, mailboxes * mailbox_inodes * static_cast<std::uint64_t>(block),
             mailboxes * mailbox_inodes);
    add_need(all, lock_dir(), 0, mailboxes * mailbox_locks + list_count);
    const std::vector<std::string> causes = lacking(all);
    if (!causes.empty())
        cause = causes.front();
    return causes.empty();
}

std::vector<std::string> find_obstacles(const changes &found)
{
    std::vector<std::string> causes;
    std::set<std::string> known;
    needs all;
    for (int number = 0; number < list_count; ++number) {
        const list_state &list = found.lists[number];
        const std::string path = list_path(static_cast<list_number>(number));
        if (!is_list_changed(list))
            continue;
        add_obstacle(causes, path, obstacle_at_list(path));
        add_obstacle_once(causes, known, dir_of(path));
        add_obstacle_once(causes, known, lock_dir());
        const std::string real = real_path(path);
        add_need(all, dir_of(real.empty() ? path : real), list.after.value_or("").size(), 1);
    }
    for (const change &entry : found.entries)
        find_obstacles_of(entry, causes, known, all);
    const std::vector<std::string> missing = lacking(all);
    causes.insert(causes.end(), missing.begin(), missing.end());
    return causes;
}
