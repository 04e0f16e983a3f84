#include "core/zarlinks.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/zarmem.h"
#include "platform/sysio.h"

namespace zar::links {

bool planted(const char* path) {
  struct stat link;
  if (path == nullptr || lstat(path, &link) != 0 || !S_ISLNK(link.st_mode)) return false;
  if (link.st_uid == geteuid()) return false;
  // The directory that holds the link: the text before the last '/'.
  const char* slash = strrchr(path, '/');
  struct stat dir;
  int rc;
  if (slash == nullptr) {
    rc = stat(".", &dir);
  } else {
    size_t len = slash == path ? 1 : static_cast<size_t>(slash - path);
    mem::Unique<char> name(static_cast<char*>(mem::alloc(len + 1)));
    if (!name) return true;  // cannot tell: refuse
    memcpy(name.get(), path, len);
    name.get()[len] = '\0';
    rc = stat(name.get(), &dir);
  }
  if (rc != 0) return true;
  const bool shared = (dir.st_mode & S_ISVTX) != 0 && (dir.st_mode & S_IWOTH) != 0;
  return shared && dir.st_uid != link.st_uid;
}

int openUnplanted(const char* path, int flags, mode_t mode, bool* refused) {
  *refused = false;
  int fd = sys::open(path, flags | O_NOFOLLOW, mode);
  if (fd >= 0 || (errno != ELOOP && errno != EACCES)) return fd;
  // The name may be a link (a kernel that protects links says EACCES). In a
  // sticky directory nobody but its owner (or the directory's) can replace
  // it, so a link found acceptable here is the one opened below.
  const int err = errno;
  if (planted(path)) {
    *refused = true;
    errno = ELOOP;
    return -1;
  }
  if (err != ELOOP) {
    errno = err;
    return -1;
  }
  return sys::open(path, flags, mode);
}

}  // namespace zar::links
