#include "control/put.h"

#include "common/file_bytes.h"
#include "common/file_copy.h"
#include "common/safe_open.h"

#include <cerrno>
#include <unistd.h>

namespace {

bool fill(file_copy &copy, std::string_view bytes, const struct stat &status, bool to_disk)
{
    if (write_all(copy.fd.get(), bytes) != 0)
        return false;
    if (const file_copy_failure failure = file_copy_own(copy.fd.get(), status); failure.call) {
        errno = failure.error;
        return false;
    }
    return !to_disk || fsync(copy.fd.get()) == 0;
}

bool make_directory(const char *path, const struct stat &status)
{
    constexpr mode_t first = 0700; // until it has its owner, and in the end that of nearly all
    const mode_t bits = status.st_mode & 07777;
    return safe_make_dir(path, status.st_uid, status.st_gid, first) == safe_step::none &&
           (bits == first || safe_chmod(path, safe_kind::directory, bits) == 0);
}

} // namespace

bool put_file(const std::string &path, std::string_view bytes, const struct stat &status, bool to_disk)
{
    safe_dir dir{};
    const char *name = nullptr;
    file_copy copy;
    if (!safe_find_dir(path.c_str(), dir, name) || file_copy_begin(copy, path.c_str(), dir, name) != 0)
        return false;
    if (!fill(copy, bytes, status, to_disk) || close(copy.fd.release()) != 0) {
        file_copy_drop(copy);
        return false;
    }
    return file_copy_commit(copy, name) == 0;
}

bool put_in_place(const change &entry, std::string_view bytes)
{
    const char *path = entry.path.c_str();
    const struct stat &after = entry.after;
    switch (entry.what) {
    case kind::new_directory:
        return make_directory(path, after);
    case kind::new_file:
    case kind::content:
        return put_file(entry.path, bytes, after, false);
    case kind::attributes:
        return safe_give(path, S_ISDIR(after.st_mode) ? safe_kind::directory : safe_kind::file, after.st_uid,
                         after.st_gid, after.st_mode & 07777) == safe_step::none;
    case kind::removal:
        return safe_unlink(path) == 0;
    case kind::loss:
        break;
    }
    errno = EPERM;
    return false;
}
