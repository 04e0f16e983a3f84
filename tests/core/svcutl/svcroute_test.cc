// Route strings and the routing file, seen from where a record goes: parsing
// up to the first error, severity selection, the routing file's lines and
// wildcards. (The forms each route kind writes are svcprint_test's.)

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using namespace zar::test;
constexpr uint32_t kBad = ZAR_S_SVC_BAD_ROUTE;

// Where a record of the severity went: 'o' standard output, 'e' standard
// error, in that order; "-" nowhere.
std::string whereGoes(uint32_t severity) {
  CaptureFd out(1), err(2);
  if (severity == 0) {
    zar_svc__debug(zarsv_client_svc_handle, 0, 1, "debug");
  } else {
    zar_svc_printf_withfile(zarsv_client_svc_handle, "r.cc", 1, "", 0, severity, 0x38C52097);
  }
  std::string where = std::string(out.text().empty() ? "" : "o") + (err.text().empty() ? "" : "e");
  return where.empty() ? "-" : where;
}

class SvcRouting : public SvcTest {
 protected:
  TempDir dir_;
};
using SvcRoutingFile = SvcRouting;

// Children only: the parent has filled no route list yet.
// The first line naming a severity wins; comments, lines without ':', other
// cases and a component's level list (a first field ending in a digit) are
// no match; lines longer than 511 bytes are read in pieces, each a line. With
// no matching line a severity keeps its default.
TEST_F(SvcRoutingFile, FirstMatchingLineWins) {
  const struct {
    std::string file;
    uint32_t severity;  // 0: a debug record of wsc's core at level 1
    const char* where;
  } kCases[] = {{"   #WARNING:STDOUT:\n\t WARNING:STDERR:\n", svc_c_sev_warning, "e"},
                {"WARNING\nWARNING:STDOUT:\nWARNING:STDERR:\n", svc_c_sev_warning, "o"},
                {"warning:STDOUT:\n", svc_c_sev_warning, "e"},
                {"*:STDOUT:\n", svc_c_sev_notice, "o"},
                {"*:*.1:STDERR:\n*:STDOUT:\n", svc_c_sev_error, "o"},
                {"*:*.1:STDOUT:\n*:DISCARD:\n", 0, "o"},
                {"wsc:*.1:STDERR:\n", 0, "e"},
                {std::string(511, 'y') + "ERROR:STDOUT:\n", svc_c_sev_error, "o"},
                {"ERROR:STDOUT:", svc_c_sev_error, "o"},
                {"", svc_c_sev_error, "e"}};
  for (const auto& c : kCases) {
    writeFile(dir_.file("routing"), c.file);
    Captured o = runCaptured(dir_, [&] {
      setenv("KP_SVC_ROUTING_FILE", dir_.file("routing").c_str(), 1);
      printf("%s", whereGoes(c.severity).c_str());
    });
    EXPECT_EQ(c.where, o.out) << c.file.substr(0, 40);
  }
}

// Empty elements are skipped and dots on a stream kind ignored; a word that
// is no kind (kinds are upper case) waits as the fallback kind, standard
// error, as does a file that cannot be opened. An error stops the parse and
// the routes before it stay: no ':', one '.', a conversion other than the
// process id, a lone '%', a file name longer than 511 bytes.
TEST_F(SvcRouting, RouteStringsParseIntoRoutesUpToTheFirstError) {
  const struct {
    std::string text;  // for NOTICE_VERBOSE
    uint32_t status;
    const char* where;
  } kCases[] = {{"STDOUT:;;;STDERR:", 0, "oe"},
                {"STDOUT:;", 0, "o"},
                {"STDERR.1.2:", 0, "e"},
                {"stderr:", 0, "e"},
                {"DISCARD:", 0, "-"},
                {"STDERR;STDOUT:", kBad, "-"},
                {"STDOUT:;STDERR", kBad, "o"},
                {"TEXTFILE.5:/nonexistent/x", kBad, "-"},
                {"STDOUT:;TEXTFILE:/nonexistent/%s.log;STDERR:", kBad, "o"},
                {"STDOUT:;TEXTFILE:/nonexistent/x%", kBad, "o"},
                {"TEXTFILE:/nonexistent/" + std::string(498, 'x'), 0, "e"},
                {"STDOUT:;TEXTFILE:/nonexistent/" + std::string(499, 'x'), kBad, "o"}};
  for (const auto& c : kCases) {
    EXPECT_ZAR_STATUS(c.status, svcRoute("NOTICE_VERBOSE:" + c.text)) << c.text.substr(0, 60);
    EXPECT_EQ(c.where, whereGoes(svc_c_sev_notice_verbose)) << c.text.substr(0, 60);
  }
}

// A prefix selects the first severity it begins; refused settings (one ':',
// no such severity, no severity, too long for the saved settings of a
// wildcard, none) change nothing; "*" sets every severity.
TEST_F(SvcRouting, SeverityPartSelectsByPrefixOrWildcard) {
  ASSERT_ZAR_OK(svcRoute("WARN:STDOUT:"));
  ASSERT_ZAR_OK(svcRoute("N:STDOUT:"));  // NOTICE
  EXPECT_EQ("oo", whereGoes(svc_c_sev_warning) + whereGoes(svc_c_sev_notice));
  for (std::string bad : {std::string("WARNING:STDERR"), std::string("BOGUS:STDERR:"),
                          std::string(":STDERR:"), "*:STDERR:" + std::string(510, 'x')}) {
    EXPECT_ZAR_STATUS(kBad, svcRoute(bad)) << bad.substr(0, 20);
    EXPECT_EQ("o", whereGoes(svc_c_sev_warning));
  }
  unsigned long st = 0;
  zar_svc_routing(nullptr, &st);
  EXPECT_ZAR_STATUS(kBad, st);
  ASSERT_ZAR_OK(svcRoute("*:STDOUT:"));
  std::string all;
  for (uint32_t sev = svc_c_sev_fatal; sev <= svc_c_sev_notice_verbose; sev += 0x10)
    all += whereGoes(sev);
  EXPECT_EQ("ooooo", all);
}

}  // namespace
