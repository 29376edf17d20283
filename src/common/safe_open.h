#pragma once

#include "common/safe_dir.h"

#include <sys/stat.h>
#include <sys/types.h>

// Opening, making and giving away files, as root, in directories that others may write to. Whoever owns a directory can
// put anything in the place of anything in it, at any moment. So a path is walked from directory to directory, and what
// stands in one is judged by who could have put it there.
//
// A directory is root's alone when root owns it, neither its group nor others may write to it, and nobody else can put
// another in its place or in that of one on the way to it.
//
// - A link that root made in a directory of root's alone is followed wherever it leads, part by part.
// - In a directory of root's that others may write to, no link is followed.
// - Any other link is followed only where a directory is wanted, and only to one that belongs to whoever could have put
//   the link there: the owner of the directory that holds it, or the link's own owner where that is root's alone.
// - What stands in a directory of root's alone and is no link is used as by the plain call, but without waiting: a pipe
//   reads as empty and cannot be opened for writing.
// - In any other directory a regular file is used when it belongs to the owner of the directory, whatever other names
// it
//   has. It stays his: an owner that is set sets only the group and the mode. Any other file, pipe, socket, device or
//   link is taken away and made afresh where it would be emptied (O_TRUNC), and refused everywhere else. A file that is
//   made there is the directory's owner's and group's from the start; one that is made in the place of a regular file
//   has its group and its whole mode, less the set-id bits of a foreign group, unless the directory is root's. A
//   directory is entered and given away whoever owns it.
// - Somebody's link in a directory of root's alone is taken away or refused in the same way.
//
// What was refused shows in errno: ELOOP for a link, EMLINK for anything else. All other results are those of the plain
// calls; success leaves errno as it was. Nothing is reported, and no call waits.

// True for the two errors that say that something was refused.
bool is_refusal(int error);

// Opens a file or directory, close-on-exec. With O_DIRECTORY a directory is wanted. With O_CREAT a missing file is made
// with this mode, less the umask.
int safe_open(const char *path, int flags, mode_t mode = 0);

// Opens a lock file. In a directory that is not root's alone it may be anybody's regular file, is not emptied, and what
// may not be used is refused: nothing is taken away, which would part those who hold the lock.
int safe_open_lock(const char *path, int flags, mode_t mode);

// What was opened.
struct safe_opened {
    struct stat status;
    bool through_link;
    bool is_followed; // through a link that is not root's in a directory of root's alone
    bool stays_his;   // a regular file in a directory that is not root's alone
};

// safe_open of an entry that safe_find_dir has found; tells what it has opened.
int safe_open_at(const safe_dir &dir, const char *name, int flags, mode_t mode, safe_opened &opened);

// Makes a directory. The path may end in slashes, here and below.
int safe_mkdir(const char *path, mode_t mode);

// What a path names: the last part of one that names a directory may be a link.
enum class safe_kind { file, directory };

// Give an owner and a group, or a mode. Return 0 or -1.
int safe_chown(const char *path, safe_kind kind, uid_t uid, gid_t gid);
int safe_chmod(const char *path, safe_kind kind, mode_t mode);

// The step of an operation that failed.
enum class safe_step { none, mkdir, chown, chmod };

// Gives both, the owner first, to what is opened once.
safe_step safe_give(const char *path, safe_kind kind, uid_t uid, gid_t gid, mode_t mode);

// Makes a directory, or takes what is there, and gives it an owner and a group. One that was there leaves EEXIST in
// errno.
safe_step safe_make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode);

int safe_chdir(const char *path);

// Removes whatever entry is there, unjudged, but a directory.
int safe_unlink(const char *path);
