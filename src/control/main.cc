#include "common/error.h"
#include "common/startup.h"
#include "control/outcome.h"
#include "control/restore.h"
#include "control/say.h"
#include "control/session.h"
#include "control/signals.h"

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *usage_text =
    "Usage: mboxfixctl COMMAND [OPTION]...\n"
    "  Rebuild a mail server's configuration without a live server noticing.\n"
    "\n"
    "  check [MODE]                 may a run succeed here? changes nothing\n"
    "  preview [MODE] [--summary]   what a run would change; changes nothing\n"
    "  apply [MODE] [--yes]         rebuild aside, look at it, keep a copy, put it in place\n"
    "  restore [COPY]               put a kept copy back, the latest if none is named\n"
    "  restore --list               name the kept copies\n"
    "\n"
    "  MODE is --with-spam (as if none is given), --without-spam or --spam-only.\n"
    "  --quiet shows no progress; --help and --version say this and the version.\n"
    "\n"
    "  Exit status: 0 done, or nothing would change; 1 something would change, or failed after the first change;\n"
    "  2 nothing has been touched.\n";

constexpr run_mode modes[] = {
    {true, true, "--with-spam"},
    {true, false, "--without-spam"},
    {false, true, "--spam-only"},
};

constexpr int misused = 2;

struct command_line {
    std::string_view command;
    const run_mode *mode;
    bool is_short;
    bool is_agreed;
    bool wants_list;
    std::string copy;
};

bool take_mode(std::string_view word, command_line &given)
{
    for (const run_mode &mode : modes)
        if (word == mode.option && !given.mode && given.command != "restore") {
            given.mode = &mode;
            return true;
        }
    return false;
}

bool take_word(std::string_view word, command_line &given)
{
    if (word == "--quiet")
        return say_quietly(), true;
    if (word == "--summary" && given.command == "preview")
        return given.is_short = true;
    if (word == "--yes" && given.command == "apply")
        return given.is_agreed = true;
    if (word == "--list" && given.command == "restore")
        return given.wants_list = true;
    if (!word.starts_with('-') && given.command == "restore" && given.copy.empty() && !word.empty())
        return given.copy = word, true;
    return take_mode(word, given);
}

bool is_command(std::string_view word)
{
    for (const std::string_view command : {"check", "preview", "apply", "restore"})
        if (word == command)
            return true;
    return false;
}

// Options may stand before the command.
bool read_command_line(const std::vector<std::string_view> &words, command_line &given)
{
    for (const std::string_view word : words)
        if (given.command.empty() && is_command(word))
            given.command = word;
    bool is_known = false; // the command's own word is passed over once
    for (const std::string_view word : words) {
        if (!is_known && word == given.command)
            is_known = true;
        else if (!take_word(word, given))
            return false;
    }
    return is_known && !(given.wants_list && !given.copy.empty());
}

int run_command(const command_line &given, const std::string &pager_command)
{
    const run_mode &mode = given.mode ? *given.mode : modes[0];
    if (given.command == "check")
        return check_command(mode);
    if (given.command == "preview")
        return preview_command(mode, given.is_short, pager_command);
    if (given.command == "apply")
        return apply_command(mode, given.is_agreed);
    return given.wants_list ? list_command() : restore_command(given.copy);
}

// A reader that has seen enough is no failure. What cannot be shown was not done, where showing is all there is to do.
int finish(int status, bool only_shows)
{
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if ((fflush(stdout) == 0 && ferror(stdout) == 0) || poll(&out, 1, 0) < 0 ||
        (out.revents & (POLLERR | POLLNVAL)) != 0)
        return status;
    complain("standard output cannot be written");
    return only_shows ? untouched : status;
}

} // namespace

int main(int argc, char **argv)
{
    program_name = "mboxfixctl";
    const char *named = getenv("PAGER");
    const std::string pager_command = named ? named : "pager";
    settle_process();
    end_on_signals();
    umask(022);
    const std::vector<std::string_view> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    for (const std::string_view word : words) {
        if (word == "--help")
            return finish(fputs(usage_text, stdout) < 0 ? misused : 0, true);
        if (word == "--version")
            return finish(puts("mboxfixctl " MBOXFIX_VERSION) < 0 ? misused : 0, true);
    }
    command_line given{};
    if (!read_command_line(words, given)) {
        fputs(usage_text, stderr);
        return misused;
    }
    if (geteuid() != 0 || setuid(0) != 0 || setgid(0) != 0) {
        complain("must be run as root");
        return misused;
    }
    const bool only_shows = given.command == "check" || given.command == "preview" || given.wants_list;
    return finish(run_command(given, pager_command), only_shows);
}
