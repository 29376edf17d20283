#include "control/obstacles.h"

#include "common/conf.h"
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
};
using needs = std::map<dev_t, need>;

void add_need(needs &all, const std::string &path, std::uint64_t bytes, std::uint64_t inodes)
{
    const std::string there = existing(path);
    struct stat status {};
    if (stat(there.c_str(), &status) != 0)
        return;
    need &wanted = all.try_emplace(status.st_dev, need{there, 0, 0}).first->second;
    const auto block = static_cast<std::uint64_t>(status.st_blksize);
    wanted.bytes += (bytes + block - 1) / block * block;
    wanted.inodes += inodes;
}

std::vector<std::string> lacking(const needs &all)
{
    std::vector<std::string> causes;
    for (const auto &[device, wanted] : all) {
        struct statvfs now {};
        if (statvfs(wanted.path.c_str(), &now) != 0)
            continue;
        const std::uint64_t bytes = now.f_bfree * now.f_frsize;
        if (bytes < wanted.bytes)
            causes.push_back("no room at " + wanted.path + ": " + std::to_string(wanted.bytes) +
                             " bytes to be written, " + std::to_string(bytes) + " free: make room");
        if (now.f_files != 0 && now.f_ffree < wanted.inodes)
            causes.push_back("no room at " + wanted.path + ": " + std::to_string(wanted.inodes) +
                             " files to be made, " + std::to_string(now.f_ffree) + " free: make room");
    }
    return causes;
}

bool must_not_change(const std::string &path)
{
    struct statx status {};
    constexpr auto kept = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) == 0 &&
           (status.stx_attributes & kept) != 0;
}

void add_obstacle(std::vector<std::string> &causes, const std::string &path, const std::string &obstacle)
{
    if (!obstacle.empty())
        causes.push_back(path + ": " + obstacle);
}

} // namespace

std::string obstacle_at(const std::string &path, bool is_directory)
{
    struct stat status {};
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
    struct stat status {};
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
        struct stat status {};
        if (stat(list_path(static_cast<list_number>(number)).c_str(), &status) == 0)
            largest = std::max(largest, status.st_size);
    }
    for (const char *below : {"/control", "/users"})
        add_need(all, qmail_path(below).c_str(), 2 * static_cast<std::uint64_t>(largest), list_count);
    struct stat status {};
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
        if (known.insert(dir_of(path)).second)
            add_obstacle(causes, dir_of(path), obstacle_at(dir_of(path), true));
        add_need(all, dir_of(path), list.after.value_or("").size(), 1);
    }
    for (const change &entry : found.entries) {
        const std::string dir = existing(dir_of(entry.path));
        if (known.insert(dir).second)
            add_obstacle(causes, dir, obstacle_at(dir, true));
        if (entry.before.st_mode != 0 && must_not_change(entry.path))
            causes.push_back(entry.path + ": it must not be changed: take the attribute off with chattr -i or -a");
        const bool is_dir = S_ISDIR(entry.after.st_mode);
        if (entry.what != kind::new_directory && entry.what != kind::new_file)
            continue;
        add_need(all, dir, static_cast<std::uint64_t>(std::max<off_t>(entry.after.st_size, 1)), 1);
        if (!is_dir)
            add_need(all, lock_dir(), 0, 1);
    }
    const std::vector<std::string> missing = lacking(all);
    causes.insert(causes.end(), missing.begin(), missing.end());
    return causes;
}
