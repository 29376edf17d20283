#include "common/error.h"

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

void print_message(const char *text)
{
    print_line(stderr, text);
    print_line(stdout, text);
}

// Makes room for at least `needed` bytes; without memory the buffer stays as it is, and what comes next is cut to it.
void grow(owned_text &buffer, std::size_t &capacity, std::size_t needed)
{
    if (needed <= capacity)
        return;
    if (auto *grown = static_cast<char *>(realloc(buffer.get(), needed))) {
        [[maybe_unused]] const char *former = buffer.release();
        buffer.reset(grown);
        capacity = needed;
    }
}

__attribute__((format(printf, 1, 0))) void print_report(const char *format, va_list arguments)
{
    const int saved_errno = errno;
    std::size_t capacity = text_size;
    owned_text buffer(static_cast<char *>(malloc(capacity)));
    if (!buffer) {
        print_message("Can't allocate memory for error message");
        errno = saved_errno;
        return;
    }

    va_list again;
    va_copy(again, arguments);
    const int needed = vsnprintf(buffer.get(), capacity, format, arguments);
    if (needed >= 0 && static_cast<std::size_t>(needed) >= capacity) {
        grow(buffer, capacity, static_cast<std::size_t>(needed) + 1);
        vsnprintf(buffer.get(), capacity, format, again);
    }
    va_end(again);

    errno = saved_errno;
    if (saved_errno != 0) {
        const text suffix = formatted("\nSystem error %d: %s", saved_errno, strerror(saved_errno));
        const std::size_t length = strlen(buffer.get());
        grow(buffer, capacity, length + strlen(suffix) + 1);
        format_text({buffer.get() + length, capacity - length}, "%s", suffix.c_str());
    }
    print_message(buffer.get());
    errno = saved_errno; // a first write to a stream may have asked whether it is a terminal
}

__attribute__((format(printf, 2, 0))) void vreport(int exit_status, const char *format, va_list arguments)
{
    print_report(format, arguments);
    if (exit_status != 0)
        end_process(exit_status);
}

} // namespace

void report_error(int exit_status, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vreport(exit_status, format, arguments);
    va_end(arguments);
}

void report_fatal(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vreport(1, format, arguments);
    va_end(arguments);
    abort(); // never reached: the report has ended the process
}

owned_text alloc_printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        report_fatal(1, "Cannot allocate memory: %s", strerror(errno));
    return owned_text(text);
}

void end_process(int exit_status)
{
    exit(exit_status);
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
