#pragma once

#include "common/owned.h"

// Converts domain names and addresses from UTF-8 to the ASCII form (IDNA) that qmail's files need. Arguments must not
// be null; results are new strings. When memory runs out, a conversion ends the process: "Allocation failed".

// The library's code for the last domain conversion that failed; 0 before the first. A success does not reset it.
extern int idn_last_error;

// Returns the ASCII form of a domain name, or null with the code in idn_last_error. Reports nothing.
owned_text idn_toascii(const char *name);

// idn_toascii whose failure ends the process: "idn_toascii_safe(NAME) failed: %s".
owned_text idn_toascii_safe(const char *name);

// Returns the address with everything behind its first "@" converted. Returns null when that cannot be converted (the
// code is in idn_last_error) or when there is no "@" (idn_last_error stays). Reports nothing.
owned_text idn_email_toascii(const char *address);

// idn_email_toascii whose failure ends the process: "idn_email_toascii_safe(ADDRESS) failed: %s".
owned_text idn_email_toascii_safe(const char *address);

// This program's text for a code of idn_last_error, a literal; "Unknown error" for a code that is not in its table.
const char *idn_error_text(int code);
