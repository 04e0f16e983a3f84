#include "base/report.h"

#include <stdio.h>

#include <atomic>

#include "base/rawlog.h"

namespace zar::report {
namespace {

std::atomic<const Hook*> gHook{nullptr};

// Set while this thread is inside the hook; cleared on every way out,
// a cancellation's unwind included.
thread_local bool tInside = false;

struct Inside {
  Inside() { tInside = true; }
  ~Inside() { tInside = false; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

// The hook to call now: none inside a report.
const Hook* usableHook() {
  if (tInside) return nullptr;
  return gHook.load(std::memory_order_acquire);
}

}  // namespace

void install(const Hook* hook) noexcept { gHook.store(hook, std::memory_order_release); }

bool active() noexcept { return tInside; }

void rawError(const char* recordFile, int line, uint32_t code, const char* argTypes,
              va_list args) {
  char text[768];
  size_t used = 0;
  // Each argument in turn, by the conversions of argTypes that the lower
  // layers use; the first other conversion ends the list.
  for (const char* p = argTypes; p != nullptr && *p == '%' && used < sizeof text - 1; p += 2) {
    int n = 0;
    if (p[1] == 's') {
      const char* s = va_arg(args, const char*);
      n = snprintf(text + used, sizeof text - used, " %s", s != nullptr ? s : "(null)");
    } else if (p[1] == 'd') {
      n = snprintf(text + used, sizeof text - used, " %d", va_arg(args, int));
    } else {
      break;
    }
    if (n < 0) break;
    used += static_cast<size_t>(n) < sizeof text - used ? static_cast<size_t>(n)
                                                        : sizeof text - 1 - used;
  }
  text[used] = '\0';
  rawLog("%s:%d: status 0x%8.8x%s\n", recordFile, line, code, text);
}

void error(const char* recordFile, int line, uint32_t code, const char* argTypes, ...) {
  va_list args;
  va_start(args, argTypes);
  const Hook* hook = usableHook();
  if (hook == nullptr) {
    rawError(recordFile, line, code, argTypes, args);
  } else {
    Inside inside;
    hook->error(recordFile, line, code, argTypes, args);
  }
  va_end(args);
}

void checkFailed(const char* expr, const char* file, int line) {
  const Hook* hook = usableHook();
  if (hook == nullptr) rawFatal("%s:%d: internal check failed: %s\n", file, line, expr);
  Inside inside;
  hook->checkFailed(expr, file, line);
}

}  // namespace zar::report
