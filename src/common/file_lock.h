#pragma once

#include "common/owned.h"

// Exclusive locks between processes. A protected file is replaced by rename, so the lock lies on a file of its own:
// PRODUCT_ROOT_D/var/lock/files/ and the MD5 digest of the protected file's path, as text. Whoever computes the name
// from the same path text shares the lock; two texts for one file are two locks. Lock files stay empty and are never
// removed, and their directory must exist. A process that takes a lock twice waits for itself.

struct file_lock {
    file_lock() = default;
    file_lock(const file_lock &) = delete;
    ~file_lock();
    int fd = 0;      // > 0: the lock is held; 0: somebody else holds it (non-blocking only); < 0: it could not be had
    owned_text path; // of the file that was opened, for messages
};

// The lock file's name for a path: 32 lower-case hexadecimal digits, of at most the first 4095 bytes of the text as it
// is given. The result lies in a static buffer that the next call overwrites.
const char *lock_file_name(const char *path);

// Opens (with open_flags, close-on-exec and mode 0644, as safe_open_lock does) the lock file of `path`, or `path`
// itself when `named` is 0, and applies flock's operation to it. Returns a handle for lock_file_release, held or not;
// null, without a message, only when the handle cannot be allocated. A file that cannot be opened is reported as
// "Unable to open file \"%s\": %s."; a refused lock is not reported. Ends the process when the path's text cannot be
// allocated.
std::unique_ptr<file_lock> lock_file_open(const char *path, int open_flags, int operation, int named);

// lock_file_open for an exclusive lock that is waited for.
std::unique_ptr<file_lock> lock_file_exclusive(const char *path, int named);

// True when there is a handle and it holds its lock.
bool lock_file_is_held(const std::unique_ptr<file_lock> &lock);

// Drops the lock, if held, and the handle; a handle that is not released does so without a report. Returns 0; -1 for no
// handle, and, after the report "An error occured during closing '%s' file: %s\n", for a failed close.
int lock_file_release(std::unique_ptr<file_lock> lock);
