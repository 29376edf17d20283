#pragma once

#include "common/owned.h"

#include <string>
#include <sys/stat.h>

// The way to a directory, as root, through directories that others may write to: the part of the rule of safe_open that
// is about links and directories. Each directory on the way is held open while its entry is looked at. Failures leave
// their error in errno and report nothing.

// A directory to look up an entry in, as openat() takes it, and what it was when it was looked at. The descriptor is
// somebody else's.
struct safe_dir {
    int fd;
    struct stat status;
    bool is_alone;    // root's alone
    bool is_followed; // a link of somebody else's led to it or to one on the way
};

// Where a link leads: the directory, held open, and the entry in it.
struct safe_end {
    owned_fd fd;
    safe_dir dir;
    std::string name;
};

// Whether what stands in a directory that is not root's alone may be used as it is: a directory, or a regular file of
// the directory's owner.
bool is_usable(const struct stat &dir, const struct stat &entry);

// Finds the directory that holds what the path names, and how to name the entry there: by the path's last part, "." for
// a path that ends in a slash, or, where all the way is root's alone, by the whole path from the current directory.
// `name` points into the path, or to ".". The descriptor is good until the next call here. A directory that a path led
// to before, and still leads to, is not walked to again. False when there is none.
bool safe_find_dir(const char *path, safe_dir &dir, const char *&name);

// Finds what a link of root's in a directory of root's alone leads to, part by part, but for the last part, which may
// be another link. `links` counts those that were followed: more than 40 are ELOOP.
bool safe_find_end(const safe_dir &dir, const char *name, int &links, safe_end &end);

// Opens what any other link leads to, with the kernel's own way of following it: a directory of whoever could have put
// the link there. Returns the descriptor or -1, ELOOP for anything else.
int safe_follow(const safe_dir &dir, const char *name, uid_t link_owner, int flags);
