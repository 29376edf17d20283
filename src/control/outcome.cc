#include "control/outcome.h"

#include "common/error.h"
#include "control/check.h"
#include "control/places.h"
#include "control/run_lock.h"
#include "control/say.h"
#include "control/signals.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

void tell_in_place(const session &at)
{
    for (const std::string &what : at.state.in_place)
        complain("in place: %s", what.c_str());
    if (!at.copy.empty())
        complain("the former state is kept: mboxfixctl restore %s", name_of(at.copy).c_str());
}

} // namespace

double seconds_since(instant start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void drop_copy(session &at)
{
    if (!at.copy.empty())
        unlink(at.copy.c_str());
    at.copy.clear();
    at.copy_tree = owned_fd();
}

bool prepare(owned_fd &lock)
{
    check_result result{};
    std::string holder;
    if (!check_configuration(result))
        return !complain_of(result);
    if (take_run_lock(lock, holder))
        return true;
    complain("another run is at work: %s", holder.c_str());
    return false;
}

bool complain_of(const check_result &result)
{
    for (const finding_line &line : result.lines)
        if (!line.is_ok)
            complain("%s", line.text.c_str());
    for (const std::string &warning : result.warnings)
        complain("%s", warning.c_str());
    return !is_fine(result);
}

int give_up(const std::vector<std::string> &causes)
{
    for (const std::string &cause : causes)
        complain("%s", cause.c_str());
    return untouched;
}

int end_badly(const session &at, publish_end end)
{
    const bool is_ended = end == publish_end::changed && noted_signal() != 0; // the stage, made again
    const std::string cause = end == publish_end::interrupted || is_ended
                                  ? std::string("interrupted by ") + strsignal(noted_signal())
                              : end == publish_end::changed ? "other programs keep changing the files"
                                                            : at.state.cause;
    complain("%s", cause.c_str());
    if (!at.state.has_begun) {
        complain("nothing has been changed");
        log_line("%s: nothing has been changed: %s", at.command.c_str(), cause.c_str());
        return untouched;
    }
    tell_in_place(at);
    complain("what is missing comes with the next mboxfixctl %s",
             at.command.starts_with("restore") ? at.command.c_str() : "apply");
    log_line("%s: failed: %s", at.command.c_str(), cause.c_str());
    log_to_system((at.command + ": failed: " + cause).c_str());
    return failed;
}

void tell_done(const session &at)
{
    const text times = formatted("staged in %.1f s, published in %.1f s", at.stage_seconds, at.publish_seconds);
    printf("%s\n", times.c_str());
    if (!at.copy.empty())
        printf("the former state is kept in %s; to put it back: mboxfixctl restore %s\n", at.copy.c_str(),
               name_of(at.copy).c_str());
    log_line("%s: done: %s%s%s", at.command.c_str(), times.c_str(), at.copy.empty() ? "" : ", the former state is in ",
             at.copy.c_str());
    log_to_system((at.command + ": done").c_str());
}
