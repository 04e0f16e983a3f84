// Internal interface of the local time-zone module: the zone data, the
// readers of compiled zone files and of POSIX rule strings, and the lookup of
// the type in force at an instant. The process-wide zone state and the public
// functions zar_utc_localzone and zar_utc_asclocaltime live in utczone.cc.
//
// The functions here work on a ZoneData the caller owns and take no lock;
// they are what the public functions run under the zone lock, and what the
// tests and fuzz targets drive directly.
#ifndef ZAR_CORE_SVCUTL_UTCZONE_H_
#define ZAR_CORE_SVCUTL_UTCZONE_H_

#include <stddef.h>
#include <stdint.h>

namespace zar::utc {

inline constexpr int kMaxTimes = 370;        // transitions
inline constexpr int kMaxTypes = 10;         // local-time types
inline constexpr int kMaxChars = 101;        // abbreviation bytes, NULs included
inline constexpr size_t kMaxZoneFile = 3740;  // bytes read from a zone file
inline constexpr size_t kMaxZonePath = 4096;  // bytes of a zone file path
inline constexpr char kZoneDir[] = "/usr/share/zoneinfo";
inline constexpr char kLocalDir[] = "/etc";
inline constexpr char kRulesZone[] = "posixrules";
// First and last year for which rule strings get transitions.
inline constexpr int kFirstRuleYear = 1970;
inline constexpr int kLastRuleYear = 2037;

struct ZoneType {
  int32_t utOffset;  // seconds east of UTC
  int isdst;         // 0 or 1
  int abbrIndex;     // offset of the abbreviation in ZoneData::chars
  int isStd;         // 0 or 1: transition times of this type are standard time
};

// Invariants (after a successful load or parse, which calls finishZone):
//   0 <= timecnt <= kMaxTimes; 1 <= typecnt <= kMaxTypes;
//   types[i] < typecnt for i < timecnt; every abbrIndex < charcnt <= kMaxChars
//   and chars[charcnt - 1] == '\0', so every abbreviation is terminated.
// ats is ascending for zone files of the real world; lookups stay correct
// (if slower) when a damaged file or an odd rule breaks that order.
struct ZoneData {
  int timecnt;
  int typecnt;
  int charcnt;
  int64_t ats[kMaxTimes];  // transition instants, seconds since 1970 UTC
  uint8_t types[kMaxTimes];
  ZoneType ttis[kMaxTypes];
  char chars[kMaxChars];
  // Derived by finishZone:
  int defaultType;  // first type that is not daylight-saving time, else 0
  bool sorted;      // ats is non-decreasing
};

// Reads a compiled zone file's version-1 header and 32-bit data from buf.
// Returns 0, or -1 when the data are malformed or exceed the limits (sp may
// then be partly overwritten).
int tzloadBuffer(ZoneData* sp, const unsigned char* buf, size_t len);

// Reads the zone file name (null: "localtime" in /etc; relative names under
// /usr/share/zoneinfo; one leading ':' skipped). Returns 0 or -1.
int tzload(ZoneData* sp, const char* name);

// Builds sp from a POSIX rule string; lastditch makes a zone of offset 0 named
// after the first 100 bytes of the whole string. A daylight-saving name
// without rules takes the transitions of the zone file rulesZone (normally
// "posixrules"; tests name another). Returns 0 or -1.
int tzparse(ZoneData* sp, const char* name, bool lastditch, const char* rulesZone = kRulesZone);

// One type, offset 0, not daylight-saving time, abbreviation "GMT".
void setGmt(ZoneData* sp);

// Whether sp satisfies the ZoneData invariants (what every successful load
// or parse leaves behind).
bool zoneIsValid(const ZoneData& sp);

// The type in force at t seconds since 1970 UTC.
const ZoneType& lookupType(const ZoneData& sp, int64_t t);

}  // namespace zar::utc

#endif  // ZAR_CORE_SVCUTL_UTCZONE_H_
