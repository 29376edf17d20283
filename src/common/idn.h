#pragma once

#include "common/owned.h"

// Domain names and addresses in the ASCII form (IDNA) in which they enter qmail's files. Names come as UTF-8; results
// are new strings. Out of memory ends the process in all of them: "Allocation failed".

// The library's code of the last domain conversion that failed, 0 until one has. A success leaves it.
extern int idn_last_error;

// The ASCII form of a domain name, or null with the reason in idn_last_error. Reports nothing.
owned_text idn_toascii(const char *name);

// The ASCII form of a domain name. A failure ends the process: "idn_toascii_safe(NAME) failed: %s".
owned_text idn_toascii_safe(const char *name);

// The address with all that follows its first "@" converted and the rest unchanged. Null when there is no "@"
// (idn_last_error stays) or the domain cannot be converted. Reports nothing.
owned_text idn_email_toascii(const char *address);

// idn_email_toascii whose failure ends the process: "idn_email_toascii_safe(ADDRESS) failed: %s".
owned_text idn_email_toascii_safe(const char *address);

// The system's own text for a conversion code, "Unknown error" for a code that it does not know.
const char *idn_error_text(int code);
