// The local time zone: choice from TZ, zone files, rule strings, fallbacks,
// damaged input, and agreement with glibc's localtime_r.
#include "core/svcutl/utczone.h"

#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <optional>
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
};

Answer localAt(int64_t unixSeconds) {
  utc_t u = at(unixSeconds);
  char name[128];
  Answer a{0, -1, ""};
  EXPECT_EQ(0, zar_utc_localzone(name, sizeof name, &a.tdf, &a.isdst, &u));
  a.abbr = name;
  return a;
}

std::string fileBytes(const std::string& path) { return test::readFile(path); }

struct ZoneCase {
  const char* tz;  // null: unset
  int64_t when;    // seconds since 1970
  long tdf;
  int isdst;
  const char* abbr;
};

class ZoneChoice : public testing::TestWithParam<ZoneCase> {};

TEST_P(ZoneChoice, AnswersOffsetFlagAndAbbreviation) {
  const ZoneCase& c = GetParam();
  ScopedEnv tz("TZ", c.tz ? std::optional<std::string>(c.tz) : std::nullopt);
  Answer a = localAt(c.when);
  EXPECT_EQ(c.tdf, a.tdf);
  EXPECT_EQ(c.isdst, a.isdst);
  EXPECT_EQ(c.abbr, a.abbr);
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
        ZoneCase{"EST5EDT;M3.2.0,M11.1.0", kJan2024, -18'000, 0, "EST"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0", kJul2040, -18'000, 0, "EST"},
        ZoneCase{"EST5EDT4:30,M3.2.0,M11.1.0", kJul2024, -16'200, 1, "EDT"},
        ZoneCase{"JST-9", kJul2024, 32'400, 0, "JST"},
        ZoneCase{"UTC0", kJul2024, 0, 0, "UTC"},
        ZoneCase{"ABC", kJul2024, 0, 0, "ABC"},
        ZoneCase{"XY5", kJul2024, 0, 0, "XY5"},
        ZoneCase{"EST5EDT,M3.2.0/24,M11.1.0", kJul2024, -14'400, 1, "EDT"},
        ZoneCase{"EST5EDT,M3.2.0/25,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.2.0/25,M11.1.0"},
        ZoneCase{"EST5EDT,M3.6.0,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.6.0,M11.1.0"},
        ZoneCase{"EST5EDT,M3.2.7,M11.1.0", kJul2024, 0, 0, "EST5EDT,M3.2.7,M11.1.0"},
        ZoneCase{"EST5EDT,M3.2.0,M11.1.0,", kJul2024, 0, 0, "EST5EDT,M3.2.0,M11.1.0,"},
        ZoneCase{"EST25", kJul2024, 0, 0, "EST25"},
        ZoneCase{"EST5:60", kJul2024, 0, 0, "EST5:60"},
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
    [](const testing::TestParamInfo<ZoneCase>& i) {
      std::string n = std::to_string(i.index) + "_" + (i.param.tz ? i.param.tz : "unset");
      for (char& ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      return n;
    });

TEST(ZoneState, EmptyTzIsGmtEvenAfterAnotherZone) {
  ScopedEnv tz("TZ", "Asia/Tokyo");
  EXPECT_EQ(32'400, localAt(kJul2024).tdf);
  setenv("TZ", "", 1);
  Answer a = localAt(kJul2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ("GMT", a.abbr);
  setenv("TZ", "Asia/Tokyo", 1);
  EXPECT_EQ(32'400, localAt(kJul2024).tdf);
}

TEST(ZoneState, SameTzAgainReadsNoFile) {
  ScopedEnv tz("TZ", "America/Chicago");
  EXPECT_EQ(-18'000, localAt(kJul2024).tdf);
  FaultPlan count(fault::Op::kOpen, 0);
  EXPECT_EQ(-18'000, localAt(kJul2024).tdf);
  char buf[64];
  EXPECT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, nullptr));
  EXPECT_EQ(0, count.calls());
}

TEST(ZoneState, NoDefaultFilesGivesGmt) {
  ScopedEnv tz("TZ", "Asia/Tokyo");
  localAt(kJul2024);
  unsetenv("TZ");
  FaultPlan failOpens(fault::Op::kOpen, 1, /*sticky=*/true, 2 /* ENOENT */);
  Answer a = localAt(kJul2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ(0, a.isdst);
  EXPECT_EQ("GMT", a.abbr);
  EXPECT_EQ(2, failOpens.calls());  // /etc/localtime, then the zone file GMT
}

TEST(ZoneState, UnreadableFilesFallBackToTheRuleStringThenLastDitch) {
  ScopedEnv tz("TZ", "Asia/Tokyo");
  localAt(kJul2024);
  FaultPlan failReads(fault::Op::kRead, 1, /*sticky=*/true, 5 /* EIO */);
  setenv("TZ", "JST-9", 1);  // a rule string alone
  EXPECT_EQ(32'400, localAt(kJul2024).tdf);
  // A daylight-saving name without rules needs "posixrules", unreadable here.
  setenv("TZ", "EST5EDT", 1);
  Answer a = localAt(kJan2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ("EST5EDT", a.abbr);
}

TEST(ZoneState, ShortBufferGetsAnUnterminatedAbbreviation) {
  ScopedEnv tz("TZ", "EST5");
  utc_t u = at(kJul2024);
  char buf[8];
  memset(buf, 'x', sizeof buf);
  long tdf;
  ASSERT_EQ(0, zar_utc_localzone(buf, 3, &tdf, nullptr, &u));
  EXPECT_EQ("ESTxxxxx", std::string(buf, 8));
  memset(buf, 'x', sizeof buf);
  ASSERT_EQ(0, zar_utc_localzone(buf, 6, nullptr, nullptr, &u));
  EXPECT_EQ(std::string("EST\0\0\0xx", 8), std::string(buf, 8));
  ASSERT_EQ(0, zar_utc_localzone(buf, 0, nullptr, nullptr, &u));
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
  utc_t old = at(0);
  for (int i = 0; i < 8; ++i) old.char_array[i] = 0xFF;
  ASSERT_EQ(0, zar_utc_asclocaltime(buf, sizeof buf, &old));
  EXPECT_STREQ("1582-10-04-19:03:59.999-04:56I-----", buf);
}

TEST(ZoneState, HugeTzIsCutToTheAbbreviationSpace) {
  std::string huge(5000, 'A');
  ScopedEnv tz("TZ", huge);
  Answer a = localAt(kJul2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ(std::string(100, 'A'), a.abbr);
  std::string longRule = "EST5EDT,M3.2.0,M11.1.0" + std::string(5000, '9');
  setenv("TZ", longRule.c_str(), 1);
  EXPECT_EQ(longRule.substr(0, 100), localAt(kJul2024).abbr);
  std::string deepPath = "/" + std::string(5000, 'x');
  setenv("TZ", deepPath.c_str(), 1);
  EXPECT_EQ(0, localAt(kJul2024).tdf);
}

TEST(ZoneState, FifoNamedByTzDoesNotHang) {
  TempDir dir;
  std::string fifo = dir.file("zone");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  ScopedEnv tz("TZ", fifo);
  Answer a = localAt(kJul2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ(fifo.substr(0, 100), a.abbr);
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

// --- Zone files: damaged and over-limit data, through the reader directly. ---

std::string zoneFile(const char* name) { return fileBytes(std::string(kZoneRoot) + "/" + name); }

void put32(std::string* s, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[off + i] = static_cast<char>(v >> (24 - 8 * i));
}
uint32_t get32(const std::string& s, size_t off) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(s[off + i]);
  return v;
}

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

TEST(ZoneFile, CorruptFileNamedByTzFallsBack) {
  TempDir dir;
  std::string f = zoneFile("America/New_York");
  put32(&f, 36, 11);
  std::string path = dir.file("ny");
  test::writeFile(path, f);
  ScopedEnv tz("TZ", path);
  Answer a = localAt(kJul2024);
  EXPECT_EQ(0, a.tdf);
  EXPECT_EQ(path.substr(0, 100), a.abbr);
}

// Checks the ZoneData invariants that the lookup relies on.
::testing::AssertionResult wellFormed(const ZoneData& zd) {
  if (zd.typecnt < 1 || zd.typecnt > kMaxTypes || zd.timecnt < 0 || zd.timecnt > kMaxTimes ||
      zd.charcnt < 1 || zd.charcnt > kMaxChars || zd.chars[zd.charcnt - 1] != '\0')
    return ::testing::AssertionFailure() << "counts";
  for (int i = 0; i < zd.timecnt; ++i)
    if (zd.types[i] >= zd.typecnt) return ::testing::AssertionFailure() << "type " << i;
  for (int i = 0; i < zd.typecnt; ++i)
    if (zd.ttis[i].abbrIndex < 0 || zd.ttis[i].abbrIndex >= zd.charcnt)
      return ::testing::AssertionFailure() << "abbreviation " << i;
  return ::testing::AssertionSuccess();
}

void walk(const std::string& dir, std::vector<std::string>* out) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      walk(path, out);
    } else {
      out->push_back(path);
    }
  }
  closedir(d);
}

TEST(ZoneFile, EveryInstalledFileLoadsOrFallsBack) {
  std::vector<std::string> files;
  walk(kZoneRoot, &files);
  ASSERT_GT(files.size(), 100u) << "tzdata is not installed";
  size_t loaded = 0;
  ScopedEnv tz("TZ", "");
  for (const std::string& path : files) {
    ZoneData zd;
    if (tzload(&zd, path.c_str()) == 0) {
      ++loaded;
      EXPECT_TRUE(wellFormed(zd)) << path;
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

// Whether the version-1 data of a zone file fit the reader's limits.
bool fitsLimits(const char* zone) {
  ZoneData zd;
  return tzload(&zd, zone) == 0;
}

struct Peer {
  const char* tz;
  bool file;     // a zone file (else a rule string)
  int64_t from;  // first instant compared
};

class AgreesWithGlibc : public testing::TestWithParam<Peer> {};

TEST_P(AgreesWithGlibc, OnRandomInstants) {
  const Peer& p = GetParam();
  if (p.file && !fitsLimits(p.tz)) {
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
    Answer a = localAt(s);
    if (a.tdf != ref.tm_gmtoff || a.isdst != (ref.tm_isdst > 0) || a.abbr != ref.tm_zone) {
      if (++mismatches <= 5) {
        ADD_FAILURE() << p.tz << " at " << s << ": zar " << a.tdf << " " << a.isdst << " "
                      << a.abbr << ", glibc " << ref.tm_gmtoff << " " << ref.tm_isdst << " "
                      << ref.tm_zone;
      }
    }
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
    [](const testing::TestParamInfo<Peer>& i) {
      std::string n = i.param.tz;
      for (char& ch : n)
        if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
      return n;
    });

}  // namespace
}  // namespace zar::utc
