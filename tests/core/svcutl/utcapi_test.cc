// UTC timestamps through the public API: layout, encoding and decoding,
// calendar split, text forms. Timestamps are built byte by byte here, not
// with the library's encoder, so that the two check each other.
#include "zar/utc.h"

#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <string>

#include "tests/testutil/testutil.h"

namespace {

constexpr uint64_t kInf = 0xFFFFFFFFFFFFULL;
constexpr uint64_t k1970 = 0x01B21DD213814000ULL;
constexpr int64_t kDay = 864'000'000'000LL;  // 100-ns intervals per day

// A version-1 little-endian timestamp; tdf in minutes (12-bit).
utc_t le(uint64_t t, uint64_t inacc, int tdfMinutes) {
  utc_t u;
  for (int i = 0; i < 8; ++i) u.char_array[i] = static_cast<unsigned char>(t >> (8 * i));
  for (int i = 0; i < 6; ++i) u.char_array[8 + i] = static_cast<unsigned char>(inacc >> (8 * i));
  unsigned m = static_cast<unsigned>(tdfMinutes) & 0xFFF;
  u.char_array[14] = static_cast<unsigned char>(m & 0xFF);
  u.char_array[15] = static_cast<unsigned char>(0x10 | (m >> 8));
  return u;
}

// The same in the big-endian layout.
utc_t be(uint64_t t, uint64_t inacc, int tdfMinutes) {
  utc_t u;
  for (int i = 0; i < 8; ++i) u.char_array[i] = static_cast<unsigned char>(t >> (8 * (7 - i)));
  for (int i = 0; i < 6; ++i) u.char_array[8 + i] = static_cast<unsigned char>(inacc >> (8 * (5 - i)));
  unsigned m = static_cast<unsigned>(tdfMinutes) & 0xFFF;
  u.char_array[14] = static_cast<unsigned char>(m >> 4);
  u.char_array[15] = static_cast<unsigned char>(0x80 | 0x10 | (m & 0x0F));
  return u;
}

struct SplitCase {
  const char* what;
  int64_t t;  // 100-ns intervals since 1582-10-15, as signed
  int year, mon, mday, hour, min, sec;
  long ns;
  int wday, yday;
};

class Split : public testing::TestWithParam<SplitCase> {};

TEST_P(Split, GmtimeGivesTheCalendarFields) {
  const SplitCase& c = GetParam();
  utc_t u = le(static_cast<uint64_t>(c.t), kInf, 0);
  struct tm tm;
  long ns = -7;
  ASSERT_EQ(0, zar_utc_gmtime(&tm, &ns, nullptr, nullptr, &u));
  EXPECT_EQ(c.year, tm.tm_year + 1900);
  EXPECT_EQ(c.mon, tm.tm_mon + 1);
  EXPECT_EQ(c.mday, tm.tm_mday);
  EXPECT_EQ(c.hour, tm.tm_hour);
  EXPECT_EQ(c.min, tm.tm_min);
  EXPECT_EQ(c.sec, tm.tm_sec);
  EXPECT_EQ(c.ns, ns);
  EXPECT_EQ(c.wday, tm.tm_wday);
  EXPECT_EQ(c.yday, tm.tm_yday);
  EXPECT_EQ(0, tm.tm_isdst);
}

// Expected values come from Julian and Gregorian day numbers computed
// independently of the library.
INSTANTIATE_TEST_SUITE_P(
    Calendar, Split,
    testing::Values(
        SplitCase{"epoch of the count", 0, 1582, 10, 15, 0, 0, 0, 0, 5, 287},
        SplitCase{"1970", static_cast<int64_t>(k1970), 1970, 1, 1, 0, 0, 0, 0, 4, 0},
        SplitCase{"one interval before", -1, 1582, 10, 4, 23, 59, 59, 999'999'900, 4, 276},
        SplitCase{"2000-03-01", 131711616000000000, 2000, 3, 1, 0, 0, 0, 0, 3, 60},
        SplitCase{"leap day", 139285008000000000, 2024, 2, 29, 12, 0, 0, 0, 4, 59},
        SplitCase{"1900 not leap", 100154016000000000, 1900, 3, 1, 0, 0, 0, 0, 4, 59},
        SplitCase{"2000-12-31", 131975999990000000, 2000, 12, 31, 23, 59, 59, 0, 0, 365},
        SplitCase{"2100 not leap", 163267488000000000, 2100, 2, 28, 0, 0, 0, 0, 0, 58},
        SplitCase{"1600 leap", 5747328000000000, 1600, 12, 31, 0, 0, 0, 0, 0, 365},
        SplitCase{"9999", 2656215935990000000, 9999, 12, 31, 23, 59, 59, 0, 5, 364},
        SplitCase{"julian leap 1500", -30169 * kDay, 1500, 2, 29, 0, 0, 0, 0, 6, 59},
        SplitCase{"julian 1000-03-01", -212793 * kDay, 1000, 3, 1, 0, 0, 0, 0, 5, 60},
        SplitCase{"julian year 1", -577737 * kDay, 1, 1, 1, 0, 0, 0, 0, 6, 0},
        SplitCase{"julian year 4 end", -576277 * kDay, 4, 12, 31, 0, 0, 0, 0, 3, 365},
        SplitCase{"julian 1582-01-01", -277 * kDay + 1, 1582, 1, 1, 0, 0, 0, 100, 1, 0}),
    [](const testing::TestParamInfo<SplitCase>& i) {
      std::string n = i.param.what;
      for (char& ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      return n;
    });

TEST(UtcSplit, AnytimeUsesTheTimestampsOwnOffsetAndSplitsTheInaccuracy) {
  // 2024-02-29 12:00 UTC, TDF -05:00, inaccuracy 1 day 2:03:04.5
  uint64_t inacc = ((86'400 + 2 * 3600 + 3 * 60 + 4) * 10'000'000ULL) + 5'000'000;
  utc_t u = le(139285008000000000ULL, inacc, -300);
  struct tm tm, itm;
  long ns, ins, tdf;
  ASSERT_EQ(0, zar_utc_anytime(&tm, &ns, &itm, &ins, &tdf, &u));
  EXPECT_EQ(7, tm.tm_hour);
  EXPECT_EQ(29, tm.tm_mday);
  EXPECT_EQ(-1, tm.tm_isdst);
  EXPECT_EQ(-18'000, tdf);
  EXPECT_EQ(4, itm.tm_sec);
  EXPECT_EQ(3, itm.tm_min);
  EXPECT_EQ(2, itm.tm_hour);
  EXPECT_EQ(1, itm.tm_yday);
  EXPECT_EQ(-1, itm.tm_mday);
  EXPECT_EQ(500'000'000, ins);

  utc_t inf = le(0, kInf, 0);
  ASSERT_EQ(0, zar_utc_anytime(nullptr, nullptr, &itm, &ins, nullptr, &inf));
  EXPECT_EQ(-1, ins);
  EXPECT_EQ(-1, itm.tm_sec);
  EXPECT_EQ(-1, itm.tm_year);
  EXPECT_EQ(-1, itm.tm_yday);
}

struct TextCase {
  const char* what;
  uint64_t t;
  uint64_t inacc;
  int tdfMinutes;
  const char* any;
  const char* gmt;
};

class Text : public testing::TestWithParam<TextCase> {};

TEST_P(Text, AscanytimeAndAscgmtime) {
  const TextCase& c = GetParam();
  utc_t u = le(c.t, c.inacc, c.tdfMinutes);
  char buf[64];
  ASSERT_EQ(0, zar_utc_ascanytime(buf, sizeof buf, &u));
  EXPECT_STREQ(c.any, buf);
  ASSERT_EQ(0, zar_utc_ascgmtime(buf, sizeof buf, &u));
  EXPECT_STREQ(c.gmt, buf);
}

constexpr uint64_t kLeapNoon = 139285008000000000ULL;  // 2024-02-29 12:00 UTC
constexpr uint64_t k2000 = 131659776000000000ULL;      // 2000-01-01 00:00 UTC

INSTANTIATE_TEST_SUITE_P(
    Forms, Text,
    testing::Values(
        TextCase{"example", kLeapNoon + 1'234'568, kInf, 60,
                 "2024-02-29-13:00:00.123+01:00I-----", "2024-02-29-12:00:00.123I-----"},
        TextCase{"inacc 1.5 s", kLeapNoon, 15'000'000, 0, "2024-02-29-12:00:00.000+00:00I1.500",
                 "2024-02-29-12:00:00.000I1.500"},
        TextCase{"inacc 0", kLeapNoon, 0, 0, "2024-02-29-12:00:00.000+00:00I0.000",
                 "2024-02-29-12:00:00.000I0.000"},
        TextCase{"inacc 100 ns rounds up", kLeapNoon, 1, 0,
                 "2024-02-29-12:00:00.000+00:00I0.001", "2024-02-29-12:00:00.000I0.001"},
        TextCase{"inacc 2 days 3 hours", kLeapNoon, 183'600ULL * 10'000'000, 0,
                 "2024-02-29-12:00:00.000+00:00I183600.000", "2024-02-29-12:00:00.000I183600.000"},
        TextCase{"inacc rounding carries", kLeapNoon, 9'999'999, 0,
                 "2024-02-29-12:00:00.000+00:00I1.000", "2024-02-29-12:00:00.000I1.000"},
        TextCase{"gmt rounding carries into the year", k2000 - 5'000, kInf, 0,
                 "1999-12-31-23:59:59.999+00:00I-----", "2000-01-01-00:00:00.000I-----"},
        TextCase{"gmt rounds down below half", k2000 - 5'001, kInf, 0,
                 "1999-12-31-23:59:59.999+00:00I-----", "1999-12-31-23:59:59.999I-----"},
        TextCase{"west offset", kLeapNoon, kInf, -300, "2024-02-29-07:00:00.000-05:00I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{"half hour west", kLeapNoon, kInf, -30, "2024-02-29-11:30:00.000-00:30I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{"offset crosses the day", kLeapNoon + 12 * 36'000'000'000ULL, kInf, 345,
                 "2024-03-01-05:45:00.000+05:45I-----", "2024-03-01-00:00:00.000I-----"},
        TextCase{"largest offset", kLeapNoon, kInf, 2047, "2024-03-01-22:07:00.000+34:07I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{"julian date", static_cast<uint64_t>(-212793 * kDay), kInf, 0,
                 "1000-03-01-00:00:00.000+00:00I-----", "1000-03-01-00:00:00.000I-----"},
        TextCase{"five-digit year", 0x7FFFFFFFFFFFFFFFULL - 10'000'000, kInf, 0,
                 "30810-06-28-02:48:04.477+00:00I-----", "30810-06-28-02:48:04.478I-----"}),
    [](const testing::TestParamInfo<TextCase>& i) {
      std::string n = i.param.what;
      for (char& ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      return n;
    });

TEST(UtcText, TooSmallBufferIsUntouchedAndExactFitSucceeds) {
  utc_t u = le(kLeapNoon + 1'234'568, kInf, 60);
  char buf[40];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(-1, zar_utc_ascanytime(buf, 35, &u));
  EXPECT_EQ(std::string(40, 'x'), std::string(buf, 40));
  EXPECT_EQ(-1, zar_utc_ascanytime(nullptr, 64, &u));
  EXPECT_EQ(0, zar_utc_ascanytime(buf, 36, &u));
  EXPECT_EQ(35u, strlen(buf));
  EXPECT_EQ(-1, zar_utc_ascgmtime(buf, 29, &u));
  EXPECT_EQ(0, zar_utc_ascgmtime(buf, 30, &u));
}

TEST(UtcText, NegativeYearsCarryTheirSign) {
  utc_t u = le(0x8000000000000000ULL, kInf, 0);
  char buf[64];
  ASSERT_EQ(0, zar_utc_ascgmtime(buf, sizeof buf, &u));
  EXPECT_EQ('-', buf[0]) << buf;
  struct tm tm;
  ASSERT_EQ(0, zar_utc_gmtime(&tm, nullptr, nullptr, nullptr, &u));
  EXPECT_EQ(std::to_string(tm.tm_year + 1900), std::string(buf, strchr(buf + 1, '-') - buf));
}

struct BinCase {
  const char* what;
  time_t sec;
  long nsec;
  uint64_t expect;  // time field
};

class MkBin : public testing::TestWithParam<BinCase> {};

TEST_P(MkBin, RoundsNanosecondsToTheNearestInterval) {
  const BinCase& c = GetParam();
  struct timespec ts = {c.sec, c.nsec};
  utc_t u;
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &ts, nullptr, 0));
  uint64_t t = 0;
  for (int i = 7; i >= 0; --i) t = (t << 8) | u.char_array[i];
  EXPECT_EQ(c.expect, t);
  EXPECT_EQ(0x10, u.char_array[15]);
  for (int i = 8; i < 14; ++i) EXPECT_EQ(0xFF, u.char_array[i]);
}

INSTANTIATE_TEST_SUITE_P(Rounding, MkBin,
                         testing::Values(BinCase{"ns49", 0, 49, k1970},
                                         BinCase{"ns50", 0, 50, k1970 + 1},
                                         BinCase{"ns149", 0, 149, k1970 + 1},
                                         BinCase{"ns150", 0, 150, k1970 + 2},
                                         BinCase{"one_second", 1, 0, k1970 + 10'000'000},
                                         BinCase{"before_1970", -1, 0, k1970 - 10'000'000},
                                         BinCase{"neg_ns", 0, -149, k1970 - 0}),
                         [](const testing::TestParamInfo<BinCase>& i) { return i.param.what; });

TEST(UtcBin, InaccuracyRoundsUpAndNegativeMeansUnknown) {
  struct timespec t0 = {0, 0};
  struct timespec in = {0, 1};
  utc_t u;
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, &in, 0));
  struct timespec back, iback;
  ASSERT_EQ(0, zar_utc_bintime(&back, &iback, nullptr, &u));
  EXPECT_EQ(0, iback.tv_sec);
  EXPECT_EQ(100, iback.tv_nsec);
  in = {-1, 0};
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, &in, 0));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &iback, nullptr, &u));
  EXPECT_EQ(-1, iback.tv_sec);
  EXPECT_EQ(-1, iback.tv_nsec);
  in = {28'147'497, 671'065'500};  // 0xFFFFFFFFFFFF intervals: unknown
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, &in, 0));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &iback, nullptr, &u));
  EXPECT_EQ(-1, iback.tv_sec);
  in = {28'147'497, 671'065'400};  // one interval less: kept
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, &in, 0));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &iback, nullptr, &u));
  EXPECT_EQ(28'147'497, iback.tv_sec);
  EXPECT_EQ(671'065'400, iback.tv_nsec);
}

TEST(UtcBin, BintimeRangeIsZeroToFourBillionSeconds) {
  struct {
    uint64_t t;
    int rc;
    time_t sec;
    long nsec;
  } rows[] = {
      {k1970 - 5'000'000, -1, -1, 500'000'000},
      {k1970, 0, 0, 0},
      {k1970 + 4'294'967'295ULL * 10'000'000 + 9'999'999, 0, 4'294'967'295, 999'999'900},
      {k1970 + 4'294'967'296ULL * 10'000'000, -1, 4'294'967'296, 0},
      {0, -1, -12'219'292'800, 0},
  };
  for (const auto& r : rows) {
    utc_t u = le(r.t, kInf, 0);
    struct timespec ts = {7, 7};
    EXPECT_EQ(r.rc, zar_utc_bintime(&ts, nullptr, nullptr, &u)) << r.t;
    EXPECT_EQ(r.sec, ts.tv_sec) << r.t;
    EXPECT_EQ(r.nsec, ts.tv_nsec) << r.t;
  }
}

TEST(UtcTdf, StoredAsTwelveBitMinutesTruncatedTowardZero) {
  struct {
    long in;
    unsigned stored;  // 12-bit minutes field
    long out;
  } rows[] = {
      {-18'000, 0xED4, -18'000}, {90, 1, 60},          {-90, 0xFFF, -60},
      {59, 0, 0},                {2047 * 60, 0x7FF, 122'820}, {2048 * 60, 0x800, -122'880},
      {4096 * 60 + 60, 1, 60},
  };
  struct timespec t0 = {0, 0};
  for (const auto& r : rows) {
    utc_t u;
    ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, nullptr, r.in));
    EXPECT_EQ(r.stored, u.char_array[14] | ((u.char_array[15] & 0x0Fu) << 8)) << r.in;
    long tdf = 1;
    ASSERT_EQ(0, zar_utc_bintime(nullptr, nullptr, &tdf, &u));
    EXPECT_EQ(r.out, tdf) << r.in;
    utc_t v;
    ASSERT_EQ(0, utc_settdf(&v, &u, r.in));
    EXPECT_EQ(0, memcmp(&u, &v, sizeof u)) << r.in;
  }
}

TEST(UtcLayout, BigEndianInputIsReadAndRewrittenLittleEndian) {
  uint64_t inacc = 0x123456789ABCULL;
  utc_t b = be(kLeapNoon, inacc, -300);
  utc_t l = le(kLeapNoon, inacc, -300);
  struct timespec tb, ib, tl, il;
  long db, dl;
  ASSERT_EQ(0, zar_utc_bintime(&tb, &ib, &db, &b));
  ASSERT_EQ(0, zar_utc_bintime(&tl, &il, &dl, &l));
  EXPECT_EQ(tl.tv_sec, tb.tv_sec);
  EXPECT_EQ(il.tv_sec, ib.tv_sec);
  EXPECT_EQ(il.tv_nsec, ib.tv_nsec);
  EXPECT_EQ(-18'000, db);
  char sb[64], sl[64];
  ASSERT_EQ(0, zar_utc_ascanytime(sb, sizeof sb, &b));
  ASSERT_EQ(0, zar_utc_ascanytime(sl, sizeof sl, &l));
  EXPECT_STREQ(sl, sb);
  utc_t out;
  ASSERT_EQ(0, utc_settdf(&out, &b, -18'000));
  EXPECT_EQ(0, memcmp(&l, &out, sizeof l));
}

TEST(UtcLayout, EveryReaderRejectsAnotherVersion) {
  for (unsigned char v : {0x00, 0x20, 0x70, 0xA0}) {
    utc_t u = le(kLeapNoon, kInf, 0);
    u.char_array[15] = v;
    struct timespec ts = {9, 9};
    struct tm tm;
    long tdf = 9;
    int dst = 9;
    char buf[64] = "untouched";
    utc_t out = u;
    EXPECT_EQ(-1, zar_utc_bintime(&ts, nullptr, &tdf, &u)) << int{v};
    EXPECT_EQ(0, ts.tv_sec);
    EXPECT_EQ(-1, zar_utc_anytime(&tm, nullptr, nullptr, nullptr, &tdf, &u));
    EXPECT_EQ(-1, zar_utc_gmtime(&tm, nullptr, nullptr, nullptr, &u));
    EXPECT_EQ(-1, zar_utc_ascanytime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_ascgmtime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_asclocaltime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_localzone(nullptr, 0, &tdf, &dst, &u));
    EXPECT_EQ(-1, utc_settdf(&out, &u, 0));
    EXPECT_STREQ("untouched", buf);
    EXPECT_EQ(0, memcmp(&out, &u, sizeof u));
  }
}

TEST(UtcClock, NullTimestampMeansNowAndGettimeHasUnknownInaccuracy) {
  time_t before = time(nullptr);
  struct timespec now, in;
  ASSERT_EQ(0, zar_utc_bintime(&now, nullptr, nullptr, nullptr));
  utc_t u;
  ASSERT_EQ(0, zar_utc_gettime(&u));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &in, nullptr, &u));
  time_t after = time(nullptr);
  EXPECT_LE(before, now.tv_sec);
  EXPECT_GE(after, now.tv_sec);
  EXPECT_EQ(-1, in.tv_sec);
  EXPECT_EQ(0x10, u.char_array[15] & 0xF0);

  struct timeval tv;
  struct timezone tz = {77, 77};
  ASSERT_EQ(0, zar_gettimeofday_tz(&tv, &tz));
  EXPECT_GE(tv.tv_sec, before);
  ASSERT_EQ(0, zar_gettimeofday(&tv));
}

TEST(UtcFrac, FracCvtArrayScalesDigitCountsToNanoseconds) {
  EXPECT_EQ(0, FracCvtArray[0]);
  int64_t f = 1'000'000'000;
  for (int k = 1; k <= 9; ++k) {
    f /= 10;
    EXPECT_EQ(f, FracCvtArray[k]) << k;
  }
}

TEST(UtcDeath, NullOutputTimestampIsAnAssertion) {
  struct timespec t0 = {0, 0};
  EXPECT_DEATH(zar_utc_mkbintime(nullptr, &t0, nullptr, 0), "utc != NULL");
  EXPECT_DEATH(zar_utc_gettime(nullptr), "utc != NULL");
  utc_t u = le(0, kInf, 0);
  EXPECT_DEATH(utc_settdf(nullptr, &u, 0), "out != NULL");
}

}  // namespace
