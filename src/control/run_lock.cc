#include "control/run_lock.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/file_lock.h"
#include "control/changes.h"
#include "control/say.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using owned_dir = std::unique_ptr<DIR, releaser<closedir>>;

// Files of /proc say that they have no size.
std::string read_small(const std::string &path)
{
    const owned_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char bytes[text_size];
    const ssize_t got = file.get() < 0 ? 0 : read(file.get(), bytes, sizeof bytes);
    return {bytes, got < 0 ? 0 : static_cast<std::size_t>(got)};
}

bool holds_lock(const std::string &process, const struct stat &wanted)
{
    const owned_dir fds(opendir((process + "/fd").c_str()));
    while (const struct dirent *entry = fds ? readdir(fds.get()) : nullptr) {
        struct stat status {};
        if (fstatat(dirfd(fds.get()), entry->d_name, &status, 0) == 0 && status.st_dev == wanted.st_dev &&
            status.st_ino == wanted.st_ino &&
            read_small(process + "/fdinfo/" + entry->d_name).find("FLOCK") != std::string::npos)
            return true;
    }
    return false;
}

std::string command_of(const std::string &process)
{
    std::string command = read_small(process + "/cmdline");
    while (command.ends_with('\0'))
        command.pop_back();
    std::replace(command.begin(), command.end(), '\0', ' ');
    return printable(command);
}

} // namespace

std::string lock_holder(int fd)
{
    struct stat wanted {};
    const owned_dir processes(fstat(fd, &wanted) == 0 ? opendir("/proc") : nullptr);
    while (const struct dirent *entry = processes ? readdir(processes.get()) : nullptr) {
        const std::string process = std::string("/proc/") + entry->d_name;
        if (atoi(entry->d_name) > 0 && atoi(entry->d_name) != getpid() && holds_lock(process, wanted))
            return std::string("process ") + entry->d_name + " (" + command_of(process) + ")";
    }
    return "";
}

bool take_run_lock(owned_fd &lock, std::string &holder)
{
    lock = owned_fd(open("/etc/vlq/.vlq.shadow", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return true;
    holder = lock_holder(lock.get());
    return false;
}

bool is_locked(const std::string &path, std::string &holder)
{
    const text file = formatted("%s/var/lock/files/%s", PRODUCT_ROOT_D, lock_file_name(path.c_str()));
    const owned_fd lock(open(file, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return false;
    holder = lock_holder(lock.get());
    return true;
}
