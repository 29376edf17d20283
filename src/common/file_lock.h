#pragma once

#include "common/owned.h"

// Exclusive locks between processes. A protected file is replaced by rename, so its lock is held on another file, which
// is named after the MD5 digest of the protected file's path, in PRODUCT_ROOT_D/var/lock/files/. The same path text
// means the same lock; two texts for one file are two locks. Lock files stay empty and are never removed; their
// directory must exist. A process that takes a lock twice waits for itself.

struct file_lock {
    file_lock() = default;
    file_lock(const file_lock &) = delete;
    ~file_lock();
    int fd = 0;      // > 0: the lock is held; 0: another process holds it (non-blocking only); < 0: any other failure
    owned_text path; // of the file that was opened, for messages
};

// The lock file's name for a path: the digest of its first 4095 bytes, as 32 lower-case hexadecimal digits. The result
// lies in a static buffer that the next call overwrites.
const char *lock_file_name(const char *path);

// Opens the lock file of `path`, or `path` itself when `named` is 0, by safe_open_lock with open_flags and mode 0644.
// Then calls flock() with `operation`. Returns a handle, whether the lock is held or not; null, without a report, when
// no handle can be allocated. A file that cannot be opened is reported as "Unable to open file \"%s\": %s."; a lock
// that cannot be taken is not reported. Ends the process when the path's text cannot be allocated.
std::unique_ptr<file_lock> lock_file_open(const char *path, int open_flags, int operation, int named);

// lock_file_open for an exclusive lock, waiting for it.
std::unique_ptr<file_lock> lock_file_exclusive(const char *path, int named);

// True when the handle is not null and holds its lock.
bool lock_file_is_held(const std::unique_ptr<file_lock> &lock);

// Releases the lock, if it is held, and the handle; destroying a handle does the same without a report. Returns 0; -1
// for null; -1 for a failed close, after "An error occured during closing '%s' file: %s\n".
int lock_file_release(std::unique_ptr<file_lock> lock);
