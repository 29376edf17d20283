#pragma once

#include <csignal>

// The signals of a write that fails. This program ignores them, so that the failure is reported; a program that it
// starts must not.
inline constexpr int write_signals[] = {SIGPIPE, SIGXFSZ};

// What a program of root's does first, whoever has started it: /dev/null is opened on whichever of the three standard
// descriptors is closed; the signals above are ignored, SIGCHLD gets its default back; the environment is emptied but
// for LANG and TERM, and PATH is root's.
void settle_process();
