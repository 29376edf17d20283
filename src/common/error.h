#pragma once

#include "common/owned.h"

#include <span>

// Every message of the program goes out here, and every fixed buffer is filled here.

// What the run was started as (argv[0]); null until start-up has stored it. Its base name, as POSIX
// has it (of "/usr/sbin/" it is "sbin"), stands before every message.
extern const char *program_name;

// Reports a message: "BASENAME: TEXT" on standard error, then the same on standard output, each ended by one newline
// and flushed. "\nSystem error N: TEXT" is appended when errno is not 0 at the call, whatever last set it;
// system_error_flag states what the caller means by it and changes nothing. A message of any length is printed whole.
// exit_status 0 returns, with errno as it was; any other ends the process with that status through exit().
void report_error(int exit_status, int system_error_flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// report_error with exit status 1, told to the compiler as never returning.
[[noreturn]] void report_fatal(int system_error_flag, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Formats into a new string. Without memory it reports "Cannot allocate memory: %s" and ends the process: the result is
// never null.
owned_text alloc_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Ends the process with exit() and this status; nothing is reported.
[[noreturn]] void end_process(int exit_status);

// The size of the buffers that paths, commands, queries and lines are formatted into.
inline constexpr std::size_t text_size = 4096;

// Such a buffer, terminated. It stands for its characters wherever a plain text is wanted, but among the arguments of a
// printf format, which take its c_str().
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

// Formats into such a buffer, or into a caller's (of at least one byte): cut to its size and always terminated. The cut
// is part of the callers' contracts, so there is no result to test.
text formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
void format_text(std::span<char> out, const char *format, ...) __attribute__((format(printf, 2, 3)));
