#include "control/copies.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "control/apart.h"
#include "process/exec.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *parent_dir = "/var/backups";
constexpr const char *copies_dir = "/var/backups/mboxfix";
constexpr const char *unfinished = "/var/backups/mboxfix/.unfinished";
constexpr std::size_t kept_copies = 10;

bool fail(std::string &cause, const std::string &what)
{
    cause = what + ": " + strerror(errno);
    return false;
}

// Runs tar on a tree in memory. True when it ended with status 0.
bool run_tar(int in, int out, const char *action, int tree)
{
    const text place = formatted("/proc/%d/fd/%d", static_cast<int>(getpid()), tree);
    const char *const argv[] = {"tar", action, "--file=-", "--numeric-owner", "-C", place, nullptr, nullptr};
    const char *const making[] = {"tar", action, "--file=-", "--numeric-owner", "-C", place, ".", nullptr};
    // fork_execv ends its process where no child can be made.
    const int status = run_apart([&] {
        int ended = 0;
        const pid_t child =
            fork_execv(in, out, STDERR_FILENO, "/bin/tar", strcmp(action, "--create") == 0 ? making : argv);
        return waitpid(child, &ended, 0) == child && WIFEXITED(ended) ? WEXITSTATUS(ended) : 1;
    });
    errno = 0;
    return status == 0;
}

bool make_parents(int tree, const std::string &below)
{
    for (std::size_t slash = below.find('/'); slash != below.npos; slash = below.find('/', slash + 1))
        if (mkdirat(tree, below.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return true;
}

// Lays a file out in the tree, with its owner, bits and times. One that is there stays.
bool lay_out(int tree, const std::string &path, std::string_view bytes, const struct stat &status)
{
    const std::string below = path.substr(1);
    if (!make_parents(tree, below))
        return false;
    const owned_fd file(openat(tree, below.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.get() < 0 && errno == EEXIST)
        return true;
    const struct timespec times[] = {status.st_atim, status.st_mtim};
    return file.get() >= 0 && write_all(file.get(), bytes) == 0 &&
           fchown(file.get(), status.st_uid, status.st_gid) == 0 && fchmod(file.get(), status.st_mode & 07777) == 0 &&
           futimens(file.get(), times) == 0;
}

bool lay_out_all(int tree, const changes &found, std::string &cause)
{
    for (int number = 0; number < list_count; ++number) {
        const list_state &list = found.lists[number];
        const std::string path = real_path(list_path(static_cast<list_number>(number)));
        if (list.before && !lay_out(tree, path, *list.before, list.status_before))
            return fail(cause, "the copy cannot be laid out: " + path);
    }
    for (const change &entry : found.entries) {
        if (!S_ISREG(entry.before.st_mode))
            continue;
        const auto bytes = old_bytes(entry);
        if (!bytes || !lay_out(tree, entry.path, *bytes, entry.before))
            return fail(cause, "the copy cannot be laid out: " + entry.path);
    }
    return true;
}

// An archive ends with two blocks of zeros; tar says nothing when they are missing.
bool is_whole(int archive)
{
    std::array<char, 1024> end{};
    struct stat status = {};
    return fstat(archive, &status) == 0 && status.st_size >= static_cast<off_t>(end.size()) &&
           pread(archive, end.data(), end.size(), status.st_size - static_cast<off_t>(end.size())) ==
               static_cast<ssize_t>(end.size()) &&
           std::all_of(end.begin(), end.end(), [](char byte) { return byte == '\0'; });
}

bool prepare_dir(std::string &cause)
{
    if ((mkdir(parent_dir, 0755) != 0 && errno != EEXIST) || (mkdir(copies_dir, 0700) != 0 && errno != EEXIST))
        return fail(cause, copies_dir);
    struct stat status = {};
    if (lstat(copies_dir, &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != 0 ||
        (status.st_mode & 077) != 0) {
        cause = std::string(copies_dir) + " is not root's alone";
        return false;
    }
    unlink(unfinished);
    return true;
}

// Names sort by their time, which is UTC, lest an hour come twice. No two are made at once: the maker holds the run's
// lock.
std::string new_name()
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm utc = {};
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", gmtime_r(&now.tv_sec, &utc));
    return formatted("%s.%03ld.tar", stamp, now.tv_nsec / 1000000).c_str();
}

// As new_name makes them; what somebody else lays beside them is his.
bool is_copy_name(std::string_view name)
{
    constexpr std::string_view form = "00000000-000000.000.tar";
    const auto fits = [](char byte, char place) { return place == '0' ? byte >= '0' && byte <= '9' : byte == place; };
    return std::equal(name.begin(), name.end(), form.begin(), form.end(), fits);
}

// The clock may have been set back: the latest made stays, whatever its name.
void drop_old_copies(const std::string &made)
{
    const std::vector<std::string> names = list_copies();
    for (std::size_t at = kept_copies; at < names.size(); ++at)
        if (copy_path(names[at]) != made)
            unlink(copy_path(names[at]).c_str());
}

} // namespace

std::string copy_path(const std::string &name)
{
    return std::string(copies_dir) + "/" + name;
}

bool keep_copy(const changes &found, owned_fd &tree, std::string &name, std::string &cause)
{
    if (!prepare_dir(cause))
        return false;
    if (tree.get() < 0)
        tree = memory_dir();
    if (tree.get() < 0)
        return fail(cause, "the copy cannot be laid out");
    if (!lay_out_all(tree.get(), found, cause))
        return false;
    const owned_fd archive(open(unfinished, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (archive.get() < 0)
        return fail(cause, unfinished);
    const std::string made = copy_path(new_name());
    if (!run_tar(-1, archive.get(), "--create", tree.get()) || fsync(archive.get()) != 0 ||
        rename(unfinished, made.c_str()) != 0) {
        if (errno == 0)
            cause = "tar could not make " + made;
        else
            fail(cause, made);
        unlink(unfinished);
        return false;
    }
    if (!name.empty() && name != made)
        unlink(name.c_str());
    name = made;
    drop_old_copies(made);
    return true;
}

std::vector<std::string> list_copies()
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, releaser<closedir>> dir(opendir(copies_dir));
    while (const struct dirent *entry = dir ? readdir(dir.get()) : nullptr)
        if (is_copy_name(entry->d_name))
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end(), std::greater<>());
    return names;
}

owned_fd open_copy(std::string &name, std::string &cause)
{
    const std::vector<std::string> names = list_copies();
    if (name.empty() && !names.empty())
        name = names.front();
    if (name.starts_with(copy_path("")))
        name = name.substr(copy_path("").size());
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        cause = name.empty() ? "there is no copy in " + std::string(copies_dir) : copy_path(name) + " is no copy";
        return {};
    }
    const owned_fd archive(open(copy_path(name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    owned_fd tree = memory_dir();
    if (archive.get() >= 0 && !is_whole(archive.get())) {
        cause = copy_path(name) + " is cut off";
        return {};
    }
    if (archive.get() >= 0 && tree.get() >= 0 && run_tar(archive.get(), STDOUT_FILENO, "--extract", tree.get()))
        return tree;
    cause = copy_path(name) + " cannot be read";
    return {};
}
