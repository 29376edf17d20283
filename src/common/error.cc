#include "common/error.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

const char *program_name = nullptr;

namespace {

// As POSIX has it: without the slashes at the end; "." for no name at all, "/" for slashes alone.
std::string_view base_name(std::string_view path)
{
    if (path.empty())
        return ".";
    const std::size_t end = path.find_last_not_of('/');
    if (end == path.npos)
        return "/";
    path = path.substr(0, end + 1);
    return path.substr(path.rfind('/') + 1);
}

void print_line(FILE *stream, const char *text)
{
    if (program_name) {
        const std::string_view name = base_name(program_name);
        fprintf(stream, "%.*s: ", static_cast<int>(name.size()), name.data());
    }
    fputs(text, stream);
    const std::size_t length = strlen(text);
    if (length == 0 || text[length - 1] != '\n')
        fputc('\n', stream);
    fflush(stream);
}

// Prints the message with the suffix of errno, cut to the buffer that is to be had, and ends the process unless
// exit_status is 0.
__attribute__((format(printf, 2, 0))) void report_message(int exit_status, const char *format, va_list arguments)
{
    const int saved_errno = errno;
    text suffix{};
    if (saved_errno != 0)
        suffix = formatted("\nSystem error %d: %s", saved_errno, strerror(saved_errno));
    va_list again;
    va_copy(again, arguments);
    const auto length = static_cast<std::size_t>(std::max(vsnprintf(nullptr, 0, format, again), 0));
    va_end(again);

    std::size_t capacity = std::max(text_size, length + strlen(suffix) + 1);
    owned_text buffer(static_cast<char *>(malloc(capacity)));
    if (!buffer)
        buffer.reset(static_cast<char *>(malloc(capacity = text_size)));
    if (buffer) {
        vsnprintf(buffer.get(), capacity, format, arguments);
        const std::size_t end = strlen(buffer.get());
        format_text({buffer.get() + end, capacity - end}, "%s", suffix.c_str());
    }
    for (FILE *stream : {stderr, stdout})
        print_line(stream, buffer ? buffer.get() : "Can't allocate memory for error message");
    errno = saved_errno; // a first write to a stream may have asked whether it is a terminal
    if (exit_status != 0)
        exit(exit_status);
}

} // namespace

void report_error(int exit_status, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report_message(exit_status, format, arguments);
    va_end(arguments);
}

void report_fatal(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report_message(1, format, arguments);
    va_end(arguments);
    abort(); // never reached: the report has ended the process
}

owned_text alloc_printf(const char *format, ...)
{
    const int former_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        report_fatal(1, "Cannot allocate memory: %s", strerror(errno));
    errno = former_errno; // malloc() leaves ENOMEM where only brk() has failed it
    return owned_text(text);
}

text formatted(const char *format, ...)
{
    text out;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(out.bytes, sizeof out.bytes, format, arguments);
    va_end(arguments);
    return out;
}

void format_text(std::span<char> out, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(out.data(), out.size(), format, arguments);
    va_end(arguments);
}
