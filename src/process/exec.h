#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

// Programs that run as child processes, one at a time. A child gets no descriptor above 2; those of run_shell and
// run_quiet_wait rely on close-on-exec for that. A report called fatal ends this process. A child that cannot execute
// its program ends with status 255 (that of run_shell with 127); those of fork_execv print why on their standard error.

// For a child before it executes a program: closes every descriptor from 3 up.
void close_descriptors();

// For a child: puts /dev/null on every standard stream; one for which that fails is closed.
void silence_streams();

// For a child: restores the default actions of the signals that this program ignores (common/startup.h).
void restore_signals();

// system() of a command for which these signals have their default actions. Returns the result of system().
int run_shell(const char *command);

// Starts a program with these descriptors as its standard streams: a stream's own number means that it is inherited, -1
// means /dev/null, and the child moves any other descriptor to the stream's number. The caller keeps its descriptors
// and argv. Returns the child's process id without waiting. Fatal: "fork_execv_pipes: fork() failed".
pid_t fork_execv(int in_fd, int out_fd, int err_fd, const char *path, const char *const *argv);

// Runs a program and returns its standard output and error as strings; standard input is inherited. A string has no
// value when neither a byte nor the end of its stream was read. Returns the exit code, 0 to 255, or -1 when a signal
// ended the program, or stopped it after it had closed its streams; one that is stopped with an open stream is waited
// for. A daemon that keeps a stream open delays the call by about one second after the program's end. Fatal:
// "fork_execv_getouterr: pipe() failed", "... fcntl(O_NONBLOCK) failed", "Cannot allocate memory".
int fork_execv_getouterr(std::optional<std::string> &out, std::optional<std::string> &err, const char *path,
                         const char *const *argv);

// fork_execv_getouterr with standard error inherited too; the messages are the same.
int fork_execv_getout(std::optional<std::string> &out, const char *path, const char *const *argv);

// fork_execv_getout with argv as a list that begins with arg0 and ends in a null pointer. Fatal, when memory runs out:
// "malloc() failed: %s".
int fork_execl_getout(std::optional<std::string> &out, const char *path, const char *arg0, ...)
    __attribute__((sentinel));

// Runs a utility of the product, PRODUCT_ROOT_D/admin/bin/NAME, with this argv. Returns the result of
// fork_execv_getouterr. When that is not 0, prints the utility's output on standard error and reports (not fatal) "%s
// execution failed:\n%s", path and error text, or "%s execution failed (no output)". A name with a slash returns -1
// after "Utility name '%s' is invalid. Use only utility name without path.".
int util_execv(const char *name, const char *const *argv);

// util_execv with the utility's path as argv[0] and the further arguments as a list that ends in a null pointer; those
// beyond the 99th are dropped.
int util_exec(const char *name, ...) __attribute__((sentinel));

// Runs a program on /dev/null, with its path as argv[0] and the arguments as for util_exec. Returns 1 when the fork
// failed or a signal ended the program, else 0, even when the program cannot be executed. Reports nothing.
int run_quiet_wait(const char *path, ...) __attribute__((sentinel));
