#pragma once

// Signals to processes that are found by name or by a field of ps.

// Returns the result of system() for a search of the process list: 0 when it lists a program by this name, by a path
// that ends in it, or by the name in brackets.
int is_process_running(const char *name);

// Sends the signal to every process whose command name, as ps cuts it, is `name`. Returns system()'s result for that.
int kill_by_name(const char *name, int signal);

// Sends the signal to every process whose line from ps, of process id and this field, contains the text; signal 0 only
// counts them. Returns their number, or -1 when ps fails, after "send_signal_field(): %s failed". A line without a
// process id ("malformed ps output: %.*s") is reported and not counted; a failed signal ("failed to kill %d: %s") is
// reported and counted. Ends the process as fork_execl_getout does.
int kill_by_field(const char *field, const char *text, int signal);
