#include "qmail/quota.h"

#include "common/accounts.h"
#include "common/conf.h"
#include "common/error.h"
#include "common/file_bytes.h"
#include "common/file_lock.h"
#include "common/safe_open.h"
#include "qmail/layout.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

text quota_path(const char *domain, const char *mail_name)
{
    constexpr const char *file = "@mbox.quota";
    const owned_text ascii = domain_toascii_safe(domain);
    return mail_name ? formatted("%s/%s/%s/%s", QMAIL_MAILNAMES_D, ascii.get(), mail_name, file)
                     : mailbox_dir(ascii, file);
}

// A handle that holds the lock, or null after a report.
std::unique_ptr<file_lock> lock_quota(const char *path, int system_error_flag)
{
    auto lock = lock_file_exclusive(path, 1);
    if (lock_file_is_held(lock))
        return lock;
    report_error(0, system_error_flag, "Error while locking file %s.\n", path);
    return nullptr;
}

void unlock_quota(std::unique_ptr<file_lock> lock, const char *path)
{
    if (lock_file_release(std::move(lock)) != 0)
        report_error(0, 0, "Error while unlocking file %s\n", path);
}

bool write_quota(const char *path, std::int64_t quota)
{
    const int fd = safe_open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        report_error(0, 1, "Unable to open file %s: %s\n", path, strerror(errno));
        return false;
    }
    char text[32];
    format_text(text, "%ld\n", static_cast<long>(quota));
    const bool written = write_all(fd, text) == 0; // a failure comes out at the close
    const int cause = errno;
    if (close(fd) == 0 && written)
        return true;
    if (!written)
        errno = cause;
    report_error(0, 1, "%s", strerror(errno));
    return false;
}

bool own_quota(const char *path)
{
    const user_ids ids = get_user_ids("popuser");
    const safe_step failed = safe_give(path, safe_kind::file, ids.uid, ids.gid, 0640);
    if (failed == safe_step::chown)
        report_error(0, 1, "Unable to chown quota file %s\n", path);
    if (failed == safe_step::chmod)
        report_error(0, 1, "Unable to chmod for quota file %s\n", path);
    return failed == safe_step::none;
}

} // namespace

int write_mbox_quota(const char *domain, const char *mail_name, std::int64_t quota)
{
    const text path = quota_path(domain, mail_name);
    auto lock = lock_quota(path, 0);
    if (!lock)
        return 0;
    const bool is_written = write_quota(path, quota);
    if (is_written && own_quota(path)) {
        unlock_quota(std::move(lock), path);
        return 1;
    }
    const bool is_undone = is_written && !is_refusal(errno);
    lock_file_release(std::move(lock)); // first: the removal takes the same lock
    if (is_undone)
        remove_mbox_quota(domain, mail_name);
    return 0;
}

int remove_mbox_quota(const char *domain, const char *mail_name)
{
    const text path = quota_path(domain, mail_name);
    struct stat status;
    if (stat(path, &status) != 0)
        return 1;
    auto lock = lock_quota(path, 1);
    if (!lock)
        return 0;
    if (safe_unlink(path) != 0) {
        report_error(0, 1, "System Error: can not remove quota file %s\n", path.c_str());
        lock_file_release(std::move(lock));
        return 0;
    }
    unlock_quota(std::move(lock), path);
    return 1;
}
