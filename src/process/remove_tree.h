#pragma once

// The removal of directories: at once or, on container hosts, later. The working directory is the same afterwards.

// Returns 1 on a container host, where /dev/hdv1 is an empty regular file, else 0. Looks once per process.
int is_virtual_environment();

// Renames a directory that lies below HTTPD_VHOSTS_D or QMAIL_MAILNAMES_D to an unused name in that one, beginning with
// "__deleted", for purge_deferred_dirs, and reports the new name. Every failure is reported and ends the process.
void deferred_remove(const char *dir);

// Removes what deferred_remove has renamed, by rm. An entry that cannot be examined, a failed fork and an rm that a
// signal ended are reported and passed over. What rm itself fails to remove, or all when rm is missing, stays without a
// report. Returns early, after a report, when one of the directories cannot be opened. Nothing ends the process.
void purge_deferred_dirs();

// Removes a file or link, or everything in a directory and, when remove_self is not 0, the directory. Links are
// removed, never followed, except before the path's last slash. What does not exist is no failure. A directory 1000
// levels down cannot be opened (EMFILE). Every failure is reported and ends the process.
void remove_tree(const char *path, int remove_self);
