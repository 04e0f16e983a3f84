// UTC timestamps: encoding, decoding, calendar split and text forms.
//
// A utc_t counts 100-ns intervals since 1582-10-15 00:00:00 UTC in an
// unsigned 64-bit field. Arithmetic that may leave the 64-bit range (seconds
// from callers, offsets added to the count) is done in 128 bits or with
// unsigned wrap-around, so that any input gives a defined result.
#include "core/svcutl/utcapi.h"

#include <endian.h>
#include <string.h>
#include <sys/time.h>

#include "base/report.h"
#include "core/zardigits.h"

namespace zar::utc {
namespace {

constexpr int64_t kSecondsPerDay = 86'400;
// Day number of 1582-10-15 counted from 0001-01-01 in the Gregorian calendar.
constexpr int64_t kGregorianEpochDay = 577'735;
// Day number of 1582-10-05 counted from 0001-01-01 in the Julian calendar:
// the Julian day that follows 1582-10-04, the last day before the reform.
constexpr int64_t kJulianEpochDay = 577'737;
constexpr int kMonthToDays[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// t + tdf seconds, with two's-complement wrap-around instead of overflow.
int64_t addSeconds(uint64_t time100, long tdf) {
  uint64_t shift = static_cast<uint64_t>(static_cast<int64_t>(tdf)) *
                   static_cast<uint64_t>(kIntervalsPerSecond);
  return static_cast<int64_t>(time100 + shift);
}

using digits::putUnsigned;

// Two digits of a value known to be 0 to 99.
char* put2(char* p, int v) {
  p[0] = static_cast<char>('0' + v / 10);
  p[1] = static_cast<char>('0' + v % 10);
  return p + 2;
}

// "%04d": a minus sign counts toward the width.
char* putYear(char* p, int64_t year) {
  if (year >= 0) return putUnsigned(p, static_cast<uint64_t>(year), 4);
  *p++ = '-';
  return putUnsigned(p, static_cast<uint64_t>(-year), 3);
}

}  // namespace

void mkcomptime(utc_t* utc, uint64_t time100, uint64_t inacc100, long tdf) {
  ZAR_CHECK(utc != NULL, kRecordName);
  if (utc == nullptr) return;  // a filter suppressed the assertion
  unsigned char* b = utc->char_array;
  // Both numbers least significant byte first, as one store each.
  const uint64_t time = htole64(time100);
  memcpy(b, &time, 8);
  const uint64_t inacc = htole64(inacc100 >= kInfiniteInacc ? kInfiniteInacc : inacc100);
  memcpy(b + 8, &inacc, 6);
  long minutes = tdf / 60;
  b[14] = static_cast<unsigned char>(minutes & 0xFF);
  b[15] = static_cast<unsigned char>(((minutes >> 8) & 0x0F) | 0x10);
}

int comptime(uint64_t* time100, uint64_t* inacc100, long* tdf, const utc_t* utc) {
  utc_t now;
  if (utc == nullptr) {
    if (zar_utc_gettime(&now) != 0) return -1;
    utc = &now;
  }
  const unsigned char* b = utc->char_array;
  if ((b[15] & 0x70) != 0x10) return -1;
  uint64_t t = 0;
  uint64_t inacc = 0;
  long minutes;
  if ((b[15] & 0x80) == 0) {
    memcpy(&t, b, 8);
    memcpy(&inacc, b + 8, 6);
    t = le64toh(t);
    inacc = le64toh(inacc);
    minutes = b[14] | ((b[15] & 0x0F) << 8);
  } else {
    for (int i = 0; i < 8; ++i) t = (t << 8) | b[i];
    for (int i = 8; i < 14; ++i) inacc = (inacc << 8) | b[i];
    minutes = b[14] * 16 + (b[15] & 0x0F);
  }
  if (minutes >= 2048) minutes -= 4096;
  if (inacc > kInfiniteInacc - 1) inacc = kInfiniteInacc;
  if (time100 != nullptr) *time100 = t;
  if (inacc100 != nullptr) *inacc100 = inacc;
  if (tdf != nullptr) *tdf = minutes * 60;
  return 0;
}

void splittime(int64_t t, struct tm* tm, long* ns) {
  int64_t s = floorDiv(t, kIntervalsPerSecond);
  int64_t sub = t % kIntervalsPerSecond;  // made 0 to 9,999,999
  if (sub < 0) sub += kIntervalsPerSecond;
  int64_t day = floorDiv(s, kSecondsPerDay);  // days since 1582-10-15, negative before
  int64_t sod = s - day * kSecondsPerDay;
  int64_t year;
  int64_t yday;
  bool leap;
  if (t >= 0) {
    // Gregorian: 400-year cycles, centuries, 4-year groups, years.
    int64_t d = day + kGregorianEpochDay;
    int64_t n400 = d / 146'097;
    d %= 146'097;
    int64_t n100 = d / 36'524;
    if (n100 > 3) n100 = 3;
    d -= n100 * 36'524;
    int64_t n4 = d / 1'461;
    d %= 1'461;
    int64_t n1 = d / 365;
    if (n1 > 3) n1 = 3;
    d -= n1 * 365;
    year = n400 * 400 + n100 * 100 + n4 * 4 + n1 + 1;
    yday = d;
    leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  } else {
    // Julian: 4-year groups and years from year 1; the day before the
    // reform is 1582-10-04.
    int64_t d = day + kJulianEpochDay;
    int64_t n4 = floorDiv(d, 1'461);
    d -= n4 * 1'461;
    int64_t n1 = d / 365;
    if (n1 > 3) n1 = 3;
    d -= n1 * 365;
    year = n4 * 4 + n1 + 1;
    yday = d;
    leap = year % 4 == 0;
  }
  int mon;
  int mday;
  int d = static_cast<int>(yday);
  if (leap && d == 59) {
    mon = 1;
    mday = 29;
  } else {
    if (leap && d > 59) --d;
    mon = 11;
    while (kMonthToDays[mon] > d) --mon;
    mday = d + 1 - kMonthToDays[mon];
  }
  tm->tm_sec = static_cast<int>(sod % 60);
  tm->tm_min = static_cast<int>(sod / 60 % 60);
  tm->tm_hour = static_cast<int>(sod / 3600);
  tm->tm_mday = mday;
  tm->tm_mon = mon;
  tm->tm_year = static_cast<int>(year - 1900);
  // The day count runs on without a gap across the reform, so the weekday
  // is right in both calendars: 1582-10-15 was a Friday (5).
  int64_t wday = (day + kGregorianEpochDay + 1) % 7;
  tm->tm_wday = static_cast<int>(wday < 0 ? wday + 7 : wday);
  tm->tm_yday = static_cast<int>(yday);
  if (ns != nullptr) *ns = static_cast<long>(sub * 100);
}

void splitinacc(uint64_t inacc100, struct tm* tm, long* ns) {
  if (inacc100 >= kInfiniteInacc) {
    if (tm != nullptr) {
      tm->tm_sec = tm->tm_min = tm->tm_hour = tm->tm_mday = tm->tm_mon = tm->tm_year = -1;
      tm->tm_wday = tm->tm_yday = tm->tm_isdst = -1;
    }
    if (ns != nullptr) *ns = -1;
    return;
  }
  uint64_t s = inacc100 / kIntervalsPerSecond;
  if (tm != nullptr) {
    tm->tm_sec = static_cast<int>(s % 60);
    tm->tm_min = static_cast<int>(s / 60 % 60);
    tm->tm_hour = static_cast<int>(s / 3600 % 24);
    tm->tm_yday = static_cast<int>(s / 86'400);
    tm->tm_mday = -1;
    tm->tm_mon = 0;
    tm->tm_year = 0;
    tm->tm_wday = -1;
    tm->tm_isdst = -1;
  }
  if (ns != nullptr) *ns = static_cast<long>(inacc100 % kIntervalsPerSecond * 100);
}

size_t formatText(char* buf, uint64_t time100, uint64_t inacc100, long tdf, bool withOffset) {
  struct tm tm;
  long ns = 0;
  int ms;
  if (withOffset) {
    splittime(addSeconds(time100, tdf), &tm, &ns);
    ms = static_cast<int>(ns / 1'000'000);
  } else {
    // Rounding to the nearest millisecond is adding half of one before
    // truncating: a carry then runs on into the seconds and beyond.
    splittime(static_cast<int64_t>(time100 + 5'000), &tm, &ns);
    ms = static_cast<int>(ns / 1'000'000);
  }
  char* p = putYear(buf, tm.tm_year + 1900LL);
  *p++ = '-';
  p = put2(p, tm.tm_mon + 1);
  *p++ = '-';
  p = put2(p, tm.tm_mday);
  *p++ = '-';
  p = put2(p, tm.tm_hour);
  *p++ = ':';
  p = put2(p, tm.tm_min);
  *p++ = ':';
  p = put2(p, tm.tm_sec);
  *p++ = '.';
  p = putUnsigned(p, static_cast<uint64_t>(ms), 3);
  if (withOffset) {
    *p++ = tdf < 0 ? '-' : '+';
    uint64_t a = tdf < 0 ? 0 - static_cast<uint64_t>(tdf) : static_cast<uint64_t>(tdf);
    p = putUnsigned(p, a / 3600, 2);
    *p++ = ':';
    p = putUnsigned(p, a % 3600 / 60, 2);
  }
  *p++ = 'I';
  if (inacc100 >= kInfiniteInacc) {
    memcpy(p, "-----", 5);
    p += 5;
  } else {
    struct tm itm;
    long ins = 0;
    splitinacc(inacc100, &itm, &ins);
    long ims = (ins + 999'999) / 1'000'000;
    long sec = itm.tm_sec;
    if (ims > 999) {
      ims -= 1000;
      sec += 1;
    }
    long total = itm.tm_yday * 86'400L + itm.tm_hour * 3'600L + itm.tm_min * 60L + sec;
    p = putUnsigned(p, static_cast<uint64_t>(total), 1);
    *p++ = '.';
    p = putUnsigned(p, static_cast<uint64_t>(ims), 3);
  }
  *p = '\0';
  return static_cast<size_t>(p - buf);
}

int copyText(char* cp, size_t len, const char* text, size_t n) {
  if (cp == nullptr || n >= len) return -1;
  memcpy(cp, text, n + 1);
  return 0;
}

}  // namespace zar::utc

using namespace zar::utc;  // NOLINT(google-build-using-namespace): entry points only

namespace {

void clearTm(struct tm* tm) {
  if (tm != nullptr) memset(tm, 0, sizeof *tm);
}

// zar_utc_anytime and zar_utc_gmtime: gmt selects offset 0 in place of the
// timestamp's own.
int splitAll(struct tm* timetm, long* tns, struct tm* inacctm, long* ins, long* tdfOut,
             const utc_t* utc, bool gmt) {
  uint64_t time100;
  uint64_t inacc100;
  long tdf;
  if (comptime(&time100, &inacc100, &tdf, utc) != 0) {
    clearTm(timetm);
    clearTm(inacctm);
    if (tns != nullptr) *tns = 0;
    if (ins != nullptr) *ins = 0;
    if (tdfOut != nullptr) *tdfOut = 0;
    return -1;
  }
  long offset = gmt ? 0 : tdf;
  if (timetm != nullptr || tns != nullptr) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    long ns = 0;
    splittime(addSeconds(time100, offset), &tm, &ns);
    tm.tm_isdst = gmt ? 0 : -1;
    tm.tm_gmtoff = offset;
    if (timetm != nullptr) *timetm = tm;
    if (tns != nullptr) *tns = ns;
  }
  if (inacctm != nullptr) memset(inacctm, 0, sizeof *inacctm);
  splitinacc(inacc100, inacctm, ins);
  if (tdfOut != nullptr) *tdfOut = tdf;
  return 0;
}

int formatUtc(char* cp, size_t len, const utc_t* utc, bool withOffset) {
  uint64_t time100;
  uint64_t inacc100;
  long tdf;
  if (comptime(&time100, &inacc100, &tdf, utc) != 0) return -1;
  char text[kMaxTextLen];
  size_t n = formatText(text, time100, inacc100, tdf, withOffset);
  return copyText(cp, len, text, n);
}

}  // namespace

extern "C" {

const int64_t FracCvtArray[10] = {
    0, 100'000'000, 10'000'000, 1'000'000, 100'000, 10'000, 1'000, 100, 10, 1};

ZAR_API int zar_utc_mkbintime(utc_t* utc, const struct timespec* time,
                              const struct timespec* inacc, long tdf) {
  if (time == nullptr) {
    ZAR_CHECK(utc != NULL, kRecordName);
    return -1;
  }
  // 128-bit arithmetic: any tv_sec gives a defined (wrapped) count.
  __int128 t = static_cast<__int128>(time->tv_sec) * kIntervalsPerSecond +
               static_cast<__int128>(kUnixEpoch100) + (static_cast<__int128>(time->tv_nsec) + 50) / 100;
  uint64_t inacc100 = kInfiniteInacc;
  if (inacc != nullptr && inacc->tv_sec >= 0) {
    __int128 i = static_cast<__int128>(inacc->tv_sec) * kIntervalsPerSecond +
                 (static_cast<__int128>(inacc->tv_nsec) + 99) / 100;
    // A negative total is no inaccuracy at all: store it as unknown.
    if (i >= 0 && i < static_cast<__int128>(kInfiniteInacc)) inacc100 = static_cast<uint64_t>(i);
  }
  mkcomptime(utc, static_cast<uint64_t>(t), inacc100, tdf);
  return 0;
}

ZAR_API int zar_utc_gettime_noshm(utc_t* utc) {
  struct timeval tv = {0, 0};
  struct timezone tz = {0, 0};
  gettimeofday(&tv, &tz);
  uint64_t t = static_cast<uint64_t>(tv.tv_sec) * kIntervalsPerSecond + kUnixEpoch100 +
               static_cast<uint64_t>(tv.tv_usec) * 10;
  mkcomptime(utc, t, kInfiniteInacc, -60L * tz.tz_minuteswest);
  return 0;
}

ZAR_API int zar_utc_gettime(utc_t* utc) { return zar_utc_gettime_noshm(utc); }

ZAR_API int zar_utc_bintime(struct timespec* time, struct timespec* inacc, long* tdf,
                            const utc_t* utc) {
  uint64_t time100;
  uint64_t inacc100;
  long zone;
  if (comptime(&time100, &inacc100, &zone, utc) != 0) {
    if (time != nullptr) *time = timespec{0, 0};
    if (inacc != nullptr) *inacc = timespec{0, 0};
    if (tdf != nullptr) *tdf = 0;
    return -1;
  }
  if (inacc != nullptr) {
    if (inacc100 >= kInfiniteInacc) {
      inacc->tv_sec = -1;
      inacc->tv_nsec = -1;
    } else {
      inacc->tv_sec = static_cast<time_t>(inacc100 / kIntervalsPerSecond);
      inacc->tv_nsec = static_cast<long>(inacc100 % kIntervalsPerSecond * 100);
    }
  }
  int64_t s100 = static_cast<int64_t>(time100 - kUnixEpoch100);
  int64_t sec = floorDiv(s100, kIntervalsPerSecond);
  if (time != nullptr) {
    time->tv_sec = sec;
    int64_t sub = s100 % kIntervalsPerSecond;
    time->tv_nsec = static_cast<long>((sub < 0 ? sub + kIntervalsPerSecond : sub) * 100);
  }
  if (tdf != nullptr) *tdf = zone;
  return (sec >= 0 && sec <= 4'294'967'295LL) ? 0 : -1;
}

ZAR_API int zar_utc_anytime(struct tm* timetm, long* tns, struct tm* inacctm, long* ins,
                            long* tdf, const utc_t* utc) {
  return splitAll(timetm, tns, inacctm, ins, tdf, utc, false);
}

ZAR_API int zar_utc_gmtime(struct tm* timetm, long* tns, struct tm* inacctm, long* ins,
                           const utc_t* utc) {
  return splitAll(timetm, tns, inacctm, ins, nullptr, utc, true);
}

ZAR_API int zar_utc_ascanytime(char* cp, size_t len, const utc_t* utc) {
  return formatUtc(cp, len, utc, true);
}

ZAR_API int zar_utc_ascgmtime(char* cp, size_t len, const utc_t* utc) {
  return formatUtc(cp, len, utc, false);
}

ZAR_API int utc_settdf(utc_t* out, const utc_t* in, long tdf) {
  ZAR_CHECK(out != NULL, kRecordName);
  uint64_t time100;
  uint64_t inacc100;
  if (comptime(&time100, &inacc100, nullptr, in) != 0) return -1;
  mkcomptime(out, time100, inacc100, tdf);
  return 0;
}

ZAR_API int zar_gettimeofday_tz(struct timeval* tv, struct timezone* tz) {
  if (tz != nullptr) {
    struct timezone zero = {0, 0};
    *tz = zero;
  }
  return gettimeofday(tv, tz);
}

ZAR_API int zar_gettimeofday(struct timeval* tv) { return zar_gettimeofday_tz(tv, nullptr); }

}  // extern "C"
