// Route strings: parsing into route lists, severity selection, the routing
// file and its wildcards.
#include <string>
#include <vector>

#include "core/svcutl/svcint.h"
#include "core/zarmem.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using namespace zar::svc;
using zar::test::TempDir;

// The kinds of the routes of one severity list (index 0 to 4).
std::vector<int> kindsOf(int sev) {
  SvcLock lock;
  std::vector<int> kinds;
  const svc_route_list& list = gSvc.routes[sev];
  for (int32_t i = 0; i < list.count; ++i) kinds.push_back(list.routes[i]->kind);
  return kinds;
}

struct RouteCase {
  std::string text;  // for NOTICE_VERBOSE; "@" stands for a temporary directory
  uint32_t status;
  std::vector<int> kinds;
  friend void PrintTo(const RouteCase& c, std::ostream* os) { *os << c.text.substr(0, 60); }
};
class SvcRouteText : public ::testing::TestWithParam<RouteCase> {};

TEST_P(SvcRouteText, ParsesIntoRoutes) {
  TempDir dir;
  std::string text = GetParam().text;
  for (size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, dir.path());
  unsigned long st = 0;
  zar_svc_routing(("NOTICE_VERBOSE:" + text).c_str(), &st);
  EXPECT_ZAR_STATUS(GetParam().status, st);
  EXPECT_EQ(GetParam().kinds, kindsOf(4));
  zar_svc_routing("NOTICE_VERBOSE:DISCARD:", &st);  // releases the files
}

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
        // Words that name no built-in kind wait as the fallback kind.
        RouteCase{"NOSUCHROUTE:arg", 0, {kRouteStderr}},
        RouteCase{"stderr:", 0, {kRouteStderr}},
        // Errors stop the parse; routes before them stay.
        RouteCase{"STDERR;STDOUT:", ZAR_S_SVC_BAD_ROUTE, {}},
        RouteCase{"STDOUT:;STDERR", ZAR_S_SVC_BAD_ROUTE, {kRouteStdout}},
        RouteCase{"TEXTFILE.5:@/x", ZAR_S_SVC_BAD_ROUTE, {}},
        RouteCase{"STDOUT:;TEXTFILE:@/%s.log;STDERR:", ZAR_S_SVC_BAD_ROUTE, {kRouteStdout}},
        RouteCase{"STDOUT:;TEXTFILE:@/x%", ZAR_S_SVC_BAD_ROUTE, {kRouteStdout}},
        RouteCase{"TEXTFILE:/tmp/" + std::string(506, 'x'), 0, {kRouteTextFile}},
        RouteCase{"STDOUT:;TEXTFILE:/tmp/" + std::string(507, 'x'), ZAR_S_SVC_BAD_ROUTE,
                  {kRouteStdout}}));

TEST(SvcRouting, SeverityPartSelectsByPrefixOrWildcard) {
  unsigned long st = 0;
  zar_svc_routing("WARN:STDOUT:", &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(2));
  zar_svc_routing("N:STDOUT:", &st);  // NOTICE: the first name with that prefix
  EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(3));
  // Refused, changing nothing: one ':', no such severity, no severity, too
  // long for the five saved settings of a wildcard.
  for (std::string bad : {std::string("WARNING:STDERR"), std::string("BOGUS:STDERR:"),
                          std::string(":STDERR:"), "*:STDERR:" + std::string(510, 'x')}) {
    zar_svc_routing(bad.c_str(), &st);
    EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st) << bad.substr(0, 20);
    EXPECT_EQ(std::vector<int>{kRouteStdout}, kindsOf(2));
  }
  zar_svc_routing(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);

  zar_svc_routing("*:DISCARD:", &st);
  ASSERT_ZAR_OK(st);
  SvcLock lock;
  for (int i = 0; i < kNumSeverities; ++i) {
    EXPECT_EQ(kRouteDiscard, gSvc.routes[i].routes[0]->kind);
    EXPECT_STREQ("DISCARD:", zar_svc__get(kCodeTable[i]));
  }
  EXPECT_STREQ("STDOUT:", zar_svc__get("WARN"));  // saved under its own key
}

struct LineCase {
  std::string file;
  const char* name;
  const char* value;  // null: no value
  friend void PrintTo(const LineCase& c, std::ostream* os) { *os << c.file.substr(0, 40); }
};
class SvcRoutingFile : public ::testing::TestWithParam<LineCase> {};

TEST_P(SvcRoutingFile, FirstMatchingLineWins) {
  TempDir dir;
  zar::test::writeFile(dir.file("routing"), GetParam().file);
  zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", dir.file("routing"));
  zar::mem::Unique<char> value(zar_svc__linefor(GetParam().name));
  EXPECT_STREQ(GetParam().value, value.get());
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
        // Lines longer than 511 bytes are read in pieces, each a line.
        LineCase{std::string(511, 'y') + "ERROR:STDOUT:\n", "ERROR", "STDOUT:"},
        LineCase{"", "ERROR", nullptr}));

TEST(SvcRoutingFile, MissingFileGivesNoValue) {
  zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", "/nonexistent/routing");
  EXPECT_EQ(nullptr, zar_svc__linefor("ERROR"));
}

}  // namespace
