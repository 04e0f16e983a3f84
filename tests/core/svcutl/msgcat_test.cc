// The catalog cache: names, the open-once cache with move-to-front
// replacement, locale lookups with conversion and bad arguments.
#include <stdlib.h>
#include <string.h>

#include <tuple>

#include "core/svcutl/msgint.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace {

using zar::test::FaultPlan;
using zar::test::hexStatus;
using zar::test::withStatus;
using Texts = std::vector<std::string>;

constexpr int kComponents = 16;

// Components "aaa".."aap" of technology 3: all in cache row 0.
uint32_t code(int comp, int num) {
  return 0x30000000u | (static_cast<uint32_t>(comp) << 12) | static_cast<uint32_t>(num);
}
std::string expected(int comp, int num) {
  return "component " + std::to_string(comp) + " message " + std::to_string(num);
}

// Opens counted through the fault-injection seam (counting only).
long opensDuring(const std::function<void()>& fn) {
  FaultPlan count(zar::fault::Op::kOpen, 0);
  fn();
  return count.calls();
}

std::string catMsg(uint32_t c) {
  unsigned long st = 1;
  const char* t = zar_msg_get_cat_msg(c, &st);
  return withStatus(t, st);
}
std::string localeMsg(uint32_t c, const char* locale, const char* cs = nullptr, int type = 4) {
  unsigned long st = 12345;
  char* t = zar_msg_get_locale_cat_msg(c, locale, cs, type, &st);
  std::string s = withStatus(t, st);
  free(t);
  return s;
}

// A catalog tree with one catalog per component (16 in one row), a
// technology-1 component served only by its "dce" name, and a technology-4
// facility; each case runs in a child with NLSPATH on the tree, because the
// message subsystem reads its environment once per process.
class Cache : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string c = dir_.file("C");
    for (int comp = 0; comp < kComponents; ++comp) {
      char name[4];
      zar_msg__inq_comp(code(comp, 0), name);
      std::vector<zar::test::CatMsg> msgs;
      for (int num = 1; num <= 20; ++num) msgs.push_back({num, expected(comp, num)});
      ASSERT_TRUE(zar::test::makeCatalog(c + "/kp" + name + ".cat", msgs, "US-ASCII"));
    }
    ASSERT_TRUE(zar::test::makeCatalog(c + "/dcexyz.cat", {{5, "from the dce name"}}));
    ASSERT_TRUE(zar::test::makeCatalog(dir_.file("de_DE.UTF-8/kpaaa.cat"),
                                       {{1, "Gr\xc3\xbc\xc3\x9f" "e"}}, "UTF-8"));
    // Technology 4: catalog "dce%6.6lx.cat" of code >> 14, numbers code & 0x3FFF.
    ASSERT_TRUE(zar::test::makeCatalog(c + "/dce010000.cat",
                                       {{1, "the facility"}, {77, "vendor text"}}));
  }

  Texts inChild(const std::function<Texts()>& fn) {
    const std::string nlspath = dir_.path() + "/%L/%N";
    return zar::test::childTexts([&] {
      setenv("NLSPATH", nlspath.c_str(), 1);
      return fn();
    });
  }

  zar::test::TempDir dir_;
};

TEST_F(Cache, OpensOnceEvictsTheLeastRecentlyUsedAndCopies) {
  EXPECT_EQ((Texts{expected(0, 1), "1", expected(0, 2), "0",
                   "<null> #" + hexStatus(ZAR_S_MSG_NOT_IN_CATALOG),
                   expected(0, 20) + " #0x00000007",
                   "0", "0", "1", "0", "1"}),
            inChild([] {
              Texts t;
              auto opened = [&](uint32_t c) {  // whether catMsg(c) opened a catalog
                long opens = opensDuring([&] { t.push_back(catMsg(c)); });
                t.push_back(opens > 0 ? "1" : "0");
              };
              opened(code(0, 1));
              opened(code(0, 2));  // the same component: a cache hit
              t.push_back(catMsg(code(0, 21)));
              unsigned long st;
              zar_msg_cat_handle_t cat = zar_msg_cat_open(code(0, 0), &st);
              st = 7;  // left as it was on success
              const char* text = zar_msg_cat_get_msg(cat, code(0, 20), &st);
              t.push_back(withStatus(text, st));
              zar_msg_cat_close(cat, &st);
              t.push_back(withStatus("0", st));
              for (int comp = 1; comp < 8; ++comp) catMsg(code(comp, 1));  // fills the row
              auto use = [&](int comp) {
                t.push_back(opensDuring([&] { catMsg(code(comp, 1)); }) > 0 ? "1" : "0");
              };
              use(0);  // 0 moves to the front
              use(8);  // evicts 1, the oldest now
              use(0);
              use(1);  // was evicted: reopened
              return t;
            }));
}

TEST_F(Cache, NamesFallbacksLocalesAndConversions) {
  // Technology 1: "kpbxyz.cat" is missing, "dcexyz.cat" serves.
  const uint32_t xyz = 0x10000000u | (((23u * 1600) + (24u * 40) + 25u) << 12) | 5u;
  zar_error_string_t buf;
  EXPECT_EQ((Texts{"from the dce name", "Gr\xc3\xbc\xc3\x9f" "e", expected(0, 1), "Gr\xfc\xdf" "e",
                   "<null> #" + hexStatus(ZAR_S_MSG_CAT_NOT_FOUND), "vendor text (the facility)"}),
            inChild([&] {
              Texts t = {catMsg(xyz), localeMsg(code(0, 1), "de_DE.UTF-8"),  // two locales,
                         localeMsg(code(0, 1), "C"),                         // two entries
                         localeMsg(code(0, 1), "de_DE.UTF-8", "ISO8859-1"),
                         // Strict open types find no English fallback for German.
                         localeMsg(code(1, 1), "de_DE.UTF-8", nullptr, 1)};
              int st = 1;
              zar_error_inq_text(0x40000000u | 77u, buf, &st);  // vendor technology
              return t.push_back(withStatus(buf, static_cast<unsigned long>(st))), t;
            }));
}

TEST_F(Cache, BadArgumentsGiveStatusCodes) {
  static const std::string kHugeLocale(5000, 'q');
  const uint32_t kNotFound = ZAR_S_MSG_CAT_NOT_FOUND, kNotIn = ZAR_S_MSG_NOT_IN_CATALOG;

  const std::tuple<uint32_t, const char*, const char*, int, uint32_t> rows[] = {
      // code, locale, code set, open type, status
      {0, "C", nullptr, 4, ZAR_S_OK}, {code(0, 1), "C", nullptr, 5, ZAR_S_MSG_BAD_OPEN_TYPE},
      {code(0, 1), "C", nullptr, -1, ZAR_S_MSG_BAD_OPEN_TYPE},
      {code(0, 1), "C", "no-such-code-set", 4, ZAR_S_MSG_CAT_OPEN_FAILED},
      {code(0, 1), "xx_NOWHERE", nullptr, 4, kNotFound},
      {code(0, 1), kHugeLocale.c_str(), nullptr, 4, kNotFound},
      {0x30FFF001u, "C", nullptr, 4, kNotFound}, {code(0, 99), "C", nullptr, 4, kNotIn},
      {code(9, 1), "de_DE.UTF-8", nullptr, 4, ZAR_S_MSG_CAT_NO_PERMISSION}};
  Texts want;
  for (const auto& r : rows) want.push_back(withStatus(nullptr, std::get<4>(r)));
  EXPECT_EQ(want, inChild([&] {
              Texts t;
              for (const auto& [code, locale, cs, type, status] : rows) {
                // The last row's catalog cannot be read.
                FaultPlan plan(zar::fault::Op::kOpen, status == ZAR_S_MSG_CAT_NO_PERMISSION, true,
                               EACCES);
                t.push_back(localeMsg(code, locale, cs, type));
              }
              return t;
            }));
}

// Sixteen catalogs in one row of eight, used from four threads: entries are
// evicted and reopened all the time while other threads read their texts.
TEST_F(Cache, TextsNeverDangleWhileOtherThreadsEvict) {
  EXPECT_EQ(Texts{"0"}, inChild([] {
              long wrong = zar::test::runConcurrently(4, [](int t) {
                long bad = 0;
                unsigned long st;
                for (int i = 0; i < 150; ++i) {
                  int comp = (i * 7 + t * 5) % kComponents, num = 1 + (i + t) % 20;
                  int comp2 = (comp + 3) % kComponents, comp3 = (comp + 9) % kComponents;
                  zar_msg_cat_handle_t cat = zar_msg_cat_open(code(comp, 0), &st);
                  const char* t1 = cat ? zar_msg_cat_get_msg(cat, code(comp, num), &st) : nullptr;
                  char* t2 = zar_msg_get_msg(code(comp2, num), &st);
                  char* t3 = zar_msg_get_locale_cat_msg(code(comp3, num), "C", "UTF8", 4, &st);
                  // t1 is read after other catalogs were opened by the calls above.
                  bad += withStatus(t1, 0) != expected(comp, num);
                  bad += withStatus(t2, 0) != expected(comp2, num);
                  bad += withStatus(t3, 0) != expected(comp3, num);
                  free(t2);
                  free(t3);
                  zar_msg_cat_close(cat, &st);
                }
                return bad;
              });
              return Texts{std::to_string(wrong)};
            }));
}

}  // namespace
