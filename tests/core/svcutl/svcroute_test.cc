// Route strings: parsing into route lists, saved settings, the routing
// file and its wildcards, and the set-up of file routes.
#include <string>
#include <vector>

#include "core/svcutl/svcint.h"
#include "core/zarmem.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::TempDir;

// The kinds of the routes of one severity list (index 0 to 4).
std::vector<int> kindsOf(int sev) {
  zar::svc::SvcLock lock;
  std::vector<int> kinds;
  const svc_route_list& list = zar::svc::gSvc.routes[sev];
  for (int32_t i = 0; i < list.count; ++i) kinds.push_back(list.routes[i]->kind);
  return kinds;
}

struct RouteCase {
  const char* text;  // route string; "@" stands for a temporary directory
  uint32_t status;
  std::vector<int> kinds;
  friend void PrintTo(const RouteCase& c, std::ostream* os) { *os << c.text; }
};

class SvcRouteText : public ::testing::TestWithParam<RouteCase> {};

TEST_P(SvcRouteText, ParsesIntoRoutes) {
  TempDir dir;
  std::string text = GetParam().text;
  for (size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, dir.path());
  unsigned long st = 0;
  zar_svc_routing(("NOTICE_VERBOSE:" + text).c_str(), &st);
  EXPECT_ZAR_STATUS(GetParam().status, st) << text;
  EXPECT_EQ(GetParam().kinds, kindsOf(4)) << text;
  zar_svc_routing("NOTICE_VERBOSE:DISCARD:", &st);  // releases the files
}

using namespace zar::svc;
INSTANTIATE_TEST_SUITE_P(
    Table, SvcRouteText,
    ::testing::Values(
        RouteCase{"STDERR:", 0, {kRouteStderr}},
        RouteCase{"STDOUT:;;;STDERR:", 0, {kRouteStdout, kRouteStderr}},
        RouteCase{"STDOUT:;", 0, {kRouteStdout}},
        RouteCase{"XMLSTDOUT:;XMLSTDERR:x;DISCARD:", 0,
                 {kRouteXmlStdout, kRouteXmlStderr, kRouteDiscard}},
        RouteCase{"STDERR.1.2:", 0, {kRouteStderr}},
        RouteCase{"FILE:@/a;TEXTFILE:@/b;UTF8FILE:@/c;XMLFILE:@/d", 0,
                 {kRouteTextFile, kRouteTextFile, kRouteUtf8File, kRouteXmlFile}},
        RouteCase{"GOESTO:ERROR", 0, {kRouteGoesTo}},
        // A word that names no built-in kind waits as the fallback kind.
        RouteCase{"NOSUCHROUTE:arg", 0, {kRouteStderr}},
        RouteCase{"stderr:", 0, {kRouteStderr}},
        // Errors stop the parse; routes before them stay.
        RouteCase{"STDERR", ZAR_S_SVC_BAD_ROUTE, {}},
        RouteCase{"STDOUT:;STDERR", ZAR_S_SVC_BAD_ROUTE, {kRouteStdout}},
        RouteCase{"TEXTFILE.5:@/x", ZAR_S_SVC_BAD_ROUTE, {}},
        RouteCase{"STDOUT:;TEXTFILE:@/%s.log;STDERR:", ZAR_S_SVC_BAD_ROUTE, {kRouteStdout}}));

TEST(SvcRouting, SeverityPartSelectsByPrefixOrWildcard) {
  unsigned long st = 0;
  zar_svc_routing("WARN:STDOUT:", &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(2));
  zar_svc_routing("N:STDOUT:", &st);  // NOTICE, the first name with that prefix
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(3));
  zar_svc_routing("WARNING:STDERR", &st);  // one ':' only: nothing changes
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(2));
  zar_svc_routing("BOGUS:STDERR:", &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  zar_svc_routing(":STDERR:", &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  zar_svc_routing(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);

  zar_svc_routing("*:DISCARD:", &st);
  ASSERT_ZAR_OK(st);
  zar::svc::SvcLock lock;
  for (int i = 0; i < kNumSeverities; ++i) {
    EXPECT_EQ(1, gSvc.routes[i].count);
    EXPECT_EQ(kRouteDiscard, gSvc.routes[i].routes[0]->kind);
    const char* saved = zar_svc__get(kCodeTable[i]);
    ASSERT_NE(nullptr, saved);
    EXPECT_STREQ("DISCARD:", saved);
  }
  // The abbreviation is saved under its own key.
  EXPECT_STREQ("STDOUT:", zar_svc__get("WARN"));
}

TEST(SvcRouting, FileNamesLongerThan511BytesAreRefused) {
  unsigned long st = 0;
  zar_svc_routing(("NOTICE_VERBOSE:STDOUT:;TEXTFILE:/tmp/" + std::string(507, 'x')).c_str(), &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(4));
  zar_svc_routing(("NOTICE_VERBOSE:TEXTFILE:/tmp/" + std::string(506, 'x')).c_str(), &st);
  EXPECT_ZAR_OK(st);
  zar_svc_routing("NOTICE_VERBOSE:DISCARD:", &st);
}

TEST(SvcRouting, WildcardTextsLongerThan511BytesChangeNothing) {
  unsigned long st = 0;
  zar_svc_routing("ERROR:STDOUT:", &st);
  std::string text = "*:STDERR:" + std::string(510, 'x');
  zar_svc_routing(text.c_str(), &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(1));
}

struct LineCase {
  const char* file;
  const char* name;
  const char* value;  // null: no value
  friend void PrintTo(const LineCase& c, std::ostream* os) { *os << c.name; }
};
class SvcRoutingFile : public ::testing::TestWithParam<LineCase> {};

TEST_P(SvcRoutingFile, FirstMatchingLineWins) {
  TempDir dir;
  zar::test::writeFile(dir.file("routing"), GetParam().file);
  zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", dir.file("routing"));
  zar::mem::Unique<char> value(zar_svc__linefor(GetParam().name));
  if (GetParam().value == nullptr) {
    EXPECT_EQ(nullptr, value.get());
  } else {
    ASSERT_NE(nullptr, value.get());
    EXPECT_STREQ(GetParam().value, value.get());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SvcRoutingFile,
    ::testing::Values(
        LineCase{"WARNING:TEXTFILE:/var/log/app_%ld.log;STDERR:\n", "WARNING",
                 "TEXTFILE:/var/log/app_%ld.log;STDERR:"},
        LineCase{"   #WARNING:STDOUT:\n\t WARNING:STDERR:\n", "WARNING", "STDERR:"},
        LineCase{"WARNING\nWARNING:A:\nWARNING:B:\n", "WARNING", "A:"},
        LineCase{"warning:STDOUT:\n", "WARNING", nullptr},
        LineCase{"*:DISCARD:\n", "NOTICE", "DISCARD:"},
        // A first field ending in a digit is a component's level list.
        LineCase{"*:TEXTFILE.3.100:/tmp/x\n", "ERROR", nullptr},
        LineCase{"*:TEXTFILE.3.100:/tmp/x\n", "abc", "TEXTFILE.3.100:/tmp/x"},
        LineCase{"*:*.1:STDERR:\n*:DISCARD:\n", "ERROR", "DISCARD:"},
        LineCase{"*:*.1:STDERR:\n*:DISCARD:\n", "abc", "*.1:STDERR:"},
        LineCase{"*::\n", "ERROR", nullptr},
        LineCase{"abc:*.9:TEXTFILE:/tmp/abc_%ld.trace", "abc", "*.9:TEXTFILE:/tmp/abc_%ld.trace"},
        LineCase{"", "ERROR", nullptr}));

TEST(SvcRoutingFile, LongLinesAreReadIn511BytePieces) {
  TempDir dir;
  // The piece after the first 511 bytes starts a line of its own.
  std::string line = std::string(511, 'y') + "ERROR:STDOUT:\n";
  zar::test::writeFile(dir.file("routing"), line);
  zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", dir.file("routing"));
  zar::mem::Unique<char> value(zar_svc__linefor("ERROR"));
  ASSERT_NE(nullptr, value.get());
  EXPECT_STREQ("STDOUT:", value.get());
  zar::test::ScopedEnv missing("KP_SVC_ROUTING_FILE", dir.file("nonexistent"));
  EXPECT_EQ(nullptr, zar_svc__linefor("ERROR"));
}

TEST(SvcFileRoute, ExistingFileIsArchivedAtSetUpWhenALimitIsGiven) {
  TempDir dir;
  std::string log = dir.file("t.log");
  unsigned long st = 0;
  zar::test::writeFile(log, "old\n");
  zar_svc_routing(("NOTICE:TEXTFILE.3.1:" + log).c_str(), &st);
  ASSERT_ZAR_OK(st);
  EXPECT_FALSE(zar::test::fileExists(log));
  EXPECT_EQ("old\n", zar::test::readFile(log + ".1"));
  zar_svc_routing("NOTICE:DISCARD:", &st);

  // Without generations the file is only truncated when it is first opened;
  // without a limit it is left alone.
  zar::test::writeFile(log, "kept\n");
  zar_svc_routing(("NOTICE:TEXTFILE:" + log).c_str(), &st);
  EXPECT_EQ("kept\n", zar::test::readFile(log));
  zar_svc_routing("NOTICE:DISCARD:", &st);
  // A negative generation count moves the file away once, then never rotates.
  zar_svc_routing(("NOTICE:TEXTFILE.-1.100:" + log).c_str(), &st);
  EXPECT_FALSE(zar::test::fileExists(log));
  EXPECT_EQ("kept\n", zar::test::readFile(log + ".1"));
  {
    zar::svc::SvcLock lock;
    auto record = static_cast<svc_file_route*>(gSvc.routes[3].routes[0]->target);
    EXPECT_EQ(0, record->generations);
    EXPECT_EQ(0, record->limit);
  }
  zar_svc_routing("NOTICE:DISCARD:", &st);
}

TEST(SvcFileRoute, NamesArePerProcessAndRecordsAreShared) {
  TempDir dir;
  unsigned long st = 0;
  std::string text = "NOTICE:TEXTFILE.150.10:" + dir.path() + "/app.%ld.log:640;TEXTFILE:" +
                     dir.path() + "/app.%d.log";
  zar_svc_routing(text.c_str(), &st);
  ASSERT_ZAR_OK(st);
  zar::svc::SvcLock lock;
  const svc_route_list& list = gSvc.routes[3];
  ASSERT_EQ(2, list.count);
  auto a = static_cast<svc_file_route*>(list.routes[0]->target);
  EXPECT_EQ(a, list.routes[1]->target);
  EXPECT_EQ(dir.path() + "/app." + std::to_string(getpid()) + ".log", a->name);
  EXPECT_EQ(2, a->references);
  EXPECT_EQ(99, a->generations);  // capped
  EXPECT_EQ(10, a->limit);
  EXPECT_EQ(0640, a->mode);
  zar_svc__close_routes(&gSvc.routes[3]);
  EXPECT_EQ(0, a->references);
}

struct ExpandCase {
  const char* format;
  const char* expected;  // null: refused
  friend void PrintTo(const ExpandCase& c, std::ostream* os) { *os << c.format; }
};
class SvcFileName : public ::testing::TestWithParam<ExpandCase> {};
TEST_P(SvcFileName, ProcessIdIsPutIn) {
  char out[zar::svc::kMaxRouteText + 1];
  bool ok = zar::svc::expandFileName(GetParam().format, 4711, out);
  if (GetParam().expected == nullptr) {
    EXPECT_FALSE(ok);
  } else {
    ASSERT_TRUE(ok);
    EXPECT_STREQ(GetParam().expected, out);
  }
}
INSTANTIATE_TEST_SUITE_P(Table, SvcFileName,
                         ::testing::Values(ExpandCase{"/tmp/app.%ld.log", "/tmp/app.4711.log"},
                                           ExpandCase{"/tmp/%d/%d", "/tmp/4711/4711"},
                                           ExpandCase{"100%%-%08d", "100%-00004711"},
                                           ExpandCase{"plain", "plain"},
                                           ExpandCase{"%s", nullptr}, ExpandCase{"x%", nullptr},
                                           ExpandCase{"%999d", nullptr}));

TEST(SvcGoesTo, NamesSeveritiesAndSettledComponents) {
  unsigned long st = 0;
  zar_svc_routing("FATAL:STDOUT:;STDERR:", &st);
  int32_t count = -1;
  zar::svc::SvcLock lock;
  svc_route** routes = zar_svc__goesto("FATAL", &count);
  EXPECT_EQ(2, count);
  EXPECT_EQ(gSvc.routes[0].routes, routes);
  EXPECT_EQ(nullptr, zar_svc__goesto("NOSUCH", &count));
  EXPECT_EQ(0, count);
}

}  // namespace
