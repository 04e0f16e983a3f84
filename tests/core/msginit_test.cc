#include <stdlib.h>
#include <string.h>

#include <string>

#include "platform/nlz.h"
#include "tests/testutil/testutil.h"
#include "zar/msginit.h"
#include "zar/msgprintf.h"

namespace {

using zar::test::CaptureFd;
using zar::test::exitCode;
using zar::test::runInChild;

const char kDefaultPath[] = "/opt/kpsrv/nls/msg//%L/%N:/opt/kpsrv/nls/msg//%L/%N.cat:";

struct NlsCase {
  const char* before;  // null: unset
  std::string after;
};

class MsgInitNlsPath : public ::testing::TestWithParam<NlsCase> {};

// zarmsg_init changes the whole process, so each case runs in a child.
TEST_P(MsgInitNlsPath, PutsTheCatalogDirectoryInFront) {
  int status = runInChild([] {
    if (GetParam().before == nullptr) {
      unsetenv("NLSPATH");
    } else {
      setenv("NLSPATH", GetParam().before, 1);
    }
    if (zarmsg_init("nlstest", 0) != 1) return 2;
    const char* now = getenv("NLSPATH");
    return now != nullptr && GetParam().after == now ? 0 : 1;
  });
  EXPECT_EQ(0, exitCode(status));
}

const std::string kLong(20000, 'p');

INSTANTIATE_TEST_SUITE_P(
    Table, MsgInitNlsPath,
    ::testing::Values(NlsCase{nullptr, kDefaultPath}, NlsCase{"", kDefaultPath},
                      NlsCase{"/usr/share/%N", std::string(kDefaultPath) + "/usr/share/%N"},
                      NlsCase{"/x:/opt/kpsrv/nls/msg/%N", "/x:/opt/kpsrv/nls/msg/%N"},
                      NlsCase{kLong.c_str(), std::string(kDefaultPath) + kLong}));

TEST(MsgInit, SecondCallChangesNothingAndPgmPrintfShowsTheName) {
  int status = runInChild([] {
    if (zarmsg_init("prog1", 0) != 1) return 1;
    zar_svc_handle first = zarsv_client_svc_handle;
    if (first == nullptr) return 2;
    if (zarmsg_init("other", 1) != 1 || zarsv_client_svc_handle != first) return 3;
    char* s = zar_pgm_sprintf(0x38C5209C, "open", 2);
    bool ok = s != nullptr && strncmp(s, "prog1:  ", 8) == 0;
    free(s);
    if (!ok) return 4;
    // The first call asked for the local code page, not UTF-8.
    return nlz_cs_same(nlz_get_def_cs(), zarsvc_get_local_code_page()) ? 0 : 5;
  });
  EXPECT_EQ(0, exitCode(status));
}

TEST(MsgInit, Utf8SelectsTheDefaultCodeSet) {
  int status = runInChild(
      [] { return zarmsg_init("u", 1) == 1 && nlz_cs_is_utf8(nlz_get_def_cs()) ? 0 : 1; });
  EXPECT_EQ(0, exitCode(status));
}

TEST(MsgInit, CatalogInitRegistersTableAndComponent) {
  static const zar_msg_entry kEntries[] = {{0x38C5F001, "first %s"}, {0x38C5F002, "second"}};
  static zar_svc_subcomp kTable[] = {{"core", "core", 0x38C5F001, 0}, {nullptr, nullptr, 0, 0}};
  zar_svc_handle handle = nullptr;
  uint32_t st = 1;
  zarmsg_init_catalog("tst", kTable, kEntries, 2, &handle, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_NE(nullptr, handle);
  unsigned long mst = 1;
  EXPECT_STREQ("second", zar_msg_get_default_msg(0x38C5F002, &mst));
}

TEST(MsgInit, Utf8LocaleMessageOfTheCLocaleIsTheCompiledText) {
  int allocated = -1;
  unsigned long st = 1;
  const char* text = zarmsg_get_utf8_locale_msg(0x38C52097, "C", &allocated, &st);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(0, allocated);
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(zar_msg_get_default_msg(0x38C52097, nullptr), text);
  text = zarmsg_get_utf8_locale_msg(0x12345678, "C", &allocated, &st);
  EXPECT_EQ(nullptr, text);
  EXPECT_ZAR_STATUS(0x10652204, st);
  zarmsg_free(nullptr);
  zarmsg_shutdown();
}

}  // namespace
