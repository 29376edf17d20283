#pragma once

// Signals for processes found by name or by a field of ps, and the removal of directories.

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

// 1 on a container host, marked by an empty regular file /dev/hdv1, else 0. Asked once per process.
int is_virtual_environment();

// Moves a directory that lies in the vhosts or the mailnames directory aside there, under a name that begins with
// "__deleted", for purge_deferred_dirs; tells so in a notice. Every failure is reported and ends the process.
void deferred_remove(const char *dir);

// Removes what deferred_remove has moved aside, by rm. Reports an rm that cannot be run or is ended by a signal, and an
// entry that cannot be examined, and goes on; what rm itself fails to remove is left without a word. Ends early, with a
// report, when one of the two directories cannot be opened. Nothing is fatal. The working directory is the same
// afterwards.
void purge_deferred_dirs();

// Removes what lies at the path: a file or link, or a directory with all that is in it, itself only when remove_self
// is not 0. Links are never followed; what is gone already is no failure; a tree of 1000 levels and more is one that
// cannot be opened (EMFILE). Every failure is reported and ends the process. The working directory is the same
// afterwards.
void remove_tree(const char *path, int remove_self);
