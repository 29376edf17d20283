#pragma once

#include "common/file_lock.h"
#include "common/owned.h"

#include <memory>
#include <string>

// The lock that a run holds, on the password file, and who holds a lock.

// Takes the run's lock without waiting. False when another process holds it, with that one in `holder`. A file that
// cannot be opened or locked is passed over, as by a run.
bool take_run_lock(owned_fd &lock, std::string &holder);

// The process that holds an flock on what is open here: its number and command line, or that none is found.
std::string lock_holder(int fd);

// Takes the named lock of a path. What holds it is told when it is waited for longer than a second; a signal that is
// noted ends the wait. The handle is as that of lock_file_exclusive.
std::unique_ptr<file_lock> wait_for_lock(const std::string &path);

// Whether somebody holds the named lock of a path, and who. Makes no lock file.
bool is_locked(const std::string &path, std::string &holder);
