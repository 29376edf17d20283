#pragma once

#include <cstdint>

// "@mbox.quota": the size limit, in kilobytes, of a mail name (in its mailbox directory) or, when mail_name is null, of
// a domain (in its domain directory). Both operations hold the named lock of the file while they work on it. The
// domain comes as the database holds it; its failed conversion ends the process. Other failures are reported, not
// fatal.

// Writes the file, popuser's and 0640. Returns 1, or 0 on any failure; a file that cannot get its owner or mode is
// removed, unless safe_open refuses it.
int write_mbox_quota(const char *domain, const char *mail_name, std::int64_t quota);

// Returns 1 when no file is left, also when there was none, and 0 when it could not be locked or removed.
int remove_mbox_quota(const char *domain, const char *mail_name);
