#pragma once

#include "common/owned.h"

#include <string>
#include <sys/stat.h>

// Finding a directory, as root, by a path through directories that others may write to: the part of the rule of
// safe_open that is about links and directories. Each directory of the path is held open while its entry is examined. A
// failure leaves its error in errno and reports nothing.

// A directory to find an entry in, with its status when it was examined. The descriptor is borrowed.
struct safe_dir {
    int fd = -1; // or AT_FDCWD
    struct stat status = {};
    bool is_settled = false;  // nobody but root can put another in its place
    bool is_alone = false;    // root's alone
    bool is_followed = false; // a link of somebody else's led to it or to one on the way
};

// A directory that this record holds open.
struct held_dir : safe_dir {
    owned_fd owner;
};

// Where a link leads: the directory, and the name of the entry in it.
struct safe_end {
    held_dir dir;
    std::string name;
};

// True when an entry of a directory that is not root's alone may be used as it is: it is a directory, or a regular file
// that belongs to the owner of `dir`.
bool is_usable(const struct stat &dir, const struct stat &entry);

// Finds the directory that holds the entry that a path names, and the entry's name for openat(): the path's last part,
// or "." for a path that ends in a slash. `name` points into the path or to a literal. The descriptor is valid until
// the next call. It is AT_FDCWD in two cases: for an absolute path whose directories are all root's alone, where `name`
// is the whole path, and for a mere name in a current directory that is not root's alone. A directory found before is
// not looked for again while its path leads to it. Returns false on failure.
bool safe_find_dir(const char *path, safe_dir &dir, const char *&name);

// Finds where a link leads that root made in a directory that is root's alone, part by part; the last part may be
// another link. `links` counts the links followed; beyond 40 the error is ELOOP. Returns false on failure.
bool safe_find_end(const safe_dir &dir, const char *name, int &links, safe_end &end);

// Opens the directory that any other link leads to; the kernel follows the link. It must belong to whoever could have
// put the link there: the link's owner where `dir` is root's alone, else the owner of `dir`, and not root. Returns a
// descriptor that the caller closes, or -1: ELOOP for a refusal, else a lack of descriptors or memory, or EIO.
int safe_follow(const safe_dir &dir, const char *name, uid_t link_owner, int flags);
