#include "common/file_str.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "common/file_lock.h"
#include "common/line_match.h"
#include "common/safe_open.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// Up to this size a copy that cannot be written is reported as one that cannot be closed: that is where a buffered
// stream comes upon the error.
constexpr std::size_t stream_buffer = 4096;

struct target {
    const char *path;
    int dir; // the directory that holds it, open, or -1 when there is none
    const char *name;
    bool existed;
    int input;          // the file as it was found, open for reading, or -1
    int refused;        // why it is not open, although it existed, or 0
    struct stat status; // of the open file: its directory's owner may by now have put another one in its place
    bool sole;          // a regular file under this one name, reached through no link
    int chown_error;    // why the edited file could not be given the owner of the former one, or 0
    int chmod_error;    // the same of its bits
};

// The new content on its way: PATH.tmp, open for writing.
struct copy {
    char path[text_size];
    int dir;
    const char *name; // in path
    int fd;
};

int report_open(const char *path)
{
    report_error(0, 0, "Unable to open file %s: %s\n", path, strerror(errno));
    return 1;
}

int report_no_input(const target &file)
{
    errno = file.refused != 0 ? file.refused : ENOENT;
    return report_open(file.path);
}

int report_read(const char *path)
{
    report_error(0, 0, "Unable to read file %s: %s\n", path, strerror(errno));
    return 1;
}

int report_close(const char *path, int cause)
{
    errno = cause;
    report_error(0, 0, "Unable to close file %s: %s\n", path, strerror(errno));
    return 1;
}

// The messages about the copy go straight to standard error, without the program's name.
int tell(const char *what, const copy &made)
{
    fprintf(stderr, "%s %s: %s\n", what, made.path, strerror(errno));
    fflush(stderr);
    return 1;
}

// A link or a file that somebody left under the copy's name must not receive the lines, which may hold password
// hashes: the copy is always a new file of ours.
int begin_copy(const target &file, copy &made)
{
    format_text(made.path, "%s.tmp", file.path);
    if (strlen(file.path) + strlen(".tmp") >= sizeof made.path) { // the cut name may be the file's own
        errno = ENAMETOOLONG;
        return tell("Unable to open file", made);
    }
    const char *slash = strrchr(made.path, '/');
    made.dir = file.dir;
    made.name = slash ? slash + 1 : made.path;
    if (file.dir == -1) {
        errno = ENOENT;
        return tell("Unable to open file", made);
    }
    const int former_errno = errno;
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    made.fd = openat(made.dir, made.name, flags, 0600);
    if (made.fd < 0 && errno == EEXIST && unlinkat(made.dir, made.name, 0) == 0)
        made.fd = openat(made.dir, made.name, flags, 0600);
    if (made.fd < 0)
        return tell("Unable to open file", made);
    errno = former_errno; // a leftover that is gone is no error of what follows
    return 0;
}

// What follows a failed step must not put its own error in the place of that step's.
void remove_copy(const copy &made)
{
    const int former_errno = errno;
    unlinkat(made.dir, made.name, 0);
    errno = former_errno;
}

void drop_copy(const copy &made)
{
    const int former_errno = errno;
    close(made.fd);
    errno = former_errno;
    remove_copy(made);
}

// Gives the owner and bits that the file had. What fails is kept, to be said when the edit is done.
void dress(target &file, int fd)
{
    const int former_errno = errno;
    if (fchown(fd, file.status.st_uid, file.status.st_gid) != 0)
        file.chown_error = errno;
    else if (fchmod(fd, file.status.st_mode & 07777) != 0)
        file.chmod_error = errno;
    errno = former_errno;
}

int report_dress(const target &file)
{
    errno = file.chown_error != 0 ? file.chown_error : file.chmod_error;
    const char *what = file.chown_error != 0 ? "chown" : "chmod";
    report_error(0, 0, "file_str: ERROR: Unable to %s file %s: %s", what, file.path, strerror(errno));
    return 1;
}

int close_input(target &file)
{
    return close(std::exchange(file.input, -1));
}

// Reads the file whose copy is begun, from its start or from where its reading stands; after a failure, which is
// reported, nothing is left of the edit.
bool load(const target &file, bool from_start, const copy &made, content &text)
{
    const std::size_t expected = from_start ? static_cast<std::size_t>(file.status.st_size) : text_size;
    if ((!from_start || lseek(file.input, 0, SEEK_SET) == 0) && read_rest(file.input, text, expected))
        return true;
    report_read(file.path);
    drop_copy(made);
    return false;
}

// Closes the file that was read and then the copy, which first gets its owner and bits, so that no reader finds the
// lines under looser ones. `failed` is the error of an earlier write that has no message of its own, or 0.
int close_both(target &file, const copy &made, int failed)
{
    if (close_input(file) != 0) {
        const int cause = errno;
        drop_copy(made);
        return report_close(file.path, cause);
    }
    if (failed == 0)
        dress(file, made.fd);
    if (close(made.fd) != 0 && failed == 0)
        failed = errno;
    if (failed == 0)
        return 0;
    remove_copy(made);
    return report_close(file.path, failed);
}

comparison comparison_of(edit action, int mode)
{
    if (action == edit::remove)
        return comparison::equal;
    switch (mode) {
    case prefix:
        return comparison::prefix;
    case suffix:
        return comparison::suffix;
    case substring:
        return comparison::substring;
    default:
        return comparison::never;
    }
}

int remove_lines(target &file, const char *const *lines, edit action, int mode)
{
    if (action == edit::remove && !file.existed)
        return 1;
    if (file.input < 0)
        return report_no_input(file);
    copy made;
    if (begin_copy(file, made) != 0)
        return 1;
    const comparison how = comparison_of(action, mode);
    content text{};
    bool changes = !file.sole || search_lines(file.input, lines, how) != finding::none;
    if (changes) {
        if (!load(file, true, made, text))
            return 1;
        const std::size_t kept = drop_lines(text.bytes.get(), text.size, lines, how);
        changes = !file.sole || kept != text.size;
        text.size = kept;
    }
    if (!changes) {
        drop_copy(made);
        dress(file, file.input);
        return close_input(file) == 0 ? 0 : report_close(file.path, errno);
    }
    int failed = 0;
    if (write_all(made.fd, view(text)) != 0) {
        failed = errno;
        if (action == edit::remove && text.size > stream_buffer) {
            remove_copy(made);
            report_fatal(1, "cannot write a line to %s.tmp", file.path);
        }
    }
    if (close_both(file, made, failed) != 0)
        return 1;
    if (renameat(made.dir, made.name, file.dir, file.name) == 0)
        return 0;
    if (action == edit::remove)
        report_error(0, 0, "Error while rename file %s: %s\n", file.path, strerror(errno));
    else
        tell("Error while rename file", made);
    remove_copy(made);
    return 1;
}

std::string joined(const char *const *lines)
{
    std::string text;
    for (; *lines; ++lines) {
        const std::string_view line = *lines;
        text += line;
        if (!line.ends_with('\n'))
            text += '\n';
    }
    return text;
}

int add_at_start(target &file, const char *const *lines)
{
    copy made;
    if (begin_copy(file, made) != 0)
        return 1;
    const std::string added = joined(lines);
    int failed = write_all(made.fd, added) == 0 ? 0 : errno;
    if (file.input < 0) {
        report_no_input(file);
        close(made.fd);
        return 1;
    }
    if (failed != 0 || !copy_within_kernel(file.input, made.fd)) {
        content text{};
        if (!load(file, false, made, text))
            return 1;
        if (failed == 0 && write_all(made.fd, view(text)) != 0)
            failed = errno;
    }
    if (failed != 0 && added.size() + static_cast<std::size_t>(file.status.st_size) > stream_buffer) {
        errno = failed;
        report_error(0, 0, "Unable to fputs to file %s: %s\n", file.path, strerror(errno));
        drop_copy(made);
        return 1;
    }
    if (close_both(file, made, failed) != 0)
        return 1;
    if (renameat(made.dir, made.name, file.dir, file.name) == 0)
        return 0;
    tell("Unable to rename file", made);
    remove_copy(made);
    return 1;
}

bool is_same_file(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

int open_end(const target &file)
{
    if (file.dir != -1 && file.refused == 0)
        return safe_open_at(file.dir, file.name, O_WRONLY | O_CREAT | O_APPEND, 0666);
    errno = file.refused != 0 ? file.refused : ENOENT;
    return -1;
}

int add_at_end(target &file, const char *const *lines)
{
    const int fd = open_end(file);
    if (fd < 0)
        return report_open(file.path);
    const std::string text = joined(lines);
    int failed = 0;
    if (const std::size_t unwritten = write_all(fd, text); unwritten != 0) {
        failed = errno;
        const off_t put = static_cast<off_t>(text.size() - unwritten);
        const off_t end = lseek(fd, 0, SEEK_END);
        [[maybe_unused]] const int unsaid = end < put ? -1 : ftruncate(fd, end - put);
    }
    if (struct stat status; failed == 0 && file.existed && fstat(fd, &status) == 0 && is_same_file(status, file.status))
        dress(file, fd);
    if (close(fd) != 0 && failed == 0)
        failed = errno;
    return failed == 0 ? 0 : report_close(file.path, failed);
}

int perform(target &file, const char *const *lines, edit action, int mode)
{
    if (action == edit::remove || action == edit::remove_matching)
        return remove_lines(file, lines, action, mode);
    if (action == edit::add && mode == at_start)
        return add_at_start(file, lines);
    if (action == edit::add && mode == at_end)
        return add_at_end(file, lines);
    if (file.input >= 0)
        dress(file, file.input);
    return 0;
}

// Opens the file, which a link may lead to, and looks at what it has opened. Returns 0, or -1 with the error.
int examine(target &file)
{
    struct stat entry;
    if (file.dir == -1)
        return -1;
    file.input = safe_open_at(file.dir, file.name, O_RDONLY);
    if (file.input < 0 && errno == ENOENT)
        return -1;
    file.refused = file.input < 0 ? errno : 0;
    if (fstatat(file.dir, file.name, &entry, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    if (file.input >= 0 && fstat(file.input, &file.status) == 0) {
        file.sole = S_ISREG(entry.st_mode) && entry.st_nlink == 1 && is_same_file(entry, file.status);
        return 0;
    }
    errno = file.refused;
    return file.refused == 0 || S_ISLNK(entry.st_mode) ? -1 : 0;
}

int edit_locked(target &file, const char *const *lines, edit action, int mode)
{
    if (examine(file) != 0) {
        const int cause = errno;
        if (file.input >= 0)
            close_input(file);
        if (cause != ENOENT) {
            errno = cause;
            report_error(0, 0, "file_str: Unable to stat file %s: %s\n", file.path, strerror(errno));
            return 1;
        }
        file.existed = false;
    }
    if (perform(file, lines, action, mode) != 0)
        return 1;
    return file.chown_error == 0 && file.chmod_error == 0 ? 0 : report_dress(file);
}

int make_file(const char *path, int flags, const char *verb)
{
    const int fd = safe_open(path, O_WRONLY | O_CREAT | flags, 0644);
    if (fd < 0) {
        report_error(0, 0, "Unable to %s file %s: %s", verb, path, strerror(errno));
        return -1;
    }
    close(fd);
    return 0;
}

} // namespace

int file_str(const char *path, const char *const *lines, edit action, int mode)
{
    file_lock *lock = lock_file_exclusive(path, 1);
    if (!lock_file_is_held(lock)) {
        report_error(0, 0, "Error occurred while locking the file %s: %s\n", path, strerror(errno));
        lock_file_release(lock);
        return 1;
    }
    target file{};
    file.path = path;
    file.existed = true;
    file.input = -1;
    file.dir = safe_open_parent(path, file.name);
    const int result = edit_locked(file, lines, action, mode);
    if (file.input >= 0)
        close(file.input);
    close_dir(file.dir);
    if (lock_file_release(lock) != 0 && result == 0) {
        report_error(0, 0, "Error occurred while unlocking the file %s: %s\n", path, strerror(errno));
        return 1;
    }
    return result;
}

int file_str_line(const char *path, const char *line, edit action, int mode)
{
    const char *const lines[] = {line, nullptr};
    return file_str(path, lines, action, mode);
}

int create_file(const char *path)
{
    return make_file(path, 0, "create");
}

int truncate_or_create_file(const char *path)
{
    return make_file(path, O_TRUNC, "truncate or create");
}
