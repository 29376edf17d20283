#pragma once

#include <mysql.h>

// The antivirus engine's recipient list, DRWEB_ETC_D//users.conf (with both slashes: they are in its lock's name): a
// header, or what the template users.conf.in holds, and one rule for each address whose mail is scanned. Names go in as
// the database holds them. Fatal are memory running out, a write that fails while
// old rules are removed, and a child process that cannot be made.

// Rebuilds the list from the panel database through the caller's connection, then has virsetup tell the engine. A
// failed query is reported and ends the phase there: the rules written so far stay and the engine is not told. A row
// whose names are unfit, or whose setting is more than a line, is left out.
void av_rebuild_recipients(MYSQL *db);

// Brings the list to its starting content: the template's, or the bare header when there is none or it can't be copied.
// Returns 0, or -1 after a report. Owner and mode stay.
int av_reset_list();

// Replaces all rules of an address by one for this direction: "incoming", "outgoing" or the engine's own word. The list
// gets root:root and 0644. Returns 0, or -1 after "Unable to add record for '%s' to '%s' file".
int av_set_recipient(const char *domain, const char *name, const char *virusfilter);

// Removes all rules that an address may have. The list gets root:root and 0644. Returns 0.
int av_clear_recipient(const char *domain, const char *name);

// Copies a file over another under the named lock of the second; "-" stands for standard input or output. A file that
// has to be made gets 0644; one of more than 1 GiB is not copied to its end (EFBIG). Returns 0, also for equal paths,
// where nothing is done, or 1 after a report.
int copy_file_locked(const char *src, const char *dst);
