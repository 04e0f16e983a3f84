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
constexpr uint64_t kLeapNoon = 139285008000000000ULL;  // 2024-02-29 12:00 UTC
constexpr uint64_t k2000 = 131659776000000000ULL;      // 2000-01-01 00:00 UTC
constexpr int64_t kDay = 864'000'000'000LL;            // 100-ns intervals per day

// A version-1 timestamp, little-endian or (be) big-endian; tdf in minutes.
utc_t stamp(uint64_t t, uint64_t inacc, int tdfMinutes, bool be = false) {
  utc_t u;
  unsigned m = static_cast<unsigned>(tdfMinutes) & 0xFFF;
  for (int i = 0; i < 8; ++i) u.char_array[i] = static_cast<unsigned char>(t >> (8 * (be ? 7 - i : i)));
  for (int i = 0; i < 6; ++i)
    u.char_array[8 + i] = static_cast<unsigned char>(inacc >> (8 * (be ? 5 - i : i)));
  u.char_array[14] = static_cast<unsigned char>(be ? m >> 4 : m & 0xFF);
  u.char_array[15] = static_cast<unsigned char>(be ? 0x90 | (m & 0x0F) : 0x10 | (m >> 8));
  return u;
}

struct SplitCase {
  int64_t t;  // 100-ns intervals since 1582-10-15, as signed
  int year, mon, mday, hour, min, sec;
  long ns;
  int wday, yday;
};

class Split : public testing::TestWithParam<SplitCase> {};

TEST_P(Split, GmtimeGivesTheCalendarFields) {
  const SplitCase& c = GetParam();
  utc_t u = stamp(static_cast<uint64_t>(c.t), kInf, 0);
  struct tm tm;
  long ns = -7;
  ASSERT_EQ(0, zar_utc_gmtime(&tm, &ns, nullptr, nullptr, &u));
  EXPECT_EQ(c.year, tm.tm_year + 1900);
  EXPECT_EQ(c.mon, tm.tm_mon + 1);
  EXPECT_EQ(c.mday, tm.tm_mday);
  EXPECT_EQ(c.hour * 3600 + c.min * 60 + c.sec, tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec);
  EXPECT_EQ(c.ns, ns);
  EXPECT_EQ(c.wday, tm.tm_wday);
  EXPECT_EQ(c.yday, tm.tm_yday);
  EXPECT_EQ(0, tm.tm_isdst);
}

// Expected values come from Julian and Gregorian day numbers computed
// independently of the library. Before 1582-10-15: Julian dates.
INSTANTIATE_TEST_SUITE_P(
    Calendar, Split,
    testing::Values(SplitCase{0, 1582, 10, 15, 0, 0, 0, 0, 5, 287},
                    SplitCase{static_cast<int64_t>(k1970), 1970, 1, 1, 0, 0, 0, 0, 4, 0},
                    SplitCase{-1, 1582, 10, 4, 23, 59, 59, 999'999'900, 4, 276},
                    SplitCase{131711616000000000, 2000, 3, 1, 0, 0, 0, 0, 3, 60},
                    SplitCase{139285008000000000, 2024, 2, 29, 12, 0, 0, 0, 4, 59},
                    SplitCase{100154016000000000, 1900, 3, 1, 0, 0, 0, 0, 4, 59},
                    SplitCase{131975999990000000, 2000, 12, 31, 23, 59, 59, 0, 0, 365},
                    SplitCase{163267488000000000, 2100, 2, 28, 0, 0, 0, 0, 0, 58},
                    SplitCase{5747328000000000, 1600, 12, 31, 0, 0, 0, 0, 0, 365},
                    SplitCase{2656215935990000000, 9999, 12, 31, 23, 59, 59, 0, 5, 364},
                    SplitCase{-30169 * kDay, 1500, 2, 29, 0, 0, 0, 0, 6, 59},
                    SplitCase{-212793 * kDay, 1000, 3, 1, 0, 0, 0, 0, 5, 60},
                    SplitCase{-577737 * kDay, 1, 1, 1, 0, 0, 0, 0, 6, 0},
                    SplitCase{-576277 * kDay, 4, 12, 31, 0, 0, 0, 0, 3, 365},
                    SplitCase{-277 * kDay + 1, 1582, 1, 1, 0, 0, 0, 100, 1, 0}));

TEST(UtcSplit, AnytimeUsesTheOwnOffsetAndSplitsTheInaccuracy) {
  // TDF -05:00, inaccuracy 1 day 2:03:04.5
  utc_t u = stamp(kLeapNoon, (93'784 * 10'000'000ULL) + 5'000'000, -300);
  struct tm tm, itm;
  long ns, ins, tdf;
  ASSERT_EQ(0, zar_utc_anytime(&tm, &ns, &itm, &ins, &tdf, &u));
  EXPECT_EQ(7, tm.tm_hour);
  EXPECT_EQ(-1, tm.tm_isdst);
  EXPECT_EQ(-18'000, tdf);
  EXPECT_EQ((std::vector<int>{4, 3, 2, 1, -1}),
            (std::vector<int>{itm.tm_sec, itm.tm_min, itm.tm_hour, itm.tm_yday, itm.tm_mday}));
  EXPECT_EQ(500'000'000, ins);
  utc_t inf = stamp(0, kInf, 0);
  ASSERT_EQ(0, zar_utc_anytime(nullptr, nullptr, &itm, &ins, nullptr, &inf));
  EXPECT_EQ((std::vector<int>{-1, -1, -1, -1}),
            (std::vector<int>{int(ins), itm.tm_sec, itm.tm_year, itm.tm_yday}));
}

struct TextCase {
  uint64_t t, inacc;
  int tdfMinutes;
  const char* any;
  const char* gmt;
};

class Text : public testing::TestWithParam<TextCase> {};

TEST_P(Text, AscanytimeAndAscgmtime) {
  const TextCase& c = GetParam();
  utc_t u = stamp(c.t, c.inacc, c.tdfMinutes);
  char buf[64];
  ASSERT_EQ(0, zar_utc_ascanytime(buf, sizeof buf, &u));
  EXPECT_STREQ(c.any, buf);
  ASSERT_EQ(0, zar_utc_ascgmtime(buf, sizeof buf, &u));
  EXPECT_STREQ(c.gmt, buf);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Text,
    testing::Values(
        TextCase{kLeapNoon + 1'234'568, kInf, 60, "2024-02-29-13:00:00.123+01:00I-----",
                 "2024-02-29-12:00:00.123I-----"},
        TextCase{kLeapNoon, 15'000'000, 0, "2024-02-29-12:00:00.000+00:00I1.500",
                 "2024-02-29-12:00:00.000I1.500"},
        TextCase{kLeapNoon, 0, 0, "2024-02-29-12:00:00.000+00:00I0.000",
                 "2024-02-29-12:00:00.000I0.000"},
        TextCase{kLeapNoon, 1, 0, "2024-02-29-12:00:00.000+00:00I0.001",
                 "2024-02-29-12:00:00.000I0.001"},
        TextCase{kLeapNoon, 183'600ULL * 10'000'000, 0, "2024-02-29-12:00:00.000+00:00I183600.000",
                 "2024-02-29-12:00:00.000I183600.000"},
        TextCase{kLeapNoon, 9'999'999, 0, "2024-02-29-12:00:00.000+00:00I1.000",
                 "2024-02-29-12:00:00.000I1.000"},
        // The UTC form rounds; a carry runs into the next year.
        TextCase{k2000 - 5'000, kInf, 0, "1999-12-31-23:59:59.999+00:00I-----",
                 "2000-01-01-00:00:00.000I-----"},
        TextCase{k2000 - 5'001, kInf, 0, "1999-12-31-23:59:59.999+00:00I-----",
                 "1999-12-31-23:59:59.999I-----"},
        TextCase{kLeapNoon, kInf, -300, "2024-02-29-07:00:00.000-05:00I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{kLeapNoon, kInf, -30, "2024-02-29-11:30:00.000-00:30I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{kLeapNoon + 432'000'000'000ULL, kInf, 345, "2024-03-01-05:45:00.000+05:45I-----",
                 "2024-03-01-00:00:00.000I-----"},
        TextCase{kLeapNoon, kInf, 2047, "2024-03-01-22:07:00.000+34:07I-----",
                 "2024-02-29-12:00:00.000I-----"},
        TextCase{static_cast<uint64_t>(-212793 * kDay), kInf, 0,
                 "1000-03-01-00:00:00.000+00:00I-----", "1000-03-01-00:00:00.000I-----"},
        TextCase{0x7FFFFFFFFFFFFFFFULL - 10'000'000, kInf, 0,
                 "30810-06-28-02:48:04.477+00:00I-----", "30810-06-28-02:48:04.478I-----"},
        TextCase{0x8000000000000000ULL, kInf, 0, "-27645-08-28-21:11:54.522+00:00I-----",
                 "-27645-08-28-21:11:54.522I-----"}));

TEST(UtcText, TooSmallBufferIsUntouchedAndExactFitSucceeds) {
  utc_t u = stamp(kLeapNoon + 1'234'568, kInf, 60);
  char buf[40];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(-1, zar_utc_ascanytime(buf, 35, &u));
  EXPECT_EQ(std::string(40, 'x'), std::string(buf, 40));
  EXPECT_EQ(-1, zar_utc_ascanytime(nullptr, 64, &u));
  EXPECT_EQ(0, zar_utc_ascanytime(buf, 36, &u));
  EXPECT_EQ(-1, zar_utc_ascgmtime(buf, 29, &u));
  EXPECT_EQ(0, zar_utc_ascgmtime(buf, 30, &u));
}

TEST(UtcBin, MkbintimeRoundsTimeToNearestAndInaccuracyUp) {
  struct {
    time_t sec;
    long nsec;
    uint64_t time;
    time_t isec;
    long insec;
    uint64_t inacc;
  } rows[] = {
      {0, 49, k1970, 0, 1, 1},          {0, 50, k1970 + 1, 0, 100, 1},
      {0, 149, k1970 + 1, 0, 101, 2},   {0, 150, k1970 + 2, -1, 0, kInf},
      {-1, 0, k1970 - 10'000'000, 0, 0, 0},
      {0, -149, k1970, 28'147'497, 671'065'500, kInf},  // 0xFFFFFFFFFFFF: unknown
      {1, 0, k1970 + 10'000'000, 28'147'497, 671'065'400, kInf - 1},
  };
  for (const auto& r : rows) {
    struct timespec ts = {r.sec, r.nsec}, in = {r.isec, r.insec};
    utc_t u;
    ASSERT_EQ(0, zar_utc_mkbintime(&u, &ts, &in, 0));
    utc_t want = stamp(r.time, r.inacc, 0);
    EXPECT_EQ(0, memcmp(&want, &u, sizeof u)) << r.sec << " " << r.nsec << " " << r.insec;
  }
  struct timespec ts = {0, 0};
  utc_t u;
  ASSERT_EQ(0, zar_utc_mkbintime(&u, &ts, nullptr, 0));
  struct timespec in;
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &in, nullptr, &u));
  EXPECT_EQ(-1, in.tv_sec);
  EXPECT_EQ(-1, in.tv_nsec);
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
    utc_t u = stamp(r.t, 15'000'001, 0);
    struct timespec ts = {7, 7}, in;
    EXPECT_EQ(r.rc, zar_utc_bintime(&ts, &in, nullptr, &u)) << r.t;
    EXPECT_EQ(r.sec, ts.tv_sec) << r.t;
    EXPECT_EQ(r.nsec, ts.tv_nsec) << r.t;
    EXPECT_EQ(1, in.tv_sec);
    EXPECT_EQ(500'000'100, in.tv_nsec);
  }
}

TEST(UtcTdf, StoredAsTwelveBitMinutesTruncatedTowardZero) {
  struct {
    long in;
    unsigned stored;  // 12-bit minutes field
    long out;
  } rows[] = {{-18'000, 0xED4, -18'000}, {90, 1, 60},        {-90, 0xFFF, -60},
              {59, 0, 0},                {122'820, 0x7FF, 122'820}, {122'880, 0x800, -122'880},
              {245'820, 1, 60}};
  struct timespec t0 = {0, 0};
  for (const auto& r : rows) {
    utc_t u, v;
    ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, nullptr, r.in));
    EXPECT_EQ(r.stored, u.char_array[14] | ((u.char_array[15] & 0x0Fu) << 8)) << r.in;
    long tdf = 1;
    ASSERT_EQ(0, zar_utc_bintime(nullptr, nullptr, &tdf, &u));
    EXPECT_EQ(r.out, tdf) << r.in;
    ASSERT_EQ(0, utc_settdf(&v, &u, r.in));
    EXPECT_EQ(0, memcmp(&u, &v, sizeof u)) << r.in;
  }
}

TEST(UtcLayout, BigEndianInputIsReadAndRewrittenLittleEndian) {
  utc_t b = stamp(kLeapNoon, 0x123456789ABCULL, -300, true);
  utc_t l = stamp(kLeapNoon, 0x123456789ABCULL, -300);
  char sb[64], sl[64];
  ASSERT_EQ(0, zar_utc_ascanytime(sb, sizeof sb, &b));
  ASSERT_EQ(0, zar_utc_ascanytime(sl, sizeof sl, &l));
  EXPECT_STREQ(sl, sb);
  EXPECT_STREQ("2024-02-29-07:00:00.000-05:00I2001599.835", sb);
  utc_t out;
  ASSERT_EQ(0, utc_settdf(&out, &b, -18'000));
  EXPECT_EQ(0, memcmp(&l, &out, sizeof l));
}

TEST(UtcLayout, EveryReaderRejectsAnotherVersion) {
  for (unsigned char v : {0x00, 0x20, 0x70, 0xA0}) {
    utc_t u = stamp(kLeapNoon, kInf, 0);
    u.char_array[15] = v;
    struct timespec ts = {9, 9};
    struct tm tm;
    long tdf = 9;
    char buf[64] = "untouched";
    utc_t out = u;
    EXPECT_EQ(-1, zar_utc_bintime(&ts, nullptr, &tdf, &u)) << int{v};
    EXPECT_EQ(0, ts.tv_sec + tdf);
    EXPECT_EQ(-1, zar_utc_anytime(&tm, nullptr, nullptr, nullptr, &tdf, &u));
    EXPECT_EQ(-1, zar_utc_gmtime(&tm, nullptr, nullptr, nullptr, &u));
    EXPECT_EQ(-1, zar_utc_ascanytime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_ascgmtime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_asclocaltime(buf, sizeof buf, &u));
    EXPECT_EQ(-1, zar_utc_localzone(nullptr, 0, &tdf, nullptr, &u));
    EXPECT_EQ(-1, utc_settdf(&out, &u, 0));
    EXPECT_STREQ("untouched", buf);
    EXPECT_EQ(0, memcmp(&out, &u, sizeof u));
  }
}

TEST(UtcClock, NullTimestampMeansNowAndTheClockHasUnknownInaccuracy) {
  time_t before = time(nullptr);
  struct timespec now, in;
  ASSERT_EQ(0, zar_utc_bintime(&now, nullptr, nullptr, nullptr));
  utc_t u;
  ASSERT_EQ(0, zar_utc_gettime(&u));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &in, nullptr, &u));
  EXPECT_LE(before, now.tv_sec);
  EXPECT_GE(time(nullptr), now.tv_sec);
  EXPECT_EQ(-1, in.tv_sec);
  struct timeval tv;
  struct timezone tz = {77, 77};
  ASSERT_EQ(0, zar_gettimeofday_tz(&tv, &tz));
  EXPECT_GE(tv.tv_sec, before);
  EXPECT_EQ(0, tz.tz_dsttime);
}

TEST(UtcFrac, FracCvtArrayScalesDigitCountsToNanoseconds) {
  int64_t f = 1'000'000'000;
  EXPECT_EQ(0, FracCvtArray[0]);
  for (int k = 1; k <= 9; ++k) EXPECT_EQ(f /= 10, FracCvtArray[k]) << k;
}

TEST(UtcDeath, NullOutputTimestampIsAnAssertion) {
  // The assertion record's text, with the expression, is in the "bas" catalog.
  zar::test::ScopedEnv nlspath("NLSPATH", zar::test::buildDir() + "/nls/msg/C/%N");
  struct timespec t0 = {0, 0};
  EXPECT_DEATH(zar_utc_mkbintime(nullptr, &t0, nullptr, 0), "utc != NULL");
  EXPECT_DEATH(zar_utc_gettime(nullptr), "utc != NULL");
  utc_t u = stamp(0, kInf, 0);
  EXPECT_DEATH(utc_settdf(nullptr, &u, 0), "out != NULL");
}

}  // namespace
