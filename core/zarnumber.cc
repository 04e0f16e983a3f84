// Checked conversion of a text to a long integer.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include "zar/status.h"
#include "zar/util.h"

extern "C" ZAR_API uint32_t zar_strtol(const char* text, int base, int64_t* value) {
  if (value == nullptr || base < 0 || base == 1 || base > 36) {
    if (value != nullptr) *value = 0;
    return ZAR_S_INVALID_INPUT;
  }
  if (text == nullptr) {
    *value = 0;
    return ZAR_S_BAD_NUMBER;
  }
  errno = 0;
  char* end = nullptr;
  long v = strtol(text, &end, base);
  int err = errno;
  *value = v;
  if (end == nullptr || *end != '\0') return ZAR_S_BAD_NUMBER;
  if (err == ERANGE && (v == LONG_MAX || v == LONG_MIN)) return ZAR_S_NUMBER_TOO_LARGE;
  return ZAR_S_OK;
}
