// The serviceability never reports its own failures through itself. This is
// the raw path for that: a line formatted into a stack buffer (at most 1023
// bytes, longer text is cut) and written to standard error with write(2). It
// allocates nothing and takes no lock, so it may be used from any state,
// including allocation failure, inside the serviceability mutex, in a fork
// child and in a signal-free abort path.
#ifndef ZAR_BASE_RAWLOG_H_
#define ZAR_BASE_RAWLOG_H_

#include <stdarg.h>

namespace zar {

void rawLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void rawLogV(const char* fmt, va_list ap);
[[noreturn]] void rawFatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zar

#endif  // ZAR_BASE_RAWLOG_H_
