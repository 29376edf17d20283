#pragma once

#include "common/error.h"

#include <mysql.h>

// The antivirus engine's recipient list, DRWEB_ETC_D//users.conf; the double slash is part of its lock's name. It
// begins with a header or the content of the template users.conf.in; then comes a rule for each address whose mail is
// scanned. Names enter it as the database holds them. Fatal are memory that runs out, a failed write while old rules
// are removed, and a child process that cannot be made.

// The path of the list, as its lock is named.
text av_list_path();

// Rebuilds the list from the panel database on the caller's connection, then runs virsetup to notify the engine. After
// a failed query it reports and returns: the rules written so far stay, virsetup does not run. Other failures are
// reported and passed over. A row that lacks a name or that common/names.h finds unfit is left out without a report.
void av_rebuild_recipients(MYSQL *db);

// Sets the list to the template's content, or to the header alone when there is no template or it cannot be copied. An
// existing list keeps its owner and mode. Returns 0, or -1 after a report.
int av_reset_list();

// Replaces all rules of an address by one for a direction: "incoming", "outgoing" or a word of the engine's, used as it
// is. The list gets root:root and 0644. Returns 0, or -1 after "Unable to add record for '%s' to '%s' file".
int av_set_recipient(const char *domain, const char *name, const char *virusfilter);

// Removes all rules of an address; failures are only reported. The list gets root:root and 0644. Returns 0.
int av_clear_recipient(const char *domain, const char *name);

// Copies `src` over `dst`, in place, under the named lock of `dst`; "-" means standard input or output. A new file gets
// mode 0644. More than 1 GiB is not copied (EFBIG). Does nothing for equal paths. Returns 0, also when only the
// unlocking fails, or 1; failures are reported.
int copy_file_locked(const char *src, const char *dst);
