// The one place where a status code is written back to a caller.
//
// Every C entry point reports its status through setStatus on every path,
// success included. The out-parameter types differ between families (unsigned
// long for messages and serviceability, unsigned 32-bit for stanza files,
// unsigned 64-bit for UUIDs, signed int for the error-text functions); the
// rule is the same for all: the status code fills the low 32 bits, the rest of
// the word is 0, and a null pointer means the caller does not want it.
#ifndef ZAR_BASE_ZARSTATUS_H_
#define ZAR_BASE_ZARSTATUS_H_

#include <stdint.h>

namespace zar {

inline void setStatus(unsigned long* st, uint32_t code) {
  if (st != nullptr) *st = code;
}
inline void setStatus(unsigned long long* st, uint32_t code) {
  if (st != nullptr) *st = code;
}
inline void setStatus(unsigned int* st, uint32_t code) {
  if (st != nullptr) *st = code;
}
inline void setStatus(int* st, int32_t code) {
  if (st != nullptr) *st = code;
}

// The status code held in the low 32 bits of a status word.
inline uint32_t statusCode(unsigned long st) { return static_cast<uint32_t>(st); }

}  // namespace zar

#endif  // ZAR_BASE_ZARSTATUS_H_
