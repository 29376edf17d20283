#include "control/copies.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "process/exec.h"

#include <algorithm>
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
constexpr const char *ending = ".tar";
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
    const pid_t child = fork_execv(in, out, STDERR_FILENO, "/bin/tar", strcmp(action, "--create") == 0 ? making : argv);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    errno = 0;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool make_parents(int tree, const std::string &below)
{
    for (std::size_t slash = below.find('/'); slash != below.npos; slash = below.find('/', slash + 1))
        if (mkdirat(tree, below.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return true;
}

// Lays a file out in the tree, with its owner, bits and times.
bool lay_out(int tree, const std::string &path, std::string_view bytes, const struct stat &status)
{
    const std::string below = path.substr(1);
    if (!make_parents(tree, below))
        return false;
    const owned_fd file(openat(tree, below.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const struct timespec times[] = {status.st_atim, status.st_mtim};
    return file.get() >= 0 && write_all(file.get(), bytes) == 0 &&
           fchown(file.get(), status.st_uid, status.st_gid) == 0 && fchmod(file.get(), status.st_mode & 07777) == 0 &&
           futimens(file.get(), times) == 0;
}

bool lay_out_all(int tree, const changes &found)
{
    for (int number = 0; number < list_count; ++number) {
        const list_state &list = found.lists[number];
        const std::string path = real_path(list_path(static_cast<list_number>(number)));
        if (list.before && !lay_out(tree, path, *list.before, list.status_before))
            return false;
    }
    for (const change &entry : found.entries) {
        if (!S_ISREG(entry.before.st_mode))
            continue;
        const auto bytes = file_bytes_at(AT_FDCWD, entry.path.c_str());
        if (bytes && !lay_out(tree, entry.path, *bytes, entry.before))
            return false;
    }
    return true;
}

bool prepare_dir(std::string &cause)
{
    if ((mkdir(parent_dir, 0755) != 0 && errno != EEXIST) || (mkdir(copies_dir, 0700) != 0 && errno != EEXIST))
        return fail(cause, copies_dir);
    struct stat status {};
    if (lstat(copies_dir, &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != 0 ||
        (status.st_mode & 077) != 0) {
        cause = std::string(copies_dir) + " is not root's alone";
        return false;
    }
    unlink(unfinished);
    return true;
}

// Names sort by their time. No two are made at once: the maker holds the run's lock.
std::string new_name()
{
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local {};
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", localtime_r(&now.tv_sec, &local));
    return formatted("%s.%03ld%s", stamp, now.tv_nsec / 1000000, ending).c_str();
}

void drop_old_copies()
{
    const std::vector<std::string> names = list_copies();
    for (std::size_t at = kept_copies; at < names.size(); ++at)
        unlink(copy_path(names[at]).c_str());
}

} // namespace

std::string copy_path(const std::string &name)
{
    return std::string(copies_dir) + "/" + name;
}

bool keep_copy(const changes &found, std::string &name, std::string &cause)
{
    if (!prepare_dir(cause))
        return false;
    const owned_fd tree = memory_dir();
    if (tree.get() < 0 || !lay_out_all(tree.get(), found))
        return fail(cause, "the copy cannot be laid out");
    const owned_fd archive(open(unfinished, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (archive.get() < 0)
        return fail(cause, unfinished);
    name = copy_path(new_name());
    if (!run_tar(-1, archive.get(), "--create", tree.get()) || fsync(archive.get()) != 0 ||
        rename(unfinished, name.c_str()) != 0) {
        const int error = errno;
        unlink(unfinished);
        errno = error;
        return error != 0 ? fail(cause, name) : (cause = "tar could not make " + name, false);
    }
    drop_old_copies();
    return true;
}

std::vector<std::string> list_copies()
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, releaser<closedir>> dir(opendir(copies_dir));
    while (const struct dirent *entry = dir ? readdir(dir.get()) : nullptr)
        if (const std::string name = entry->d_name; name.ends_with(ending) && !name.starts_with('.'))
            names.push_back(name);
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
    if (archive.get() >= 0 && tree.get() >= 0 && run_tar(archive.get(), STDOUT_FILENO, "--extract", tree.get()))
        return tree;
    cause = copy_path(name) + " cannot be read";
    return {};
}
