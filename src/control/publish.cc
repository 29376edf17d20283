#include "control/publish.h"

#include "common/conf.h"
#include "control/apart.h"
#include "control/lines.h"
#include "control/put.h"
#include "control/run_lock.h"
#include "control/say.h"
#include "control/signals.h"
#include "process/exec.h"
#include "process/service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>

namespace {

using held_lock = std::unique_ptr<file_lock>;

// A publishing on its way.
struct passage {
    const changes &found;
    publishing &state;
    held_lock locks[list_count];
    std::string reduced; // rcpthosts without the lines that go
};

publish_end fail(passage &way, const std::string &what)
{
    way.state.cause = what + ": " + strerror(errno);
    return noted_signal() != 0 ? publish_end::interrupted : publish_end::failed;
}

bool is_earlier(const struct timespec &one, const struct timespec &other)
{
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

// A file may have been changed after the staged run had read the database and before it was looked at. That a directory
// has been filled meanwhile means nothing; the path of one that is a place of the stage may be a link.
bool is_unchanged(const passage &way, const change &entry)
{
    const bool was_dir = S_ISDIR(entry.before.st_mode);
    struct stat now = {};
    if ((was_dir ? stat(entry.path.c_str(), &now) : lstat(entry.path.c_str(), &now)) != 0)
        return entry.before.st_mode == 0;
    if (was_dir)
        return now.st_mode == entry.before.st_mode && now.st_uid == entry.before.st_uid &&
               now.st_gid == entry.before.st_gid;
    struct timespec moment = {};
    clock_gettime(CLOCK_REALTIME, &moment);
    // What lies ahead was noted before the clock was set back.
    const bool is_older = is_earlier(now.st_ctim, way.found.since) || is_earlier(moment, now.st_ctim);
    return is_older && is_same_file(now, entry.before);
}

bool is_unchanged(int number, const list_state &list)
{
    const std::string path = list_path(static_cast<list_number>(number));
    struct stat now = {};
    if (stat(path.c_str(), &now) != 0)
        return !list.before;
    const struct stat &then = list.status_before;
    return file_bytes_at(AT_FDCWD, path.c_str()) == list.before &&
           (!list.before || (now.st_mode == then.st_mode && now.st_uid == then.st_uid && now.st_gid == then.st_gid));
}

publish_end look_at_entries(const passage &way)
{
    const auto &entries = way.found.entries;
    return std::all_of(entries.begin(), entries.end(), [&](const change &entry) { return is_unchanged(way, entry); })
               ? publish_end::done
               : publish_end::changed;
}

// Takes the locks of the lists that change and looks at everything again, at the other lists, too: what the panel adds
// or takes away changes one of them. Nobody else holds two of these locks at once.
publish_end lock_and_look(passage &way)
{
    for (int number = 0; number < list_count; ++number) {
        const list_state &list = way.found.lists[number];
        const std::string path = list_path(static_cast<list_number>(number));
        if (is_list_changed(list)) {
            way.locks[number] = wait_for_lock(path);
            if (!lock_file_is_held(way.locks[number]))
                return fail(way, "the lock of " + path + " cannot be had");
        }
        if (!is_unchanged(number, list))
            return publish_end::changed;
    }
    return look_at_entries(way);
}

// Puts one list in place with these bytes.
publish_end put_list(passage &way, list_number number, const std::string &bytes)
{
    const std::string path = list_path(number);
    const std::string real = real_path(path);
    if (!put_file(real.empty() ? path : real, bytes, way.found.lists[number].status_after, true))
        return fail(way, path);
    way.state.has_begun = true;
    way.state.in_place.push_back(path);
    return publish_end::done;
}

publish_end put_changed_list(passage &way, list_number number)
{
    const list_state &list = way.found.lists[number];
    return is_list_changed(list) && list.after ? put_list(way, number, *list.after) : publish_end::done;
}

publish_end take_lines_out(passage &way)
{
    const list_state &list = way.found.lists[rcpthosts];
    const std::string before = list.before.value_or("");
    way.reduced = common_lines(before, list.after.value_or(""));
    if (count_lines(before, way.reduced).go == 0) {
        way.reduced = before;
        return publish_end::done;
    }
    return put_list(way, rcpthosts, way.reduced);
}

publish_end put_entry(passage &way, const change &entry)
{
    const bool is_dir = S_ISDIR(entry.after.st_mode);
    held_lock lock(is_dir ? nullptr : wait_for_lock(entry.path));
    if (!is_dir && !lock_file_is_held(lock))
        return fail(way, "the lock of " + entry.path + " cannot be had");
    if (!is_unchanged(way, entry))
        return publish_end::changed;
    const auto bytes =
        entry.what == kind::content || entry.what == kind::new_file ? new_bytes(way.found, entry) : std::string();
    // A directory may have been made and not given away.
    way.state.has_begun = way.state.has_begun || is_dir;
    if (!bytes || !put_in_place(entry, *bytes)) // what it is to lie in may have gone
        return errno == ENOENT && noted_signal() == 0 ? publish_end::changed : fail(way, entry.path);
    way.state.has_begun = true;
    return publish_end::done;
}

// Directories first: an entry's own comes before it.
publish_end put_entries(passage &way, std::size_t &done)
{
    for (const bool wants_dir : {true, false})
        for (const change &entry : way.found.entries) {
            if (S_ISDIR(entry.after.st_mode) != wants_dir)
                continue;
            if (noted_signal() != 0)
                return publish_end::interrupted;
            if (const publish_end end = put_entry(way, entry); end != publish_end::done)
                return end;
            show_progress("published: directories and files of mailboxes", ++done, way.found.entries.size());
        }
    return publish_end::done;
}

publish_end put_mailboxes(passage &way)
{
    std::size_t done = 0;
    const publish_end end = put_entries(way, done);
    if (done > 0)
        way.state.in_place.push_back(std::to_string(done) + " directories and files of mailboxes");
    return end;
}

publish_end rebuild_users(passage &way)
{
    way.state.has_begun = true;
    const int status = run_apart([] { return (run_shell(qmail_newu()) >> 8) & 0xff; });
    if (status != 0) {
        way.state.cause = "qmail-newu ended with status " + std::to_string(status);
        return publish_end::failed;
    }
    way.state.in_place.emplace_back("qmail-newu's database");
    return publish_end::done;
}

publish_end restart(passage &way)
{
    if (conf_get("NO_RESTART_DAEMON"))
        return publish_end::done;
    if (run_apart([] { return service_control("qmail", "restart") == 0 ? 0 : 1; }) != 0) {
        way.state.cause = "qmail could not be restarted";
        return publish_end::failed;
    }
    way.state.in_place.emplace_back("the restart of qmail");
    return publish_end::done;
}

// The list may have been edited since the lines that go have left it.
publish_end let_lines_in(passage &way)
{
    const list_state &list = way.found.lists[rcpthosts];
    if (!is_list_changed(list) || !list.after)
        return publish_end::done;
    const std::string path = list_path(rcpthosts);
    const held_lock lock = wait_for_lock(path);
    if (!lock_file_is_held(lock))
        return fail(way, "the lock of " + path + " cannot be had");
    const std::string now = file_bytes_at(AT_FDCWD, path.c_str()).value_or("");
    const std::string before = list.before.value_or("");
    return put_list(way, rcpthosts, now == way.reduced ? *list.after : merged_lines(now, before, *list.after));
}

bool tell_antivirus(passage &way)
{
    const int status = run_apart([] { return util_exec("virsetup", "-r", static_cast<char *>(nullptr)); });
    if (status == 0)
        way.state.in_place.emplace_back("virsetup -r");
    return status == 0;
}

using step = publish_end (*)(passage &);

constexpr step steps_before_virsetup[] = {
    take_lines_out,
    put_mailboxes,
    [](passage &way) { return put_changed_list(way, assign); },
    rebuild_users,
    [](passage &way) { return put_changed_list(way, poppasswd); },
    [](passage &way) { return put_changed_list(way, virtualdomains); },
    [](passage &way) { return put_changed_list(way, rejectnonexist); },
    [](passage &way) { return put_changed_list(way, recipients); },
};
constexpr step steps_behind_virsetup[] = {restart, let_lines_in};

template <std::size_t Count> publish_end take_steps(const step (&steps)[Count], passage &way)
{
    for (const step take : steps) {
        if (noted_signal() != 0)
            return publish_end::interrupted;
        if (const publish_end end = take(way); end != publish_end::done)
            return end;
    }
    return publish_end::done;
}

} // namespace

publish_end publish(const changes &found, bool calls_virsetup, const std::function<bool(std::string &)> &keep_copy,
                    publishing &state)
{
    passage way = {found, state, {}, {}};
    if (const publish_end end = lock_and_look(way); end != publish_end::done)
        return end;
    if (!keep_copy(state.cause)) {
        if (noted_signal() != 0)
            return publish_end::interrupted;
        return look_at_entries(way) == publish_end::changed ? publish_end::changed : publish_end::failed;
    }
    if (const publish_end end = take_steps(steps_before_virsetup, way); end != publish_end::done)
        return end;
    for (held_lock &lock : way.locks)
        lock.reset(); // the utilities may want them
    const bool is_told = !calls_virsetup || tell_antivirus(way);
    const publish_end end = take_steps(steps_behind_virsetup, way);
    if (end != publish_end::done || is_told)
        return end;
    state.cause = "virsetup -r failed";
    return publish_end::failed;
}
