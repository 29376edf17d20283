#pragma once

#include "control/changes.h"

#include <string>
#include <vector>

// The kept copies: tar archives in /var/backups/mboxfix, root's alone, named after their time (UTC); the last ten stay.
// A copy holds the lists, all of them, and the files of mailboxes that an apply was about to change, as they were.

// Makes a copy; `name` is then its path, and `tree` holds what is in it. Made again with these, it takes the place of
// the first, and what is in that one stays as it was. False with the cause: nothing new of it is left.
bool keep_copy(const changes &found, owned_fd &tree, std::string &name, std::string &cause);

// The names of the copies, the latest first.
std::vector<std::string> list_copies();

// Lays a copy out in memory, from the root directory on: the one of this name, or, for an empty name, the latest,
// whose name is then in `name`. -1 with the cause.
owned_fd open_copy(std::string &name, std::string &cause);

std::string copy_path(const std::string &name);
