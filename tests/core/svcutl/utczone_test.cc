// The local time zone: choice from TZ, zone files, rule strings, fallbacks,
// the rules zone of a daylight-saving name without rules. Agreement with the
// C library (zone files with leap seconds too) is the reliability suite's
// diff-zones and diff-rules; damaged zone files are utc_tzload_fuzz's.
#include "core/svcutl/utczone.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <tuple>

#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/utc.h"

namespace zar::utc {
namespace {

using test::FaultPlan;
using test::ScopedEnv;

constexpr int64_t kJul2024 = 1'719'835'200;  // 2024-07-01 12:00 UTC
constexpr int64_t kJan2024 = 1'705'320'000;  // 2024-01-15 12:00 UTC
constexpr int64_t kJul2040 = 2'224'756'800;  // 2040-07-01 12:00 UTC
constexpr int64_t kDst2024 = 1'710'054'000;  // 2024-03-10 07:00 UTC: summer time begins in New York

utc_t at(int64_t unixSeconds) {
  struct timespec ts = {unixSeconds, 0};
  utc_t u;
  zar_utc_mkbintime(&u, &ts, nullptr, 0);
  return u;
}

// "offset isdst abbreviation" of zar_utc_localzone at an instant.
std::string localAt(int64_t unixSeconds) {
  utc_t u = at(unixSeconds);
  char name[128];
  long tdf = 0;
  int isdst = -1;
  EXPECT_EQ(0, zar_utc_localzone(name, sizeof name, &tdf, &isdst, &u));
  return std::to_string(tdf) + " " + std::to_string(isdst) + " " + name;
}

TEST(ZoneChoice, AnswersOffsetFlagAndAbbreviation) {
  const char* kEastern = "EST5EDT,M3.2.0,M11.1.0";
  const std::tuple<const char*, int64_t, const char*> rows[] = {
      // TZ, instant, answer (null: the last-ditch zone of offset 0 named after TZ).
      // EST5EDT with rules in summer, JST-9 and XY5 are time.sh's, in winter capi/utc.c's.
      {"", kJul2024, "0 0 GMT"}, {"EST5EDT;M3.2.0,M11.1.0", kJul2024, "-14400 1 EDT"},
      {kEastern, kJul2040, "-18000 0 EST"},  // past the last transition
      {"EST5EDT4:30,M3.2.0,M11.1.0", kJul2024, "-16200 1 EDT"}, {"ABC", kJul2024, "0 0 ABC"},
      {"EST5EDT,M3.2.0/24,M11.1.0", kJul2024, "-14400 1 EDT"},

      {"EST5EDT,M3.2.0/25,M11.1.0", kJul2024, nullptr},
      {"EST5EDT,M3.6.0,M11.1.0", kJul2024, nullptr},
      {"EST5EDT,M3.2.7,M11.1.0", kJul2024, nullptr}, {"EST5EDT,M3.2.0,M11.1.0,", kJul2024, nullptr},
      {"EST25", kJul2024, nullptr},         {"<+05>-5", kJul2024, nullptr},
      {"XST5:60", kJul2024, nullptr},       {"XST5:59:60", kJul2024, nullptr},
      {"CET-1CEST", kJul2024, nullptr},     {":EST5EDT,M3.2.0,M11.1.0", kJul2024, nullptr},
      // Zone files, also by absolute path or with a ':'; the transition instants
      // and other zones are diff-zones of the reliability suite.
      {":America/New_York", kJan2024, "-18000 0 EST"}, {kEastern, kDst2024, "-14400 1 EDT"},
      {"/usr/share/zoneinfo/Asia/Kolkata", kJul2024, "19800 0 IST"},
      {kEastern, kDst2024 - 1, "-18000 0 EST"}, {"right/Europe/Berlin", kJul2024, "7200 1 CEST"},
      {"America", kJul2024, nullptr},       {"/etc/passwd", kJul2024, nullptr},
      {"No/Such.Zone", kJul2024, nullptr},
      // Jn never counts February 29: J60 is March 1, also in 2024.
      {"EST5EDT,J60,J300", 1'709'208'000, "-18000 0 EST"},
      {"EST5EDT,J60,J300", 1'709'208'000 + 86'400, "-14400 1 EDT"}};
  for (const auto& [tzValue, when, want] : rows) {
    ScopedEnv tz("TZ", tzValue);
    EXPECT_EQ(want ? want : "0 0 " + std::string(tzValue), localAt(when)) << tzValue;
  }
  // Huge or odd values fall back to a zone named after their first 100 bytes.
  test::TempDir dir;
  const std::string fifo = dir.file("zone");  // must not hang the reader
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const std::string& v : {std::string(5000, 'A'), kEastern + std::string(5000, '9'),
                               "/" + std::string(5000, 'x'), fifo}) {
    ScopedEnv tz("TZ", v);
    EXPECT_EQ("0 0 " + v.substr(0, 100), localAt(kJul2024));
  }
}

TEST(ZoneState, RebuildsOnlyWhenTzChangesAndFallsBackInOrder) {
  ScopedEnv tz("TZ", "Asia/Tokyo");
  EXPECT_EQ("32400 0 JST", localAt(kJul2024));
  setenv("TZ", "", 1);
  EXPECT_EQ("0 0 GMT", localAt(kJul2024));
  setenv("TZ", "America/Chicago", 1);
  EXPECT_EQ("-18000 1 CDT", localAt(kJul2024));
  {
    FaultPlan count(fault::Op::kOpen, 0);
    char buf[64];
    EXPECT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, nullptr));
    EXPECT_EQ("-18000 1 CDT", localAt(kJul2024));
    EXPECT_EQ(0, count.calls());  // the same TZ again reads no file
  }
  unsetenv("TZ");
  {
    FaultPlan failOpens(fault::Op::kOpen, 1, /*sticky=*/true, ENOENT);
    EXPECT_EQ("0 0 GMT", localAt(kJul2024));
    EXPECT_EQ(2, failOpens.calls());  // /etc/localtime, then the zone file GMT
  }
  FaultPlan failReads(fault::Op::kRead, 1, /*sticky=*/true, EIO);
  setenv("TZ", "JST-9", 1);  // a rule string needs no file
  EXPECT_EQ("32400 0 JST", localAt(kJul2024));
  // A daylight-saving name without rules needs "posixrules", unreadable here.
  setenv("TZ", "EST5EDT", 1);
  EXPECT_EQ("0 0 EST5EDT", localAt(kJan2024));
}

TEST(ZoneState, TextsAndShortBuffers) {
  ScopedEnv tz("TZ", "CET-1");
  utc_t u = at(1'709'208'000);  // 2024-02-29 12:00 UTC
  char buf[50];
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &u));
  EXPECT_STREQ("2024-02-29-13:00:00.000+01:00I-----", buf);
  EXPECT_EQ(-1, zar_utc_asclocaltime(buf, 35, &u));
  setenv("TZ", "America/New_York", 1);
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &u));
  EXPECT_STREQ("2024-02-29-07:00:00.000-05:00I-----", buf);
  // An abbreviation as long as the buffer is not terminated.
  memset(buf, 'x', 8);
  ASSERT_EQ(0, zar_utc_localzone(buf, 3, nullptr, nullptr, &u));
  EXPECT_EQ("ESTxxxxx", std::string(buf, 8));
  ASSERT_EQ(0, zar_utc_localzone(buf, 6, nullptr, nullptr, &u));
  EXPECT_EQ(std::string("EST\0\0\0xx", 8), std::string(buf, 8));
}

void put32(std::string* s, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[off + i] = static_cast<char>(v >> (24 - 8 * i));
}
// Version-1 zone-file bytes of zd.
std::string tzifBytes(const ZoneData& zd) {
  std::string f = "TZif2" + std::string(39, '\0'), v(4, '\0');
  put32(&f, 32, zd.timecnt);
  put32(&f, 36, zd.typecnt);
  put32(&f, 40, zd.charcnt);
  for (int i = 0; i < zd.timecnt; ++i) put32(&v, 0, static_cast<uint32_t>(zd.ats[i])), f += v;
  f.append(zd.types, zd.types + zd.timecnt);
  for (int i = 0; i < zd.typecnt; ++i) {
    put32(&v, 0, static_cast<uint32_t>(zd.ttis[i].utOffset));
    f += v + static_cast<char>(zd.ttis[i].isdst) + static_cast<char>(zd.ttis[i].abbrIndex);
  }
  f.append(zd.chars, zd.charcnt);
  return f;
}

// Transitions and types of zd as text, for whole-zone comparisons.
std::string describe(const ZoneData& zd) {
  std::string d;
  for (int i = 0; i < zd.timecnt; ++i)
    d += std::to_string(zd.ats[i]) + ":" + std::to_string(zd.types[i]) + " ";
  for (int i = 0; i < zd.typecnt; ++i)
    d += std::to_string(zd.ttis[i].utOffset) + "/" + std::to_string(zd.ttis[i].isdst) + "/" +
         (zd.chars + zd.ttis[i].abbrIndex) + " ";
  return d;
}

TEST(ZoneRules, DaylightNameWithoutRulesShiftsTheRulesZone) {
  // A rules zone with US rules in Eastern time, moved to other offsets, must
  // give what the same rules written out for those offsets give.
  test::TempDir dir;
  const std::string rules = dir.file("rules");
  ZoneData eastern, got, want;
  ASSERT_EQ(0, tzparse(&eastern, "EST5EDT,M3.2.0,M11.1.0", false));
  test::writeFile(rules, tzifBytes(eastern));
  for (const char* tz : {"CST6CDT", "JST-9JDT", "XST6XDT5:30" /* unequal shifts */}) {
    ASSERT_EQ(0, tzparse(&got, tz, false, rules.c_str())) << tz;
    ASSERT_EQ(0, tzparse(&want, (tz + std::string(",M3.2.0,M11.1.0")).c_str(), false));
    ASSERT_TRUE(zoneIsValid(got));
    EXPECT_EQ(describe(want), describe(got)) << tz;
  }
  // A rules zone whose standard types differ (New York has its local mean
  // time), one with no daylight-saving type, or none at all, refuses.
  for (const char* zone : {"America/New_York", "Etc/UTC", "No/Such/Zone"})
    EXPECT_EQ(-1, tzparse(&got, "CST6CDT", false, zone)) << zone;
}

TEST(ZoneState, ConcurrentCallersAgree) {
  ScopedEnv tz("TZ", "Europe/Berlin");
  EXPECT_EQ(0, test::runConcurrently(4, [](int n) {
              long bad = 0;
              for (int i = 0; i < 2000; ++i) {
                utc_t u = at(kJul2024 + i * 977 + n);
                char text[50];
                long tdf = 0;
                bad += zar_utc_asclocaltime(text, sizeof text, &u) != 0 ||
                       strstr(text, "+02:00I-----") == nullptr ||
                       zar_utc_localzone(nullptr, 0, &tdf, nullptr, &u) != 0 || tdf != 7'200;
              }
              return bad;
            }));
}

}  // namespace
}  // namespace zar::utc
