#pragma once

#include "control/changes.h"

#include <string>
#include <vector>

// What would keep files from being written where a stage has written them: read-only file systems, files that must not
// be changed, no room. Each text is what is wrong and what to do about it; empty when nothing is.

std::string obstacle_at(const std::string &path, bool is_directory);

// A list has to be a regular file or root's link to one, or yet to be made.
std::string obstacle_at_list(const std::string &path);

// Room for the lists, twice, and for so many new mailboxes with their lock files, by the directories of the
// configuration. False with the cause.
bool has_room_for(std::size_t mailboxes, std::string &cause);

// All that stands in the way of these changes.
std::vector<std::string> find_obstacles(const changes &found);
