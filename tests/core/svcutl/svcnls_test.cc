// The user's locale and the library's code-set handles: process-wide names,
// per-thread objects and handles, and the UTF-8 handle. The state is made
// once per process, so each case runs in a child and reports what it saw.
#include <locale.h>
#include <string.h>
#include <unistd.h>

#include <thread>

#include "core/svcutl/svcnls.h"
#include "platform/nlz.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::childTexts;
using Texts = std::vector<std::string>;

std::string yes(bool b) { return b ? "yes" : "no"; }

TEST(SvcNls, LocaleAndCodePageAreMadePerThread) {
  EXPECT_EQ((Texts{"", "de_DE.ISO-8859-1", "ISO-8859-1", "yes", "yes", "ISO-8859-1", "yes"}),
            childTexts([] {
              if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) return Texts{"no locale"};
              Texts t = {zarsvc_get_locale_name()};  // empty until the first locale object
              zar_locale_t loc = zarsvc_get_locale();
              t.push_back(zarsvc_get_locale_name());
              t.push_back(loc != nullptr ? nlz_loc_cs_name(loc) : "<null>");
              zar_locale_t other = nullptr;
              std::thread([&] { other = zarsvc_get_locale(); }).join();
              t.push_back(yes(zarsvc_get_locale() == loc));  // kept per thread
              t.push_back(yes(other != nullptr && other != loc));
              zar_codeset_t mine = zarsvc_get_local_code_page();
              t.push_back(mine != nullptr ? nlz_cs_name(mine) : "<null>");
              t.push_back(yes(zarsvc_get_local_code_page() == mine));
              return t;
            }));
}

// A thread whose handle failed keeps null without a new attempt; the failure
// is reported. A failure of the first set-up is reported as well: the report
// asks for the local code page again, which must neither wait for the set-up
// it is part of nor start another one.
TEST(SvcNls, FailedHandlesAreReportedAndKeptNull) {
  const std::string kReport =
      "XKJSC0156E   The nlz_cs_new(ANSI_X3.4-1968) system routine failed: system error code: 0";
  for (bool first : {false, true}) {
    const Texts t = childTexts([first] {
      alarm(20);  // a wait on the set-up itself ends the child instead of the test
      zar::test::CaptureFd err(2);
      unsigned long st = 0;
      if (first) zar_svc_init(0, &st);
      if (!first && zarsvc_get_local_code_page() == nullptr) return Texts{"no handle"};
      zar_codeset_t failed = nullptr, again = nullptr;
      std::thread([&] {
        {
          zar::test::FaultPlan plan(zar::fault::Op::kIconv, 1, true);
          failed = zarsvc_get_local_code_page();
        }
        again = zarsvc_get_local_code_page();
      }).join();
      return Texts{yes(failed == nullptr), yes(again == nullptr), err.text()};
    });
    ASSERT_EQ(3u, t.size()) << t[0];
    EXPECT_EQ("yes", t[0]);
    EXPECT_EQ("yes", t[1]);
    EXPECT_NE(std::string::npos, t[2].find(kReport + "\n")) << t[2];
  }
}

TEST(SvcNls, Utf8HandleIsSharedAndExportedAndRetriedAfterAFailure) {
  EXPECT_EQ((Texts{"0x10652206", "<null>", "0x00000000", "yes"}), childTexts([] {
              unsigned long st = 0;
              Texts t;
              {
                zar::test::FaultPlan plan(zar::fault::Op::kIconv, 1, true);
                zar_svc_nls_init(&st);
                t = {zar::test::hexStatus(st), kp_zar_svc_utf8_cs ? "made" : "<null>"};
              }
              zar_svc_nls_init(&st);
              zar_codeset_t u = zarsvc_get_utf8_code_page();
              t.push_back(zar::test::hexStatus(st));
              t.push_back(yes(u != nullptr && u == kp_zar_svc_utf8_cs && u == zar_svc_cs_utf8 &&
                              nlz_cs_is_utf8(u) == 1 && strcmp(zar_svc_utf8_cs, "UTF8") == 0));
              return t;
            }));
}

}  // namespace
