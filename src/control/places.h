#pragma once

#include <string>
#include <string_view>
#include <vector>

// Where a run of mboxfix can write: the directories of the configuration, or the nearest above one that is missing;
// file systems mounted below them; and what root's links there lead to.

struct place {
    std::string real;  // without links
    std::string named; // as mboxfix comes to it
    bool is_shown;     // what changes there is a change; not so for lock files and for what a list's link leads to
};

struct places {
    std::vector<place> covered; // the outer ones first
    // Links of others where a run may come by, as mboxfix names them.
    std::vector<std::string> strangers;
};

// Finds them. False, with the cause, where one of them is the root directory or cannot be looked at.
bool find_places(places &found, std::string &cause);

// The path, or the nearest directory above it that is there.
std::string existing(std::string path);

// The six lists, as their locks are named, in the order of the enumeration.
enum list_number { rcpthosts, virtualdomains, rejectnonexist, assign, poppasswd, recipients, list_count };
std::string list_path(list_number number);

// The path without links; empty where there is nothing.
std::string real_path(const std::string &path);

// The mailnames directory, without slashes at the end.
std::string mailnames_dir();

// Whether a path lies in the Maildir of a mailbox; a domain or a mailbox may be called so, too.
bool is_below_maildir(std::string_view path);

// A path's directory and last part.
std::string dir_of(const std::string &path);
std::string name_of(const std::string &path);
