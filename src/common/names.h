#pragma once

#include <optional>
#include <string>

// Checks of what the database holds, before any of it is used. Names become parts of paths and lines, addresses and
// hashes parts of lines; none of them may end its part or begin another. No operation reports anything or changes errno
// or idn_last_error. Null and empty texts are not unfit here: the writers refuse them.

// True for a mail name or mail alias that has a control character (byte below 32, or 127), "/" or ":", or is "." or
// "..".
bool is_unfit_name(const char *name);

// The same for the ASCII form of a domain or domain alias (the stored name, if it has none), with "@" unfit too. Also
// true when the ASCII form has a quote, backslash or blank that the stored name lacks, or begins with a dot where the
// stored name does not.
bool is_unfit_domain(const char *name);

// True for an address or setting with a control character, which could end its line.
bool is_more_than_line(const char *text);

// True for a stored hash with a control character or ":", which could end its field.
bool is_unfit_hash(const char *hash);

// The ASCII form of a domain or domain alias in lower case: equal for two names of one domain. No value for null and
// for a name that cannot be converted.
std::optional<std::string> domain_key(const char *name);
