// The local time zone: the process-wide zone state, its readers (compiled
// zone files and POSIX rule strings) and the lookup behind
// zar_utc_localzone and zar_utc_asclocaltime.
//
// The zone lock is a leaf: nothing under it calls out of this module (other
// than the allocator and the system-call wrappers), because the
// serviceability printer calls zar_utc_asclocaltime while holding its own
// mutex. The lookup path, which stamps every log record, takes the lock,
// compares TZ with the kept copy, searches the transitions and formats the
// text after the lock is released; it neither allocates nor reads files.
#include "core/svcutl/utczone.h"

#include <assert.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "core/svcutl/utcapi.h"
#include "platform/secenv.h"
#include "platform/sysio.h"

namespace zar::utc {
namespace {

constexpr int kMonLengths[2][12] = {{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                                    {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};
constexpr int kYearLengths[2] = {365, 366};
constexpr int64_t kSecsPerDay = 86'400;
constexpr size_t kHeaderLen = 44;

int isLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0 ? 1 : 0; }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A four-byte big-endian value of a zone file, as a signed 32-bit number.
int32_t detzcode(const unsigned char* p) {
  uint32_t v = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
  return static_cast<int32_t>(v);
}

void finishZone(ZoneData* sp) {
  sp->defaultType = 0;
  for (int i = 0; i < sp->typecnt; ++i) {
    if (sp->ttis[i].isdst == 0) {
      sp->defaultType = i;
      break;
    }
  }
  sp->sorted = true;
  for (int i = 1; i < sp->timecnt; ++i) {
    if (sp->ats[i] < sp->ats[i - 1]) {
      sp->sorted = false;
      break;
    }
  }
}

// --- Rule-string scanners. Each returns the position after what it read,
// or null when the text there is not what it scans. ---

// A zone name: everything up to a digit, ',', ';', '-', '+' or the end.
const char* getzname(const char* p) {
  while (*p != '\0' && !isDigit(*p) && *p != ',' && *p != ';' && *p != '-' && *p != '+') ++p;
  return p;
}

// A decimal number from min to max (at least one digit).
const char* getnum(const char* p, int* out, int min, int max) {
  if (!isDigit(*p)) return nullptr;
  int v = 0;
  do {
    v = v * 10 + (*p - '0');
    if (v > max) return nullptr;
    ++p;
  } while (isDigit(*p));
  if (v < min) return nullptr;
  *out = v;
  return p;
}

// hh[:mm[:ss]], hh 0 to 24, mm and ss 0 to 59, as seconds.
const char* getsecs(const char* p, long* secs) {
  int v;
  p = getnum(p, &v, 0, 24);
  if (p == nullptr) return nullptr;
  long s = v * 3600L;
  if (*p == ':') {
    p = getnum(p + 1, &v, 0, 59);
    if (p == nullptr) return nullptr;
    s += v * 60L;
    if (*p == ':') {
      p = getnum(p + 1, &v, 0, 59);
      if (p == nullptr) return nullptr;
      s += v;
    }
  }
  *secs = s;
  return p;
}

// [+|-]hh[:mm[:ss]]; positive is west of Greenwich.
const char* getoffset(const char* p, long* offset) {
  bool neg = false;
  if (*p == '-') {
    neg = true;
    ++p;
  } else if (*p == '+') {
    ++p;
  }
  p = getsecs(p, offset);
  if (p != nullptr && neg) *offset = -*offset;
  return p;
}

struct Rule {
  enum Kind { kJulian, kDayOfYear, kMonthWeekDay } kind;
  int day;   // Jn: 1-365; n: 0-365; Mm.w.d: d, 0-6 (Sunday 0)
  int week;  // 1-5, 5 the last
  int mon;   // 1-12
  long time;  // seconds after local midnight
};

// Jn, n or Mm.w.d, then an optional /time (default 02:00:00).
const char* getrule(const char* p, Rule* r) {
  if (*p == 'J') {
    r->kind = Rule::kJulian;
    p = getnum(p + 1, &r->day, 1, 365);
  } else if (*p == 'M') {
    r->kind = Rule::kMonthWeekDay;
    p = getnum(p + 1, &r->mon, 1, 12);
    if (p == nullptr || *p != '.') return nullptr;
    p = getnum(p + 1, &r->week, 1, 5);
    if (p == nullptr || *p != '.') return nullptr;
    p = getnum(p + 1, &r->day, 0, 6);
  } else if (isDigit(*p)) {
    r->kind = Rule::kDayOfYear;
    p = getnum(p, &r->day, 0, 365);
  } else {
    return nullptr;
  }
  if (p == nullptr) return nullptr;
  r->time = 2 * 3600L;
  if (*p == '/') p = getsecs(p + 1, &r->time);
  return p;
}

// The instant (seconds since 1970 UTC) at which rule r takes effect in year,
// whose January 1 00:00 UTC is janfirst; offset (west positive) turns the
// local wall-clock time of the rule into UTC.
int64_t transtime(int64_t janfirst, int year, const Rule& r, long offset) {
  int leap = isLeap(year);
  int64_t value = janfirst;
  switch (r.kind) {
    case Rule::kJulian:
      // February 29 is never counted: day 60 is always March 1.
      value += (r.day - 1) * kSecsPerDay;
      if (leap && r.day >= 60) value += kSecsPerDay;
      break;
    case Rule::kDayOfYear:
      value += r.day * kSecsPerDay;
      break;
    case Rule::kMonthWeekDay: {
      for (int i = 0; i < r.mon - 1; ++i) value += kMonLengths[leap][i] * kSecsPerDay;
      // Weekday of the first of the month, by Zeller's congruence.
      int m1 = (r.mon + 9) % 12 + 1;
      int yy0 = r.mon <= 2 ? year - 1 : year;
      int yy1 = yy0 / 100;
      int yy2 = yy0 % 100;
      int dow = ((26 * m1 - 2) / 10 + 1 + yy2 + yy2 / 4 + yy1 / 4 - 2 * yy1) % 7;
      if (dow < 0) dow += 7;
      int d = r.day - dow;
      if (d < 0) d += 7;
      for (int i = 1; i < r.week; ++i) {
        if (d + 7 >= kMonLengths[leap][r.mon - 1]) break;
        d += 7;
      }
      value += d * kSecsPerDay;
      break;
    }
  }
  return value + r.time + offset;
}

// Stores the abbreviations: std, NUL, then dst and NUL when dst is given.
bool setNames(ZoneData* sp, const char* std, size_t stdLen, const char* dst, size_t dstLen) {
  size_t total = stdLen + 1 + (dst != nullptr ? dstLen + 1 : 0);
  if (total > static_cast<size_t>(kMaxChars)) return false;
  memcpy(sp->chars, std, stdLen);
  sp->chars[stdLen] = '\0';
  if (dst != nullptr) {
    memcpy(sp->chars + stdLen + 1, dst, dstLen);
    sp->chars[stdLen + 1 + dstLen] = '\0';
  }
  sp->charcnt = static_cast<int>(total);
  return true;
}

// A daylight-saving name without rules: the transitions and types of the
// zone "posixrules" (already in sp), renamed and shifted to the new offsets.
bool applyLoadedRules(ZoneData* sp, long stdOffset, long dstOffset, int stdLen) {
  bool haveStd = false;
  bool haveDst = false;
  long stdDiff = 0;
  long dstDiff = 0;
  for (int i = 0; i < sp->typecnt; ++i) {
    long old = sp->ttis[i].utOffset;
    if (sp->ttis[i].isdst != 0) {
      long diff = dstOffset + old;
      if (haveDst && diff != dstDiff) return false;
      dstDiff = diff;
      haveDst = true;
    } else {
      long diff = stdOffset + old;
      if (haveStd && diff != stdDiff) return false;
      stdDiff = diff;
      haveStd = true;
    }
  }
  if (!haveStd || !haveDst) return false;
  for (int i = 0; i < sp->timecnt; ++i) {
    bool dstBefore = i > 0 && sp->ttis[sp->types[i - 1]].isdst != 0;
    sp->ats[i] += (dstBefore && sp->ttis[sp->types[i]].isStd == 0) ? dstDiff : stdDiff;
  }
  for (int i = 0; i < sp->typecnt; ++i) {
    ZoneType& tt = sp->ttis[i];
    if (tt.isdst != 0) {
      tt.utOffset = static_cast<int32_t>(-dstOffset);
      tt.abbrIndex = stdLen + 1;
    } else {
      tt.utOffset = static_cast<int32_t>(-stdOffset);
      tt.abbrIndex = 0;
    }
  }
  return true;
}

}  // namespace

void setGmt(ZoneData* sp) {
  sp->timecnt = 0;
  sp->typecnt = 1;
  sp->ttis[0] = ZoneType{0, 0, 0, 0};
  setNames(sp, "GMT", 3, nullptr, 0);
  finishZone(sp);
}

int tzloadBuffer(ZoneData* sp, const unsigned char* buf, size_t len) {
  if (buf == nullptr || len < kHeaderLen) return -1;
  const int64_t stdcnt = detzcode(buf + 24);
  const int64_t leapcnt = detzcode(buf + 28);
  const int64_t timecnt = detzcode(buf + 32);
  const int64_t typecnt = detzcode(buf + 36);
  const int64_t charcnt = detzcode(buf + 40);
  if (typecnt < 1 || typecnt > kMaxTypes || timecnt < 0 || timecnt > kMaxTimes ||
      charcnt < 0 || charcnt > kMaxChars - 1 || (stdcnt != 0 && stdcnt != typecnt) ||
      leapcnt < 0) {
    return -1;
  }
  // Leap-second records (two four-byte values each) sit between the
  // abbreviations and the indicators; they are skipped.
  const int64_t need =
      static_cast<int64_t>(kHeaderLen) + 5 * timecnt + 6 * typecnt + charcnt + 8 * leapcnt + stdcnt;
  if (need > static_cast<int64_t>(len)) return -1;

  const unsigned char* p = buf + kHeaderLen;
  for (int i = 0; i < timecnt; ++i, p += 4) sp->ats[i] = detzcode(p);
  for (int i = 0; i < timecnt; ++i, ++p) {
    if (*p >= typecnt) return -1;
    sp->types[i] = *p;
  }
  for (int i = 0; i < typecnt; ++i) {
    ZoneType& tt = sp->ttis[i];
    tt.utOffset = detzcode(p);
    p += 4;
    if (*p > 1) return -1;
    tt.isdst = *p++;
    if (*p > charcnt) return -1;
    tt.abbrIndex = *p++;
    tt.isStd = 0;
  }
  memcpy(sp->chars, p, static_cast<size_t>(charcnt));
  sp->chars[charcnt] = '\0';
  p += charcnt + 8 * leapcnt;
  for (int i = 0; i < stdcnt; ++i, ++p) {
    signed char v = static_cast<signed char>(*p);
    if (v > 1) return -1;
    sp->ttis[i].isStd = v != 0 ? 1 : 0;
  }
  sp->timecnt = static_cast<int>(timecnt);
  sp->typecnt = static_cast<int>(typecnt);
  sp->charcnt = static_cast<int>(charcnt) + 1;
  finishZone(sp);
  return 0;
}

int tzload(ZoneData* sp, const char* name) {
  if (name == nullptr) name = "localtime";
  if (*name == ':') ++name;
  char path[kMaxZonePath + 1];
  const size_t nameLen = strlen(name);
  const bool absolute = name[0] == '/';
  if (absolute) {
    if (nameLen > kMaxZonePath) return -1;
    memcpy(path, name, nameLen + 1);
  } else {
    const char* dir = strcmp(name, "localtime") == 0 ? kLocalDir : kZoneDir;
    const size_t dirLen = strlen(dir);
    if (dirLen + nameLen + 1 > kMaxZonePath) return -1;
    memcpy(path, dir, dirLen);
    path[dirLen] = '/';
    memcpy(path + dirLen + 1, name, nameLen + 1);
  }
  if ((absolute || strchr(name, '.') != nullptr) && access(path, F_OK) != 0) return -1;

  unsigned char buf[kMaxZoneFile];
  ssize_t got;
  {
    // A zone file is read in one go; no cancellation while the descriptor
    // is open, so that it is always closed. O_NONBLOCK: a FIFO named by TZ
    // must not hang the caller.
    CancelDisabled noCancel;
    int fd = sys::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return -1;
    got = sys::read(fd, buf, sizeof buf);
    if (close(fd) != 0) return -1;
  }
  if (got < static_cast<ssize_t>(kHeaderLen)) return -1;
  return tzloadBuffer(sp, buf, static_cast<size_t>(got));
}

int tzparse(ZoneData* sp, const char* name, bool lastditch, const char* rulesZone) {
  if (name == nullptr) return -1;
  const char* stdName = name;
  if (lastditch) {
    size_t stdLen = strnlen(name, kMaxChars - 1);
    sp->timecnt = 0;
    sp->typecnt = 1;
    sp->ttis[0] = ZoneType{0, 0, 0, 0};
    setNames(sp, stdName, stdLen, nullptr, 0);
    finishZone(sp);
    return 0;
  }
  name = getzname(name);
  const size_t stdLen = static_cast<size_t>(name - stdName);
  if (stdLen < 3) return -1;
  long stdOffset = 0;
  if (isDigit(*name) || *name == '+' || *name == '-') {
    name = getoffset(name, &stdOffset);
    if (name == nullptr) return -1;
  }
  // The zone "posixrules" supplies the transitions of a daylight-saving name
  // given without rules.
  const bool haveRulesZone = tzload(sp, rulesZone) == 0;

  if (*name == '\0') {
    sp->timecnt = 0;
    sp->typecnt = 1;
    sp->ttis[0] = ZoneType{static_cast<int32_t>(-stdOffset), 0, 0, 0};
    if (!setNames(sp, stdName, stdLen, nullptr, 0)) return -1;
    finishZone(sp);
    return 0;
  }

  const char* dstName = name;
  name = getzname(name);
  const size_t dstLen = static_cast<size_t>(name - dstName);
  if (dstLen < 3) return -1;
  long dstOffset = stdOffset - 3600;
  if (*name != '\0' && *name != ',' && *name != ';') {
    name = getoffset(name, &dstOffset);
    if (name == nullptr) return -1;
  }
  if (stdLen + dstLen + 2 > static_cast<size_t>(kMaxChars)) return -1;

  if (*name == ',' || *name == ';') {
    Rule start;
    Rule end;
    name = getrule(name + 1, &start);
    if (name == nullptr || *name != ',') return -1;
    name = getrule(name + 1, &end);
    if (name == nullptr || *name != '\0') return -1;
    sp->typecnt = 2;
    sp->ttis[0] = ZoneType{static_cast<int32_t>(-dstOffset), 1, static_cast<int>(stdLen) + 1, 0};
    sp->ttis[1] = ZoneType{static_cast<int32_t>(-stdOffset), 0, 0, 0};
    int n = 0;
    int64_t janfirst = 0;
    for (int year = kFirstRuleYear; year <= kLastRuleYear; ++year) {
      int64_t startTime = transtime(janfirst, year, start, stdOffset);
      int64_t endTime = transtime(janfirst, year, end, dstOffset);
      if (startTime > endTime) {
        sp->ats[n] = endTime;
        sp->types[n++] = 1;
        sp->ats[n] = startTime;
        sp->types[n++] = 0;
      } else {
        sp->ats[n] = startTime;
        sp->types[n++] = 0;
        sp->ats[n] = endTime;
        sp->types[n++] = 1;
      }
      janfirst += kYearLengths[isLeap(year)] * kSecsPerDay;
    }
    sp->timecnt = n;
  } else {
    if (*name != '\0' || !haveRulesZone || sp->typecnt < 1) return -1;
    if (!applyLoadedRules(sp, stdOffset, dstOffset, static_cast<int>(stdLen))) return -1;
  }
  setNames(sp, stdName, stdLen, dstName, dstLen);
  finishZone(sp);
  return 0;
}

bool zoneIsValid(const ZoneData& sp) {
  if (sp.typecnt < 1 || sp.typecnt > kMaxTypes || sp.timecnt < 0 || sp.timecnt > kMaxTimes ||
      sp.charcnt < 1 || sp.charcnt > kMaxChars || sp.chars[sp.charcnt - 1] != '\0' ||
      sp.defaultType < 0 || sp.defaultType >= sp.typecnt) {
    return false;
  }
  for (int i = 0; i < sp.timecnt; ++i) {
    if (sp.types[i] >= sp.typecnt) return false;
    if (i > 0 && sp.sorted && sp.ats[i] < sp.ats[i - 1]) return false;
  }
  for (int i = 0; i < sp.typecnt; ++i) {
    const ZoneType& tt = sp.ttis[i];
    if (tt.abbrIndex < 0 || tt.abbrIndex >= sp.charcnt || (tt.isdst != 0 && tt.isdst != 1) ||
        (tt.isStd != 0 && tt.isStd != 1)) {
      return false;
    }
  }
  return true;
}

const ZoneType& lookupType(const ZoneData& sp, int64_t t) {
  if (sp.timecnt == 0 || t < INT32_MIN || t > INT32_MAX || t < sp.ats[0]) {
    return sp.ttis[sp.defaultType];
  }
  // The type of the last transition at or before t: the first i from 1 on
  // with t < ats[i] names it as types[i - 1].
  int i;
  if (sp.sorted) {
    i = static_cast<int>(std::upper_bound(sp.ats + 1, sp.ats + sp.timecnt, t) - sp.ats);
  } else {
    i = 1;
    while (i < sp.timecnt && !(t < sp.ats[i])) ++i;
  }
  return sp.ttis[sp.types[i - 1]];
}

namespace {

// The process's zone state.
// Invariants: once lclIsSet, data satisfies the ZoneData invariants. data was
// built from TZ when fromTz, and then prevTz is a private copy of that value
// (null only when the copy could not be allocated: the next call rebuilds);
// otherwise data is the default zone and prevTz is null.
struct ZoneState {
  zar::Mutex mu;
  ZoneData data ZAR_GUARDED_BY(mu);
  char* prevTz ZAR_GUARDED_BY(mu);
  bool fromTz ZAR_GUARDED_BY(mu);
  bool lclIsSet ZAR_GUARDED_BY(mu);
  pthread_once_t forkOnce;  // the fork handler is registered once
};

ZoneState gZone = {PTHREAD_MUTEX_INITIALIZER, {}, nullptr, false, false, PTHREAD_ONCE_INIT};

// In a child of fork: when another thread of the parent held the zone lock,
// the child gets a fresh lock and rebuilds the zone at its next call (the
// kept TZ copy may have been changing; it is left behind). The child has one
// thread: no lock is needed to reset the state.
void forkChild() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (pthread_mutex_trylock(&gZone.mu) == 0) {
    pthread_mutex_unlock(&gZone.mu);
    return;
  }
  pthread_mutex_init(&gZone.mu, nullptr);
  gZone.prevTz = nullptr;
  gZone.fromTz = false;
  gZone.lclIsSet = false;
}

void registerForkHandler() { pthread_atfork(nullptr, nullptr, forkChild); }

void loadDefaultZone(ZoneData* sp) {
  if (tzload(sp, nullptr) == 0) return;
  if (tzload(sp, "GMT") == 0) return;
  if (tzparse(sp, "GMT", true) == 0) return;
  setGmt(sp);
}

void loadZoneFromTz(ZoneData* sp, const char* tz) {
  if (*tz == '\0') {
    setGmt(sp);
    return;
  }
  if (tzload(sp, tz) == 0) return;
  if (tz[0] != ':' && tzparse(sp, tz, false) == 0) return;
  if (tzparse(sp, tz, true) == 0) return;
  setGmt(sp);  // not reached: the last-ditch zone always fits
}

// Builds the state again from tz (null: the default zone).
__attribute__((noinline)) void rebuildZone(const char* tz) ZAR_REQUIRES(gZone.mu) {
  pthread_once(&gZone.forkOnce, registerForkHandler);
  mem::free(gZone.prevTz);
  gZone.prevTz = nullptr;
  gZone.fromTz = tz != nullptr;
  gZone.lclIsSet = true;
  if (tz == nullptr) {
    loadDefaultZone(&gZone.data);
    assert(zoneIsValid(gZone.data));
    return;
  }
  gZone.prevTz = mem::strDup(tz);
  loadZoneFromTz(&gZone.data, tz);
  assert(zoneIsValid(gZone.data));
}

// Brings the state up to date with TZ.
void updateZone() ZAR_REQUIRES(gZone.mu) {
  const char* tz = zar::env::get("TZ");
  if (tz != nullptr) {
    if (gZone.prevTz != nullptr && strcmp(tz, gZone.prevTz) == 0) return;
  } else if (gZone.lclIsSet && !gZone.fromTz) {
    return;
  }
  rebuildZone(tz);
}

// Seconds since 1970 for the zone lookup: a count with its top bit set is
// taken as the 1582 epoch; the division truncates toward zero.
int64_t lookupSeconds(uint64_t time100) {
  if ((time100 >> 63) != 0) time100 = 0;
  return (static_cast<int64_t>(time100) - static_cast<int64_t>(kUnixEpoch100)) /
         kIntervalsPerSecond;
}

}  // namespace
}  // namespace zar::utc

using namespace zar::utc;  // NOLINT(google-build-using-namespace): entry points only

extern "C" {

ZAR_API int zar_utc_localzone(char* tzname, size_t len, long* tdf, int* isdst,
                              const utc_t* utc) {
  uint64_t time100;
  if (comptime(&time100, nullptr, nullptr, utc) != 0) {
    if (tdf != nullptr) *tdf = 0;
    if (isdst != nullptr) *isdst = 0;
    return -1;
  }
  const int64_t t = lookupSeconds(time100);
  zar::MutexLock lock(gZone.mu);
  updateZone();
  const ZoneType& tt = lookupType(gZone.data, t);
  if (tdf != nullptr) *tdf = tt.utOffset;
  if (isdst != nullptr) *isdst = tt.isdst;
  if (tzname != nullptr && len != 0) {
    // strncpy semantics: NUL-padded, unterminated when the name fills len.
    const char* abbr = gZone.data.chars + tt.abbrIndex;
    size_t i = 0;
    for (; i < len && abbr[i] != '\0'; ++i) tzname[i] = abbr[i];
    for (; i < len; ++i) tzname[i] = '\0';
  }
  return 0;
}

ZAR_API int zar_utc_asclocaltime(char* cp, size_t len, const utc_t* utc) {
  uint64_t time100;
  uint64_t inacc100;
  if (comptime(&time100, &inacc100, nullptr, utc) != 0) return -1;
  const int64_t t = lookupSeconds(time100);
  long offset;
  {
    zar::MutexLock lock(gZone.mu);
    updateZone();
    offset = lookupType(gZone.data, t).utOffset;
  }
  // The offset as a timestamp stores it: whole minutes in 12 bits.
  long minutes = (offset / 60) & 0xFFF;
  if (minutes >= 2048) minutes -= 4096;
  char text[kMaxTextLen];
  size_t n = formatText(text, time100, inacc100, minutes * 60, true);
  return copyText(cp, len, text, n);
}

}  // extern "C"
