#include "process/exec.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/startup.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int read_step = 4096;
constexpr int poll_interval_ms = 1000;
constexpr std::size_t max_arguments = 99; // behind argv[0]

using argument_slots = std::array<const char *, max_arguments + 2>;

// What is read from one stream of a child. There is no descriptor once the stream has ended, or when it is not read.
struct capture {
    owned_fd fd;
    std::optional<std::string> text;
};

// Puts /dev/null on a standard stream.
bool silence(int standard_fd)
{
    const int null = open("/dev/null", O_RDWR);
    if (null == standard_fd)
        return true;
    const owned_fd source(null);
    return null >= 0 && dup2(null, standard_fd) >= 0;
}

void redirect(int fd, int standard_fd)
{
    if (fd == standard_fd)
        return;
    if (fd == -1 ? !silence(standard_fd) : dup2(fd, standard_fd) < 0) {
        dprintf(STDERR_FILENO, "fork_execv: dup() failed: %s\n", strerror(errno));
        _exit(255);
    }
    if (fd != -1)
        close(fd);
}

void read_pipe_chunk(capture &stream)
{
    char chunk[read_step];
    const ssize_t got = read(stream.fd.get(), chunk, sizeof chunk);
    const int cause = errno;
    try {
        if (!stream.text)
            stream.text.emplace();
        stream.text->append(chunk, got > 0 ? static_cast<std::size_t>(got) : 0);
    } catch (const std::bad_alloc &) {
        report_fatal(1, "Cannot allocate memory");
    }
    if (got > 0 || (got < 0 && cause == EAGAIN))
        return;
    stream.fd = {};
    if (got < 0) {
        fprintf(stderr, "fork_exec*: read(pipe) failed: %s\n", strerror(cause));
        errno = 0;
    }
}

// Opens the pipe of one stream. Returns its write end.
owned_fd open_pipe(capture &stream)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        report_fatal(1, "fork_execv_getouterr: pipe() failed");
    stream.fd = owned_fd(ends[0]);
    return owned_fd(ends[1]);
}

void set_nonblocking(const capture &stream)
{
    if (fcntl(stream.fd.get(), F_SETFL, O_NONBLOCK) != 0)
        report_fatal(1, "fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
}

int exit_code(int status)
{
    return errno == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads both streams (one may be absent) until they end, or until the child has ended and nothing more comes: a daemon
// that it left behind may hold the pipes open for ever. poll() stands for select() so that a descriptor beyond
// select's sets does no harm. Returns the exit code or -1.
int read_until_end(capture &out, capture &err, pid_t child)
{
    int status = 0;
    while (out.fd.get() >= 0 || err.fd.get() >= 0) {
        pollfd ends[] = {{out.fd.get(), POLLIN, 0}, {err.fd.get(), POLLIN, 0}};
        if (poll(ends, 2, poll_interval_ms) > 0) {
            if (ends[0].revents != 0)
                read_pipe_chunk(out);
            if (ends[1].revents != 0)
                read_pipe_chunk(err);
            continue;
        }
        errno = 0;
        if (waitpid(child, &status, WNOHANG) != 0)
            return exit_code(status);
    }
    errno = 0;
    return waitpid(child, &status, WUNTRACED) > 0 ? exit_code(status) : -1;
}

// fork_execv of a program whose output is read, its error stream only when `reads_err` says so. Returns the exit code
// or -1.
int run_and_read(capture &out, capture &err, bool reads_err, const char *path, const char *const *argv)
{
    owned_fd out_end = open_pipe(out);
    owned_fd err_end = reads_err ? open_pipe(err) : owned_fd();
    set_nonblocking(out);
    if (reads_err)
        set_nonblocking(err);
    const pid_t child = fork_execv(STDIN_FILENO, out_end.get(), reads_err ? err_end.get() : STDERR_FILENO, path, argv);
    out_end = {};
    err_end = {};
    return read_until_end(out, err, child);
}

// argv[0] and what follows in the list, cut to the slots and ended by a null pointer.
void list_arguments(argument_slots &argv, const char *first, va_list list)
{
    std::size_t count = 0;
    argv[count++] = first;
    while (count <= max_arguments && (argv[count] = va_arg(list, const char *)))
        ++count;
    argv[count] = nullptr;
}

text utility_path(const char *name)
{
    return formatted("%s/admin/bin/%s", PRODUCT_ROOT_D, name);
}

int run_utility(const char *name, const char *path, const char *const *argv)
{
    if (strchr(name, '/')) {
        report_error(0, 0, "Utility name '%s' is invalid. Use only utility name without path.", name);
        return -1;
    }
    std::optional<std::string> out;
    std::optional<std::string> err;
    const int result = fork_execv_getouterr(out, err, path, argv);
    if (result == 0)
        return 0;
    if (out)
        fputs(out->c_str(), stderr);
    if (err)
        report_error(0, 1, "%s execution failed:\n%s", path, err->c_str());
    else
        report_error(0, 1, "%s execution failed (no output)", path);
    return result;
}

} // namespace

void close_descriptors()
{
    if (close_range(3, ~0U, 0) == 0)
        return;
    for (int fd = 3; fd < getdtablesize(); ++fd)
        close(fd);
}

void silence_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (!silence(fd))
            close(fd);
}

void restore_signals()
{
    for (const int number : write_signals)
        signal(number, SIG_DFL);
}

int run_shell(const char *command)
{
    // What is ignored here would be ignored there; a handler of ours is not.
    sighandler_t former[std::size(write_signals)];
    for (std::size_t at = 0; at < std::size(write_signals); ++at)
        former[at] = signal(write_signals[at], [](int) {});
    const int status = system(command);
    for (std::size_t at = 0; at < std::size(write_signals); ++at)
        signal(write_signals[at], former[at]);
    return status;
}

pid_t fork_execv(int in_fd, int out_fd, int err_fd, const char *path, const char *const *argv)
{
    const pid_t child = fork();
    if (child < 0)
        report_fatal(1, "fork_execv_pipes: fork() failed");
    if (child > 0)
        return child;
    redirect(in_fd, STDIN_FILENO);
    redirect(out_fd, STDOUT_FILENO);
    redirect(err_fd, STDERR_FILENO);
    close_descriptors();
    restore_signals();
    errno = 0;
    execv(path, const_cast<char *const *>(argv));
    dprintf(STDERR_FILENO, "fork_execv: execv(\"%s\") failed: %s\n", path, strerror(errno));
    _exit(255);
}

int fork_execv_getouterr(std::optional<std::string> &out, std::optional<std::string> &err, const char *path,
                         const char *const *argv)
{
    capture err_stream;
    capture out_stream; // the first to be closed
    const int result = run_and_read(out_stream, err_stream, true, path, argv);
    out = std::move(out_stream.text);
    err = std::move(err_stream.text);
    return result;
}

int fork_execv_getout(std::optional<std::string> &out, const char *path, const char *const *argv)
{
    capture out_stream;
    capture no_stream;
    const int result = run_and_read(out_stream, no_stream, false, path, argv);
    out = std::move(out_stream.text);
    return result;
}

int fork_execl_getout(std::optional<std::string> &out, const char *path, const char *arg0, ...)
{
    std::vector<const char *> argv;
    va_list list;
    va_start(list, arg0);
    try {
        for (const char *argument = arg0; argument; argument = va_arg(list, const char *))
            argv.push_back(argument);
        argv.push_back(nullptr);
    } catch (const std::bad_alloc &) {
        report_fatal(1, "malloc() failed: %s", strerror(ENOMEM));
    }
    va_end(list);
    return fork_execv_getout(out, path, argv.data());
}

int util_execv(const char *name, const char *const *argv)
{
    return run_utility(name, utility_path(name), argv);
}

int util_exec(const char *name, ...)
{
    const text path = utility_path(name);
    argument_slots argv;
    va_list list;
    va_start(list, name);
    list_arguments(argv, path, list);
    va_end(list);
    return run_utility(name, path, argv.data());
}

int run_quiet_wait(const char *path, ...)
{
    argument_slots argv;
    va_list list;
    va_start(list, path);
    list_arguments(argv, path, list);
    va_end(list);
    const pid_t child = fork();
    if (child < 0)
        return 1;
    if (child == 0) {
        silence_streams();
        restore_signals();
        _exit(execv(path, const_cast<char *const *>(argv.data())));
    }
    int status = 0;
    wait(&status);
    return (status & 0x7f) != 0 ? 1 : 0;
}
