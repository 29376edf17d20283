#pragma once

#include <optional>
#include <string>

// What the database gives, judged before anything of it is used: names become parts of paths and fields of lines,
// addresses and hashes become parts of lines, and none of them may reach past its own. Every operation leaves errno and
// idn_last_error as they were and reports nothing. A null text, an empty name and a name that cannot be converted pass:
// they are for the writers to refuse.

// True for a mail name or alias with a control character (below 32, or 127), "/" or ":", and for "." and "..".
bool is_unfit_name(const char *name);

// The same of a domain or domain alias, with "@" too. Its ASCII form is judged, where it has one; that is also unfit
// when it has a quote, a backslash or a blank that the name as stored has not, or begins with a dot as that does not.
bool is_unfit_domain(const char *name);

// True for a text with a control character: an address or setting that would be more than its line.
bool is_more_than_line(const char *text);

// True for a stored hash that would be more than its field: with a control character or ":".
bool is_unfit_hash(const char *hash);

// The ASCII form of a domain or domain alias in lower case, by which two names are told to be one; none for a name that
// has no such form.
std::optional<std::string> domain_key(const char *name);
