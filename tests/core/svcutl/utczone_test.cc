// The local time zone: choice from TZ, zone files, rule strings, fallbacks,
// damaged input, and agreement with glibc's localtime_r.
#include "core/svcutl/utczone.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/utc.h"

namespace zar::utc {
namespace {

using test::FaultPlan;
using test::ScopedEnv;
using test::TempDir;

constexpr char kZoneRoot[] = "/usr/share/zoneinfo";

utc_t at(int64_t unixSeconds) {
  struct timespec ts = {unixSeconds, 0};
  utc_t u;
  zar_utc_mkbintime(&u, &ts, nullptr, 0);
  return u;
}

struct Answer {
  long tdf;
  int isdst;
  std::string abbr;
  bool operator==(const Answer&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Answer& a) {
  return os << a.tdf << " " << a.isdst << " " << a.abbr;
}

Answer localAt(int64_t unixSeconds) {
  utc_t u = at(unixSeconds);
  char name[128];
  Answer a{0, -1, ""};
  EXPECT_EQ(0, zar_utc_localzone(name, sizeof name, &a.tdf, &a.isdst, &u));
  a.abbr = name;
  return a;
}

// A test name from a parameter's text.
std::string nameOf(size_t index, const char* text) {
  std::string n = std::to_string(index) + "_" + text;
  for (char& ch : n)
    if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
  return n.substr(0, 60);
}

struct ZoneCase {
  const char* tz;
  int64_t when;  // seconds since 1970
  long tdf;
  int isdst;
  const char* abbr;
};

class ZoneChoice : public testing::TestWithParam<ZoneCase> {};

TEST_P(ZoneChoice, AnswersOffsetFlagAndAbbreviation) {
  const ZoneCase& c = GetParam();
  ScopedEnv tz("TZ", c.tz);
  EXPECT_EQ((Answer{c.tdf, c.isdst, c.abbr}), localAt(c.when));
}

constexpr int64_t kJul2024 = 1'719'835'200;  // 2024-07-01 12:00 UTC
constexpr int64_t kJan2024 = 1'705'320'000;  // 2024-01-15 12:00 UTC
constexpr int64_t kJul2040 = 2'224'756'800;  // 2040-07-01 12:00 UTC
constexpr int64_t kJul1960 = -299'246'400;   // 1960-07-11 12:00 UTC

INSTANTIATE_TEST_SUITE_P(
    Sources, ZoneChoice,
    testing::Values(
        ZoneCase{"", kJul2024, 0, 0, "GMT"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0", kJul2024, -14'400, 1, "EDT"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0", kJan2024, -18'000, 0, "EST"},
        ZoneCase{"EST5EDT;M3.2.0,M11.1.0", kJul2024, -14'400, 1, "EDT"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0", kJul2040, -18'000, 0, "EST"},
        ZoneCase{"EST5EDT4:30,M3.2.0,M11.1.0", kJul2024, -16'200, 1, "EDT"},
        ZoneCase{"JST-9", kJul2024, 32'400, 0, "JST"},
        ZoneCase{"ABC", kJul2024, 0, 0, "ABC"},
        ZoneCase{"XY5", kJul2024, 0, 0, "XY5"},
        ZoneCase{"EST5EDT,M3.2.0/24,M11.1.0", kJul2024, -14'400, 1, "EDT"},
        ZoneCase{"EST5EDT,M3.2.0/25,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.2.0/25,M11.1.0"},
        ZoneCase{"EST5EDT,M3.6.0,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.6.0,M11.1.0"},
        ZoneCase{"EST5EDT,M3.2.7,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.2.7,M11.1.0"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0,", kJul2024, 0, 0, "EST5EDT,M3.2.0,M11.1.0,"},
        ZoneCase{"EST25", kJul2024, 0, 0, "EST25"},
        ZoneCase{"<+05>-5", kJul2024, 0, 0, "<+05>-5"},
        ZoneCase{"CET-1CEST", kJul2024, 0, 0, "CET-1CEST"},
        ZoneCase{":EST5EDT,M3.2.0,M11.1.0", kJul2024, 0, 0, ":EST5EDT,M3.2.0,M11.1.0"},
        ZoneCase{"America/New_York", kJul2024, -14'400, 1, "EDT"},
        ZoneCase{":America/New_York", kJan2024, -18'000, 0, "EST"},
        ZoneCase{"America/New_York", kJul1960, -14'400, 1, "EDT"},
        ZoneCase{"/usr/share/zoneinfo/Asia/Kolkata", kJul2024, 19'800, 0, "IST"},
        ZoneCase{"Australia/Sydney", kJan2024, 39'600, 1, "AEDT"},
        ZoneCase{"right/Europe/Berlin", kJul2024, 7'200, 1, "CEST"},
        ZoneCase{"America", kJul2024, 0, 0, "America"},
        ZoneCase{"/etc/passwd", kJul2024, 0, 0, "/etc/passwd"},
        ZoneCase{"No/Such.Zone", kJul2024, 0, 0, "No/Such.Zone"}),
    [](const testing::TestParamInfo<ZoneCase>& i) { return nameOf(i.index, i.param.tz); });

TEST(ZoneState, RebuildsOnlyWhenTzChangesAndFallsBackInOrder) {
  ScopedEnv tz("TZ", "Asia/Tokyo");
  EXPECT_EQ((Answer{32'400, 0, "JST"}), localAt(kJul2024));
  setenv("TZ", "", 1);
  EXPECT_EQ((Answer{0, 0, "GMT"}), localAt(kJul2024));
  setenv("TZ", "America/Chicago", 1);
  EXPECT_EQ(-18'000, localAt(kJul2024).tdf);
  {
    FaultPlan count(fault::Op::kOpen, 0);
    char buf[64];
    EXPECT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, nullptr));
    EXPECT_EQ(-18'000, localAt(kJul2024).tdf);
    EXPECT_EQ(0, count.calls());  // the same TZ again reads no file
  }
  unsetenv("TZ");
  {
    FaultPlan failOpens(fault::Op::kOpen, 1, /*sticky=*/true, 2 /* ENOENT */);
    EXPECT_EQ((Answer{0, 0, "GMT"}), localAt(kJul2024));
    EXPECT_EQ(2, failOpens.calls());  // /etc/localtime, then the zone file GMT
  }
  FaultPlan failReads(fault::Op::kRead, 1, /*sticky=*/true, 5 /* EIO */);
  setenv("TZ", "JST-9", 1);  // a rule string needs no file
  EXPECT_EQ((Answer{32'400, 0, "JST"}), localAt(kJul2024));
  // A daylight-saving name without rules needs "posixrules", unreadable here.
  setenv("TZ", "EST5EDT", 1);
  EXPECT_EQ((Answer{0, 0, "EST5EDT"}), localAt(kJan2024));
}

TEST(ZoneState, ShortBufferGetsAnUnterminatedAbbreviation) {
  ScopedEnv tz("TZ", "EST5");
  utc_t u = at(kJul2024);
  char buf[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  ASSERT_EQ(0, zar_utc_localzone(buf, 3, nullptr, nullptr, &u));
  EXPECT_EQ("ESTxxxxx", std::string(buf, 8));
  ASSERT_EQ(0, zar_utc_localzone(buf, 6, nullptr, nullptr, &u));
  EXPECT_EQ(std::string("EST\0\0\0xx", 8), std::string(buf, 8));
}

TEST(ZoneState, AsclocaltimePrintsTheLocalOffset) {
  ScopedEnv tz("TZ", "CET-1");
  utc_t u = at(1'709'208'000);  // 2024-02-29 12:00 UTC
  char buf[50];
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &u));
  EXPECT_STREQ("2024-02-29-13:00:00.000+01:00I-----", buf);
  EXPECT_EQ(-1, zar_utc_asclocaltime(buf, 35, &u));
  setenv("TZ", "America/New_York", 1);
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &u));
  EXPECT_STREQ("2024-02-29-07:00:00.000-05:00I-----", buf);
  // A top-bit time is looked up as the 1582 epoch, before every transition:
  // the first standard type of New York is its local mean time, -4:56:02,
  // which a timestamp keeps as whole minutes.
  memset(u.char_array, 0xFF, 8);
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &u));
  EXPECT_STREQ("1582-10-04-19:03:59.999-04:56I-----", buf);
}

TEST(ZoneState, HugeOrOddTzFallsBackToAZoneNamedAfterIt) {
  TempDir dir;
  std::string fifo = dir.file("zone");  // must not hang the reader
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::string rule = "EST5EDT,M3.2.0,M11.1.0" + std::string(5000, '9');
  for (const std::string& v : {std::string(5000, 'A'), rule, "/" + std::string(5000, 'x'), fifo}) {
    ScopedEnv tz("TZ", v);
    EXPECT_EQ((Answer{0, 0, v.substr(0, 100)}), localAt(kJul2024));
  }
}

TEST(ZoneState, ConcurrentCallersAgree) {
  ScopedEnv tz("TZ", "Europe/Berlin");
  std::vector<std::thread> threads;
  std::atomic<int> bad{0};
  for (int n = 0; n < 4; ++n) {
    threads.emplace_back([&bad, n] {
      for (int i = 0; i < 2000; ++i) {
        utc_t u = at(kJul2024 + i * 977 + n);
        char text[50];
        long tdf;
        if (zar_utc_asclocaltime(text, sizeof text, &u) != 0) ++bad;
        if (zar_utc_localzone(nullptr, 0, &tdf, nullptr, &u) != 0 || tdf != 7'200) ++bad;
        if (strstr(text, "+02:00I-----") == nullptr) ++bad;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, bad.load());
}

void put32(std::string* s, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[off + i] = static_cast<char>(v >> (24 - 8 * i));
}
void add32(std::string* s, uint32_t v) {
  s->append(4, '\0');
  put32(s, s->size() - 4, v);
}
uint32_t get32(const std::string& s, size_t off) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(s[off + i]);
  return v;
}

// Version-1 zone-file bytes of zd, with standard-time indicators when
// withIndicators (each type's isStd).
std::string tzifBytes(const ZoneData& zd, bool withIndicators) {
  std::string f = "TZif2" + std::string(39, '\0');
  put32(&f, 24, withIndicators ? zd.typecnt : 0);
  put32(&f, 32, zd.timecnt);
  put32(&f, 36, zd.typecnt);
  put32(&f, 40, zd.charcnt);
  for (int i = 0; i < zd.timecnt; ++i) add32(&f, static_cast<uint32_t>(zd.ats[i]));
  for (int i = 0; i < zd.timecnt; ++i) f.push_back(static_cast<char>(zd.types[i]));
  for (int i = 0; i < zd.typecnt; ++i) {
    add32(&f, static_cast<uint32_t>(zd.ttis[i].utOffset));
    f.push_back(static_cast<char>(zd.ttis[i].isdst));
    f.push_back(static_cast<char>(zd.ttis[i].abbrIndex));
  }
  f.append(zd.chars, zd.charcnt);
  for (int i = 0; withIndicators && i < zd.typecnt; ++i) f.push_back(char(zd.ttis[i].isStd));
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
  TempDir dir;
  ZoneData eastern;
  ASSERT_EQ(0, tzparse(&eastern, "EST5EDT,M3.2.0,M11.1.0", false));
  const std::string rules = dir.file("rules");
  test::writeFile(rules, tzifBytes(eastern, false));
  struct {
    const char* tz;
    const char* written;
  } rows[] = {
      {"CST6CDT", "CST6CDT,M3.2.0,M11.1.0"},
      {"XST6XDT5:30", "XST6XDT5:30,M3.2.0,M11.1.0"},  // unequal shifts
      {"JST-9JDT", "JST-9JDT,M3.2.0,M11.1.0"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.tz);
    ZoneData got, want;
    ASSERT_EQ(0, tzparse(&got, r.tz, false, rules.c_str()));
    ASSERT_EQ(0, tzparse(&want, r.written, false));
    ASSERT_TRUE(zoneIsValid(got));
    EXPECT_EQ(describe(want), describe(got));
  }
  // Transitions into a type flagged as standard time are shifted by the
  // standard difference even after daylight-saving time: the ends of summer
  // then fall half an hour earlier than the written rules say.
  eastern.ttis[1].isStd = 1;
  test::writeFile(rules, tzifBytes(eastern, true));
  ZoneData got, want;
  ASSERT_EQ(0, tzparse(&got, "XST6XDT5:30", false, rules.c_str()));
  ASSERT_EQ(0, tzparse(&want, "XST6XDT5:30,M3.2.0,M11.1.0", false));
  for (int i = 0; i < want.timecnt; ++i) {
    EXPECT_EQ(want.ats[i] - (want.types[i] == 1 ? 1800 : 0), got.ats[i]) << i;
  }
  // A rules zone whose standard types differ (New York has its local mean
  // time), one with no daylight-saving type, or none at all, refuses.
  EXPECT_EQ(-1, tzparse(&got, "CST6CDT", false, "America/New_York"));
  EXPECT_EQ(-1, tzparse(&got, "CST6CDT", false, "Etc/UTC"));
  EXPECT_EQ(-1, tzparse(&got, "CST6CDT", false, "No/Such/Zone"));
}

// --- Zone files: damaged and over-limit data, through the reader directly. ---

std::string zoneFile(const char* name) { return test::readFile(std::string(kZoneRoot) + "/" + name); }

int loadBytes(const std::string& bytes, ZoneData* zd) {
  return tzloadBuffer(zd, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

// Offsets of the parts of the version-1 data of a zone file.
struct Layout {
  size_t types, ttis, chars, indicators;
  uint32_t timecnt, typecnt, charcnt;
};
Layout layoutOf(const std::string& f) {
  Layout l;
  l.timecnt = get32(f, 32);
  l.typecnt = get32(f, 36);
  l.charcnt = get32(f, 40);
  l.types = 44 + 4 * l.timecnt;
  l.ttis = l.types + l.timecnt;
  l.chars = l.ttis + 6 * l.typecnt;
  l.indicators = l.chars + l.charcnt + 8 * get32(f, 28);
  return l;
}

struct Damage {
  const char* what;
  void (*apply)(std::string* f, const Layout& l);
};

class DamagedZoneFile : public testing::TestWithParam<Damage> {};

TEST_P(DamagedZoneFile, IsRejected) {
  std::string f = zoneFile("America/New_York");
  ZoneData zd;
  ASSERT_EQ(0, loadBytes(f, &zd));
  GetParam().apply(&f, layoutOf(f));
  EXPECT_EQ(-1, loadBytes(f, &zd));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, DamagedZoneFile,
    testing::Values(
        Damage{"eleven_types", [](std::string* f, const Layout&) { put32(f, 36, 11); }},
        Damage{"no_types", [](std::string* f, const Layout&) { put32(f, 36, 0); }},
        Damage{"type_index_equals_count",
               [](std::string* f, const Layout& l) { (*f)[l.types + 3] = char(l.typecnt); }},
        Damage{"too_many_transitions", [](std::string* f, const Layout&) { put32(f, 32, 371); }},
        Damage{"negative_transitions",
               [](std::string* f, const Layout&) { put32(f, 32, 0x80000000u); }},
        Damage{"abbreviations_over_100", [](std::string* f, const Layout&) { put32(f, 40, 101); }},
        Damage{"indicator_count_mismatch", [](std::string* f, const Layout&) { put32(f, 24, 5); }},
        Damage{"huge_leap_count", [](std::string* f, const Layout&) { put32(f, 28, 0x7FFFFFFF); }},
        Damage{"negative_leap_count",
               [](std::string* f, const Layout&) { put32(f, 28, 0xFFFFFFFF); }},
        Damage{"isdst_two", [](std::string* f, const Layout& l) { (*f)[l.ttis + 4] = 2; }},
        Damage{"abbreviation_index_past_end",
               [](std::string* f, const Layout& l) { (*f)[l.ttis + 5] = char(l.charcnt + 1); }},
        Damage{"indicator_two", [](std::string* f, const Layout& l) { (*f)[l.indicators] = 2; }},
        Damage{"cut_before_indicators",
               [](std::string* f, const Layout& l) { f->resize(l.indicators + l.typecnt - 1); }},
        Damage{"cut_in_header", [](std::string* f, const Layout&) { f->resize(43); }}),
    [](const testing::TestParamInfo<Damage>& i) { return i.param.what; });

TEST(ZoneFile, EveryPrefixOfARealFileLoadsOnlyWhenComplete) {
  const std::string f = zoneFile("Europe/Berlin");
  const Layout l = layoutOf(f);
  const size_t need = l.indicators + l.typecnt;
  ZoneData zd;
  for (size_t n = 0; n <= need + 2; ++n) {
    EXPECT_EQ(n >= need ? 0 : -1, loadBytes(f.substr(0, n), &zd)) << n;
  }
}

TEST(ZoneFile, LeapSecondRecordsAreSkipped) {
  // A right/ zone carries leap seconds; its indicators must still be read
  // from their place after those records, matching the posix/ twin.
  ZoneData withLeaps, without;
  ASSERT_EQ(0, tzload(&withLeaps, "right/America/New_York"));
  ASSERT_EQ(0, tzload(&without, "America/New_York"));
  ASSERT_GT(get32(zoneFile("right/America/New_York"), 28), 0u);
  ASSERT_EQ(without.typecnt, withLeaps.typecnt);
  for (int i = 0; i < without.typecnt; ++i) {
    EXPECT_EQ(without.ttis[i].isStd, withLeaps.ttis[i].isStd) << i;
  }
}

TEST(ZoneFile, EveryInstalledFileLoadsOrFallsBack) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::recursive_directory_iterator(kZoneRoot))
    if (!e.is_directory()) files.push_back(e.path().string());
  ASSERT_GT(files.size(), 100u) << "tzdata is not installed";
  size_t loaded = 0;
  ScopedEnv tz("TZ", "");
  for (const std::string& path : files) {
    ZoneData zd;
    if (tzload(&zd, path.c_str()) == 0) {
      ++loaded;
      EXPECT_TRUE(zoneIsValid(zd)) << path;
    }
    setenv("TZ", path.c_str(), 1);
    char text[50];
    ASSERT_EQ(0, zar_utc_asclocaltime(text, sizeof text, nullptr)) << path;
    long tdf;
    utc_t u = at(kJan2024);
    ASSERT_EQ(0, zar_utc_localzone(nullptr, 0, &tdf, nullptr, &u)) << path;
  }
  printf("zone files: %zu of %zu loaded, the others fell back\n", loaded, files.size());
  EXPECT_GT(loaded, files.size() / 3);
}

// --- Agreement with glibc. ---

struct Peer {
  const char* tz;
  bool file;     // a zone file (else a rule string)
  int64_t from;  // first instant compared
};

class AgreesWithGlibc : public testing::TestWithParam<Peer> {};

TEST_P(AgreesWithGlibc, OnRandomInstants) {
  const Peer& p = GetParam();
  ZoneData zd;
  if (p.file && tzload(&zd, p.tz) != 0) {
    GTEST_SKIP() << p.tz << ": version-1 data exceed 370 transitions or 10 types";
  }
  ScopedEnv tz("TZ", p.tz);
  tzset();
  std::mt19937_64 rng(0x5eed ^ std::hash<std::string>()(p.tz));
  const int64_t to = 2'145'916'799;  // 2037-12-31 23:59:59 UTC
  std::uniform_int_distribution<int64_t> dist(p.from, to);
  int mismatches = 0;
  for (int i = 0; i < 10'000; ++i) {
    int64_t s = dist(rng);
    time_t tt = static_cast<time_t>(s);
    struct tm ref;
    ASSERT_NE(nullptr, localtime_r(&tt, &ref));
    Answer a = localAt(s), want{ref.tm_gmtoff, ref.tm_isdst > 0 ? 1 : 0, ref.tm_zone};
    if (a != want && ++mismatches <= 5) ADD_FAILURE() << s << ": zar " << a << ", glibc " << want;
  }
  EXPECT_EQ(0, mismatches);
}

// Rule strings get standard time before their first transition, which for
// a southern zone is the end of its 1970 summer: those start a year later.
INSTANTIATE_TEST_SUITE_P(
    Zones, AgreesWithGlibc,
    testing::Values(Peer{"America/New_York", true, 0}, Peer{"Europe/Berlin", true, 0},
                    Peer{"Australia/Sydney", true, 0}, Peer{"Asia/Kolkata", true, 0},
                    Peer{"America/Sao_Paulo", true, 0}, Peer{"Europe/London", true, 0},
                    Peer{"Europe/Lisbon", true, 0}, Peer{"EST5EDT,M3.2.0,M11.1.0", false, 0},
                    Peer{"JST-9", false, 0}, Peer{"CET-1CEST,M3.5.0,M10.5.0/3", false, 0},
                    Peer{"IST-5:30", false, 0}, Peer{"EST5EDT,J60/1:30,J300/3", false, 0},
                    Peer{"EST5EDT,59,299/0", false, 0},
                    Peer{"AEST-10AEDT,M10.1.0,M4.1.0/3", false, 31'536'000},
                    Peer{"NZST-12NZDT,M9.5.0,M4.1.0/3", false, 31'536'000}),
    [](const testing::TestParamInfo<Peer>& i) { return nameOf(i.index, i.param.tz); });

}  // namespace
}  // namespace zar::utc
