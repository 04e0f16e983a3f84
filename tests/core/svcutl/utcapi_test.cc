// UTC timestamps through the public API: layout, encoding and decoding,
// calendar split, text forms. Timestamps are built byte by byte here, not
// with the library's encoder, so that the two check each other.
#include "zar/utc.h"

#include <string.h>
#include <time.h>

#include <tuple>

#include "tests/testutil/testutil.h"

namespace {

constexpr uint64_t kInf = 0xFFFFFFFFFFFFULL;
constexpr uint64_t k1970 = 0x01B21DD213814000ULL;
constexpr uint64_t kLeapNoon = 139285008000000000ULL;  // 2024-02-29 12:00 UTC
constexpr uint64_t k2000 = 131659776000000000ULL;      // 2000-01-01 00:00 UTC
constexpr int64_t kDay = 864'000'000'000LL;            // 100-ns intervals per day

// A version-1 timestamp (little-endian); tdf in minutes.
utc_t stamp(uint64_t t, uint64_t inacc, int tdfMinutes) {
  utc_t u;
  unsigned m = static_cast<unsigned>(tdfMinutes) & 0xFFF;
  for (int i = 0; i < 8; ++i) u.char_array[i] = static_cast<unsigned char>(t >> (8 * i));
  for (int i = 0; i < 6; ++i) u.char_array[8 + i] = static_cast<unsigned char>(inacc >> (8 * i));
  u.char_array[14] = static_cast<unsigned char>(m & 0xFF);
  u.char_array[15] = static_cast<unsigned char>(0x10 | (m >> 8));
  return u;
}

// Expected values come from Julian and Gregorian day numbers computed
// independently of the library. Before 1582-10-15: Julian dates.
TEST(UtcSplit, GmtimeGivesTheCalendarFields) {
  const std::pair<int64_t, const char*> rows[] = {
      // time (100 ns since 1582-10-15): date, time, ns, weekday, day of year
      {0, "1582-10-15 00:00:00 0 5 287"}, {k1970, "1970-01-01 00:00:00 0 4 0"},
      {-1, "1582-10-04 23:59:59 999999900 4 276"}, {kLeapNoon, "2024-02-29 12:00:00 0 4 59"},
      {152444 * kDay, "2000-03-01 00:00:00 0 3 60"}, {115919 * kDay, "1900-03-01 00:00:00 0 4 59"},
      {152750 * kDay - 10'000'000, "2000-12-31 23:59:59 0 0 365"},
      {188967 * kDay, "2100-02-28 00:00:00 0 0 58"}, {6652 * kDay, "1600-12-31 00:00:00 0 0 365"},
      {-30169 * kDay, "1500-02-29 00:00:00 0 6 59"},
      {-277 * kDay + 1, "1582-01-01 00:00:00 100 1 0"}};
  for (const auto& [t, want] : rows) {
    utc_t u = stamp(static_cast<uint64_t>(t), kInf, 0);
    struct tm tm;
    long gotNs = -7;
    ASSERT_EQ(0, zar_utc_gmtime(&tm, &gotNs, nullptr, nullptr, &u)) << want;
    char got[64];
    snprintf(got, sizeof got, "%04d-%02d-%02d %02d:%02d:%02d %ld %d %d %d", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, gotNs, tm.tm_wday,
             tm.tm_yday, tm.tm_isdst);
    EXPECT_EQ(want + std::string(" 0"), got);
  }
}

TEST(UtcText, AscanytimeAndAscgmtime) {
  const std::tuple<uint64_t, uint64_t, int, const char*, const char*> rows[] = {
      // time, inaccuracy, tdf in minutes, own-offset text, UTC text ("": the
      // own-offset text without its offset)
      {kLeapNoon, 15'000'000, 0, "2024-02-29-12:00:00.000+00:00I1.500", ""},
      {kLeapNoon, 1, 0, "2024-02-29-12:00:00.000+00:00I0.001", ""},
      {kLeapNoon, 9'999'999, 0, "2024-02-29-12:00:00.000+00:00I1.000", ""},
      // The UTC form rounds; a carry runs into the next year.
      {k2000 - 5'000, kInf, 0, "1999-12-31-23:59:59.999+00:00I-----",
       "2000-01-01-00:00:00.000I-----"},
      {kLeapNoon, kInf, -30, "2024-02-29-11:30:00.000-00:30I-----",
       "2024-02-29-12:00:00.000I-----"},
      {kLeapNoon, kInf, 2047, "2024-03-01-22:07:00.000+34:07I-----",
       "2024-02-29-12:00:00.000I-----"},
      {0x7FFFFFFFFFFFFFFFULL - 10'000'000, kInf, 0, "30810-06-28-02:48:04.477+00:00I-----",
       "30810-06-28-02:48:04.478I-----"},
      {0x8000000000000000ULL, kInf, 0, "-27645-08-28-21:11:54.522+00:00I-----", ""}};
  for (const auto& [t, inacc, tdf, any, gmt] : rows) {
    utc_t u = stamp(t, inacc, tdf);
    char a[64] = "", g[64] = "";
    EXPECT_EQ(0, zar_utc_ascanytime(a, sizeof a, &u));
    EXPECT_EQ(0, zar_utc_ascgmtime(g, sizeof g, &u));
    std::string utc = *gmt ? gmt : std::string(any).erase(std::string(any).rfind('I') - 6, 6);
    EXPECT_EQ(std::string(any) + " " + utc, std::string(a) + " " + g);
  }
  // A buffer too small by one is untouched; an exact fit succeeds.
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

TEST(UtcTdf, StoredAsTwelveBitMinutesTruncatedTowardZero) {
  const std::tuple<long, unsigned, long> rows[] = {
      // seconds given, 12-bit minutes field, seconds read back
      {-18'000, 0xED4, -18'000}, {90, 1, 60},  {-90, 0xFFF, -60},       {59, 0, 0},
      {122'820, 0x7FF, 122'820}, {122'880, 0x800, -122'880}, {245'820, 1, 60}};
  struct timespec t0 = {0, 0};
  for (const auto& [in, stored, out] : rows) {
    utc_t u, v;
    long tdf = 1;
    ASSERT_EQ(0, zar_utc_mkbintime(&u, &t0, nullptr, in));
    EXPECT_EQ(stored, u.char_array[14] | ((u.char_array[15] & 0x0Fu) << 8)) << in;
    ASSERT_EQ(0, zar_utc_bintime(nullptr, nullptr, &tdf, &u));
    EXPECT_EQ(out, tdf) << in;
    ASSERT_EQ(0, utc_settdf(&v, &u, in));
    EXPECT_EQ(0, memcmp(&u, &v, sizeof u)) << in;
  }
}

TEST(UtcLayout, EveryReaderRejectsAnotherVersion) {
  for (unsigned char v : {0x00, 0x20, 0x70, 0xA0}) {
    utc_t u = stamp(kLeapNoon, kInf, 0);
    u.char_array[15] = v;
    utc_t out = u;
    struct timespec ts = {9, 9};
    struct tm tm;
    long tdf = 9;
    char buf[64] = "untouched";
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

TEST(UtcClock, NowAndNullOutputs) {
  time_t before = time(nullptr);
  struct timespec now, in;
  ASSERT_EQ(0, zar_utc_bintime(&now, nullptr, nullptr, nullptr));  // null: now
  utc_t u;
  ASSERT_EQ(0, zar_utc_gettime(&u));
  ASSERT_EQ(0, zar_utc_bintime(nullptr, &in, nullptr, &u));
  EXPECT_LE(before, now.tv_sec);
  EXPECT_GE(time(nullptr), now.tv_sec);
  EXPECT_EQ(-1, in.tv_sec);  // the clock's inaccuracy is unknown
  // A null output timestamp is an assertion; its record's text, with the
  // expression, is in the "bas" catalog.
  zar::test::ScopedEnv nlspath("NLSPATH", zar::test::buildDir() + "/nls/msg/C/%N");
  EXPECT_DEATH(zar_utc_mkbintime(nullptr, &now, nullptr, 0), "utc != NULL");
}

}  // namespace
