#pragma once

#include "control/stage.h"

#include <deque>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

// What a staged run changed, found in the layers of its stage and held against what is there.

enum class kind {
    new_directory,
    new_file, // also in the place of something that is no regular file
    content,
    attributes, // nothing but owner or mode
    removal,    // of a file
    loss, // of a directory, of a file below a Maildir, or by what is no regular file: nothing that is ever published
};

struct change {
    kind what;
    std::string path; // as mboxfix names it
    std::size_t layer;
    std::size_t name_at; // where the path below the layer begins in `path`
    struct stat before;  // all zero where there was nothing
    struct stat after;
};

// A list, before the run and after it. None: there is no such file.
struct list_state {
    std::optional<std::string> before;
    std::optional<std::string> after;
    struct stat status_before;
    struct stat status_after;
};

struct changes {
    struct timespec since;      // when the stage was begun, by the clock of the files
    std::deque<change> entries; // but for the lists, in the order of their paths
    list_state lists[list_count];
    std::vector<owned_fd> layers; // by number
};

// Notes the lists as they are, and the time; before the stage is made.
void note_lists(changes &found);

// Finds what the staged run changed. False with the error in errno.
bool find_changes(const stage &made, changes &found);

// What of a tree of files, laid out from the root directory on, differs from the files that are there: the lists, and
// the files of mailboxes that still have their directory. Directories count for nothing. False with the error in errno:
// ENOENT when the tree has none of the lists.
bool find_differences(owned_fd tree, changes &found);

// The bytes that the run left in a file.
std::optional<std::string> new_bytes(const changes &found, const change &of);

// The bytes that the file had before the run: none when it is no regular file, cannot be read, or is another by now. No
// link is followed to what others could not read.
std::optional<std::string> old_bytes(const change &of);

// The bytes of a file that is there, none where it is no regular file. Never waits.
std::optional<std::string> file_bytes_at(int dir, const char *name);

// Whether the list's file is another afterwards, in bytes, owner or mode.
bool is_list_changed(const list_state &list);

// Whether a file is the one, unchanged, that was looked at.
bool is_same_file(const struct stat &one, const struct stat &other);
