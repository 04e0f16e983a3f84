#include "base/rawlog.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "base/zarlock.h"

namespace zar {

void rawLogV(const char* fmt, va_list ap) {
  int savedErrno = errno;
  char buf[1024];
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  if (n < 0) n = 0;
  size_t len = static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1;
  // write(2) is a cancellation point; a diagnostic is never cut by a cancel.
  CancelDisabled noCancel;
  const char* p = buf;
  while (len > 0) {
    ssize_t w = ::write(STDERR_FILENO, p, len);
    if (w < 0) {
      if (errno == EINTR) continue;
      break;
    }
    p += w;
    len -= static_cast<size_t>(w);
  }
  errno = savedErrno;
}

void rawLog(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  rawLogV(fmt, ap);
  va_end(ap);
}

void rawFatal(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  rawLogV(fmt, ap);
  va_end(ap);
  abort();
}

}  // namespace zar
