// The snprintf and asprintf families over the formatted-output engine. They
// differ only in the code-set handle given to the engine for %C and %S; every
// "..." function gathers its arguments and calls its "v" twin, and every twin
// ends in zar_vsnprintf_cs or zar_vasprintf_cs.
#include "zar/printf.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "base/zarmem.h"
#include "core/zarprintf.h"
#include "zar/nls.h"

namespace {

// asprintf renders first into this much stack; a text that fits is copied
// out, a longer one is rendered a second time into its exact allocation.
constexpr size_t kFirstRender = 256;

}  // namespace

extern "C" {

int zar_vsnprintf_cs(char* buf, int size, zar_codeset_t cs, const char* fmt, va_list ap) {
  if (fmt == nullptr) {
    errno = EINVAL;
    return -1;
  }
  zar::format::Context ctx;
  if (zar_vsnprintf_parse(&ctx, cs, fmt, ap) != 0) return -1;
  size_t room = size > 0 && buf != nullptr ? static_cast<size_t>(size) : 0;
  int n = zar_vsnprintf_render(&ctx, buf, room);
  zar_vsnprintf_done(&ctx);
  return n;
}

int zar_vasprintf_cs(char** result, zar_codeset_t cs, const char* fmt, va_list ap) {
  if (result == nullptr || fmt == nullptr) {
    errno = EINVAL;
    return -1;
  }
  zar::format::Context ctx;
  if (zar_vsnprintf_parse(&ctx, cs, fmt, ap) != 0) return -1;
  char first[kFirstRender];
  int n = zar_vsnprintf_render(&ctx, first, sizeof first);
  if (n < 0) {
    zar_vsnprintf_done(&ctx);
    return n;
  }
  size_t len = static_cast<size_t>(n);
  char* text = static_cast<char*>(zar::mem::alloc(len + 1));
  if (text == nullptr) {
    zar_vsnprintf_done(&ctx);
    *result = nullptr;
    errno = ENOMEM;
    return -1;
  }
  if (len < sizeof first) {
    memcpy(text, first, len + 1);
  } else {
    int again = zar_vsnprintf_render(&ctx, text, len + 1);
    if (again != n) {
      zar::mem::free(text);
      zar_vsnprintf_done(&ctx);
      *result = nullptr;
      return again < 0 ? again : -1;
    }
  }
  zar_vsnprintf_done(&ctx);
  *result = text;
  return n;
}

int zar_vsnprintf(char* buf, int size, const char* fmt, va_list ap) {
  return zar_vsnprintf_cs(buf, size, nullptr, fmt, ap);
}

int zar_snprintf(char* buf, int size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

int zar_snprintf_cs(char* buf, int size, zar_codeset_t cs, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vsnprintf_cs(buf, size, cs, fmt, ap);
  va_end(ap);
  return n;
}

int zar_vasprintf(char** result, const char* fmt, va_list ap) {
  return zar_vasprintf_cs(result, nullptr, fmt, ap);
}

int zar_asprintf(char** result, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vasprintf(result, fmt, ap);
  va_end(ap);
  return n;
}

int zar_asprintf_cs(char** result, zar_codeset_t cs, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vasprintf_cs(result, cs, fmt, ap);
  va_end(ap);
  return n;
}

int zar_vsnprintf_lcp(char* buf, int size, const char* fmt, va_list ap) {
  return zar_vsnprintf_cs(buf, size, zarsvc_get_local_code_page(), fmt, ap);
}

int zar_snprintf_lcp(char* buf, int size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vsnprintf_lcp(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

int zar_vsnprintf_utf8(char* buf, int size, const char* fmt, va_list ap) {
  return zar_vsnprintf_cs(buf, size, zarsvc_get_utf8_code_page(), fmt, ap);
}

int zar_snprintf_utf8(char* buf, int size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vsnprintf_utf8(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

int zar_vasprintf_lcp(char** result, const char* fmt, va_list ap) {
  return zar_vasprintf_cs(result, zarsvc_get_local_code_page(), fmt, ap);
}

int zar_asprintf_lcp(char** result, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vasprintf_lcp(result, fmt, ap);
  va_end(ap);
  return n;
}

int zar_vasprintf_utf8(char** result, const char* fmt, va_list ap) {
  return zar_vasprintf_cs(result, zarsvc_get_utf8_code_page(), fmt, ap);
}

int zar_asprintf_utf8(char** result, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zar_vasprintf_utf8(result, fmt, ap);
  va_end(ap);
  return n;
}

void zar_asprintf_free(char* text) { zar::mem::free(text); }

}  // extern "C"
