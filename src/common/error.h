#pragma once

#include "common/owned.h"

#include <span>

// Messages, the end of the process, and text that is formatted into buffers.

// This process's argv[0], not copied; null until start-up has stored it. Its base name, as POSIX defines it ("sbin" for
// "/usr/sbin/"), begins every message of report_error; while it is null, messages begin with their own text.
extern const char *program_name;

// Reports a message: "BASENAME: TEXT" on standard error, then the same on standard output; each ends in a newline and
// is flushed. When errno is not 0 at the call, "\nSystem error N: TEXT" is appended, whatever last set it;
// system_error_flag has no effect. Only a lack of memory cuts a message. With exit_status 0 it returns and leaves errno
// as it was; any other status ends the process with that status through exit().
void report_error(int exit_status, int system_error_flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// report_error with exit status 1; the compiler knows that it never returns.
[[noreturn]] void report_fatal(int system_error_flag, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Returns the formatted text as a new string of any length, never null. Leaves errno as it was. Ends the process when
// memory runs out: "Cannot allocate memory: %s".
owned_text alloc_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The size, in bytes, of the buffers for paths, commands, queries and lines.
inline constexpr std::size_t text_size = 4096;

// Such a buffer, holding a terminated string. It converts to const char * by itself, except among the arguments of a
// printf format: pass c_str() there.
struct text {
    char bytes[text_size];
    [[nodiscard]] const char *c_str() const
    {
        return bytes;
    }
    operator const char *() const
    {
        return bytes;
    }
    operator std::span<char>()
    {
        return bytes;
    }
};

// Format into a new text, or into the caller's buffer of at least one byte. What does not fit is cut; the result is
// always terminated. Callers rely on the cut, so it is not reported.
text formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
void format_text(std::span<char> out, const char *format, ...) __attribute__((format(printf, 2, 3)));
