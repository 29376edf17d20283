#include "common/file_str.h"

#include "common/error.h"
#include "common/file_lock.h"
#include "common/line_match.h"
#include "common/safe_open.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
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
    bool sole;          // a regular file under this one name, reached through no link
    int kept;           // the file, still open where the edit has left it as it was, or -1
    struct stat status; // of the file before the edit, when it existed
};

// The new content on its way: PATH.tmp, open for writing.
struct copy {
    char path[text_size];
    int dir;
    const char *name; // in path
    int fd;
};

int open_file(const target &file, int flags, mode_t mode = 0)
{
    if (file.dir != -1)
        return safe_open_at(file.dir, file.name, flags, mode);
    errno = ENOENT;
    return -1;
}

int report_open(const char *path)
{
    report_error(0, 0, "Unable to open file %s: %s\n", path, strerror(errno));
    return 1;
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

// A file's bytes; not a string, which would first fill with zeros what is then read over.
struct content {
    std::unique_ptr<char[]> bytes;
    std::size_t size;
};

std::string_view view(const content &text)
{
    return {text.bytes.get(), text.size};
}

// Moves the text into a larger block; false without the memory for it.
bool make_room(content &text, std::size_t capacity)
{
    std::unique_ptr<char[]> block(new (std::nothrow) char[capacity]);
    if (!block) {
        errno = ENOMEM;
        return false;
    }
    if (text.size > 0)
        memcpy(block.get(), text.bytes.get(), text.size);
    text.bytes = std::move(block);
    return true;
}

// Reads what is left of the file; `expected` is how much that may be.
bool read_all(int fd, content &text, std::size_t expected)
{
    std::size_t capacity = expected + 1; // the one byte more sees the end in the same call that reads the content
    if (!make_room(text, capacity))
        return false;
    for (;;) {
        const ssize_t got = read(fd, text.bytes.get() + text.size, capacity - text.size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        text.size += static_cast<std::size_t>(got);
        if (text.size == capacity && !make_room(text, capacity *= 2)) // the file grew, or does not tell its size
            return false;
    }
}

// Returns how much could not be written, with the error in errno, or 0.
std::size_t write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno != EINTR)
            break;
        if (put > 0)
            text.remove_prefix(static_cast<std::size_t>(put));
    }
    return text.size();
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

// Reads the file whose copy is begun, from its start or from where its reading stands; after a failure, which is
// reported, nothing is left of the edit.
bool load(const target &file, int input, bool from_start, const copy &made, content &text)
{
    const std::size_t expected = from_start ? static_cast<std::size_t>(file.status.st_size) : text_size;
    if ((!from_start || lseek(input, 0, SEEK_SET) == 0) && read_all(input, text, expected))
        return true;
    report_read(file.path);
    close(input);
    drop_copy(made);
    return false;
}

// Before the rename, so that no reader finds the lines under looser bits than the file's own. A failure is said after
// the rename, where the path is given the same once more.
void dress_copy(const target &file, const copy &made)
{
    [[maybe_unused]] int unsaid = fchown(made.fd, file.status.st_uid, file.status.st_gid);
    unsaid = fchmod(made.fd, file.status.st_mode & 07777);
}

// Closes the file that was read and then the copy; `failed` is the error of an earlier write that has no message of
// its own, or 0.
int close_both(const target &file, int input, const copy &made, int failed)
{
    if (close(input) != 0) {
        const int cause = errno;
        drop_copy(made);
        return report_close(file.path, cause);
    }
    if (failed == 0 && file.existed)
        dress_copy(file, made);
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
    const int input = open_file(file, O_RDONLY);
    if (input < 0)
        return report_open(file.path);
    copy made;
    if (begin_copy(file, made) != 0) {
        close(input);
        return 1;
    }
    const comparison how = comparison_of(action, mode);
    content text{};
    bool changes = !file.sole || search_lines(input, lines, how) != finding::none;
    if (changes) {
        if (!load(file, input, true, made, text))
            return 1;
        const std::size_t kept = drop_lines(text.bytes.get(), text.size, lines, how);
        changes = !file.sole || kept != text.size;
        text.size = kept;
    }
    if (!changes) {
        drop_copy(made);
        file.kept = input;
        return 0;
    }
    int failed = 0;
    if (write_all(made.fd, view(text)) != 0) {
        failed = errno;
        if (action == edit::remove && text.size > stream_buffer) {
            remove_copy(made);
            report_fatal(1, "cannot write a line to %s.tmp", file.path);
        }
    }
    if (close_both(file, input, made, failed) != 0)
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

// Has the kernel copy what is left of a file; false where it does not, or not to the end. The rest is then copied by
// hand, and there an error gets its message.
bool copy_within_kernel(int input, int output)
{
    const int former_errno = errno;
    bool begun = false;
    ssize_t copied;
    while ((copied = copy_file_range(input, nullptr, output, nullptr, SSIZE_MAX, 0)) > 0)
        begun = true;
    errno = former_errno;
    return begun && copied == 0;
}

int add_at_start(const target &file, const char *const *lines)
{
    copy made;
    if (begin_copy(file, made) != 0)
        return 1;
    const std::string added = joined(lines);
    int failed = write_all(made.fd, added) == 0 ? 0 : errno;
    const int input = open_file(file, O_RDONLY);
    if (input < 0) {
        report_open(file.path);
        close(made.fd);
        return 1;
    }
    if (failed != 0 || !copy_within_kernel(input, made.fd)) {
        content text{};
        if (!load(file, input, false, made, text))
            return 1;
        if (failed == 0 && write_all(made.fd, view(text)) != 0)
            failed = errno;
    }
    if (failed != 0 && added.size() + static_cast<std::size_t>(file.status.st_size) > stream_buffer) {
        errno = failed;
        report_error(0, 0, "Unable to fputs to file %s: %s\n", file.path, strerror(errno));
        close(input);
        drop_copy(made);
        return 1;
    }
    if (close_both(file, input, made, failed) != 0)
        return 1;
    if (renameat(made.dir, made.name, file.dir, file.name) == 0)
        return 0;
    tell("Unable to rename file", made);
    remove_copy(made);
    return 1;
}

int add_at_end(const target &file, const char *const *lines)
{
    const int fd = open_file(file, O_WRONLY | O_CREAT | O_APPEND, 0666);
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
    if (close(fd) != 0 && failed == 0)
        failed = errno;
    return failed == 0 ? 0 : report_close(file.path, failed);
}

int perform(target &file, const char *const *lines, edit action, int mode)
{
    switch (action) {
    case edit::add:
        return mode == at_start ? add_at_start(file, lines) : mode == at_end ? add_at_end(file, lines) : 0;
    case edit::remove:
    case edit::remove_matching:
        return remove_lines(file, lines, action, mode);
    }
    return 0;
}

// Looks at the file itself, which a link may lead to. Returns 0, or -1 with the error.
int examine(target &file)
{
    if (file.dir == -1)
        return -1;
    if (fstatat(file.dir, file.name, &file.status, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    file.sole = S_ISREG(file.status.st_mode) && file.status.st_nlink == 1;
    if (!S_ISLNK(file.status.st_mode))
        return 0;
    const int fd = open_file(file, O_RDONLY);
    const int result = fd < 0 ? -1 : fstat(fd, &file.status);
    if (fd >= 0)
        close(fd);
    return result;
}

// The path again, as it is after the edit.
int give_owner_and_bits(const target &file)
{
    const int fd = file.kept >= 0 ? file.kept : open_file(file, O_RDONLY);
    if (fd < 0 || fchown(fd, file.status.st_uid, file.status.st_gid) != 0) {
        report_error(0, 0, "file_str: ERROR: Unable to chown file %s: %s", file.path, strerror(errno));
        if (fd >= 0)
            close(fd);
        return 1;
    }
    const int result = fchmod(fd, file.status.st_mode & 07777);
    if (result != 0)
        report_error(0, 0, "file_str: ERROR: Unable to chmod file %s: %s", file.path, strerror(errno));
    close(fd);
    return result == 0 ? 0 : 1;
}

int edit_locked(target &file, const char *const *lines, edit action, int mode)
{
    if (examine(file) != 0) {
        if (errno != ENOENT) {
            report_error(0, 0, "file_str: Unable to stat file %s: %s\n", file.path, strerror(errno));
            return 1;
        }
        file.existed = false;
    }
    if (perform(file, lines, action, mode) != 0)
        return 1;
    return file.existed ? give_owner_and_bits(file) : 0;
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
    target file{path, -1, nullptr, true, false, -1, {}};
    file.dir = safe_open_parent(path, file.name);
    const int result = edit_locked(file, lines, action, mode);
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
