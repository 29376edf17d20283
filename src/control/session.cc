#include "control/session.h"

#include "common/conf.h"
#include "common/error.h"
#include "control/check.h"
#include "control/copies.h"
#include "control/lines.h"
#include "control/outcome.h"
#include "control/publish.h"
#include "control/refusals.h"
#include "control/rows.h"
#include "control/say.h"
#include "control/show.h"
#include "control/signals.h"
#include "process/exec.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The program beside this one.
std::string program_path()
{
    return dir_of(real_path("/proc/self/exe")) + "/mboxfix";
}

// Runs the stage and finds what it changed. False after a complaint.
bool make_stage(const run_mode &mode, std::size_t domains, stage &made, changes &found)
{
    note_lists(found);
    const std::string users = dir_of(list_path(assign));
    const auto watch = [&] {
        for (std::size_t layer = 0; layer < made.where.covered.size(); ++layer)
            if (made.where.covered[layer].named == users) {
                const std::string text = stage_text(made, formatted("u/%zu/assign", layer));
                show_progress("staged: domains", count_starting(text, '+'), domains);
            }
    };
    const std::string program = program_path();
    if (access(program.c_str(), X_OK) != 0)
        complain("%s: %s", program.c_str(), strerror(errno));
    else if (!run_staged(made, program, mode.option, watch))
        complain("%s", made.cause.c_str());
    else if (!find_changes(made, found))
        complain("the staged run cannot be looked at: %s", strerror(errno));
    else
        return end_progress(), true;
    end_progress();
    return false;
}

bool is_anything_changed(const changes &found)
{
    for (const list_state &list : found.lists)
        if (is_list_changed(list))
            return true;
    return !found.entries.empty();
}

// The question goes to where it is seen.
bool is_agreed_to()
{
    fflush(stdout);
    FILE *seen = isatty(STDOUT_FILENO) ? stdout : stderr;
    fputs("Put this in place? (y/N) ", seen);
    fflush(seen);
    char answer[16];
    return fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

publish_end publish_once(session &at, const changes &found, bool calls_virsetup)
{
    const instant start = std::chrono::steady_clock::now();
    note_signals();
    const auto keep = [&](std::string &cause) {
        return !is_anything_changed(found) || keep_copy(found, at.copy_tree, at.copy, cause);
    };
    const publish_end end = publish(found, calls_virsetup, keep, at.state);
    end_progress();
    if (end != publish_end::done && !at.state.has_begun)
        drop_copy(at);
    at.publish_seconds = seconds_since(start);
    return end;
}

// Waits for the real replay of the spam filter's settings, and hands on a signal.
bool replay_spam_settings()
{
    const std::string program = program_path();
    const char *const argv[] = {"mboxfix", "--spam-only", nullptr};
    const pid_t child = fork_execv(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, program.c_str(), argv);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        kill(child, noted_signal() != 0 ? noted_signal() : SIGTERM);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Stages, asks once, and publishes, again when something has changed meanwhile.
publish_end stage_and_publish(session &at, const run_mode &mode, std::size_t domains, bool is_agreed, bool &goes_on)
{
    publish_end end = publish_end::changed;
    for (int turn = 0; turn < max_stages && end == publish_end::changed; ++turn) {
        const instant start = std::chrono::steady_clock::now();
        stage made{};
        changes found{};
        goes_on = make_stage(mode, domains, made, found);
        const std::vector<std::string> causes = goes_on ? find_refusals(made, found) : std::vector<std::string>();
        at.stage_seconds = seconds_since(start);
        if (turn == 0 || !causes.empty())
            show_reports(made);
        fflush(stdout);
        goes_on = goes_on && causes.empty();
        if (!goes_on) {
            give_up(causes);
            at.state.cause = "it could not be staged again";
            return noted_signal() != 0 ? publish_end::interrupted : publish_end::failed;
        }
        if (turn == 0) {
            const std::string summary = summary_of(made, found);
            fputs(summary.c_str(), stdout);
            fflush(stdout);
            goes_on = is_agreed || is_agreed_to();
            const std::string_view agreed = goes_on ? std::string_view(summary) : std::string_view();
            for (const std::string_view line : lines_of(agreed))
                log_line("%s: %.*s", at.command.c_str(), static_cast<int>(line.size()), line.data());
        }
        if (!goes_on || !mode.with_rebuild)
            return publish_end::done;
        const bool calls_virsetup = stage_text(made, "calls").find("virsetup -r\n") != std::string::npos;
        end = publish_once(at, found, calls_virsetup);
        if (end == publish_end::changed && !at.state.has_begun)
            end_on_signals();
    }
    return end;
}

} // namespace

int check_command(const run_mode &mode)
{
    const check_result result = check_everything(mode, true);
    for (const finding_line &line : result.lines)
        printf("%s: %s\n", line.is_ok ? "ok" : "WRONG", printable(line.text).c_str());
    for (const std::string &warning : result.warnings)
        printf("note: %s\n", printable(warning).c_str());
    return is_fine(result) ? done : untouched;
}

int preview_command(const run_mode &mode, bool is_short, const std::string &pager_command)
{
    check_result result{};
    if (!check_configuration(result)) {
        complain_of(result);
        return untouched;
    }
    stage made{};
    changes found{};
    if (!make_stage(mode, count_domains(), made, found))
        return untouched;
    const std::vector<std::string> causes = find_refusals(made, found);
    {
        const pager shown(is_short ? "" : pager_command);
        show_reports(made);
        for (const std::string &cause : causes)
            printf("wrong: %s\n", printable(cause).c_str());
        fputs(summary_of(made, found).c_str(), stdout);
        if (!is_short)
            show_changes(found);
    }
    if (!causes.empty())
        return untouched;
    return is_anything_shown(found) ? would_change : done;
}

int apply_command(const run_mode &mode, bool is_agreed)
{
    if (!is_agreed && !isatty(STDIN_FILENO)) {
        complain("there is no terminal to ask on: give --yes");
        return untouched;
    }
    session at{};
    at.command = std::string("apply ") + mode.option;
    owned_fd lock;
    if (!prepare(lock))
        return untouched;
    const check_result result = check_everything(mode, false);
    if (complain_of(result))
        return untouched;
    bool goes_on = true;
    const publish_end end = stage_and_publish(at, mode, result.domains, is_agreed, goes_on);
    if (!goes_on)
        return at.state.has_begun ? end_badly(at, end) : untouched;
    if (end != publish_end::done)
        return end_badly(at, end);
    lock = owned_fd();
    note_signals();
    if (result.has_spam_filter && (noted_signal() != 0 || !replay_spam_settings())) {
        at.state.has_begun = true;
        at.state.cause = "mboxfix --spam-only failed";
        return end_badly(at, noted_signal() != 0 ? publish_end::interrupted : publish_end::failed);
    }
    tell_done(at);
    return done;
}
