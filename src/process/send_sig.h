#pragma once

// Signals for processes found by name or by a field of ps.

// The shell status (as of system()) of a look through the process list: 0 when a program of this name runs, be it
// listed by name, by path, or in brackets.
int is_process_running(const char *name);

// Sends the signal to every process whose command name is `name`, no more and no less. Returns the shell status of the
// command that does it.
int kill_by_name(const char *name, int signal);

// Sends the signal (0: none) to every process whose ps field holds the text. Returns how many there are, or -1, after
// "send_signal_field(): %s failed", when ps cannot be run. A line without a process id ("malformed ps output: %.*s")
// and a refused signal ("failed to kill %d: %s") are reported and passed over, none of them fatal; the second counts.
int kill_by_field(const char *field, const char *text, int signal);
