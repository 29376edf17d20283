#pragma once

#include <sys/types.h>

// INT, TERM, HUP and QUIT, as the phases of mboxfixctl have to take them. One that the caller has ignored stays so.

// As long as nothing is changed: the child that is named is killed and waited for, and the process ends at once with
// status 2.
void end_on_signals();

// The child that goes with this process; 0 for none.
void end_child_on_signals(pid_t child);

// Once files are being changed, or a copy is made: a signal is only noted.
void note_signals();

// The signal that was noted, or 0.
int noted_signal();

// In a child: all defaults again.
void forget_signals();
