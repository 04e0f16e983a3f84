// Fuzz target for the formatted-output engine: an arbitrary format is parsed
// against a fixed argument pool and rendered into buffers of several sizes
// and into a stream. Checked: every rendering gives the same result, a cut
// output is a terminated prefix of the whole one, nothing is written past
// the size, and the stream receives exactly the whole length.
//
// Input: byte 0 chooses the code set of %C and %S (none, UTF-8, ISO-8859-1),
// bytes 1 and 2 a buffer size (0 to 1023), the rest is the format.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "core/zarprintf.h"

namespace {

// Every integer-class argument of the pool is the same pointer, so that it
// is valid whatever a conversion reads it as: "ab" as a byte string, one
// wide character as a wide string, and, as an int, width or precision, its
// low 32 bits, kept small by mapping the page at a low address.
const char* poolPointer() {
  static const char* p = [] {
    void* page = MAP_FAILED;
    for (uintptr_t a = 0x10000; a < 0x1000000 && page == MAP_FAILED; a += 0x10000) {
      page = mmap(reinterpret_cast<void*>(a), 4096, PROT_READ | PROT_WRITE,
                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }
    if (page == MAP_FAILED)
      page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) abort();
    memcpy(page, "ab\0\0\0\0", 6);
    return static_cast<const char*>(page);
  }();
  return p;
}

int parse(zar::format::Context* ctx, nlz_cs_t cs, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = zar_vsnprintf_parse(ctx, cs, fmt, ap);
  va_end(ap);
  return r;
}
int parseAs(zar::format::Context* ctx, const zar::format::Context* model, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = zar_vsnprintf_parse_as(ctx, model, fmt, ap);
  va_end(ap);
  return r;
}

#define P10 p, p, p, p, p, p, p, p, p, p
#define P100 P10, P10, P10, P10, P10, P10, P10, P10, P10, P10
#define ARGS P100, P100, 1.5, -0.0, 1e300, 2.5e-310, 0.1, -7.0, 123.456, 1e-5

// A format names at most three arguments per '%' (value, width, precision);
// 20 of them stay well inside the 200 pool pointers even when every
// argument is read as a 16-byte long double. Long digit runs only make
// the C library pad for a long time.
bool acceptable(const std::string& fmt) {
  int percents = 0;
  int digits = 0;
  for (char c : fmt) {
    if (c == '%' && ++percents > 20) return false;
    digits = (c >= '0' && c <= '9') ? digits + 1 : 0;
    if (digits > 6) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  static const nlz_cs_t kCodeSets[3] = {nullptr, nlz_cs_shared("UTF8"), nlz_cs_shared("ISO8859-1")};
  static FILE* sink = fopen("/dev/null", "w");
  if (sink == nullptr) abort();
  const nlz_cs_t cs = kCodeSets[data[0] % 3];
  const size_t bufSize = ((static_cast<size_t>(data[1]) << 8) | data[2]) % 1024;
  std::string fmt(reinterpret_cast<const char*>(data + 3), size - 3);
  fmt.resize(strlen(fmt.c_str()));
  if (!acceptable(fmt)) return 0;

  const char* p = poolPointer();
  zar::format::Context ctx;
  if (parse(&ctx, cs, fmt.c_str(), ARGS) != 0) return 0;
  const int n = zar_vsnprintf_render(&ctx, nullptr, 0);
  if (n >= 0 && n < (1 << 22)) {
    std::vector<char> whole(static_cast<size_t>(n) + 1);
    if (zar_vsnprintf_render(&ctx, whole.data(), whole.size()) != n || whole[n] != '\0') abort();
    // The same text in another place, parsed through this parse: the same output.
    const std::string same = fmt;
    zar::format::Context again;
    std::vector<char> other(whole.size());
    if (parseAs(&again, &ctx, same.c_str(), ARGS) == 0 &&
        (zar_vsnprintf_render(&again, other.data(), other.size()) != n || other != whole))
      abort();
    // A cut: the same result, a terminated prefix, the guard bytes intact.
    std::vector<char> cut(bufSize + 16, '\x5a');
    if (zar_vsnprintf_render(&ctx, cut.data(), bufSize) != n) abort();
    if (bufSize > 0) {
      size_t kept = strnlen(cut.data(), bufSize);
      if (kept == bufSize || kept > static_cast<size_t>(n)) abort();
      if (memcmp(cut.data(), whole.data(), kept) != 0) abort();
    }
    for (size_t i = bufSize; i < cut.size(); ++i)
      if (cut[i] != '\x5a') abort();
    if (zar_vsnprintf_render_stream(&ctx, sink) != n) abort();
  } else if (n < 0) {
    char small[8];
    if (zar_vsnprintf_render(&ctx, small, sizeof small) != -1) abort();
  }
  zar_vsnprintf_done(&ctx);
  return 0;
}
