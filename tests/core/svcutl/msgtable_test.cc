// Status-code layout, compiled and registered tables, texts of status codes
// from the built catalogs and the tables, and error texts.
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>

#include "core/svcutl/msgint.h"
#include "platform/nlz.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace {

using zar::test::exitCode;
using zar::test::ScopedEnv;

std::string catalogPath() { return zar::test::buildDir() + "/nls/msg/%L/%N"; }

// Runs fn in a child whose environment is set first (the message subsystem
// reads it once per process); the child's result is fn's.
int inChild(const char* nlspath, const char* locale, const char* noxpgcat,
            const std::function<int()>& fn) {
  return exitCode(zar::test::runInChild([&] {
    if (nlspath != nullptr) setenv("NLSPATH", nlspath, 1);
    else unsetenv("NLSPATH");
    if (noxpgcat != nullptr) setenv("SVC_NOXPGCAT", noxpgcat, 1);
    if (locale != nullptr && setlocale(LC_ALL, locale) == nullptr) return 100;
    return fn();
  }));
}

std::string take(char* text) {
  std::string s = text != nullptr ? text : "<null>";
  free(text);
  return s;
}

struct LayoutCase {
  uint32_t code;
  const char* tech;
  const char* comp;
};

class Layout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(Layout, TagAndComponent) {
  char tech[4];
  char comp[4];
  zar_msg__inq_tech(GetParam().code, tech);
  zar_msg__inq_comp(GetParam().code, comp);
  EXPECT_STREQ(GetParam().tech, tech);
  EXPECT_STREQ(GetParam().comp, comp);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Layout,
    ::testing::Values(LayoutCase{0x38C52096, "kp", "wsc"}, LayoutCase{0x38C53137, "kp", "wsd"},
                      LayoutCase{0x38C58096, "kp", "wsi"}, LayoutCase{0x10652203, "dce", "bas"},
                      LayoutCase{0x1354A1C8, "dce", "ivc"}, LayoutCase{0x16C9A088, "dce", "rpc"},
                      LayoutCase{0x1460101E, "dce", "lib"}, LayoutCase{0x20000000, "dfs", "aaa"},
                      LayoutCase{0x60000000, "???", "aaa"}, LayoutCase{0x40000000, "", "aaa"},
                      LayoutCase{0x3FA00000, "kp", ""},       // component 64000: empty name
                      LayoutCase{0xFFFFFFFF, "???", ""}));

TEST(CompiledTables, HaveTheirCountsAndAreSortedByCode) {
  const struct {
    const zar_msg_entry* table;
    uint32_t count, lowest, highest;
  } rows[] = {{zarsv_client_svc_g_table, 114, 0x38C52096, 0x38C52FD4},
              {zarsv_deploy_svc_g_table, 864, 0x38C53096, 0x38C53FD7},
              {zarsv_if_svc_g_table, 100, 0x38C58096, 0x38C58FD3}};
  for (int i = 0; i < 3; ++i) {
    const zar_msg_table& t = zar_msg_g_compiled_table[i];
    EXPECT_EQ(rows[i].table, t.entries);
    EXPECT_EQ(rows[i].count, t.count);
    EXPECT_EQ(rows[i].lowest, t.lowest);
    EXPECT_EQ(rows[i].highest, t.highest);
    for (uint32_t k = 0; k < t.count; ++k) {
      ASSERT_NE(nullptr, t.entries[k].text);
      if (k > 0) {
        EXPECT_LT(t.entries[k - 1].code, t.entries[k].code);
      }
      unsigned long st = 1;
      EXPECT_EQ(t.entries[k].text, zar_msg_get_default_msg(t.entries[k].code, &st));
      EXPECT_ZAR_OK(st);
    }
  }
}

TEST(DefaultLookup, KnownTextsAndMisses) {
  unsigned long st = 0;
  EXPECT_STREQ(zarsv_client_svc_g_table[1].text, zar_msg_get_default_msg(0x38C52097, &st));
  EXPECT_STREQ("XKJSC0151E   Memory could not be allocated.", zar_msg_get_default_msg(0x38C52097, &st));
  EXPECT_STREQ("kpsrv.core", zar_msg_get_default_msg(0x38C52FD2, &st));
  EXPECT_STREQ("Trace Level: %d", zar_msg_get_default_msg(ZAR_S_TRACE_LEVEL_TEXT, &st));
  EXPECT_STREQ("XKJSD0311E   A command line option was not of the correct format.",
               zar_msg_get_default_msg(ZAR_S_CMDLINE_BAD_OPTION, &st));
  EXPECT_EQ(nullptr, zar_msg_get_default_msg(0x38C52095, &st));
  EXPECT_ZAR_STATUS(ZAR_S_MSG_NOT_IN_TABLES, st);
  EXPECT_EQ(nullptr, zar_msg_get_default_msg(0, &st));  // looks up 0x10652209
  EXPECT_ZAR_STATUS(ZAR_S_MSG_NOT_IN_TABLES, st);
  EXPECT_EQ(nullptr, zar_msg_get_default_msg(ZAR_S_MSG_NO_MEMORY, &st));  // catalog only
}

TEST(DefineTable, LaterTablesComeBehindAndEmptyOnesNeverMatch) {
  static const zar_msg_entry mine[] = {{0x38C52097, "shadowed"}, {0x7A000003, "three"},
                                       {0x7A000001, "one"}};
  unsigned long st = 1;
  {
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
    zar_msg_define_msg_table(mine, 3, &st);
    EXPECT_ZAR_STATUS(ZAR_S_MSG_NO_MEMORY, st);
  }
  EXPECT_EQ(nullptr, zar_msg_get_default_msg(0x7A000001, &st));
  zar_msg_define_msg_table(mine, 0, &st);
  ASSERT_ZAR_OK(st);
  zar_msg_define_msg_table(mine, 3, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_STREQ("one", zar_msg_get_default_msg(0x7A000001, &st));
  EXPECT_STREQ("three", zar_msg_get_default_msg(0x7A000003, &st));
  EXPECT_EQ(nullptr, zar_msg_get_default_msg(0x7A000002, &st));  // in range, absent
  EXPECT_STREQ("XKJSC0151E   Memory could not be allocated.",
               zar_msg_get_default_msg(0x38C52097, &st));  // the compiled table wins
  EXPECT_STREQ("kpsrv.core", zar_msg_get_default_msg(0x38C52FD2, &st));
}

// ---- Texts of codes, with and without catalogs ------------------------------------

TEST(GetMsg, WithoutCatalogsTablesThenUnknownText) {
  EXPECT_EQ(0, inChild("/nowhere/%N", "C", nullptr, [] {
    unsigned long st = 1;
    if (take(zar_msg_get_msg(0x38C52096, &st)) !=
            "XKJSC0150E   An SSL toolkit failure occurred while calling %s. Error: %s." || st != 0)
      return 1;
    if (take(zar_msg_get_msg(0x12345678, &st)) != "Unknown message number 0x12345678" ||
        st != ZAR_S_MSG_NOT_IN_TABLES)
      return 2;
    if (take(zar_msg_get_msg(0, &st)) != "Unknown message number 0x00000000") return 3;
    {
      zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
      if (zar_msg_get_msg(0x38C52097, &st) != nullptr || st != ZAR_S_MSG_NO_MEMORY) return 4;
    }
    return 0;
  }));
}

TEST(GetMsg, CatalogTextsInTheLocalesCodeSet) {
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "de_DE.ISO-8859-1", nullptr, [] {
    unsigned long st = 1;
    if (take(zar_msg_get_msg(0x38C52097, &st)) !=
        "XKJSC0151E   Es konnte kein Speicher zugeordnet werden.")
      return 1;
    // "ausgeführt": latin1 in the locale's code set, UTF-8 through the _utf8 form.
    if (take(zar_msg_get_msg(0, &st)) != "Die Operation wurde erfolgreich ausgef\xfchrt." || st)
      return 2;
    if (take(zar_msg_get_msg_utf8(0, &st)) != "Die Operation wurde erfolgreich ausgef\xc3\xbchrt.")
      return 3;
    return 0;
  }));
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "C", nullptr, [] {
    unsigned long st = 1;
    std::string t = take(zar_msg_get_msg(ZAR_S_MSG_NO_MEMORY, &st));
    return t == "Memory could not be allocated for a message text or a message table." && st == 0
               ? 0 : 1;
  }));
}

TEST(GetMsg, NoXpgCatUsesTheCompiledTextButNotForUtf8) {
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "de_DE.UTF-8", "1", [] {
    unsigned long st = 1;
    if (take(zar_msg_get_msg(0x38C52097, &st)) != "XKJSC0151E   Memory could not be allocated.")
      return 1;
    if (take(zar_msg_get_msg_utf8(0x38C52097, &st)) !=
        "XKJSC0151E   Es konnte kein Speicher zugeordnet werden.")
      return 2;
    return 0;
  }));
}

TEST(ErrorText, FormsWithAndWithoutText) {
  EXPECT_EQ(0, inChild("/nowhere/%N", "C", nullptr, [] {
    zar_error_string_t buf;
    int st = 5;
    zar_error_inq_text(0x38C52097, buf, &st);
    if (std::string(buf) != "XKJSC0151E   Memory could not be allocated. (kp / wsc)" || st != 0)
      return 1;
    zar_error_inq_text(0, buf, &st);
    if (std::string(buf) != "status 0x10652209 (dce / bas)" || st != -1) return 2;
    zar_error_inq_text_utf8(0, buf, &st);
    if (std::string(buf) != "status 0x10652209 (kp / bas)" || st != -1) return 3;
    zar_error_inq_text(0x40001234, buf, &st);  // vendor technology, no catalog
    if (std::string(buf) != "status 0x40001234" || st != -1) return 4;
    zar_error_inq_text(0x38C52097, buf, nullptr);  // status not wanted
    return 0;
  }));
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "C", nullptr, [] {
    zar_error_string_t buf;
    int st = 5;
    zar_error_inq_text(ZAR_S_SVC_DYN_ROUTE_LOCK, buf, &st);
    if (st != 0 || std::string(buf).find(" (dce / ivc)") == std::string::npos) return 1;
    zar_error_inq_text_utf8(ZAR_S_UUID_NO_MEMORY, buf, &st);
    if (st != 0 || std::string(buf).find(" (kp / rpc)") == std::string::npos) return 2;
    return 0;
  }));
}

// Every status code the library returns has a text once the catalogs are there.
TEST(ErrorText, EveryLibraryStatusCodeHasAText) {
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "C", nullptr, [] {
    const uint32_t codes[] = {
        0, ZAR_S_SVC_NO_MEMORY, ZAR_S_SVC_BAD_ROUTE, ZAR_S_SVC_ROUTE_OPEN_FAILED,
        ZAR_S_SVC_NO_SUCH_CALLBACKS, ZAR_S_MSG_BAD_OPEN_TYPE, ZAR_S_MSG_NO_MEMORY,
        ZAR_S_MSG_NOT_IN_TABLES, ZAR_S_MSG_NOT_IN_CATALOG, ZAR_S_MSG_CAT_OPEN_FAILED,
        ZAR_S_MSG_CAT_NO_PERMISSION, ZAR_S_MSG_CAT_NOT_FOUND, ZAR_S_MSG_SUCCESS_TEXT,
        ZAR_S_SVC_BAD_MSGSAVE_ARGS, ZAR_S_SVC_DYN_ROUTE_LOCK, ZAR_S_UUID_BAD_VARIANT,
        ZAR_S_UUID_NO_ADDRESS, ZAR_S_UUID_BAD_TEXT, ZAR_S_UUID_NO_MEMORY,
        ZAR_S_UUID_ADDR_FILE_MISSING, ZAR_S_UUID_ADDR_FILE_BAD};
    int missing = 0;
    for (uint32_t c : codes) {
      zar_error_string_t buf;
      int st = 0;
      zar_error_inq_text(c, buf, &st);
      if (st != 0) {
        fprintf(stderr, "no text: %s\n", buf);
        ++missing;
      }
    }
    for (const zar_msg_table& table : zar_msg_g_compiled_table) {
      const zar_msg_entry* t = table.entries;
      unsigned long st = 0;
      zar_msg_cat_handle_t cat = zar_msg_cat_open(t[0].code, &st);
      if (cat == nullptr) return 2;
      for (uint32_t k = 0; k < table.count; ++k)
        if (zar_msg_cat_get_msg(cat, t[k].code, &st) == nullptr ||
            strcmp(zar_msg_cat_get_msg(cat, t[k].code, &st), t[k].text) != 0)
          ++missing;
      zar_msg_cat_close(cat, &st);
    }
    return missing == 0 ? 0 : 1;
  }));
}

// Any 32-bit code gives a terminated text; long texts are cut whole characters.
TEST(ErrorText, AnyCodeAndLongTextsStayInBounds) {
  EXPECT_EQ(0, inChild(catalogPath().c_str(), "de_DE.UTF-8", nullptr, [] {
    static std::string longText;
    for (int i = 0; i < 700; ++i) longText += "\xc3\xa4";  // 1400 bytes of "ä"
    static const zar_msg_entry table[] = {{0x7B000001, longText.c_str()}};
    unsigned long mst;
    zar_msg_define_msg_table(table, 1, &mst);
    zar_error_string_t buf;
    int st;
    zar_error_inq_text(0x7B000001, buf, &st);
    size_t len = strlen(buf);
    if (st != 0 || len > 1023 || len < 1020 || len % 2 != 0) return 1;
    nlz_cs_t u = nlz_cs_new("UTF-8");
    char out[2048];
    if (nlz_to_utf8(u, buf, static_cast<int>(len), out, sizeof out) < 0) return 2;
    nlz_cs_free(u);
    std::mt19937 rng(42);
    for (int i = 0; i < 3000; ++i) {
      uint32_t code = rng();
      if (i < 16) code = (static_cast<uint32_t>(i) << 28) | 0x0FA00FFF;
      memset(buf, 'Z', sizeof buf);
      zar_error_inq_text(code, buf, &st);
      if (memchr(buf, '\0', sizeof buf) == nullptr) return 3;
      zar_error_inq_text_utf8(code, buf, &st);
      if (memchr(buf, '\0', sizeof buf) == nullptr) return 4;
    }
    return 0;
  }));
}

}  // namespace
