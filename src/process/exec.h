#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

// Programs run as child processes: started without a shell, with no descriptor of ours above 2 (swept in the child, but
// for run_quiet_wait, which relies on their being close-on-exec), one at a time, and waited for. A report marked fatal
// ends this process; a child tells its own failures on its standard error and ends with status 255.

// Closes every descriptor from 3 up in the calling process; meant for a child before it executes something.
void close_descriptors();

// Puts /dev/null on the three standard streams of the calling process, a child; a stream for which that fails is
// closed.
void silence_streams();

// Gives SIGPIPE and SIGXFSZ, which this program ignores, their defaults back in the calling process, a child.
void restore_signals();

// system() whose command finds these two signals at their defaults.
int run_shell(const char *command);

// Starts a program with these standard streams: the stream's own number leaves it as it is, -1 gives it /dev/null, and
// any other descriptor is moved onto it. argv is handed on as it is and stays the caller's. Returns the child's id,
// which the caller waits for. A fork that fails is fatal: "fork_execv_pipes: fork() failed".
pid_t fork_execv(int in_fd, int out_fd, int err_fd, const char *path, const char *const *argv);

// Runs a program and keeps all that it writes: standard input is inherited; there is no text of a stream whose end or
// first byte never came. Returns the exit code, 0 to 255, or -1 when the program did not exit by itself. A daemon that
// keeps the streams open holds the call up for about one second after the program's end. Fatal: "fork_execv_getouterr:
// pipe() failed", "... fcntl(O_NONBLOCK) failed", "Cannot allocate memory".
int fork_execv_getouterr(std::optional<std::string> &out, std::optional<std::string> &err, const char *path,
                         const char *const *argv);

// The same with standard error inherited, and with the same messages.
int fork_execv_getout(std::optional<std::string> &out, const char *path, const char *const *argv);

// fork_execv_getout with the vector given as a list from arg0 on, ended by a null pointer. Without memory for it the
// process ends: "malloc() failed: %s".
int fork_execl_getout(std::optional<std::string> &out, const char *path, const char *arg0, ...)
    __attribute__((sentinel));

// Runs a utility of the product, PRODUCT_ROOT_D/admin/bin/NAME, with this vector, argv[0] included. Returns 0, or -1
// for a name with a slash ("Utility name '%s' is invalid. Use only utility name without path."), else the result of
// fork_execv_getouterr. A failure passes the utility's output on to standard error and is reported, not fatal, as
// "%s execution failed:\n%s" (path, error text) or "%s execution failed (no output)".
int util_execv(const char *name, const char *const *argv);

// util_execv with argv[0] set to the utility's path and the arguments as a list that a null pointer ends; those beyond
// the 99th are left out.
int util_exec(const char *name, ...) __attribute__((sentinel));

// Runs a program on /dev/null, argv[0] being its path and the arguments listed as for util_exec. Returns 1 when a
// signal ended it or it could not be started, 0 otherwise, whatever its exit code. Reports nothing.
int run_quiet_wait(const char *path, ...) __attribute__((sentinel));
