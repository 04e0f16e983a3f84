// zar log show, run as administrators run it: records written by several
// processes and threads into rotated per-process files come out merged by
// time, each once and whole, in every file form; the filters against a known
// set of records; --follow while writers rotate; bad input.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <regex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/testutil/logcheck.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/zar.h"

namespace zar::test {
namespace {

struct ZarRun {
  int rc;
  std::string out, err;
};

ZarRun zar(const TempDir& dir, const std::string& args) {
  std::string cmd = buildDir() + "/tools/zar " + args + " >" + dir.file("out") + " 2>" +
                    dir.file("err") + " </dev/null";
  int st = system(cmd.c_str());
  return {exitCode(st), readFile(dir.file("out")), readFile(dir.file("err"))};
}

// Forks procs processes that each route ERROR by setting and write count
// messages 0x38C5209C from each of threads threads, keyed "p<P>t<T>", each
// thread pausing paceUs microseconds after each.
void writeLogs(const std::string& setting, int procs, int threads, long count, int paceUs = 0) {
  std::vector<pid_t> kids;
  for (int p = 0; p < procs; ++p) {
    kids.push_back(forkChild([&, p] {
      if (svcRoute(setting) != 0) return 1;
      runConcurrently(threads, [&](int t) {
        std::string key = "p" + std::to_string(p) + "t" + std::to_string(t);
        for (long i = 0; i < count; ++i)
          zar_svc_printf_withfile(zarsv_client_svc_handle, "logshow", 1, "%s%d", 0, svc_c_sev_error,
                                  0x38C5209C, key.c_str(), static_cast<int>(i));
        if (paceUs > 0) usleep(paceUs);
        return 0L;
      });
      return 0;
    }));
  }
  for (pid_t k : kids) {
    int st = 0;
    waitpid(k, &st, 0);
    ASSERT_EQ(0, exitCode(st));
  }
}

// Every record once, whole, in each writer's order; "" when so.
std::string checkRecords(const std::string& out, bool xml, int procs, int threads, long count) {
  RecordTally tally;
  (xml ? tallyXmlRecords : tallyTextRecords)(out, sysRoutineMarker(), &tally);
  std::map<std::string, std::pair<long, long>> expected;
  for (int k = 0; k < procs * threads; ++k)
    expected["p" + std::to_string(k / threads) + "t" + std::to_string(k % threads)] = {0, count};
  Loss loss = judge(tally, expected);
  return tally.torn + loss.lost + loss.duplicated + loss.unordered + loss.unexpected == 0
             ? ""
             : std::to_string(tally.torn) + " torn, " + loss.detail;
}

class LogShowMerge : public SvcTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(LogShowMerge, PerProcessRotatedFilesComeOutInTimeOrderEachOnce) {
  constexpr int kProcs = 4, kThreads = 4;
  constexpr long kCount = 40;  // 160 records a process, 8 generations of 20
  TempDir dir;
  const std::string kind = GetParam();
  writeLogs("ERROR:" + kind + ".50.20:" + dir.file("app_%d.log"), kProcs, kThreads, kCount);

  // The files by their pattern, or (UTF-8) by their directory.
  ZarRun raw = zar(dir, "log show " + (kind == "UTF8FILE" ? dir.path() : "'" + dir.file("app_%d.log") + "'"));
  ASSERT_EQ(0, raw.rc) << raw.err;
  EXPECT_EQ("", raw.err);
  EXPECT_EQ("", checkRecords(raw.out, kind == "XMLFILE", kProcs, kThreads, kCount));
}

INSTANTIATE_TEST_SUITE_P(Forms, LogShowMerge, ::testing::Values("TEXTFILE", "UTF8FILE", "XMLFILE"));

TEST_F(SvcTest, LogShowFollowSeesEveryRecordOnceAcrossRotations) {
  constexpr int kProcs = 2, kThreads = 2;
  constexpr long kCount = 150;
  TempDir dir;
  const std::string pattern = dir.file("w_%d.log");
  std::string zarPath = buildDir() + "/tools/zar";
  pid_t follower = forkChild([&] {
    int fd = open(dir.file("follow").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(dir.file("follow.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 1);
    dup2(err, 2);
    setenv("ZAR_LOG_SHOW_PAUSE_MS", "5", 1);  // writers rotate while it reads
    execl(zarPath.c_str(), "zar", "log", "show", "--follow", pattern.c_str(), nullptr);
    return 127;
  });
  ASSERT_GT(follower, 0);
  // Its first poll finds no file yet.
  for (int i = 0; i < 300 && readFile(dir.file("follow.err")).empty(); ++i) usleep(10 * 1000);
  // The per-process files appear after the follower started; the writers
  // rotate every few milliseconds, while the follower pauses between its
  // steps, so that rotations fall between them.
  writeLogs("ERROR:TEXTFILE.99.10:" + pattern, kProcs, kThreads, kCount, 1000);
  const size_t want = kProcs * kThreads * kCount;
  for (int i = 0; i < 300 && splitLines(readFile(dir.file("follow"))).size() < want; ++i)
    usleep(100 * 1000);
  kill(follower, SIGTERM);
  int st = 0;
  waitpid(follower, &st, 0);
  EXPECT_EQ(0, exitCode(st));
  EXPECT_EQ("", checkRecords(readFile(dir.file("follow")), false, kProcs, kThreads, kCount));
}

// A known set of records in two files: in time, beta (09:30 UTC, written
// with an offset of +01:00) comes first, then alpha, gamma, delta, epsilon.
const char kOther[] =
    "2026-01-01-10:30:00.000+01:00I1.500 0x38C5209C server WARNING wsd deploy f.c 2 0x1 beta\n"
    "second line\n";
const char kKnown[] =
    "2026-01-01-10:00:00.000+00:00I----- 0x38C52097 server ERROR wsc core f.c 1 0x1 alpha\n"
    "2026-01-01-11:00:00.000+00:00I----- PID#42 DEBUG3 wsc admin f.c 3 0x2 gamma\n"
    "2026-01-01-11:30:00.000+00:00I----- 0x38C52097 client FATAL wsi deploy f.c 4 0x3 delta\n"
    "2026-01-01-12:00:00.000+00:00I----- 0x10652203 PID#42 NOTICE wsc core f.c 5 0x4 epsilon\n";

struct FilterCase {
  const char* args;
  const char* texts;  // first words of the records printed, in order
};

class LogShowFilter : public ::testing::TestWithParam<FilterCase> {};

TEST_P(LogShowFilter, PrintsExactlyTheMatchingRecords) {
  TempDir dir;
  writeFile(dir.file("known.log"), kKnown);
  writeFile(dir.file("other.log"), kOther);
  ZarRun r = zar(dir, std::string("log show --json ") + GetParam().args + " " +
                          dir.file("known.log") + " " + dir.file("other.log"));
  std::string texts;
  static const std::regex kText("\"text\":\"([a-z]+)");
  for (const std::string& line : splitLines(r.out)) {
    std::smatch m;
    if (std::regex_search(line, m, kText)) texts += (texts.empty() ? "" : " ") + m[1].str();
  }
  EXPECT_EQ(GetParam().texts, texts) << r.err;
  EXPECT_EQ(texts.empty() ? 1 : 0, r.rc);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogShowFilter,
    ::testing::Values(
        FilterCase{"", "beta alpha gamma delta epsilon"},
        FilterCase{"--severity ERROR", "alpha delta"},
        FilterCase{"--severity DEBUG3", "beta alpha gamma delta epsilon"},
        FilterCase{"--component wsc", "alpha gamma epsilon"},
        FilterCase{"--sub deploy --sub admin", "beta gamma delta"},
        FilterCase{"--status 0x38C52097 --status 0x10652203", "alpha delta epsilon"},
        FilterCase{"--pid 42", "gamma epsilon"},
        FilterCase{"--grep 'second|^del'", "beta delta"},
        FilterCase{"--since 2026-01-01T11:00:00Z", "gamma delta epsilon"},
        FilterCase{"--until 2026-01-01-10:30:00.000+01:00", "beta"},
        FilterCase{"--since 2026-01-01T10:15:00+00:00 --until 2026-01-01T11:30Z", "gamma delta"},
        FilterCase{"--now 2026-01-01T12:30:00Z --since 1h", "delta epsilon"},
        FilterCase{"--now @1767268800 --until 2h", "beta alpha"},
        FilterCase{"--component wsc --severity notice --since 2026-01-01T09:45Z", "alpha epsilon"},
        FilterCase{"--severity fatal --component wsc", ""}));

struct BadCase {
  const char* name;
  std::string content;
  const char* report;  // on standard error, once
  int records;         // printed
  int rc;
};

const std::string kGood =
    "2026-01-01-10:00:00.000+00:00I----- 0x38C52097 server ERROR wsc core f.c 1 0x1 ok\n";
const std::string kGoodXml =
    "<Message Id=\"XKJSC0151E\" Severity=\"ERROR\">\n <Time Millis=\"1767261600000\">2026-01-01-"
    "10:00:00.000</Time>\n <Component>wsc/core</Component>\n <LogAttribs><KeyName><![CDATA["
    "Message Number]]></KeyName> <Value><![CDATA[0x38C52097]]></Value></LogAttribs>\n <Source "
    "FileName=\"f.c\" Method=\"unknown\" Line=\"1\"></Source>\n <Process>server</Process>\n "
    "<Thread>0x1</Thread>\n <TranslationInfo Type=\"XPG4\" Catalog=\"kpwsc.cat\" SetId=\"1\" "
    "MsgKey=\"38c52097\">\n </TranslationInfo>\n <LogText><![CDATA[ok ]]></LogText>\n"
    "</Message>\n\n";

class LogShowBadInput : public ::testing::TestWithParam<BadCase> {};

TEST_P(LogShowBadInput, ReportedOnceAndSkipped) {
  TempDir dir;
  writeFile(dir.file("f.log"), GetParam().content);
  ZarRun r = zar(dir, "log show " + dir.file("f.log"));
  EXPECT_EQ(GetParam().rc, r.rc);
  EXPECT_EQ(static_cast<size_t>(GetParam().records),
            static_cast<size_t>(std::count(r.out.begin(), r.out.end(), '\n')) /
                (GetParam().content[0] == '<' ? 12 : 1));
  std::vector<std::string> errs = splitLines(r.err);
  ASSERT_EQ(1u, errs.size()) << r.err;
  EXPECT_NE(std::string::npos, errs[0].find(GetParam().report)) << errs[0];
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogShowBadInput,
    ::testing::Values(
        BadCase{"JunkLines", "not a record\nnor this\n" + kGood + kGood, "f.log:1: not a record", 2,
                0},
        BadCase{"Binary", kGood + std::string("\x01\x02\0x\n", 5) + kGood, "f.log:2: binary data",
                2, 0},
        BadCase{"TruncatedText", kGood + kGood.substr(0, 60), "f.log:2: truncated record", 1, 0},
        BadCase{"TruncatedXml", kGoodXml + kGoodXml.substr(0, 200), "f.log:13: truncated record", 1,
                0},
        BadCase{"CutXmlThenRecord", kGoodXml.substr(0, 150) + "\n" + kGoodXml,
                "f.log:1: truncated record", 1, 0},
        BadCase{"OnlyACutRecord", kGood.substr(0, 80), "f.log:1: truncated record", 0, 1},
        BadCase{"NotALog", "hello\n", "not a log file", 0, 1}),
    [](const ::testing::TestParamInfo<BadCase>& i) { return i.param.name; });

TEST(LogShowUsage, MissingInputAndBadOptionsExitTwo) {
  TempDir dir;
  for (const char* args : {"", "/nonexistent/x.log", "--severity bogus x", "--since yesterday x",
                           "--grep '(' x", "--json --count x", "--status nan x"}) {
    ZarRun r = zar(dir, std::string("log show ") + args);
    EXPECT_EQ(2, r.rc) << args;
    EXPECT_EQ("", r.out) << args;
    EXPECT_NE("", r.err) << args;
  }
}

}  // namespace
}  // namespace zar::test
