#pragma once

#include <functional>

// Runs an operation in a child of its own, in a process group of its own, with nothing on standard output: it may end
// its process, or be waited for by calls that a signal would cut short. Returns its exit status, or 128 and the number
// of the signal that ended it; 1 where no child can be made.
int run_apart(const std::function<int()> &operation);

// The command that rebuilds qmail's user database.
const char *qmail_newu();
