#include "common/file_str.h"

#include "common/error.h"
#include "common/file_bytes.h"
#include "common/file_copy.h"
#include "common/file_lock.h"
#include "common/line_match.h"
#include "common/safe_open.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Up to this size a copy that cannot be written is reported as one that cannot be closed: that is where a buffered
// stream comes upon the error.
constexpr std::size_t stream_buffer = 4096;

constexpr std::size_t max_path = text_size - sizeof ".tmp"; // a longer one would leave no room for the copy's name

// The file of an edit as it was found.
struct found_file {
    const char *path;
    safe_dir dir{};
    const char *name = nullptr;
    owned_fd input{}; // the open file, or -1 where it could not be opened
    int error = 0;    // why, or 0
    safe_opened opened{};
};

int report_failure(const char *verb, const found_file &file, int cause)
{
    errno = cause;
    report_error(0, 0, "Unable to %s file %s: %s\n", verb, file.path, strerror(errno));
    return 1;
}

// Reports what kept the file from getting its owner and mode, if anything did. Returns the result of the edit.
int report_not_owned(const found_file &file, const file_copy_failure &failure)
{
    if (!failure.call)
        return 0;
    errno = failure.error;
    report_error(0, 0, "file_str: ERROR: Unable to %s file %s: %s", failure.call, file.path, strerror(errno));
    return 1;
}

int close_input(found_file &file)
{
    return close(file.input.release()) == 0 ? 0 : report_failure("close", file, errno);
}

int begin_copy(const found_file &file, file_copy &copy)
{
    if (file.dir.fd != -1)
        return file_copy_begin(copy, file.path, file.dir, file.name);
    copy.path = formatted("%s.tmp", file.path);
    errno = file.error;
    file_copy_complain("Unable to open file", copy);
    return -1;
}

// Reads the file whose copy is begun, from its start or from where its reading stands; after a failure, which is
// reported, nothing is left of the edit.
bool read_or_drop(const found_file &file, bool from_start, file_copy &copy, content &text)
{
    const std::size_t expected = from_start ? static_cast<std::size_t>(file.opened.status.st_size) : text_size;
    const int fd = file.input.get();
    if ((!from_start || lseek(fd, 0, SEEK_SET) == 0) && read_rest(fd, text, expected))
        return true;
    report_failure("read", file, errno);
    file_copy_drop(copy);
    return false;
}

// Closes the file that was read and then the copy, which first gets its owner and mode, so that no reader finds the
// lines under looser ones; then puts it in place. `failed` is the error of an earlier write that has no message of its
// own, or 0. A rename that fails is told as `failure`, on standard error alone or, for null, in a report.
int finish_copy(found_file &file, file_copy &copy, int failed, const char *failure)
{
    if (close_input(file) != 0) {
        file_copy_drop(copy);
        return 1;
    }
    const file_copy_failure not_owned =
        failed == 0 ? file_copy_own(copy.fd.get(), file.opened.status) : file_copy_failure{};
    if (close(copy.fd.release()) != 0 && failed == 0)
        failed = errno;
    if (failed != 0) {
        file_copy_drop(copy);
        return report_failure("close", file, failed);
    }
    if (file_copy_commit(copy, file.name) == 0)
        return report_not_owned(file, not_owned);
    if (failure)
        file_copy_complain(failure, copy);
    else
        report_error(0, 0, "Error while rename file %s: %s\n", file.path, strerror(errno));
    return 1;
}

comparison comparison_of(edit action, int mode)
{
    constexpr comparison matches[] = {comparison::prefix, comparison::suffix, comparison::substring};
    if (action == edit::remove)
        return comparison::equal;
    return mode >= prefix && mode <= substring ? matches[mode] : comparison::never;
}

int remove_lines(found_file &file, const char *const *lines, edit action, int mode)
{
    if (action == edit::remove && file.error == ENOENT)
        return 1;
    if (file.input.get() < 0)
        return report_failure("open", file, file.error);
    file_copy copy;
    if (begin_copy(file, copy) != 0)
        return 1;
    const comparison how = comparison_of(action, mode);
    const struct stat &status = file.opened.status;
    const bool has_one_name = S_ISREG(status.st_mode) && status.st_nlink == 1 && !file.opened.through_link;
    content text{};
    bool changes = !has_one_name || search_lines(file.input.get(), lines, how) != finding::none;
    if (changes) {
        if (!read_or_drop(file, has_one_name, copy, text))
            return 1;
        const std::size_t left = drop_lines(text.bytes.get(), text.size, lines, how);
        changes = !has_one_name || left != text.size;
        text.size = left;
    }
    if (!changes) {
        file_copy_drop(copy);
        const file_copy_failure not_owned = file_copy_own(file.input.get(), status);
        return close_input(file) == 0 ? report_not_owned(file, not_owned) : 1;
    }
    const int failed = write_all(copy.fd.get(), view(text)) == 0 ? 0 : errno;
    if (failed != 0 && action == edit::remove && text.size > stream_buffer) {
        file_copy_drop(copy);
        report_fatal(1, "cannot write a line to %s.tmp", file.path);
    }
    return finish_copy(file, copy, failed, action == edit::remove ? nullptr : "Error while rename file");
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

int add_at_start(found_file &file, const char *const *lines)
{
    file_copy copy;
    if (begin_copy(file, copy) != 0)
        return 1;
    const std::string added = joined(lines);
    int failed = write_all(copy.fd.get(), added) == 0 ? 0 : errno;
    if (file.input.get() < 0) {
        copy.fd = {};
        return report_failure("open", file, file.error);
    }
    if (failed != 0 || !copy_within_kernel(file.input.get(), copy.fd.get())) {
        content text{};
        if (!read_or_drop(file, false, copy, text))
            return 1;
        if (failed == 0 && write_all(copy.fd.get(), view(text)) != 0)
            failed = errno;
    }
    if (failed != 0 && added.size() + static_cast<std::size_t>(file.opened.status.st_size) > stream_buffer) {
        errno = failed;
        report_error(0, 0, "Unable to fputs to file %s: %s\n", file.path, strerror(errno));
        file_copy_drop(copy);
        return 1;
    }
    return finish_copy(file, copy, failed, "Unable to rename file");
}

int add_at_end(found_file &file, const char *const *lines)
{
    const bool existed = file.error == 0;
    if (file.error == ENOENT && file.dir.fd != -1) {
        file.input = owned_fd(safe_open_at(file.dir, file.name, O_WRONLY | O_CREAT | O_APPEND, 0666, file.opened));
        file.error = errno;
    }
    if (file.input.get() < 0)
        return report_failure("open", file, file.error);
    int failed = append_all(file.input.get(), joined(lines)) ? 0 : errno;
    file_copy_failure not_owned{};
    if (failed == 0 && existed)
        not_owned = file_copy_own(file.input.get(), file.opened.status);
    if (close(file.input.release()) != 0 && failed == 0)
        failed = errno;
    return failed == 0 ? report_not_owned(file, not_owned) : report_failure("close", file, failed);
}

// Whether an error comes from finding the file and not from opening it.
bool is_about_the_way(int error)
{
    return is_refusal(error) || error == ENOTDIR || error == ENAMETOOLONG;
}

// Finds and opens the file. False with the error in errno when the edit ends there; what only an open can fail for is
// left to the step that needs the open file.
bool find_and_open(found_file &file, int flags)
{
    if (strlen(file.path) > max_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    const int former_errno = errno;
    if (safe_find_dir(file.path, file.dir, file.name))
        file.input = owned_fd(safe_open_at(file.dir, file.name, flags, 0, file.opened));
    else
        file.dir.fd = -1;
    if (file.input.get() >= 0)
        return true;
    file.error = errno;
    if (file.error != ENOENT && (file.dir.fd == -1 || is_about_the_way(file.error)))
        return false;
    if (file.error != ENOENT)
        errno = former_errno;
    return true;
}

int edit_locked(found_file &file, const char *const *lines, edit action, int mode)
{
    const bool appends = action == edit::add && mode == at_end;
    if (!find_and_open(file, appends ? O_WRONLY | O_APPEND : O_RDONLY)) {
        report_error(0, 0, "file_str: Unable to stat file %s: %s\n", file.path, strerror(errno));
        return 1;
    }
    if (file.input.get() >= 0 && file.opened.status.st_size > static_cast<off_t>(max_content))
        return report_failure("read", file, EFBIG);
    if (action == edit::remove || action == edit::remove_matching)
        return remove_lines(file, lines, action, mode);
    if (appends)
        return add_at_end(file, lines);
    if (action == edit::add && mode == at_start)
        return add_at_start(file, lines);
    const int fd = file.input.get();
    return fd < 0 ? 0 : report_not_owned(file, file_copy_own(fd, file.opened.status));
}

edit_end edit_file(const char *path, const char *const *lines, edit action, int mode)
{
    auto lock = lock_file_exclusive(path, 1);
    if (!lock_file_is_held(lock)) {
        report_error(0, 0, "Error occurred while locking the file %s: %s\n", path, strerror(errno));
        return edit_end::failed;
    }
    found_file file{path};
    const int result = edit_locked(file, lines, action, mode);
    file.input = {}; // before the lock
    const int cause = errno;
    if (lock_file_release(std::move(lock)) != 0 && result == 0) {
        report_error(0, 0, "Error occurred while unlocking the file %s: %s\n", path, strerror(errno));
        return edit_end::failed;
    }
    if (result == 0)
        return edit_end::done;
    errno = cause;
    return is_refusal(cause) ? edit_end::refused : edit_end::failed;
}

int make_file(const char *path, int flags, const char *verb)
{
    const owned_fd fd(safe_open(path, O_WRONLY | O_CREAT | flags, 0644));
    if (fd.get() >= 0)
        return 0;
    report_error(0, 0, "Unable to %s file %s: %s", verb, path, strerror(errno));
    return -1;
}

} // namespace

int file_str(const char *path, const char *const *lines, edit action, int mode)
{
    return edit_file(path, lines, action, mode) == edit_end::done ? 0 : 1;
}

edit_end file_str_end(const char *path, const char *line, edit action, int mode)
{
    const char *const lines[] = {line, nullptr};
    return edit_file(path, lines, action, mode);
}

int file_str_line(const char *path, const char *line, edit action, int mode)
{
    return file_str_end(path, line, action, mode) == edit_end::done ? 0 : 1;
}

int create_file(const char *path)
{
    return make_file(path, 0, "create");
}

int truncate_or_create_file(const char *path)
{
    return make_file(path, O_TRUNC, "truncate or create");
}
