#include "control/places.h"

#include "common/conf.h"
#include "common/owned.h"
#include "filters/antivirus.h"
#include "qmail/layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr const char *qmail_lists[] = {"/control/rcpthosts", "/control/virtualdomains", "/control/rejectnonexist",
                                       "/users/assign", "/users/poppasswd"};

// What a run looks at in a mailbox directory, and in its Maildir; anything may stand in the directories above.
constexpr std::string_view mailbox_names[] = {".qmail", "Maildir", "@attachments", "@mbox.quota"};
constexpr std::string_view maildir_names[] = {"tmp", "new", "cur"};
constexpr int mailbox_depth = 3;

bool is_of_interest(int depth, std::string_view name)
{
    if (depth == mailbox_depth)
        return std::find(std::begin(mailbox_names), std::end(mailbox_names), name) != std::end(mailbox_names);
    if (depth == mailbox_depth + 1)
        return std::find(std::begin(maildir_names), std::end(maildir_names), name) != std::end(maildir_names);
    return true;
}

using owned_dir = std::unique_ptr<DIR, releaser<closedir>>;
using owned_mounts = std::unique_ptr<FILE, releaser<endmntent>>;

// Adds a place, and the file systems mounted below it.
void add_place(places &found, const std::string &real, const std::string &named, bool is_shown)
{
    found.covered.push_back({real, named, is_shown});
    const owned_mounts mounts(setmntent("/proc/self/mounts", "re"));
    while (const struct mntent *mount = mounts ? getmntent(mounts.get()) : nullptr) {
        const std::string at = mount->mnt_dir;
        if (at.starts_with(real + "/"))
            found.covered.push_back({at, named + at.substr(real.size()), is_shown});
    }
}

void note_link(places &found, int dir, const char *name, const std::string &path, std::vector<std::string> &ahead)
{
    struct stat link = {};
    struct stat end = {};
    if (fstatat(dir, name, &link, AT_SYMLINK_NOFOLLOW) != 0)
        return;
    if (link.st_uid != 0) {
        found.strangers.push_back(path);
        return;
    }
    if (fstatat(dir, name, &end, 0) != 0 || !S_ISDIR(end.st_mode))
        return;
    if (const std::string real = real_path(path); !real.empty()) {
        add_place(found, real, path, true);
        ahead.push_back(path);
    }
}

// Looks for links below the mailnames directory as deep as a run goes. Mail, of which there can be much, lies deeper.
void find_links(places &found, const std::string &path, int depth)
{
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const owned_dir dir(fd < 0 ? nullptr : fdopendir(fd));
    std::vector<std::string> ahead;
    while (const struct dirent *entry = dir ? readdir(dir.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || !is_of_interest(depth, name))
            continue;
        unsigned char type = entry->d_type;
        struct stat status = {};
        if (type == DT_UNKNOWN && fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
            type = static_cast<unsigned char>(IFTODT(status.st_mode));
        const std::string entry_path = (path + "/").append(name);
        if (type == DT_LNK)
            note_link(found, fd, entry->d_name, entry_path, ahead);
        else if (type == DT_DIR)
            ahead.push_back(entry_path);
    }
    const bool goes_on = depth <= mailbox_depth;
    for (const std::string &next : ahead)
        if (goes_on && (depth < mailbox_depth || name_of(next) == "Maildir"))
            find_links(found, next, depth + 1);
}

// What root's links in the place of lists lead to.
void find_list_links(places &found)
{
    for (int number = 0; number < list_count; ++number) {
        const std::string path = list_path(static_cast<list_number>(number));
        struct stat link = {};
        if (lstat(path.c_str(), &link) != 0 || !S_ISLNK(link.st_mode))
            continue;
        const std::string real = real_path(path);
        if (link.st_uid != 0 || real.empty())
            found.strangers.push_back(path);
        else
            add_place(found, dir_of(real), dir_of(real), false);
    }
}

} // namespace

std::string real_path(const std::string &path)
{
    const owned_text real(realpath(path.c_str(), nullptr));
    return real ? real.get() : "";
}

std::string dir_of(const std::string &path)
{
    std::size_t end = path.rfind('/');
    while (end != std::string::npos && end > 0 && path[end - 1] == '/')
        --end;
    return end == 0 || end == std::string::npos ? "/" : path.substr(0, end);
}

std::string name_of(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string mailnames_dir()
{
    return dir_of(std::string(QMAIL_MAILNAMES_D) + "/");
}

bool is_below_maildir(std::string_view path)
{
    const std::string top = mailnames_dir();
    if (!path.starts_with(top + "/"))
        return false;
    path.remove_prefix(top.size());
    const auto skip_slashes = [&path] { path.remove_prefix(std::min(path.find_first_not_of('/'), path.size())); };
    skip_slashes();
    for (int depth = 1; depth < mailbox_depth; ++depth) {
        path.remove_prefix(std::min(path.find('/'), path.size()));
        skip_slashes();
    }
    return path.starts_with("Maildir/");
}

std::string existing(std::string path)
{
    struct stat status = {};
    while (path != "/" && (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
        path = dir_of(path);
    return path;
}

std::string list_path(list_number number)
{
    return number == recipients ? av_list_path().c_str() : qmail_path(qmail_lists[number]).c_str();
}

bool find_places(places &found, std::string &cause)
{
    const std::string locks = std::string(PRODUCT_ROOT_D) + "/var/lock/files";
    const std::string tops[] = {qmail_path("/control").c_str(), qmail_path("/users").c_str(), QMAIL_MAILNAMES_D,
                                DRWEB_ETC_D, locks};
    for (const std::string &top : tops) {
        // None but the mailnames directory is ever made.
        const std::string named = top == QMAIL_MAILNAMES_D ? existing(top) : top;
        if (const std::string real = real_path(named); !real.empty())
            add_place(found, real, named, top != locks);
    }
    find_links(found, QMAIL_MAILNAMES_D, 1);
    find_list_links(found);
    std::stable_sort(found.covered.begin(), found.covered.end(),
                     [](const place &one, const place &other) { return one.real < other.real; });
    const auto same = [](const place &one, const place &other) { return one.real == other.real; };
    found.covered.erase(std::unique(found.covered.begin(), found.covered.end(), same), found.covered.end());
    for (const place &at : found.covered)
        if (at.real.empty() || at.real == "/") {
            cause = at.named + " leads to the root directory";
            return false;
        }
    return true;
}
