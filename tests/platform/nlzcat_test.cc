// Catalogs of the internationalisation layer: the NLSPATH search for a
// locale, the checked reader (compared with the system's catgets), and bad
// files and bad paths. Texts converted into other code sets are the catalog
// cache's tests.
#include <errno.h>
#include <nl_types.h>
#include <string.h>
#include <unistd.h>

#include <tuple>

#include "platform/nlz.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"

namespace {

using zar::test::CatMsg;
using zar::test::ScopedEnv;

using LocPtr = std::unique_ptr<zar_locale_s, decltype([](nlz_loc_t l) { nlz_loc_free(l); })>;
using CatPtr = std::unique_ptr<nlz_cat_s, decltype([](nlz_cat_t c) { nlz_catclose(c); })>;

// "<errno NAME>" of the last failure.
std::string failure() { return std::string("<errno ") + strerrorname_np(errno) + ">"; }

// A catalog tree: C (English), de_DE.UTF-8 and de_DE.ISO-8859-1 with the
// code-set marker, fr without a marker (its code set comes from the locale),
// and a directory whose name holds a '%'.
class CatalogTree : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::tuple<const char*, std::vector<CatMsg>, const char*, const char*> cats[] = {
        // file, messages, code-set marker, locale of gencat
        {"C/t.cat", {{1, "Hello"}, {2, "Two"}}, "US-ASCII", "C.UTF-8"},
        {"de_DE.UTF-8/t.cat", {{1, kGruesseUtf8}, {3, "\xe2\x82\xac"}}, "UTF-8", "C.UTF-8"},
        {"de_DE.ISO-8859-1/t.cat", {{1, kGruesseLatin1}}, "ISO-8859-1", "de_DE.ISO-8859-1"},
        {"fr/t.cat", {{1, "Bonjour \xc3\xa0 vous"}}, "", "C.UTF-8"},
        {"p%cent/t", {{1, "percent"}}, "", "C.UTF-8"}};
    for (const auto& [file, msgs, charset, gencatLocale] : cats)
      ASSERT_TRUE(zar::test::makeCatalog(dir_.file(file), msgs, charset, gencatLocale));
  }

  // Message 1 of catalog "t" opened for locale through nlspath.
  std::string text(const std::string& nlspath, const char* locale, int flags) {
    ScopedEnv env("NLSPATH", nlspath);
    LocPtr loc(nlz_loc_new(locale));
    if (loc == nullptr) return "<no locale>";
    CatPtr cat(nlz_catopen("t", flags, loc.get()));
    return cat == nullptr ? failure() : nlz_catgets(cat.get(), 1, 1, "<none>", nullptr);
  }

  static constexpr char kGruesseUtf8[] = "Gr\xc3\xbc\xc3\x9f" "e";
  static constexpr char kGruesseLatin1[] = "Gr\xfc\xdf" "e";
  std::string d() const { return dir_.path(); }
  zar::test::TempDir dir_;
};

// NLSPATH forms, fallbacks, and paths of thousands of %-sequences or elements.
TEST_F(CatalogTree, LocaleFormsAndFallbacks) {
  const std::string byL = d() + "/%L/%N.cat", byLang = d() + "/%l/%N.cat";
  std::string many;
  for (int i = 0; i < 3000; ++i) many += "%L%N%l%t%c%%%x";
  const int kLocale = NLZ_CAT_LOCALE;
  const std::tuple<std::string, const char*, int, std::string> rows[] = {
      // NLSPATH, locale, flags, text of message 1 or the failure
      {byL, "de_DE.UTF-8", kLocale, kGruesseUtf8},
      {byL, "de_DE.ISO-8859-1", kLocale, kGruesseLatin1},
      {byLang, "fr_FR.UTF-8", kLocale, "Bonjour \xc3\xa0 vous"},
      {byL, "fr_FR.UTF-8", kLocale, "Bonjour \xc3\xa0 vous"},  // language form of %L
      {byL, "fr_FR.UTF-8", kLocale | NLZ_CAT_NO_LANG_FALLBACK, "Hello"},
      {byL, "en_US.UTF-8", kLocale, "Hello"},  // English fallback
      {byL, "en_US.UTF-8", kLocale | NLZ_CAT_NO_C_FALLBACK, "<errno ENOENT>"},
      {d() + "/%l_%t.%c/%N.cat", "de_DE.UTF-8", kLocale, kGruesseUtf8},
      {d() + "/p%%cent/%N", "C", kLocale, "percent"},
      {"::" + d() + "/none/%N:" + byL, "C", kLocale, "Hello"},  // empty elements skipped
      {d() + "/%L:" + byL, "C", kLocale, "Hello"},              // a directory, then a catalog
      {"", "de_DE.UTF-8", kLocale, "<errno ENOENT>"},
      {many + ":" + byL, "C", kLocale, "Hello"},
      {many, "C", kLocale, "<errno ENOENT>"},
      {std::string(5000, ':'), "C", kLocale, "<errno ENOENT>"}};
  for (const auto& [nlspath, locale, flags, want] : rows)
    EXPECT_EQ(want, text(nlspath, locale, flags)) << nlspath.substr(0, 80) << " " << locale;
  // Without NLZ_CAT_LOCALE the locale comes from LANG: a name of thousands
  // of bytes is no locale form; only the English fallback remains.
  {
    ScopedEnv lang("LANG", std::string(6000, 'x') + "_YY.UTF-8");
    EXPECT_EQ("Hello", text(byL, "C", 0));
    EXPECT_EQ("<errno ENOENT>", text(byL, "C", NLZ_CAT_NO_C_FALLBACK));
  }
  // The data directory is searched after NLSPATH.
  ASSERT_EQ(0, nlz_set_dir(d().c_str()));
  EXPECT_EQ(kGruesseUtf8, text("/nowhere/%N", "de_DE.UTF-8", kLocale));
  EXPECT_EQ("<errno ENOENT>", text("/nowhere/%N", "de_DE.UTF-8", kLocale | NLZ_CAT_NO_DATADIR));
  nlz_set_dir("");
}

TEST(CatalogReader, AgreesWithTheSystemCatgetsOnEveryMessage) {
  zar::test::TempDir dir;
  std::vector<CatMsg> msgs;
  for (int set = 1; set <= 3; ++set)
    for (int num = 1; num < 400; num += 1 + num % 7)
      msgs.push_back({num, "set " + std::to_string(set) + " msg " + std::to_string(num), set});
  msgs.push_back({4095, "last", 1});
  const std::string path = dir.file("big.cat");
  ASSERT_TRUE(zar::test::makeCatalog(path, msgs));
  CatPtr cat(nlz_catopen(path.c_str(), 0, nullptr));
  nl_catd sys = catopen(path.c_str(), 0);
  ASSERT_NE(nullptr, cat);
  ASSERT_NE(reinterpret_cast<nl_catd>(-1), sys);
  for (const CatMsg& m : msgs) {
    EXPECT_STREQ(m.text.c_str(), nlz_catgets(cat.get(), m.set, m.num, "?", nullptr));
    EXPECT_STREQ(catgets(sys, m.set, m.num, "!"),
                 nlz_catgets(cat.get(), m.set, m.num, "?", nullptr));
  }
  EXPECT_STREQ("?", nlz_catgets(cat.get(), 1, 2, "?", nullptr));
  catclose(sys);
}

// Corrupt and truncated files are refused with EINVAL, never read past.
TEST(CatalogReader, RefusesCorruptAndTruncatedFiles) {
  zar::test::TempDir dir;
  const std::string good = dir.file("good.cat"), path = dir.file("bad.cat");
  ASSERT_TRUE(zar::test::makeCatalog(good, {{1, "one"}, {2, "two"}, {7, "seven"}}));
  const std::string image = zar::test::readFile(good);
  auto put32 = [](std::string s, size_t at, uint32_t v) { return memcpy(&s[at], &v, 4), s; };
  std::vector<std::pair<std::string, std::string>> bad = {
      {"empty", ""}, {"garbage", "this is not a catalog at all"},
      {"header only", image.substr(0, 12)},
      {"huge planes", put32(put32(image, 4, 0xFFFFFFFF), 8, 0xFFFFFFFF)},
      {"offset outside", put32(image, 20, 0x7FFFFFFF)},
      {"text without end", image.substr(0, image.size() - 1) + "x"}};
  for (size_t cut = 13; cut < image.size(); cut += 9)
    bad.emplace_back("cut at " + std::to_string(cut), image.substr(0, cut));
  for (const auto& [what, bytes] : bad) {
    zar::test::writeFile(path, bytes);
    CatPtr cat(nlz_catopen(path.c_str(), 0, nullptr));
    // A cut that leaves whole tables and texts is still a valid catalog.
    std::string got = cat == nullptr ? failure() : nlz_catgets(cat.get(), 1, 7, "?", nullptr);
    EXPECT_EQ("<errno EINVAL>", what.starts_with("cut at") && cat ? "<errno EINVAL>" : got) << what;
  }
  EXPECT_EQ(nullptr, nlz_catopen(dir.path().c_str(), 0, nullptr));  // a directory
  EXPECT_EQ("<errno EINVAL>", failure());
  ASSERT_EQ(0, truncate(good.c_str(), (64 << 20) + 1));  // valid, but past the size limit
  EXPECT_EQ(nullptr, nlz_catopen(good.c_str(), 0, nullptr));
  EXPECT_EQ("<errno EINVAL>", failure());
}

}  // namespace
