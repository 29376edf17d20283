#include "control/show.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "control/lines.h"
#include "control/say.h"
#include "control/signals.h"
#include "process/exec.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <map>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string user_name(uid_t uid)
{
    static std::map<uid_t, std::string> known;
    const auto [at, is_new] = known.try_emplace(uid);
    if (is_new) {
        const struct passwd *user = getpwuid(uid);
        at->second = user ? user->pw_name : std::to_string(uid);
    }
    return at->second;
}

std::string group_name(gid_t gid)
{
    static std::map<gid_t, std::string> known;
    const auto [at, is_new] = known.try_emplace(gid);
    if (is_new) {
        const struct group *group = getgrgid(gid);
        at->second = group ? group->gr_name : std::to_string(gid);
    }
    return at->second;
}

std::string attributes(const struct stat &status)
{
    return formatted("%s:%s %o", user_name(status.st_uid).c_str(), group_name(status.st_gid).c_str(),
                     status.st_mode & 07777)
        .c_str();
}

// As it is shown; none for a file that is not there.
std::string shown(int number, const std::optional<std::string> &text)
{
    return number == poppasswd ? masked(text.value_or("")) : text.value_or("");
}

bool have_attributes_changed(const list_state &list)
{
    return list.before && list.after &&
           (list.status_before.st_uid != list.status_after.st_uid ||
            list.status_before.st_gid != list.status_after.st_gid ||
            (list.status_before.st_mode & 07777) != (list.status_after.st_mode & 07777));
}

bool is_shown(int number, const list_state &list)
{
    return list.before.has_value() != list.after.has_value() ||
           shown(number, list.before) != shown(number, list.after) || have_attributes_changed(list);
}

void print_lines(char sign, const std::vector<std::string_view> &lines, std::size_t from, std::size_t to)
{
    for (std::size_t at = from; at < to; ++at)
        printf("%c%s\n", sign, printable(lines[at]).c_str());
}

std::string hunk_range(std::size_t from, std::size_t count)
{
    return formatted("%zu,%zu", count == 0 ? from : from + 1, count).c_str();
}

// A file of a few lines: everything between the lines that are the same at both ends.
void print_short_diff(const std::string &path, const std::string &before, const std::string &after)
{
    const std::vector<std::string_view> old_lines = lines_of(before);
    const std::vector<std::string_view> new_lines = lines_of(after);
    const std::size_t shorter = std::min(old_lines.size(), new_lines.size());
    std::size_t head = 0;
    while (head < shorter && old_lines[head] == new_lines[head])
        ++head;
    std::size_t tail = 0;
    while (tail < shorter - head && old_lines[old_lines.size() - 1 - tail] == new_lines[new_lines.size() - 1 - tail])
        ++tail;
    const std::size_t old_end = old_lines.size() - tail;
    const std::size_t new_end = new_lines.size() - tail;
    printf("--- %s\n+++ %s (rebuilt)\n@@ -%s +%s @@\n", path.c_str(), path.c_str(),
           hunk_range(head, old_end - head).c_str(), hunk_range(head, new_end - head).c_str());
    print_lines('-', old_lines, head, old_end);
    print_lines('+', new_lines, head, new_end);
}

owned_fd memory_file(const std::string &text)
{
    owned_fd file(memfd_create("list", MFD_CLOEXEC));
    if (file.get() < 0 || write_all(file.get(), text) != 0)
        return {};
    return file;
}

// A list, which can be long.
void print_diff(const std::string &path, const std::string &before, const std::string &after)
{
    const owned_fd old_file = memory_file(before);
    const owned_fd new_file = memory_file(after);
    const text old_path = formatted("/proc/%d/fd/%d", static_cast<int>(getpid()), old_file.get());
    const text new_path = formatted("/proc/%d/fd/%d", static_cast<int>(getpid()), new_file.get());
    const std::string new_label = path + " (rebuilt)";
    const char *const argv[] = {"diff",    "--text",          "-u",     "--label", path.c_str(),
                                "--label", new_label.c_str(), old_path, new_path,  nullptr};
    const owned_fd output = memory_file("");
    fflush(stdout);
    const pid_t child = fork_execv(STDIN_FILENO, output.get(), STDERR_FILENO, "/usr/bin/diff", argv);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    const auto diff = file_bytes_at(AT_FDCWD, formatted("/proc/self/fd/%d", output.get()));
    if (!diff || !WIFEXITED(status) || WEXITSTATUS(status) > 1)
        return print_short_diff(path, before, after);
    for (const std::string_view line : lines_of(*diff))
        printf("%s\n", printable(line).c_str());
}

void show_list(int number, const list_state &list)
{
    const std::string path = list_path(static_cast<list_number>(number));
    const std::string before = shown(number, list.before);
    const std::string after = shown(number, list.after);
    if (before != after)
        print_diff(path, before, after);
    if (!list.before && list.after)
        printf("new file: %s (%s)\n", path.c_str(), attributes(list.status_after).c_str());
    if (have_attributes_changed(list))
        printf("owner and mode: %s (%s -> %s)\n", path.c_str(), attributes(list.status_before).c_str(),
               attributes(list.status_after).c_str());
}

void show_change(const changes &found, const change &of)
{
    const std::string path = printable(of.path);
    if (of.what == kind::content || of.what == kind::new_file) {
        print_short_diff(path, old_bytes(of).value_or(""), new_bytes(found, of).value_or(""));
    }
    if (of.what == kind::new_directory)
        printf("new directory: %s (%s)\n", path.c_str(), attributes(of.after).c_str());
    if (of.what == kind::new_file)
        printf("new file: %s (%s)\n", path.c_str(), attributes(of.after).c_str());
    if (of.what == kind::removal)
        printf("removed: %s\n", path.c_str());
    if (of.what == kind::loss)
        printf("would be lost: %s\n", path.c_str());
    if ((of.what == kind::attributes || of.what == kind::content) && attributes(of.before) != attributes(of.after))
        printf("owner and mode: %s (%s -> %s)\n", path.c_str(), attributes(of.before).c_str(),
               attributes(of.after).c_str());
}

std::string summary_of_list(int number, const list_state &list)
{
    const std::string before = shown(number, list.before);
    const std::string after = shown(number, list.after);
    const line_counts counts = count_lines(before, after);
    std::string text = list_path(static_cast<list_number>(number)) + ": ";
    if (!list.before && counts.come == 0)
        return text + "new, empty\n";
    if (counts.come == 0 && counts.go == 0)
        return text + (before == after ? "owner or mode" : "the order of the lines") + "\n";
    return text + formatted("%zu lines come, %zu go\n", counts.come, counts.go).c_str();
}

std::string summary_of_calls(const stage &made)
{
    std::map<std::string, std::size_t> calls;
    const std::string text = stage_text(made, "calls");
    for (const std::string_view call : lines_of(text))
        ++calls[std::string(call.starts_with("spamsetup") ? "spamsetup" : call)];
    std::string summary;
    for (const auto &[call, count] : calls)
        summary += formatted("would call: %s%s\n", printable(call).c_str(),
                             count > 1 ? formatted(" (%zu times)", count).c_str() : "")
                       .c_str();
    return summary;
}

} // namespace

bool is_anything_shown(const changes &found)
{
    for (int number = 0; number < list_count; ++number)
        if (is_shown(number, found.lists[number]))
            return true;
    return !found.entries.empty();
}

std::string summary_of(const stage &made, const changes &found)
{
    std::size_t counts[static_cast<int>(kind::loss) + 1] = {};
    for (const change &entry : found.entries)
        ++counts[static_cast<int>(entry.what)];
    const auto count = [&counts](kind what) { return counts[static_cast<int>(what)]; };
    std::string text =
        formatted("%zu domains, %zu mailboxes\n", count_starting(found.lists[assign].after.value_or(""), '+'),
                  lines_of(found.lists[poppasswd].after.value_or("")).size())
            .c_str();
    for (int number = 0; number < list_count; ++number)
        if (is_shown(number, found.lists[number]))
            text += summary_of_list(number, found.lists[number]);
    const struct {
        kind what;
        const char *name;
    } rows[] = {{kind::new_directory, "new directories"}, {kind::new_file, "new files"},
                {kind::content, "rewritten files"},       {kind::attributes, "owners and modes"},
                {kind::removal, "removed files"},         {kind::loss, "would be lost"}};
    for (const auto &row : rows)
        if (count(row.what) > 0)
            text += std::string(row.name) + ": " + std::to_string(count(row.what)) + "\n";
    return text + summary_of_calls(made);
}

void show_changes(const changes &found)
{
    for (int number = 0; number < list_count; ++number)
        if (is_shown(number, found.lists[number]))
            show_list(number, found.lists[number]);
    for (const change &entry : found.entries)
        show_change(found, entry);
}

void show_reports(const stage &made)
{
    const std::string reports = stage_text(made, "err");
    for (const std::string_view line : lines_of(reports))
        if (!line.empty())
            printf("would report: %s\n", printable(line).c_str());
}

pager::pager(const std::string &command)
{
    int ends[2];
    if (!isatty(STDOUT_FILENO) || command.empty() || pipe(ends) != 0)
        return;
    child = fork();
    if (child == 0) {
        forget_signals();
        dup2(ends[0], STDIN_FILENO);
        close_descriptors();
        restore_signals();
        setenv("LESS", "FRX", 0);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    if (child > 0) {
        dup2(ends[1], STDOUT_FILENO);
        signal(SIGINT, SIG_IGN); // the pager's to obey
    }
    close(ends[0]);
    close(ends[1]);
}

pager::~pager()
{
    if (child <= 0)
        return;
    fflush(stdout);
    close(STDOUT_FILENO);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
        ;
}
