// Message initialisation: NLSPATH, the program name, the product's
// components, the default code set, one-table catalogs and UTF-8 lookups in
// a named locale. zarmsg_init changes the whole process, so its cases run in
// children.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "platform/nlz.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"
#include "zar/msginit.h"
#include "zar/msgprintf.h"

namespace {

using zar::test::childTexts;
using Texts = std::vector<std::string>;

TEST(MsgInit, PutsTheCatalogDirectoryInFrontOfNlspath) {
  const std::string kDefault = "/opt/kpsrv/nls/msg//%L/%N:/opt/kpsrv/nls/msg//%L/%N.cat:";
  const std::string kLong(20000, 'p');
  const std::pair<const char*, std::string> rows[] = {  // before (null: unset), after
      {nullptr, kDefault},
      {"", kDefault},
      {"/usr/share/%N", kDefault + "/usr/share/%N"},
      {"/x:/opt/kpsrv/nls/msg/%N", "/x:/opt/kpsrv/nls/msg/%N"},
      {kLong.c_str(), kDefault + kLong}};
  for (const auto& [before, after] : rows) {
    EXPECT_EQ((Texts{"1", after}), childTexts([before = before] {
                before != nullptr ? setenv("NLSPATH", before, 1) : unsetenv("NLSPATH");
                int rc = zarmsg_init("nlstest", 0);
                const char* now = getenv("NLSPATH");
                return Texts{std::to_string(rc), now != nullptr ? now : "<unset>"};
              }));
  }
}

TEST(MsgInit, SecondCallChangesNothingAndTheCodeSetFollowsTheFlag) {
  EXPECT_EQ((Texts{"1", "1", "yes", "prog1:  ", "yes"}), childTexts([] {
              Texts t = {std::to_string(zarmsg_init("prog1", 0))};
              zar_svc_handle first = zarsv_client_svc_handle;
              t.push_back(std::to_string(zarmsg_init("other", 1)));
              t.push_back(first != nullptr && zarsv_client_svc_handle == first ? "yes" : "no");
              char* s = zar_pgm_sprintf(0x38C5209C, "open", 2);
              t.push_back(s != nullptr ? std::string(s, strnlen(s, 8)) : "<null>");
              free(s);
              // The first call asked for the local code page, not UTF-8.
              bool local = nlz_cs_same(nlz_get_def_cs(), zarsvc_get_local_code_page());
              return t.push_back(local ? "yes" : "no"), t;
            }));
  EXPECT_EQ((Texts{"1", "1"}), childTexts([] {
              return Texts{std::to_string(zarmsg_init("u", 1)),
                           std::to_string(nlz_cs_is_utf8(nlz_get_def_cs()))};
            }));
}

TEST(MsgInit, CatalogInitAndUtf8LocaleMessages) {
  static const zar_msg_entry kEntries[] = {{0x38C5F001, "first %s"}, {0x38C5F002, "second"}};
  static zar_svc_subcomp kTable[] = {{"core", "core", 0x38C5F001, 0}, {nullptr, nullptr, 0, 0}};
  zar_svc_handle handle = nullptr;
  uint32_t st = 1;
  zarmsg_init_catalog("tst", kTable, kEntries, 2, &handle, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_NE(nullptr, handle);
  unsigned long mst = 1;
  EXPECT_STREQ("second", zar_msg_get_default_msg(0x38C5F002, &mst));
  // For the C locale the compiled text itself, not a copy.
  int allocated = -1;
  const char* text = zarmsg_get_utf8_locale_msg(0x38C52097, "C", &allocated, &mst);
  EXPECT_EQ(zar_msg_get_default_msg(0x38C52097, nullptr), text);
  EXPECT_EQ(0, allocated);
  EXPECT_ZAR_OK(mst);
  EXPECT_EQ(nullptr, zarmsg_get_utf8_locale_msg(0x12345678, "C", &allocated, &mst));
  EXPECT_ZAR_STATUS(0x10652204, mst);
  zarmsg_free(nullptr);
  zarmsg_shutdown();
}

}  // namespace
