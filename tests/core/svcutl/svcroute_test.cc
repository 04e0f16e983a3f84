// Route strings: parsing into route lists, severity selection, the routing
// file and its wildcards. (What each route kind writes is the business of
// svcprint_test.)
#include <string>
#include <vector>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"

namespace {

using namespace zar::svc;
using zar::test::svcRoute;
using Kinds = std::vector<int>;
constexpr uint32_t kBad = ZAR_S_SVC_BAD_ROUTE;

// The kinds of the routes of one severity list (index 0 to 4).
Kinds kindsOf(int sev) {
  SvcLock lock;
  Kinds kinds;
  const svc_route_list& list = gSvc.routes[sev];
  for (int32_t i = 0; i < list.count; ++i) kinds.push_back(list.routes[i]->kind);
  return kinds;
}

TEST(SvcRouting, RouteStringsParseIntoRoutesUpToTheFirstError) {
  // Empty elements are skipped and dots on a stream kind ignored; a word that
  // is no kind (kinds are upper case) waits as the fallback kind. An error
  // stops the parse and the routes before it stay: no ':', one '.', a
  // conversion other than the process id, a lone '%', a file name longer
  // than 511 bytes.
  const struct {
    std::string text;  // for NOTICE_VERBOSE
    uint32_t status;
    Kinds kinds;
  } kCases[] = {
      {"STDOUT:;;;STDERR:", 0, {kRouteStdout, kRouteStderr}},
      {"STDOUT:;", 0, {kRouteStdout}},
      {"STDERR.1.2:", 0, {kRouteStderr}},
      {"stderr:", 0, {kRouteStderr}},
      {"STDERR;STDOUT:", kBad, {}},
      {"STDOUT:;STDERR", kBad, {kRouteStdout}},
      {"TEXTFILE.5:/nonexistent/x", kBad, {}},
      {"STDOUT:;TEXTFILE:/nonexistent/%s.log;STDERR:", kBad, {kRouteStdout}},
      {"STDOUT:;TEXTFILE:/nonexistent/x%", kBad, {kRouteStdout}},
      {"TEXTFILE:/nonexistent/" + std::string(498, 'x'), 0, {kRouteTextFile}},
      {"STDOUT:;TEXTFILE:/nonexistent/" + std::string(499, 'x'), kBad, {kRouteStdout}}};
  for (const auto& c : kCases) {
    EXPECT_ZAR_STATUS(c.status, svcRoute("NOTICE_VERBOSE:" + c.text)) << c.text.substr(0, 60);
    EXPECT_EQ(c.kinds, kindsOf(4)) << c.text.substr(0, 60);
  }
}

TEST(SvcRouting, SeverityPartSelectsByPrefixOrWildcard) {
  ASSERT_ZAR_OK(svcRoute("WARN:STDOUT:"));
  EXPECT_EQ(Kinds{kRouteStdout}, kindsOf(2));
  ASSERT_ZAR_OK(svcRoute("N:STDOUT:"));  // NOTICE: the first name with that prefix
  EXPECT_EQ(Kinds{kRouteStdout}, kindsOf(3));
  // Refused, changing nothing: one ':', no such severity, no severity, too
  // long for the five saved settings of a wildcard.
  for (std::string bad : {std::string("WARNING:STDERR"), std::string("BOGUS:STDERR:"),
                          std::string(":STDERR:"), "*:STDERR:" + std::string(510, 'x')}) {
    EXPECT_ZAR_STATUS(kBad, svcRoute(bad)) << bad.substr(0, 20);
    EXPECT_EQ(Kinds{kRouteStdout}, kindsOf(2));
  }
  unsigned long st = 0;
  zar_svc_routing(nullptr, &st);
  EXPECT_ZAR_STATUS(kBad, st);
  ASSERT_ZAR_OK(svcRoute("*:DISCARD:"));
  SvcLock lock;
  for (int i = 0; i < kNumSeverities; ++i) {
    EXPECT_EQ(kRouteDiscard, gSvc.routes[i].routes[0]->kind);
    EXPECT_STREQ("DISCARD:", zar_svc__get(kCodeTable[i]));
  }
  EXPECT_STREQ("STDOUT:", zar_svc__get("WARN"));  // saved under its own key
}

TEST(SvcRoutingFile, FirstMatchingLineWins) {
  // A first field ending in a digit is a component's level list; lines
  // longer than 511 bytes are read in pieces, each a line.
  const struct {
    std::string file;
    const char* name;
    const char* value;  // null: no value
  } kCases[] = {
      {"WARNING:TEXTFILE:/var/log/app_%ld.log;STDERR:\n", "WARNING",
       "TEXTFILE:/var/log/app_%ld.log;STDERR:"},
      {"   #WARNING:STDOUT:\n\t WARNING:STDERR:\n", "WARNING", "STDERR:"},
      {"WARNING\nWARNING:A:\nWARNING:B:\n", "WARNING", "A:"},
      {"warning:STDOUT:\n", "WARNING", nullptr},
      {"*:DISCARD:\n", "NOTICE", "DISCARD:"},
      {"*:TEXTFILE.3.100:/tmp/x\n", "ERROR", nullptr},
      {"*:TEXTFILE.3.100:/tmp/x\n", "abc", "TEXTFILE.3.100:/tmp/x"},
      {"*:*.1:STDERR:\n*:DISCARD:\n", "ERROR", "DISCARD:"},
      {"*:*.1:STDERR:\n*:DISCARD:\n", "abc", "*.1:STDERR:"},
      {"*::\n", "ERROR", nullptr},
      {"abc:*.9:TEXTFILE:/tmp/abc_%ld.trace", "abc", "*.9:TEXTFILE:/tmp/abc_%ld.trace"},
      {std::string(511, 'y') + "ERROR:STDOUT:\n", "ERROR", "STDOUT:"},
      {"", "ERROR", nullptr}};
  zar::test::TempDir dir;
  for (const auto& c : kCases) {
    zar::test::writeFile(dir.file("routing"), c.file);
    zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", dir.file("routing"));
    zar::mem::Unique<char> value(zar_svc__linefor(c.name));
    EXPECT_STREQ(c.value, value.get()) << c.file.substr(0, 40);
  }
  zar::test::ScopedEnv env("KP_SVC_ROUTING_FILE", dir.file("missing"));
  EXPECT_EQ(nullptr, zar_svc__linefor("ERROR"));
}

}  // namespace
