// Catalog-message printf family: printf, fprintf and sprintf shapes whose
// format is the text of a message, with the program name as prefix ("pgm")
// and with the UTF-8 text of the message ("_utf8").
//
// Every public function runs with cancellation disabled (CancelDisabled), so
// a cancelled thread never leaves a message text allocated or half a line
// written; the two stream workers leave the state alone.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "core/zarprintf.h"
#include "platform/nlz.h"
#include "zar/msg.h"
#include "zar/msgprintf.h"
#include "zar/nls.h"
#include "zar/printf.h"
#include "zar/svc.h"

namespace zar::msgprintf {
namespace {

constexpr size_t kSprintfSize = 4096;  // whole result of the plain sprintf forms
constexpr char kPrefixFormat[] = "%s:  ";

// The message's text in UTF-8, allocated: the catalogs' (broadest search),
// else a copy of the compiled text. Null when there is none.
char* utf8Text(uint32_t message) {
  unsigned long st = 0;
  char* text = zar_msg_get_locale_cat_msg(message, nullptr, "UTF8", 4, &st);
  if (text != nullptr) return text;
  const char* compiled = zar_msg_get_default_msg(message, &st);
  return compiled != nullptr ? mem::strDup(compiled) : nullptr;
}

// The message formatted in UTF-8 (allocated), or null.
char* formatUtf8(uint32_t message, va_list args) {
  char* text = utf8Text(message);
  if (text == nullptr) return nullptr;
  char* out = nullptr;
  int n = zar_vasprintf_cs(&out, zarsvc_get_utf8_code_page(), text, args);
  mem::free(text);
  if (n < 0) return nullptr;
  return out;
}

// Writes n bytes of UTF-8 text to stream in the thread's local code page.
// Returns the bytes written, or -1.
int writeLocal(FILE* stream, const char* utf8, size_t n) {
  if (n == 0) return 0;
  nlz_cs_t local = zarsvc_get_local_code_page();
  if (local == nullptr || nlz_cs_is_utf8(local)) {
    return fwrite(utf8, 1, n, stream) == n ? static_cast<int>(n) : -1;
  }
  if (n > (1u << 28)) return -1;
  size_t room = n * 4 + 16;  // room for any single-byte or multibyte code page
  mem::Unique<char> out(static_cast<char*>(mem::alloc(room)));
  if (!out) return -1;
  int m = nlz_from_utf8(local, utf8, static_cast<int>(n), out.get(), static_cast<int>(room));
  if (m < 0) return -1;
  return fwrite(out.get(), 1, static_cast<size_t>(m), stream) == static_cast<size_t>(m) ? m : -1;
}

void writePrefix(FILE* stream) {
  fprintf(stream, kPrefixFormat, zar_svc_get_progname());
}

// Plain sprintf forms: one 4096-byte result, the prefix first for "pgm".
char* plainSprintf(bool pgm, uint32_t message, va_list args) {
  unsigned long st = 0;
  char* text = zar_msg_get_msg(message, &st);
  if (text == nullptr) return nullptr;
  char* buf = static_cast<char*>(mem::alloc(kSprintfSize));
  if (buf == nullptr) {
    mem::free(text);
    return nullptr;
  }
  size_t used = 0;
  if (pgm) {
    int p = snprintf(buf, kSprintfSize, kPrefixFormat, zar_svc_get_progname());
    used = p < 0                                   ? 0
           : static_cast<size_t>(p) < kSprintfSize ? static_cast<size_t>(p)
                                                   : kSprintfSize - 1;
  }
  int n = nlz_vsprintf(buf + used, kSprintfSize - used, nullptr, nullptr, text, args);
  mem::free(text);
  if (n < 0) {
    mem::free(buf);
    return nullptr;
  }
  size_t len = strlen(buf);  // the result may have been cut at the limit
  char* shrunk = static_cast<char*>(mem::realloc(buf, len + 1));
  return shrunk != nullptr ? shrunk : buf;
}

char* utf8Sprintf(bool pgm, uint32_t message, va_list args) {
  char* formatted = formatUtf8(message, args);
  if (formatted == nullptr || !pgm) return formatted;
  size_t len = strlen(formatted);
  if (len == 0) {
    mem::free(formatted);
    return nullptr;
  }
  const char* name = zar_svc_get_progname();
  size_t size = strlen(name) + len + 5;
  char* out = static_cast<char*>(mem::alloc(size));
  if (out != nullptr) snprintf(out, size, "%s:  %s", name, formatted);
  mem::free(formatted);
  return out;
}

// The stream workers: the plain one uses the text in the process's locale as
// the format of the platform's vfprintf; the UTF-8 one formats the UTF-8
// text and writes it converted into the thread's local code page.
int vfprintfPlain(FILE* stream, uint32_t message, va_list args) {
  unsigned long st = 0;
  char* text = zar_msg_get_msg(message, &st);
  if (text == nullptr) return -1;
  int n = vfprintf(stream, text, args);
  zar::mem::free(text);
  return n;
}

int vfprintfUtf8(FILE* stream, uint32_t message, va_list args) {
  char* formatted = formatUtf8(message, args);
  if (formatted == nullptr) return -1;
  int n = writeLocal(stream, formatted, strlen(formatted));
  zar::mem::free(formatted);
  return n;
}

int pgmPrint(FILE* stream, bool utf8, uint32_t message, va_list args) {
  if (stream == nullptr) return -1;
  writePrefix(stream);
  int n = utf8 ? vfprintfUtf8(stream, message, args) : vfprintfPlain(stream, message, args);
  fputc('\n', stream);
  return n;
}

int print(FILE* stream, bool utf8, uint32_t message, va_list args) {
  if (stream == nullptr) return -1;
  return utf8 ? vfprintfUtf8(stream, message, args) : vfprintfPlain(stream, message, args);
}

}  // namespace
}  // namespace zar::msgprintf

using zar::CancelDisabled;
using namespace zar::msgprintf;

extern "C" {

#define ZAR_MSGPRINTF_VARIADIC(call) \
  va_list args;                      \
  va_start(args, message);           \
  auto result = call;                \
  va_end(args);                      \
  return result

ZAR_API int zar_vprintf(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return print(stdout, false, message, args);
}
ZAR_API int zar_printf(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vprintf(message, args));
}
ZAR_API int zar_vfprintf(FILE* stream, uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return print(stream, false, message, args);
}
ZAR_API int zar_fprintf(FILE* stream, uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vfprintf(stream, message, args));
}
ZAR_API char* zar_vsprintf(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return plainSprintf(false, message, args);
}
ZAR_API char* zar_sprintf(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vsprintf(message, args));
}

ZAR_API int zar_pgm_vprintf(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return pgmPrint(stdout, false, message, args);
}
ZAR_API int zar_pgm_printf(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vprintf(message, args));
}
ZAR_API int zar_pgm_vfprintf(FILE* stream, uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return pgmPrint(stream, false, message, args);
}
ZAR_API int zar_pgm_fprintf(FILE* stream, uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vfprintf(stream, message, args));
}
ZAR_API char* zar_pgm_vsprintf(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return plainSprintf(true, message, args);
}
ZAR_API char* zar_pgm_sprintf(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vsprintf(message, args));
}

ZAR_API int zar_vprintf_utf8(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return print(stdout, true, message, args);
}
ZAR_API int zar_printf_utf8(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vprintf_utf8(message, args));
}
ZAR_API int zar_vfprintf_utf8(FILE* stream, uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return print(stream, true, message, args);
}
ZAR_API int zar_fprintf_utf8(FILE* stream, uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vfprintf_utf8(stream, message, args));
}
ZAR_API char* zar_vsprintf_utf8(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return utf8Sprintf(false, message, args);
}
ZAR_API char* zar_sprintf_utf8(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_vsprintf_utf8(message, args));
}

ZAR_API int zar_pgm_vprintf_utf8(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return pgmPrint(stdout, true, message, args);
}
ZAR_API int zar_pgm_printf_utf8(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vprintf_utf8(message, args));
}
ZAR_API int zar_pgm_vfprintf_utf8(FILE* stream, uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return pgmPrint(stream, true, message, args);
}
ZAR_API int zar_pgm_fprintf_utf8(FILE* stream, uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vfprintf_utf8(stream, message, args));
}
ZAR_API char* zar_pgm_vsprintf_utf8(uint32_t message, va_list args) {
  CancelDisabled noCancel;
  return utf8Sprintf(true, message, args);
}
ZAR_API char* zar_pgm_sprintf_utf8(uint32_t message, ...) {
  ZAR_MSGPRINTF_VARIADIC(zar_pgm_vsprintf_utf8(message, args));
}

}  // extern "C"
