// Fuzz target of number conversion: byte 0 chooses the base (0 to 39, so
// unsupported ones too), the rest is the text. zar_strtol must store what
// strtol gives and report trailing text and overflow as strtol shows them.
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "zar/status.h"
#include "zar/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  int base = data[0] % 40;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  int64_t value = -7;
  uint32_t st = zar_strtol(text.c_str(), base, &value);
  if (base == 1 || base > 36) {
    if (st != ZAR_S_INVALID_INPUT) abort();
    return 0;
  }
  errno = 0;
  char* end = nullptr;
  long expected = strtol(text.c_str(), &end, base);
  uint32_t want = *end != '\0' ? ZAR_S_BAD_NUMBER
                  : errno == ERANGE && (expected == LONG_MAX || expected == LONG_MIN)
                      ? ZAR_S_NUMBER_TOO_LARGE
                      : 0;
  if (value != expected || st != want) abort();
  return 0;
}
