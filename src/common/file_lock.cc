#include "common/file_lock.h"

#include "common/conf.h"
#include "common/error.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <openssl/md5.h>
#include <sys/file.h>
#include <unistd.h>

const char *lock_file_name(const char *path)
{
    static char name[2 * MD5_DIGEST_LENGTH + 1];
    unsigned char digest[MD5_DIGEST_LENGTH];
    // The one-shot call gives a name even where a FIPS provider refuses the digest to the newer interface.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    MD5(reinterpret_cast<const unsigned char *>(path), strnlen(path, text_size - 1), digest);
#pragma GCC diagnostic pop
    for (std::size_t byte = 0; byte < MD5_DIGEST_LENGTH; ++byte)
        format_text({name + 2 * byte, 3}, "%02x", digest[byte]);
    return name;
}

file_lock *lock_file_open(const char *path, int open_flags, int operation, int named)
{
    auto *lock = static_cast<file_lock *>(malloc(sizeof(file_lock)));
    if (!lock)
        return nullptr;
    lock->path =
        named ? alloc_printf("%s/var/lock/files/%s", PRODUCT_ROOT_D, lock_file_name(path)) : alloc_printf("%s", path);
    lock->fd = open(lock->path, open_flags | O_CLOEXEC, 0644);
    if (lock->fd < 0) {
        report_error(0, 0, "Unable to open file \"%s\": %s.", lock->path, strerror(errno));
        return lock;
    }
    if (flock(lock->fd, operation) != 0) {
        const int fd = lock->fd;
        lock->fd = errno == EWOULDBLOCK ? 0 : -1;
        close(fd);
    }
    return lock;
}

file_lock *lock_file_exclusive(const char *path, int named)
{
    return lock_file_open(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX, named);
}

bool lock_file_is_held(const file_lock *lock)
{
    return lock && lock->fd > 0;
}

int lock_file_release(file_lock *lock)
{
    if (!lock)
        return -1;
    int result = 0;
    if (lock->fd > 0 && close(lock->fd) != 0) {
        const int cause = errno;
        report_error(0, 1, "An error occured during closing '%s' file: %s\n", lock->path, strerror(errno));
        flock(lock->fd, LOCK_UN); // a failed close may leave the descriptor; it shall not leave the lock
        errno = cause;
        result = -1;
    }
    free(lock->path);
    free(lock);
    return result;
}
