// The user's locale and the library's code-set handles: process-wide names,
// per-thread objects and handles, and the UTF-8 handle.
#include <locale.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <atomic>
#include <thread>

#include "core/svcutl/svcnls.h"
#include "platform/nlz.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::exitCode;
using zar::test::runInChild;

// Each case runs in a fresh process: the state it checks is made once per
// process.
TEST(SvcNls, LocaleNameIsEmptyUntilTheFirstLocaleObject) {
  EXPECT_EQ(0, exitCode(runInChild([] {
              if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) return 1;
              if (strcmp(zarsvc_get_locale_name(), "") != 0) return 2;
              zar_locale_t loc = zarsvc_get_locale();
              if (loc == nullptr) return 3;
              if (strcmp(zarsvc_get_locale_name(), "de_DE.ISO-8859-1") != 0) return 4;
              if (strcmp(nlz_loc_cs_name(loc), "ISO-8859-1") != 0) return 5;
              if (zarsvc_get_locale() != loc) return 6;  // kept per thread
              zar_locale_t other = nullptr;
              std::thread([&] { other = zarsvc_get_locale(); }).join();
              return other != nullptr && other != loc ? 0 : 7;
            })));
}

TEST(SvcNls, EachThreadHasItsOwnCodePageHandle) {
  EXPECT_EQ(0, exitCode(runInChild([] {
              if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) return 1;
              zar_codeset_t mine = zarsvc_get_local_code_page();
              if (mine == nullptr || zarsvc_get_local_code_page() != mine) return 2;
              if (strcmp(nlz_cs_name(mine), "ISO-8859-1") != 0) return 3;
              // Both threads stay alive until both have their handle, so a
              // freed handle's address cannot be reused for the other.
              zar_codeset_t a = nullptr, b = nullptr;
              std::atomic<int> got{0};
              auto body = [&](zar_codeset_t* out) {
                *out = zarsvc_get_local_code_page();
                got.fetch_add(1);
                while (got.load() < 2) std::this_thread::yield();
              };
              std::thread ta(body, &a);
              std::thread tb(body, &b);
              ta.join();
              tb.join();
              return a != nullptr && b != nullptr && a != b && a != mine ? 0 : 4;
            })));
}

TEST(SvcNls, AThreadWhoseHandleFailedKeepsNullAndTheFailureIsReported) {
  zar::test::TempDir dir;
  std::string errFile = dir.file("err");
  int status = runInChild([&] {
    zar::test::CaptureFd err(2);
    if (zarsvc_get_local_code_page() == nullptr) return 1;
    zar_codeset_t first = reinterpret_cast<zar_codeset_t>(1), second = first;
    std::thread([&] {
      {
        zar::test::FaultPlan plan(zar::fault::Op::kIconv, 1, true);
        first = zarsvc_get_local_code_page();
      }
      second = zarsvc_get_local_code_page();  // no new attempt
    }).join();
    zar::test::writeFile(errFile, err.text());
    return first == nullptr && second == nullptr ? 0 : 2;
  });
  EXPECT_EQ(0, exitCode(status));
  std::string err = zar::test::readFile(errFile);
  EXPECT_NE(std::string::npos,
            err.find("XKJSC0156E   The nlz_cs_new(ANSI_X3.4-1968) system routine failed: "
                     "system error code: 0"))
      << err;
}

// The report of a failed first set-up is a message whose text lookup asks for
// the local code page again: that request must not wait for the set-up it is
// part of, nor start another one.
TEST(SvcNls, AFailedFirstSetUpIsReportedWithoutEnteringItAgain) {
  zar::test::TempDir dir;
  std::string errFile = dir.file("err");
  int status = runInChild([&] {
    alarm(20);  // a wait on the set-up itself ends the child instead of the test
    zar::test::CaptureFd err(2);
    unsigned long st = 0;
    zar_svc_init(0, &st);
    zar_codeset_t cs = reinterpret_cast<zar_codeset_t>(1);
    {
      zar::test::FaultPlan plan(zar::fault::Op::kIconv, 1, true);
      cs = zarsvc_get_local_code_page();
    }
    zar::test::writeFile(errFile, err.text());
    return cs == nullptr ? 0 : 2;
  });
  EXPECT_EQ(0, exitCode(status));
  EXPECT_NE(std::string::npos, zar::test::readFile(errFile).find("XKJSC0156E"));
}

TEST(SvcNls, Utf8HandleIsSharedAndExported) {
  unsigned long st = 1;
  zar_svc_nls_init(&st);
  ASSERT_ZAR_OK(st);
  zar_codeset_t u = zarsvc_get_utf8_code_page();
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(u, kp_zar_svc_utf8_cs);
  EXPECT_EQ(u, zar_svc_cs_utf8);
  EXPECT_EQ(1, nlz_cs_is_utf8(u));
  EXPECT_STREQ("UTF8", zar_svc_utf8_cs);
}

TEST(SvcNls, Utf8HandleFailureIsAStatusAndIsRetried) {
  if (kp_zar_svc_utf8_cs != nullptr) GTEST_SKIP() << "made already in this process";
  EXPECT_EQ(0, exitCode(runInChild([] {
              unsigned long st = 0;
              {
                zar::test::FaultPlan plan(zar::fault::Op::kIconv, 1, true);
                zar_svc_nls_init(&st);
                if (st != ZAR_S_MSG_CAT_OPEN_FAILED) return 1;
                if (kp_zar_svc_utf8_cs != nullptr) return 2;
              }
              zar_svc_nls_init(&st);
              return st == 0 && zarsvc_get_utf8_code_page() != nullptr ? 0 : 3;
            })));
}

}  // namespace
