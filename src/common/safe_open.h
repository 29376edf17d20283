#pragma once

#include "common/safe_dir.h"

#include <sys/stat.h>
#include <sys/types.h>

// Opening, making and giving away files, as root, in directories that others may write to. Whoever owns a directory can
// replace anything in it at any moment. So a path is walked from directory to directory, and each entry is judged by
// who could have put it there. A directory is root's alone when root owns it, neither its group nor others may write to
// it, and nobody else can put another in its place or in that of one on the way to it.
//
// - In a directory that is root's alone, a link that root made is followed wherever it leads, part by part. What is no
//   link is used as by the plain call, but without waiting: a pipe reads as empty, and cannot be opened for writing.
// - In any other directory, a regular file is used when it belongs to the directory's owner, however many names it has.
//   It keeps that owner: setting an owner sets only its group. A directory is entered and given away whoever owns it.
//   Any other file is removed and made anew where it would be emptied (O_TRUNC), and refused otherwise.
// - A file made there gets the directory's owner and group at once. In the place of a regular file it gets that one's
//   group and mode, without the set-id bits of a group that is not the directory's; not so in a directory of root's,
//   where somebody else would have chosen them for root's file.
// - Any other link is followed only where a directory is wanted, and only to one that belongs to whoever could have put
//   the link there: the owner of the directory that holds it, or the link's owner where that directory is root's alone.
//   If that is root, the link is refused. Where no directory is wanted, it is removed or refused as any other file is.
//
// A refusal sets errno: ELOOP for a link, EMLINK for anything else. Every other result is that of the plain call.
// Success leaves errno as it was. Nothing is reported, nothing ends the process, and no call waits.

// True for the errors of a refusal.
bool is_refusal(int error);

// Opens a file, or with O_DIRECTORY a directory, close-on-exec. With O_CREAT a missing file is made with this mode less
// the umask. Returns a descriptor that the caller closes, or -1.
int safe_open(const char *path, int flags, mode_t mode = 0);

// safe_open of a lock file. It refuses what it may not use and removes nothing: two processes could then hold one lock.
// In a directory that is not root's alone it takes anybody's regular file and never empties it.
int safe_open_lock(const char *path, int flags, mode_t mode);

// What was opened.
struct safe_opened {
    struct stat status;
    bool through_link; // of root's, in a directory that is root's alone
    bool is_followed;  // through any other link
    bool keeps_owner;  // it keeps its owner: a regular file in a directory that is not root's alone
};

// safe_open of an entry that safe_find_dir has found. Fills `opened` when it succeeds.
int safe_open_at(const safe_dir &dir, const char *name, int flags, mode_t mode, safe_opened &opened);

// Makes a directory with this mode less the umask. Returns 0 or -1. The path may end in slashes.
int safe_mkdir(const char *path, mode_t mode);

// What a path should name. With `directory` a directory is wanted: a link as the path's last part is followed. A path
// that names no directory then counts as `file`.
enum class safe_kind { file, directory };

// Set an owner and a group, or a mode. Return 0 or -1.
int safe_chown(const char *path, safe_kind kind, uid_t uid, gid_t gid);
int safe_chmod(const char *path, safe_kind kind, mode_t mode);

// The step that failed, with its error in errno.
enum class safe_step { none, mkdir, chown, chmod };

// Opens a path once and sets owner and group, then the mode. A failure to open it is one of `chown`.
safe_step safe_give(const char *path, safe_kind kind, uid_t uid, gid_t gid, mode_t mode);

// Makes a directory with this mode less the umask, or takes the one that exists with its own mode, and sets owner and
// group. One that existed leaves EEXIST in errno. The path may end in slashes.
safe_step safe_make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode);

// Changes the working directory. Returns 0 or -1.
int safe_chdir(const char *path);

// Removes the entry itself, whoever owns it, unless it is a directory. Returns 0 or -1.
int safe_unlink(const char *path);
