// Thin wrappers over the system calls whose failures the library must handle:
// each asks the fault-injection seam first (base/faultinj.h) and otherwise
// behaves exactly as the call it wraps (same results, errno on failure).
// Library code uses these instead of calling the system directly, so that the
// reliability tests can make any of them fail.
//
// None of these functions is noexcept: open, read, write, fcntl(F_SETLKW) and
// the stdio calls are thread-cancellation points, and glibc cancels a thread
// by unwinding its stack.
#ifndef ZAR_PLATFORM_SYSIO_H_
#define ZAR_PLATFORM_SYSIO_H_

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

namespace zar::sys {

int open(const char* path, int flags, mode_t mode = 0);
FILE* fopen(const char* path, const char* mode);
ssize_t read(int fd, void* buf, size_t len);
ssize_t write(int fd, const void* buf, size_t len);
// Writes all len bytes, retrying on EINTR and short writes. Returns false with
// errno set when a write fails.
bool writeAll(int fd, const void* buf, size_t len);
size_t fwrite(const void* buf, size_t size, size_t count, FILE* stream);
// fwrite_unlocked: for a caller that holds the stream (flockfile).
size_t fwriteUnlocked(const void* buf, size_t size, size_t count, FILE* stream);
int fflush(FILE* stream);
int rename(const char* from, const char* to);

// Whole-file advisory record lock (start 0, length 0, whence SEEK_SET) of the
// given type (F_RDLCK, F_WRLCK or F_UNLCK). wait selects F_SETLKW over F_SETLK;
// a wait interrupted by a signal is resumed. Returns 0, or -1 with errno.
int fileLock(int fd, short type, bool wait);

}  // namespace zar::sys

#endif  // ZAR_PLATFORM_SYSIO_H_
