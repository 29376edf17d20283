#include "control/restore.h"

#include "common/conf.h"
#include "common/error.h"
#include "control/check.h"
#include "control/copies.h"
#include "control/obstacles.h"
#include "control/outcome.h"
#include "control/say.h"
#include "control/signals.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

// A restore that was cut off may have put the list in place and told nobody.
bool concerns_antivirus(const changes &found)
{
    const list_state &list = found.lists[recipients];
    return is_list_changed(list) ||
           (list.after && access(formatted("%s/admin/bin/virsetup", PRODUCT_ROOT_D), X_OK) == 0);
}

} // namespace

int restore_command(std::string copy)
{
    session at{};
    owned_fd lock;
    if (!prepare(lock))
        return untouched;
    check_result programs{};
    check_programs(programs);
    if (complain_of(programs))
        return untouched;
    publish_end end = publish_end::changed;
    for (int turn = 0; turn < max_stages && end == publish_end::changed; ++turn) {
        const instant start = std::chrono::steady_clock::now();
        changes found{};
        std::string cause;
        note_lists(found);
        owned_fd tree = open_copy(copy, cause);
        at.command = "restore " + copy;
        if (tree.get() < 0)
            return give_up({cause});
        if (!find_differences(std::move(tree), found))
            return give_up({copy + (errno == ENOENT ? " has none of this system's lists" : " cannot be looked at")});
        if (const std::vector<std::string> causes = find_obstacles(found); !causes.empty())
            return give_up(causes);
        at.stage_seconds = seconds_since(start);
        note_signals();
        const auto keep_none = [](std::string &) { return true; };
        end = publish(found, concerns_antivirus(found), keep_none, at.state);
        at.publish_seconds = seconds_since(start) - at.stage_seconds;
        end_progress();
        if (end == publish_end::changed && !at.state.has_begun)
            end_on_signals();
    }
    if (end != publish_end::done)
        return end_badly(at, end);
    printf("%s is put back\n", copy.c_str());
    tell_done(at);
    return done;
}

int list_command()
{
    for (const std::string &name : list_copies())
        printf("%s\n", name.c_str());
    return done;
}
