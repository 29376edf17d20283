#include "common/file_lock.h"

#include "common/conf.h"
#include "common/error.h"
#include "common/safe_open.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <openssl/md5.h>
#include <sys/file.h>
#include <unistd.h>

file_lock::~file_lock()
{
    const owned_fd held(fd > 0 ? fd : -1);
}

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

std::unique_ptr<file_lock> lock_file_open(const char *path, int open_flags, int operation, int named)
{
    std::unique_ptr<file_lock> lock(new (std::nothrow) file_lock);
    if (!lock)
        return nullptr;
    lock->path =
        named ? alloc_printf("%s/var/lock/files/%s", PRODUCT_ROOT_D, lock_file_name(path)) : alloc_printf("%s", path);
    lock->fd = safe_open_lock(lock->path.get(), open_flags, 0644);
    if (lock->fd < 0) {
        report_error(0, 0, "Unable to open file \"%s\": %s.", lock->path.get(), strerror(errno));
        return lock;
    }
    if (flock(lock->fd, operation) != 0) {
        const owned_fd refused(lock->fd);
        lock->fd = errno == EWOULDBLOCK ? 0 : -1;
    }
    return lock;
}

std::unique_ptr<file_lock> lock_file_exclusive(const char *path, int named)
{
    return lock_file_open(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX, named);
}

bool lock_file_is_held(const std::unique_ptr<file_lock> &lock)
{
    return lock && lock->fd > 0;
}

int lock_file_release(std::unique_ptr<file_lock> lock)
{
    if (!lock)
        return -1;
    const int fd = lock->fd;
    lock->fd = 0;
    if (fd <= 0 || close(fd) == 0)
        return 0;
    const int cause = errno;
    report_error(0, 1, "An error occured during closing '%s' file: %s\n", lock->path.get(), strerror(errno));
    flock(fd, LOCK_UN); // a failed close may leave the descriptor; it shall not leave the lock
    errno = cause;
    return -1;
}
