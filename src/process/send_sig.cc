#include "process/send_sig.h"

#include "common/error.h"
#include "process/exec.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace {

constexpr const char *ps_path = "/bin/ps";
constexpr const char *grep_path = "/bin/grep";
constexpr const char *awk_path = "/usr/bin/awk";
constexpr const char *kill_path = "/bin/kill";

void signal_line(const char *line, const char *line_end, int signal, int &count)
{
    char *end = nullptr;
    const long pid = strtol(line, &end, 10);
    if (end == line || pid <= 0 || pid > INT_MAX) { // 0 and less would mean whole groups
        report_error(0, 0, "send_signal_field(): malformed ps output: %.*s", static_cast<int>(line_end - line), line);
        return;
    }
    ++count;
    if (kill(static_cast<pid_t>(pid), signal) != 0)
        report_error(0, 0, "send_signal_field(): failed to kill %d: %s", static_cast<int>(pid), strerror(errno));
}

int signal_matches(const char *output, const char *text, int signal)
{
    int count = 0;
    const char *at = output;
    while ((at = strstr(at, text))) {
        const auto *line = static_cast<const char *>(memrchr(output, '\n', static_cast<std::size_t>(at - output)));
        const char *line_end = strchrnul(at, '\n');
        if (line) // the first line is ps's heading
            signal_line(line, line_end, signal, count);
        if (*line_end == '\0')
            break;
        at = line_end + 1;
    }
    return count;
}

} // namespace

int is_process_running(const char *name)
{
    const text command =
        formatted("%s axww | %s -v grep | %s '{ print $5 }' | %s -E '((^|/)%s$)|([[(<]%s([)>]|])$)' >/dev/null",
                  ps_path, grep_path, awk_path, grep_path, name, name);
    return run_shell(command);
}

int kill_by_name(const char *name, int signal)
{
    const text command =
        formatted("for pid in `%s axc -opid,command|%s -E \"[0-9] %s$\"|%s '{print $1}' -` ; do %s -%d $pid ; done",
                  ps_path, grep_path, name, awk_path, kill_path, signal);
    return run_shell(command);
}

int kill_by_field(const char *field, const char *text, int signal)
{
    const owned_text format = alloc_printf("pid,%s", field);
    std::optional<std::string> output;
    if (fork_execl_getout(output, ps_path, ps_path, "-Aww", "-o", format.get(), static_cast<char *>(nullptr)) == 0)
        return output ? signal_matches(output->c_str(), text, signal) : 0;
    fprintf(stderr, "%s\n", output.value_or("").c_str());
    report_error(0, 0, "send_signal_field(): %s failed", ps_path);
    return -1;
}
