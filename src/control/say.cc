#include "control/say.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "common/owned.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char *log_path = "/var/log/mboxfixctl.log";

bool is_quiet = false;
bool has_line = false;      // on the terminal, to be written over
std::size_t last_tenth = 0; // that was told where there is none
std::string last_what;

bool is_terminal()
{
    static const bool is = isatty(STDERR_FILENO) != 0;
    return is;
}

__attribute__((format(printf, 1, 0))) std::string vformatted(const char *format, va_list arguments)
{
    char *made = nullptr;
    const owned_text text(vasprintf(&made, format, arguments) < 0 ? nullptr : made);
    return text ? text.get() : format;
}

void say(const std::string &text)
{
    end_progress();
    fprintf(stderr, "mboxfixctl: %s\n", printable(text).c_str());
}

bool is_harmless(char32_t character)
{
    const bool is_control = (character < 32 && character != '\t') || (character >= 127 && character < 160);
    const bool turns_the_line = (character >= 0x200e && character <= 0x200f) ||
                                (character >= 0x2028 && character <= 0x202e) ||
                                (character >= 0x2066 && character <= 0x2069);
    return !is_control && !turns_the_line;
}

// The bytes of the character of UTF-8 that the text begins with; 0 when there is none, or none that may be shown.
std::size_t character_length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length == 0 || length > text.size())
        return 0;
    char32_t character = length == 1 ? first : first & (0x7fU >> length);
    for (std::size_t at = 1; at < length; ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if ((byte & 0xc0) != 0x80)
            return 0;
        character = character << 6 | (byte & 0x3f);
    }
    const bool is_shortest = length < 3 || character >= (length == 3 ? 0x800U : 0x10000U);
    return is_shortest && is_harmless(character) ? length : 0;
}

} // namespace

void say_quietly()
{
    is_quiet = true;
}

void complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    say(vformatted(format, arguments));
    va_end(arguments);
}

void tell(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    if (!is_quiet)
        say(vformatted(format, arguments));
    va_end(arguments);
}

void show_progress(const char *what, std::size_t done, std::size_t total)
{
    if (is_quiet || total == 0)
        return;
    if (is_terminal()) {
        fprintf(stderr, "\r\033[K%s: %zu of %zu", what, done, total);
        has_line = true;
        return;
    }
    if (last_what != what) {
        last_what = what;
        last_tenth = 0;
    }
    if (const std::size_t tenth = done * 10 / total; tenth > last_tenth) {
        last_tenth = tenth;
        fprintf(stderr, "%s: %zu of %zu\n", what, done, total);
    }
}

void end_progress()
{
    if (has_line)
        fputs("\r\033[K", stderr);
    has_line = false;
}

void log_line(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string text = printable(vformatted(format, arguments));
    va_end(arguments);
    const owned_fd log(open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
    const time_t now = time(nullptr);
    struct tm local = {};
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", localtime_r(&now, &local));
    const std::string line = std::string(stamp) + " " + text + "\n";
    static bool complained = false;
    if ((log.get() < 0 || write_all(log.get(), line) != 0) && !complained) {
        complained = true;
        complain("%s: %s", log_path, strerror(errno));
    }
}

void log_to_system(const char *text)
{
    openlog("mboxfixctl", LOG_PID, LOG_MAIL);
    syslog(LOG_NOTICE, "%s", text);
    closelog();
}

std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        if (length == 0)
            shown += '?';
        else
            shown += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}
