// Symbolic links that another user planted in a shared directory.
//
// In a directory that everyone may write and that has the sticky bit (/tmp),
// any user can make a link under a name that a process is about to open; a
// process that follows it writes wherever the link's maker chose, with its
// own privilege. The kernel's protected_symlinks setting refuses to follow
// such a link unless the follower or the directory's owner owns it. The
// library applies the same rule itself to the files it creates and renames
// (log files and their generations), so that it holds where that setting is
// off. Links elsewhere, and links owned by the process's own user, are
// followed as usual.
#ifndef ZAR_CORE_ZARLINKS_H_
#define ZAR_CORE_ZARLINKS_H_

#include <sys/types.h>

namespace zar::links {

// True when path names a symbolic link that the rule above refuses.
bool planted(const char* path);

// open(2) of path (flags as for open; O_CREAT may be among them) that does
// not follow a planted link: -1 with errno ELOOP and *refused set for one.
// Any other link is followed.
int openUnplanted(const char* path, int flags, mode_t mode, bool* refused);

}  // namespace zar::links

#endif  // ZAR_CORE_ZARLINKS_H_
