#include "control/stage.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "control/inside.h"
#include "control/signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int watch_interval_ms = 200;

bool make_layout(const stage &made)
{
    const int dir = made.dir.get();
    for (const char *name : {"l", "u", "w"})
        if (mkdirat(dir, name, 0755) != 0)
            return false;
    for (std::size_t number = 0; number < made.where.covered.size(); ++number) {
        for (const char *name : {"l", "u", "w"})
            if (mkdirat(dir, formatted("%s/%zu", name, number), 0755) != 0)
                return false;
        struct stat status = {};
        const text upper = formatted("u/%zu", number);
        if (stat(made.where.covered[number].real.c_str(), &status) != 0 ||
            fchownat(dir, upper, status.st_uid, status.st_gid, 0) != 0 ||
            fchmodat(dir, upper, status.st_mode & 07777, 0) != 0)
            return false;
    }
    return true;
}

// Waits for the end of the run. The pipe brings what the inner process has to say, and its end.
std::string wait_for_end(int pipe_end, const std::function<void()> &watch)
{
    std::string said;
    for (;;) {
        pollfd end = {pipe_end, POLLIN, 0};
        if (poll(&end, 1, watch_interval_ms) <= 0) {
            if (noted_signal() != 0)
                return said;
            watch();
            continue;
        }
        char bytes[512];
        const ssize_t got = read(pipe_end, bytes, sizeof bytes);
        if (got <= 0)
            return said;
        said.append(bytes, static_cast<std::size_t>(got));
    }
}

bool read_end(stage &made, const std::string &said)
{
    if (said.starts_with("status ")) {
        made.status = atoi(said.c_str() + strlen("status "));
        return true;
    }
    made.cause = said.empty() ? "the staged run was ended from outside" : said;
    return false;
}

bool give_up(stage &made, const char *what)
{
    made.cause = std::string(what) + ": " + strerror(errno);
    return false;
}

} // namespace

owned_fd memory_dir()
{
    const owned_fd context(fsopen("tmpfs", FSOPEN_CLOEXEC));
    if (context.get() < 0 || fsconfig(context.get(), FSCONFIG_SET_STRING, "mode", "0700", 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_SET_STRING, "nr_inodes", "0", 0) != 0 ||
        fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return {};
    return owned_fd(fsmount(context.get(), FSMOUNT_CLOEXEC, MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV));
}

bool run_staged(stage &made, const std::string &program, const std::string &option, const std::function<void()> &watch)
{
    made.where = {};
    if (!find_places(made.where, made.cause))
        return false;
    made.dir = memory_dir();
    if (made.dir.get() < 0)
        return give_up(made, "no file system in memory can be had for the stage (plain mboxfix works without)");
    int ends[2];
    if (!make_layout(made) || pipe2(ends, O_CLOEXEC) != 0)
        return give_up(made, "the stage cannot be prepared");
    const owned_fd from(ends[0]);
    owned_fd to(ends[1]);
    inner_run run = {made.dir.get(), to.get(), from.get(), &made.where.covered, program.c_str(), option.c_str()};
    // fork() into namespaces of its own: the process namespace is for this child alone, not for those that come later.
    const auto child = static_cast<pid_t>(
        syscall(SYS_clone, CLONE_NEWNS | CLONE_NEWPID | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0)
        run_inside(run);
    if (child < 0)
        return give_up(made, "no namespaces can be had (plain mboxfix works without them)");
    end_child_on_signals(child);
    to = owned_fd();
    const std::string said = wait_for_end(from.get(), watch);
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
        ;
    end_child_on_signals(0);
    return read_end(made, said);
}

owned_fd open_layer(const stage &made, std::size_t number)
{
    return owned_fd(openat(made.dir.get(), formatted("u/%zu", number), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string stage_text(const stage &made, const char *name)
{
    const owned_fd file(openat(made.dir.get(), name, O_RDONLY | O_CLOEXEC));
    content text{};
    if (file.get() < 0 || !read_rest(file.get(), text, text_size))
        return {};
    return std::string(view(text));
}
