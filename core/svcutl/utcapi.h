// Internal interface of the UTC timestamp module: encoding and decoding of
// the 16-byte utc_t, the calendar split, and the text formatter shared by the
// public text functions and the local-time zone module (utczone).
#ifndef ZAR_CORE_SVCUTL_UTCAPI_H_
#define ZAR_CORE_SVCUTL_UTCAPI_H_

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "zar/utc.h"

namespace zar::utc {

inline constexpr char kRecordName[] = "core/svcutl/utcapi";

// 100-ns intervals between 1582-10-15 00:00:00 UTC and 1970-01-01 00:00:00 UTC.
inline constexpr uint64_t kUnixEpoch100 = 0x01B21DD213814000ULL;
inline constexpr int64_t kIntervalsPerSecond = 10'000'000;
// The 48-bit inaccuracy value that means "unknown".
inline constexpr uint64_t kInfiniteInacc = 0xFFFFFFFFFFFFULL;
// Longest text of zar_utc_ascanytime for any timestamp, NUL included, with room.
inline constexpr size_t kMaxTextLen = 64;

// Writes a version-1 little-endian timestamp. An inaccuracy at or above
// kInfiniteInacc is stored as unknown; only the low 12 bits of tdf / 60 are
// kept. A null out is an internal consistency failure (ZAR_CHECK).
void mkcomptime(utc_t* out, uint64_t time100, uint64_t inacc100, long tdf);

// Reads a timestamp of either layout; a null utc reads the current time.
// Returns -1 (outputs untouched) when the version nibble is not 1.
int comptime(uint64_t* time100, uint64_t* inacc100, long* tdf, const utc_t* utc);

// Splits t, 100-ns intervals since 1582-10-15 00:00:00 of the chosen offset
// (negative: earlier, in the Julian calendar), into calendar fields. Sets
// every standard field of *tm except tm_isdst, tm_gmtoff and tm_zone.
void splittime(int64_t t, struct tm* tm, long* ns);

// Splits a 48-bit inaccuracy into seconds, minutes, hours and whole days
// (tm_yday); every field and *ns are -1 when it is unknown.
void splitinacc(uint64_t inacc100, struct tm* tm, long* ns);

// Formats the text of zar_utc_ascanytime (withOffset) or zar_utc_ascgmtime
// (time already in UTC, milliseconds rounded) into buf, which holds at least
// kMaxTextLen bytes. Returns the length without the NUL.
size_t formatText(char* buf, uint64_t time100, uint64_t inacc100, long tdf, bool withOffset);

// Copies a formatted text of n bytes and its NUL into cp when it fits in len
// bytes (returns 0); otherwise returns -1 and writes nothing.
int copyText(char* cp, size_t len, const char* text, size_t n);

}  // namespace zar::utc

#endif  // ZAR_CORE_SVCUTL_UTCAPI_H_
