#include "base/zarmem.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "base/faultinj.h"

namespace zar::mem {
namespace {

bool injectedFailure() noexcept {
  int err = fault::check(fault::Op::kAlloc);
  if (err == 0) return false;
  errno = err;
  return true;
}

}  // namespace

bool refused() noexcept { return injectedFailure(); }

void* allocZero(size_t count, size_t size) noexcept {
  if (injectedFailure()) return nullptr;
  if (count == 0 || size == 0) return ::calloc(1, 1);
  if (count > SIZE_MAX / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return ::calloc(count, size);
}

void* realloc(void* p, size_t len) noexcept {
  if (injectedFailure()) return nullptr;
  return ::realloc(p, len == 0 ? 1 : len);
}

char* strDup(const char* s) noexcept {
  if (s == nullptr) return nullptr;
  return strDupLen(s, strlen(s));
}

char* strDupLen(const char* s, size_t len) noexcept {
  if (s == nullptr || len == SIZE_MAX) return nullptr;
  char* d = static_cast<char*>(alloc(len + 1));
  if (d == nullptr) return nullptr;
  memcpy(d, s, len);
  d[len] = '\0';
  return d;
}

char* strNDup(const char* s, size_t maxLen) noexcept {
  if (s == nullptr) return nullptr;
  size_t n = strnlen(s, maxLen);
  char* d = static_cast<char*>(alloc(n + 1));
  if (d == nullptr) return nullptr;
  memcpy(d, s, n);
  d[n] = '\0';
  return d;
}

}  // namespace zar::mem
