// The catalog cache: names, the open-once cache with move-to-front
// replacement, locale lookups with conversion, diagnostics, bad arguments and
// a stress run in which catalogs are evicted while other threads read them.
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "core/svcutl/msgint.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace {

using zar::test::exitCode;
using zar::test::FaultPlan;

// A catalog tree in a temporary directory with one technology-3 catalog per
// component "aa" + letter (16 of them, all in cache row 0), a technology-1
// component served only by its "dce" name, and a technology-4 facility.
class Cache : public ::testing::Test {
 protected:
  static constexpr int kComponents = 16;

  static uint32_t code(int comp, int num) {
    // Components "aaa".."aap": code = letters in base 40.
    return 0x30000000u | (static_cast<uint32_t>(comp) << 12) | static_cast<uint32_t>(num);
  }
  static std::string expected(int comp, int num) {
    return "component " + std::to_string(comp) + " message " + std::to_string(num);
  }

  void SetUp() override {
    const std::string c = dir_.path() + "/C";
    zar::test::makeDirs(c);
    zar::test::makeDirs(dir_.path() + "/de_DE.UTF-8");
    for (int comp = 0; comp < kComponents; ++comp) {
      char name[4];
      zar_msg__inq_comp(code(comp, 0), name);
      std::vector<zar::test::CatMsg> msgs;
      for (int num = 1; num <= 20; ++num) msgs.push_back({num, expected(comp, num)});
      ASSERT_TRUE(zar::test::makeCatalog(c + "/kp" + name + ".cat", msgs, "US-ASCII"));
    }
    ASSERT_TRUE(zar::test::makeCatalog(c + "/dcexyz.cat", {{5, "from the dce name"}}));
    ASSERT_TRUE(zar::test::makeCatalog(dir_.path() + "/de_DE.UTF-8/kpaaa.cat",
                                       {{1, "Gr\xc3\xbc\xc3\x9f" "e"}}, "UTF-8"));
    // Technology 4: catalog "dce%6.6lx.cat" of code >> 14, numbers code & 0x3FFF.
    ASSERT_TRUE(zar::test::makeCatalog(c + "/dce010000.cat", {{1, "the facility"}, {77, "vendor text"}}));
  }

  // Runs fn in a child with NLSPATH on the tree (environment is read once).
  int inChild(const std::function<int()>& fn, bool debug = false) {
    std::string nlspath = dir_.path() + "/%L/%N";
    return exitCode(zar::test::runInChild([&] {
      setenv("NLSPATH", nlspath.c_str(), 1);
      if (debug) setenv("KPSVC_DEBUG_MSG", "", 1);
      return fn();
    }));
  }

  zar::test::TempDir dir_;
};

constexpr int Cache::kComponents;

// Opens counted through the fault-injection seam (counting only).
long opensDuring(const std::function<void()>& fn) {
  FaultPlan count(zar::fault::Op::kOpen, 0);
  fn();
  return count.calls();
}

TEST_F(Cache, SameComponentOpensOnceAndLookupsCopy) {
  EXPECT_EQ(0, inChild([] {
    unsigned long st = 1;
    long first = opensDuring([&] {
      if (zar_msg_get_cat_msg(code(0, 1), &st) == nullptr) st = 99;
    });
    if (st != 0 || first == 0) return 1;
    long second = opensDuring([&] {
      const char* t = zar_msg_get_cat_msg(code(0, 2), &st);
      if (t == nullptr || expected(0, 2) != t) st = 99;
    });
    if (st != 0 || second != 0) return 2;
    if (zar_msg_get_cat_msg(code(0, 21), &st) != nullptr || st != ZAR_S_MSG_NOT_IN_CATALOG)
      return 3;
    zar_msg_cat_handle_t cat = zar_msg_cat_open(code(0, 0), &st);
    st = 7;
    if (cat == nullptr || expected(0, 20) != zar_msg_cat_get_msg(cat, code(0, 20), &st) || st != 7)
      return 4;
    zar_msg_cat_close(cat, &st);
    return st == 0 ? 0 : 5;
  }));
}

TEST_F(Cache, NinthCatalogEvictsTheLeastRecentlyUsed) {
  EXPECT_EQ(0, inChild([] {
    unsigned long st;
    auto use = [&](int comp) {
      zar_msg_cat_handle_t c = zar_msg_cat_open(code(comp, 1), &st);
      zar_msg_cat_close(c, nullptr);
      return c != nullptr;
    };
    for (int comp = 0; comp < 8; ++comp)
      if (!use(comp)) return 1;
    if (opensDuring([&] { use(0); }) != 0) return 2;  // 0 moves to the front
    if (opensDuring([&] { use(8); }) == 0) return 3;  // evicts 1, the oldest now
    if (opensDuring([&] { use(0); }) != 0) return 4;
    if (opensDuring([&] { use(1); }) == 0) return 5;  // was evicted: reopened
    return 0;
  }));
}

TEST_F(Cache, NamesFallbacksLocalesAndConversions) {
  EXPECT_EQ(0, inChild([] {
    unsigned long st;
    // Technology 1: "kpbxyz.cat" is missing, "dcexyz.cat" serves.
    uint32_t xyz = 0x10000000u | (((23u * 1600) + (24u * 40) + 25u) << 12) | 5u;
    const char* t = zar_msg_get_cat_msg(xyz, &st);
    if (t == nullptr || strcmp(t, "from the dce name") != 0) return 1;
    // Two locale names: two entries, each with its own text.
    char* de = zar_msg_get_locale_cat_msg(code(0, 1), "de_DE.UTF-8", nullptr, 4, &st);
    char* c = zar_msg_get_locale_cat_msg(code(0, 1), "C", nullptr, 4, &st);
    bool ok = de != nullptr && c != nullptr && strcmp(de, "Gr\xc3\xbc\xc3\x9f" "e") == 0 &&
              expected(0, 1) == c;
    free(de);
    free(c);
    if (!ok) return 2;
    char* latin1 = zar_msg_get_locale_cat_msg(code(0, 1), "de_DE.UTF-8", "ISO8859-1", 4, &st);
    ok = latin1 != nullptr && strcmp(latin1, "Gr\xfc\xdf" "e") == 0;
    free(latin1);
    if (!ok) return 3;
    // Strict open types find no English fallback for the German locale.
    if (zar_msg_get_locale_cat_msg(code(1, 1), "de_DE.UTF-8", nullptr, 1, &st) != nullptr ||
        st != ZAR_S_MSG_CAT_NOT_FOUND)
      return 4;
    // Vendor technology: text and facility description.
    zar_error_string_t buf;
    int ist;
    zar_error_inq_text(0x40000000u | 77u, buf, &ist);
    if (ist != 0 || strcmp(buf, "vendor text (the facility)") != 0) return 5;
    return 0;
  }));
}

TEST_F(Cache, BadArgumentsGiveStatusCodes) {
  EXPECT_EQ(0, inChild([] {
    struct Row {
      uint32_t code;
      std::string locale;
      const char* cs;
      int type;
      uint32_t want;
    };
    const Row rows[] = {
        {0, "C", nullptr, 4, ZAR_S_OK},
        {code(0, 1), "C", nullptr, 5, ZAR_S_MSG_BAD_OPEN_TYPE},
        {code(0, 1), "C", nullptr, -1, ZAR_S_MSG_BAD_OPEN_TYPE},
        {code(0, 1), "C", "no-such-code-set", 4, ZAR_S_MSG_CAT_OPEN_FAILED},
        {code(0, 1), "xx_NOWHERE", nullptr, 4, ZAR_S_MSG_CAT_NOT_FOUND},
        {code(0, 1), std::string(5000, 'q'), nullptr, 4, ZAR_S_MSG_CAT_NOT_FOUND},
        {0x30FFF001u, "C", nullptr, 4, ZAR_S_MSG_CAT_NOT_FOUND},
        {code(0, 99), "C", nullptr, 4, ZAR_S_MSG_NOT_IN_CATALOG},
    };
    int bad = 0;
    for (const Row& r : rows) {
      unsigned long st = 12345;
      char* t = zar_msg_get_locale_cat_msg(r.code, r.locale.c_str(), r.cs, r.type, &st);
      if (t != nullptr || st != r.want) ++bad;
      free(t);
    }
    {
      FaultPlan plan(zar::fault::Op::kOpen, 1, true, EACCES);
      unsigned long st;
      char* t = zar_msg_get_locale_cat_msg(code(9, 1), "de_DE.UTF-8", nullptr, 4, &st);
      if (t != nullptr || st != ZAR_S_MSG_CAT_NO_PERMISSION) ++bad;
      free(t);
    }
    return bad;
  }));
}

TEST_F(Cache, DebugVariablePrintsThreeLinesPerLookup) {
  std::string errFile = dir_.file("err");
  EXPECT_EQ(0, inChild([&] {
    zar::test::CaptureFd err(2);
    unsigned long st;
    zar_msg_get_cat_msg(code(2, 1), &st);
    zar_msg_get_cat_msg(code(2, 2), &st);  // a cache hit prints too
    zar::test::writeFile(errFile, err.text());
    return 0;
  }, /*debug=*/true));
  std::vector<std::string> lines = zar::test::splitLines(zar::test::readFile(errFile));
  ASSERT_EQ(6u, lines.size());
  EXPECT_EQ("NLSPATH=" + dir_.path() + "/%L/%N", lines[0]);
  EXPECT_EQ(0u, lines[1].rfind("QVNLZDIR=", 0));
  EXPECT_EQ("catopen(kpaac.cat) status = 00000000", lines[2]);
  EXPECT_EQ(lines[2], lines[5]);
}

// Sixteen catalogs in one row of eight, used from four threads: entries are
// evicted and reopened all the time while other threads read their texts.
TEST_F(Cache, TextsNeverDangleWhileOtherThreadsEvict) {
  EXPECT_EQ(0, inChild([] {
    long wrong = zar::test::runConcurrently(4, [](int t) {
      long bad = 0;
      unsigned long st;
      for (int i = 0; i < 150; ++i) {
        int comp = (i * 7 + t * 5) % kComponents;
        int num = 1 + (i + t) % 20;
        zar_msg_cat_handle_t cat = zar_msg_cat_open(code(comp, 0), &st);
        const char* t1 = cat != nullptr ? zar_msg_cat_get_msg(cat, code(comp, num), &st) : nullptr;
        char* t2 = zar_msg_get_msg(code((comp + 3) % kComponents, num), &st);
        char* t3 = zar_msg_get_locale_cat_msg(code((comp + 9) % kComponents, num), "C",
                                              "UTF8", 4, &st);
        // t1 is read after other catalogs were opened by the calls above.
        if (t1 == nullptr || expected(comp, num) != t1) ++bad;
        if (t2 == nullptr || expected((comp + 3) % kComponents, num) != t2) ++bad;
        if (t3 == nullptr || expected((comp + 9) % kComponents, num) != t3) ++bad;
        free(t2);
        free(t3);
        zar_msg_cat_close(cat, &st);
      }
      return bad;
    });
    return wrong == 0 ? 0 : 1;
  }));
}

}  // namespace
