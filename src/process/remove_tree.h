#pragma once

// The removal of directories: at once, or aside for later on hosts where that matters.

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
