#include "control/inside.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/owned.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mntent.h>
#include <poll.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Nothing that a run needs lies there.
constexpr const char *stage_place = "/sys";

constexpr const char *password_path = "/etc/vlq/.vlq.shadow";

// Notes its name and arguments as one line, whatever line ends they hold.
constexpr const char *stand_in = "#!/bin/sh\n"
                                 "set -f\n"
                                 "IFS='\n'\n"
                                 "{ printf '%s' \"${0##*/}\"; for a; do printf ' %s' $a; done; echo; } "
                                 ">>/sys/calls\n";

[[noreturn]] void give_up(const inner_run &run, const std::string &what)
{
    dprintf(run.report, "%s: %s", what.c_str(), strerror(errno));
    _exit(1);
}

void mount_or_give_up(const inner_run &run, const std::string &source, const std::string &target, const char *type,
                      unsigned long flags, const char *options)
{
    if (mount(source.c_str(), target.c_str(), type, flags, options) != 0)
        give_up(run, type
                         ? "no " + std::string(type) + " can be mounted at " + target + " (plain mboxfix works without)"
                         : target + " cannot be covered");
}

// Where the kernel cannot close all mounts to writing at once.
void close_each(const inner_run &run)
{
    using owned_mounts = std::unique_ptr<FILE, releaser<endmntent>>;
    const owned_mounts mounts(setmntent("/proc/self/mounts", "re"));
    constexpr unsigned long kept = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    while (const struct mntent *entry = mounts ? getmntent(mounts.get()) : nullptr) {
        struct statvfs now = {};
        if (statvfs(entry->mnt_dir, &now) != 0 || (now.f_flag & ST_RDONLY) != 0)
            continue;
        if (mount(nullptr, entry->mnt_dir, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | (now.f_flag & kept), nullptr) !=
            0)
            give_up(run, std::string(entry->mnt_dir) + " cannot be closed to writing");
    }
}

// Out of a plain directory that chroot has made the root: the present directory is left outside of a new one.
bool leave_chroot()
{
    struct stat here = {};
    struct stat above = {};
    if (chdir("/") != 0 || chroot(stage_place) != 0)
        return false;
    do {
        if (stat(".", &here) != 0 || chdir("..") != 0 || stat(".", &above) != 0)
            return false;
    } while (here.st_dev != above.st_dev || here.st_ino != above.st_ino);
    return chroot(".") == 0;
}

bool make_mounts_private()
{
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void close_everything(const inner_run &run)
{
    const owned_fd root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // EINVAL: the root is no mount that could be changed, but lies on one that is to be reached from above.
    if (!make_mounts_private() && (errno != EINVAL || !leave_chroot() || !make_mounts_private()))
        give_up(run, "the mounts cannot be made private (plain mboxfix works without)");
    struct mount_attr closed = {};
    closed.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &closed, sizeof closed) != 0) {
        if (errno != ENOSYS)
            give_up(run, "the system cannot be closed to writing");
        close_each(run);
    }
    if (fchdir(root.get()) != 0 || chroot(".") != 0)
        give_up(run, "the root cannot be entered again");
}

void enter_stage(const inner_run &run)
{
    if (move_mount(run.stage_dir, "", AT_FDCWD, stage_place, MOVE_MOUNT_F_EMPTY_PATH) != 0 || chdir(stage_place) != 0)
        give_up(run, std::string(stage_place) + " cannot be used");
}

// First all the lower layers, since an outer overlay hides what lies in an inner place.
void cover(const inner_run &run)
{
    for (std::size_t number = 0; number < run.covered->size(); ++number)
        mount_or_give_up(run, (*run.covered)[number].real, formatted("l/%zu", number).c_str(), nullptr, MS_BIND,
                         nullptr);
    for (std::size_t number = 0; number < run.covered->size(); ++number)
        mount_or_give_up(run, "mboxfixctl", (*run.covered)[number].real, "overlay", MS_NOSUID | MS_NODEV,
                         formatted("lowerdir=l/%zu,upperdir=u/%zu,workdir=w/%zu,redirect_dir=off,metacopy=off", number,
                                   number, number));
}

void make_stand_in(const inner_run &run)
{
    const owned_fd file(open("stand-in", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755));
    const owned_fd calls(open("calls", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const auto size = static_cast<ssize_t>(strlen(stand_in));
    if (calls.get() < 0 || file.get() < 0 || write(file.get(), stand_in, strlen(stand_in)) != size ||
        fchmod(file.get(), 0755) != 0)
        give_up(run, "no stand-in can be made");
}

// A program that could be called is stood in for; one that could not fails as ever.
void stand_in_for_programs(const inner_run &run)
{
    make_stand_in(run);
    const text programs[] = {formatted("%s/bin/qmail-newu", QMAIL_ROOT_D), formatted("%s/qmail", PRODUCT_RC_D),
                             formatted("%s/admin/bin/virsetup", PRODUCT_ROOT_D),
                             formatted("%s/admin/bin/spamsetup", PRODUCT_ROOT_D)};
    for (const text &path : programs) {
        struct stat status = {};
        if (stat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 && access(path, X_OK) == 0)
            mount_or_give_up(run, "stand-in", path.c_str(), nullptr, MS_BIND, nullptr);
    }
}

// The run's lock lies on the password file: the run takes it on a copy.
void copy_password(const inner_run &run)
{
    const owned_fd from(open(password_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (from.get() < 0 || fstat(from.get(), &status) != 0)
        return; // the run says so
    const owned_fd to(open("password", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (to.get() < 0 || sendfile(to.get(), from.get(), nullptr, static_cast<std::size_t>(status.st_size)) < 0)
        give_up(run, "the password file cannot be copied");
    mount_or_give_up(run, "password", password_path, nullptr, MS_BIND, nullptr);
}

void start(const inner_run &run, int out, int err)
{
    const int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0 ||
        chdir("/") != 0)
        _exit(127);
    umask(022);
    execl(run.program, run.program, run.option, static_cast<char *>(nullptr));
    dprintf(STDERR_FILENO, "%s: %s\n", run.program, strerror(errno));
    _exit(127);
}

int run_program(const inner_run &run)
{
    const owned_fd out(open("out", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const owned_fd err(open("err", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const pid_t child = out.get() < 0 || err.get() < 0 ? -1 : fork();
    if (child < 0)
        give_up(run, "the run cannot be started");
    if (child == 0)
        start(run, out.get(), err.get());
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

void run_inside(const inner_run &run)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ})
        signal(number, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0); // what is typed at the terminal is for the caller
    close(run.other_end);
    pollfd report = {run.report, 0, 0};
    if (poll(&report, 1, 0) != 0)
        _exit(1); // the caller went before that
    close_everything(run);
    enter_stage(run);
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        give_up(run, "no process list of its own can be had");
    cover(run); // may hide what the two next ones mount
    copy_password(run);
    stand_in_for_programs(run);
    dprintf(run.report, "status %d", run_program(run));
    _exit(0);
}
