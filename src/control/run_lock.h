#pragma once

#include "common/owned.h"

#include <string>

// The lock that a run holds, on the password file, and who holds a lock.

// Takes the run's lock without waiting. False when another process holds it, with that one in `holder`. A file that
// cannot be opened or locked is passed over, as by a run.
bool take_run_lock(owned_fd &lock, std::string &holder);

// The process that holds an flock on what is open here: its number and command line; empty when none is found.
std::string lock_holder(int fd);

// Whether somebody holds the named lock of a path, and who. Makes no lock file.
bool is_locked(const std::string &path, std::string &holder);
