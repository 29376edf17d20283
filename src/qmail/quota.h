#pragma once

#include <cstdint>

// "@mbox.quota": the size limit, in units of 1024 bytes, of a mail name (in its mailbox directory) or, when mail_name
// is null, of a domain (in its domain directory). Each operation holds the file's named lock. The domain comes as the
// database holds it; one that cannot be converted ends the process. Every other failure is reported, not fatal.

// Writes the file; it gets popuser and mode 0640. Returns 1, or 0 on any failure. A file that cannot get its owner or
// mode is removed, unless safe_open refused it.
int write_mbox_quota(const char *domain, const char *mail_name, std::int64_t quota);

// Removes the file. Returns 1, also when stat() finds none, or 0 when it cannot be locked or removed.
int remove_mbox_quota(const char *domain, const char *mail_name);
