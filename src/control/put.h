#pragma once

#include "control/changes.h"

#include <string>
#include <string_view>

// One file or directory, put in place by the rule of safe_open. Failures leave their error in errno and report nothing.

// Replaces a file, or makes it, by a rename, with the owner and bits of the status.
bool put_file(const std::string &path, std::string_view bytes, const struct stat &status, bool to_disk);

// Does what a change says, but for a loss; `bytes` are those of a file that is rewritten or new.
bool put_in_place(const change &entry, std::string_view bytes);
