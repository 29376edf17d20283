#include "control/run_lock.h"

#include "common/conf.h"
#include "common/error.h"
#include "control/changes.h"
#include "control/say.h"
#include "control/signals.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
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
        struct stat status = {};
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
    struct stat wanted = {};
    const owned_dir processes(fstat(fd, &wanted) == 0 ? opendir("/proc") : nullptr);
    while (const struct dirent *entry = processes ? readdir(processes.get()) : nullptr) {
        const std::string process = std::string("/proc/") + entry->d_name;
        if (holds_lock(process, wanted))
            return std::string("process ") + entry->d_name + " (" + command_of(process) + ")";
    }
    return "a process that is not seen from here";
}

bool take_run_lock(owned_fd &lock, std::string &holder)
{
    lock = owned_fd(open("/etc/vlq/.vlq.shadow", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return true;
    holder = lock_holder(lock.get());
    return false;
}

std::unique_ptr<file_lock> wait_for_lock(const std::string &path)
{
    auto lock = lock_file_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, LOCK_EX | LOCK_NB, 1);
    if (!lock || lock->fd != 0)
        return lock;
    struct sigaction waking = {};
    waking.sa_handler = [](int) {}; // without SA_RESTART: each second the wait is begun anew
    sigaction(SIGALRM, &waking, nullptr);
    constexpr itimerval each_second = {{1, 0}, {1, 0}};
    setitimer(ITIMER_REAL, &each_second, nullptr);
    lock = lock_file_exclusive(path.c_str(), 1);
    for (bool is_told = false; !lock_file_is_held(lock) && errno == EINTR && noted_signal() == 0; is_told = true) {
        std::string holder;
        if (!is_told && is_locked(path, holder))
            tell("waiting for the lock of %s, held by %s", path.c_str(), holder.c_str());
        lock = lock_file_exclusive(path.c_str(), 1);
    }
    const int cause = errno;
    constexpr itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    errno = cause;
    return lock;
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
