#include "common/accounts.h"

#include "common/error.h"
#include "common/safe_open.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/stat.h>

uid_t get_user_id(const char *name, int which)
{
    const struct passwd *user = getpwnam(name);
    if (!user) {
        report_error(0, 0, "Unable to getpwnam for user %s", name);
        return 0;
    }
    return which == 0 ? user->pw_uid : user->pw_gid;
}

user_ids get_user_ids(const char *name)
{
    if (const struct passwd *user = getpwnam(name))
        return {user->pw_uid, user->pw_gid};
    for (int id = 0; id < 2; ++id)
        report_error(0, 0, "Unable to getpwnam for user %s", name);
    return {0, 0};
}

int set_owner_mode(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    errno = 0;
    struct stat status;
    if (stat(path, &status) != 0)
        return 0;
    const safe_step failed = safe_give(path, safe_kind::file, uid, gid, mode);
    if (failed == safe_step::none)
        return 0;
    report_error(0, 0, "ERROR: unable to %s %s: %s\n", failed == safe_step::chown ? "chown" : "chmod", path,
                 strerror(errno));
    return -1;
}

int make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    errno = 0;
    const char *failed = nullptr;
    if (safe_mkdir(path, mode) != 0 && errno != EEXIST)
        failed = "mkdir";
    else if (safe_chown(path, safe_kind::directory, uid, gid) != 0 && errno != ENOENT)
        failed = "chown";
    else if (safe_chmod(path, safe_kind::directory, mode) != 0 && errno != ENOENT) // mkdir's mode was less the umask
        failed = "chmod";
    if (!failed)
        return 0;
    report_error(0, 0, "ERROR: Unable to %s %s: %s\n", failed, path, strerror(errno));
    return -1;
}

int rename_dir(const char *old_path, const char *new_path)
{
    struct stat status;
    if (stat(old_path, &status) != 0)
        return 0;
    if (stat(new_path, &status) == 0) {
        report_error(0, 0, "Directory rename error: target directory %s already exists.\n", new_path);
        return -1;
    }
    if (rename(old_path, new_path) != 0) {
        report_error(0, 0, "Remaming %s to %s failed: %s\n", old_path, new_path, strerror(errno));
        return -1;
    }
    return 0;
}

namespace {

bool is_dir_itself(const char *path)
{
    struct stat status;
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

int is_inside_dir(const char *path, const char *dir)
{
    static_assert(text_size >= PATH_MAX, "realpath() needs this much");
    text inner;
    text outer;
    if (!is_dir_itself(path) || !is_dir_itself(dir))
        return 0;
    const int former_errno = errno;
    if (!realpath(path, inner.bytes) || !realpath(dir, outer.bytes))
        return 0;
    errno = former_errno; // realpath() leaves one behind where it succeeds
    const std::size_t length = strlen(outer);
    return strncmp(inner, outer, length) == 0 && inner.bytes[length] == '/';
}

void random_salt(char *buffer, int count)
{
    constexpr char alphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (int at = 0; at < count; ++at) {
        const auto drawn = static_cast<int>(rand() * 64.0 / 2147483648.0);
        buffer[at] = alphabet[(drawn + 1) % 64];
    }
}
