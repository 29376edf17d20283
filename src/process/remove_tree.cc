#include "process/remove_tree.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/safe_open.h"
#include "process/exec.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *rm_path = "/bin/rm";

using owned_dir = std::unique_ptr<DIR, releaser<closedir>>;

constexpr const char *deferred_prefix = "__deleted";
constexpr const char *const *deferred_dirs[] = {&HTTPD_VHOSTS_D, &QMAIL_MAILNAMES_D};

// Fills the X's at the end of a path so that nothing lies there yet, as mktemp() would, which the linker advises
// against: the race it fears ends here in rename_dir's refusal. False when no such name was found.
bool fill_unused_name(char *path)
{
    constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    const int former_errno = errno;
    unsigned char drawn[6];
    char *tail = path + strlen(path) - sizeof drawn;
    if (strcmp(tail, "XXXXXX") != 0) { // the path was cut
        errno = EINVAL;
        return false;
    }
    for (int tries = 0; tries < 100; ++tries) {
        if (getentropy(drawn, sizeof drawn) != 0)
            return false;
        for (std::size_t at = 0; at < sizeof drawn; ++at)
            tail[at] = alphabet[drawn[at] % (sizeof alphabet - 1)];
        struct stat status;
        if (lstat(path, &status) == 0)
            continue;
        const bool unused = errno == ENOENT;
        if (unused)
            errno = former_errno;
        return unused;
    }
    return false;
}

void purge_entry(const char *name)
{
    struct stat status;
    if (stat(name, &status) != 0) {
        report_error(0, 1, "Unable to stat file %s, skipped\n", name);
        return;
    }
    if (!S_ISDIR(status.st_mode) || strncmp(name, deferred_prefix, strlen(deferred_prefix)) != 0)
        return;
    if (run_quiet_wait(rm_path, "-rf", name, static_cast<char *>(nullptr)) != 0)
        report_error(0, 1, "Can't remove directory %s (will try in next time)\n", name);
}

// As deep as a tree is removed: each level takes a descriptor and its share of the stack, and whoever owns the tree
// made it as deep as he liked.
constexpr int max_depth = 1000;

void remove_dir(int parent, const char *name, const char *path, int remove_self, int depth);

// Removes every entry of a directory. Nothing is reached by a path: what somebody puts in the place of an entry
// meanwhile is removed itself or refused, but never followed.
void remove_entries(DIR *stream, int depth)
{
    const int dir = dirfd(stream);
    assert(dir >= 0);
    while (const struct dirent *entry = readdir(stream)) {
        const char *name = entry->d_name;
        struct stat status;
        if (fstatat(dir, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                continue;
            report_fatal(1, "Unable to check directory entry %s: %s\n", name, strerror(errno));
        }
        if (S_ISDIR(status.st_mode)) {
            if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0)
                remove_dir(dir, name, name, 1, depth + 1);
        } else if (unlinkat(dir, name, 0) != 0 && errno != ENOENT) {
            report_fatal(1, "Unable to unlink directory entry %s: %s\n", name, strerror(errno));
        }
    }
}

int open_level(int parent, const char *name, int depth)
{
    if (depth < max_depth)
        return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    errno = EMFILE;
    return -1;
}

// `path` is what messages call it.
void remove_dir(int parent, const char *name, const char *path, int remove_self, int depth)
{
    const int dir = open_level(parent, name, depth);
    DIR *stream = dir < 0 ? nullptr : fdopendir(dir);
    if (!stream)
        report_fatal(1, "Unable to open dir %s: %s\n", path, strerror(errno));
    remove_entries(stream, depth);
    if (closedir(stream) != 0)
        report_fatal(1, "Unable to close dir %s: %s\n", path, strerror(errno));
    if (!remove_self)
        return;
    const bool gone = strcmp(name, ".") == 0 ? rmdir(path) == 0 : unlinkat(parent, name, AT_REMOVEDIR) == 0;
    if (!gone && errno != ENOENT)
        report_fatal(1, "Unable to remove dir %s: %s\n", path, strerror(errno));
}

} // namespace

int is_virtual_environment()
{
    static int known_answer = -1;
    if (known_answer < 0) {
        struct stat status;
        known_answer = stat("/dev/hdv1", &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
    }
    return known_answer;
}

void deferred_remove(const char *dir)
{
    const char *base = nullptr;
    for (const char *const *candidate : deferred_dirs)
        if (!base && is_inside_dir(dir, *candidate))
            base = *candidate;
    if (!base)
        report_fatal(1, "deferred_remove(): not supported directory for deferred remove: %s\n", dir);
    struct stat status;
    if (stat(dir, &status) != 0)
        report_fatal(1, "deferred_remove(): can't stat directory, skip it.\n");
    text aside = formatted("%s/%sXXXXXX", base, deferred_prefix);
    if (!fill_unused_name(aside.bytes))
        report_fatal(1, "deferred_remove(): Unable create filename for delete directory\n");
    report_error(0, 1, "deferred_remove(): rename dir %s to %s\n", dir, aside.c_str());
    if (rename_dir(dir, aside) != 0)
        report_fatal(1, "deferred_remove(): Unable to rename directory\n");
}

void purge_deferred_dirs()
{
    for (const char *const *dir : deferred_dirs) {
        const int fd = safe_open(*dir, O_RDONLY | O_DIRECTORY);
        const owned_dir stream(fd < 0 ? nullptr : fdopendir(fd));
        if (!stream) {
            report_error(0, 1, "Unable to open dir %s: %s\n", *dir, strerror(errno));
            return;
        }
        const owned_fd saved_dir(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (fchdir(fd) == 0)
            while (const struct dirent *entry = readdir(stream.get()))
                purge_entry(entry->d_name);
        [[maybe_unused]] const int unsaid = fchdir(saved_dir.get());
    }
}

void remove_tree(const char *path, int remove_self)
{
    const char *name = nullptr;
    safe_dir parent{};
    struct stat status;
    if (!safe_find_dir(path, parent, name) || fstatat(parent.fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT)
            report_fatal(1, "Unable to check directory entry %s: %s\n", path, strerror(errno));
    } else if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        remove_dir(parent.fd, name, path, remove_self, 0);
    } else if (unlinkat(parent.fd, name, 0) != 0 && errno != ENOENT) {
        report_fatal(1, "Unable to unlink entry %s: %s\n", path, strerror(errno));
    }
}
