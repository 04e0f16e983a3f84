#include "platform/sysio.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/faultinj.h"

namespace zar::sys {
namespace {

// Returns true (with errno set) when the seam says this call must fail.
bool injected(fault::Op op) {
  int err = fault::check(op);
  if (err == 0) return false;
  errno = err;
  return true;
}

}  // namespace

int open(const char* path, int flags, mode_t mode) {
  if (injected(fault::Op::kOpen)) return -1;
  return ::open(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  if (injected(fault::Op::kOpen)) return nullptr;
  return ::fopen(path, mode);
}

ssize_t read(int fd, void* buf, size_t len) {
  if (injected(fault::Op::kRead)) return -1;
  return ::read(fd, buf, len);
}

ssize_t write(int fd, const void* buf, size_t len) {
  if (injected(fault::Op::kWrite)) return -1;
  return ::write(fd, buf, len);
}

bool writeAll(int fd, const void* buf, size_t len) {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t n = write(fd, p, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

size_t fwrite(const void* buf, size_t size, size_t count, FILE* stream) {
  if (injected(fault::Op::kWrite)) return 0;
  return ::fwrite(buf, size, count, stream);
}

size_t fwriteUnlocked(const void* buf, size_t size, size_t count, FILE* stream) {
  if (injected(fault::Op::kWrite)) return 0;
  return ::fwrite_unlocked(buf, size, count, stream);
}

int fflush(FILE* stream) {
  if (injected(fault::Op::kFlush)) return EOF;
  return ::fflush(stream);
}

int rename(const char* from, const char* to) {
  if (injected(fault::Op::kRename)) return -1;
  return ::rename(from, to);
}

int fileLock(int fd, short type, bool wait) {
  if (injected(fault::Op::kFcntl)) return -1;
  struct flock fl = {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  for (;;) {
    int rc = ::fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
    if (rc == 0 || errno != EINTR || !wait) return rc;
  }
}

}  // namespace zar::sys
