// Decimal digits written by hand into a caller's buffer, for the paths that
// build records and time texts without the printf engine. Not part of the
// public API.
#ifndef ZAR_CORE_ZARDIGITS_H_
#define ZAR_CORE_ZARDIGITS_H_

#include <string.h>

namespace zar::digits {

// v in decimal at w, at least width digits (leading zeros), as printf's
// "%0*llu"; returns the end. Writes at most max(20, width) bytes.
inline char* putUnsigned(char* w, unsigned long long v, int width = 1) {
  char tmp[24];
  char* const end = tmp + sizeof tmp;
  char* p = end;
  do {
    *--p = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  for (int n = static_cast<int>(end - p); n < width; ++n) *w++ = '0';
  memcpy(w, p, static_cast<size_t>(end - p));
  return w + (end - p);
}

// v in decimal at w, at least width characters with the sign (leading zeros
// after it), as printf's "%0*lld"; returns the end.
inline char* putSigned(char* w, long long v, int width = 1) {
  if (v >= 0) return putUnsigned(w, static_cast<unsigned long long>(v), width);
  *w++ = '-';
  return putUnsigned(w, 0ULL - static_cast<unsigned long long>(v), width - 1);
}

}  // namespace zar::digits

#endif  // ZAR_CORE_ZARDIGITS_H_
