// Catalogs of the internationalisation layer: the NLSPATH search for a
// locale, the checked reader (compared with the system's catgets), code-set
// conversion of texts, and bad files and bad paths.
#include <errno.h>
#include <nl_types.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "platform/nlz.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"

namespace {

using zar::test::CatMsg;
using zar::test::FaultPlan;
using zar::test::ScopedEnv;

struct LocDeleter {
  void operator()(zar_locale_s* l) const { nlz_loc_free(l); }
};
using LocPtr = std::unique_ptr<zar_locale_s, LocDeleter>;
struct CatDeleter {
  void operator()(nlz_cat_s* c) const { nlz_catclose(c); }
};
using CatPtr = std::unique_ptr<nlz_cat_s, CatDeleter>;

// A catalog tree: C (English), de_DE.UTF-8 and de_DE.ISO-8859-1 with the
// code-set marker, fr without a marker (its code set comes from the locale),
// and a directory whose name holds a '%'.
class CatalogTree : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string d = dir_.path();
    zar::test::makeDirs(d + "/C");
    zar::test::makeDirs(d + "/de_DE.UTF-8");
    zar::test::makeDirs(d + "/de_DE.ISO-8859-1");
    zar::test::makeDirs(d + "/fr");
    zar::test::makeDirs(d + "/p%cent");
    ASSERT_TRUE(zar::test::makeCatalog(d + "/C/t.cat", {{1, "Hello"}, {2, "Two"}}, "US-ASCII"));
    ASSERT_TRUE(zar::test::makeCatalog(d + "/de_DE.UTF-8/t.cat",
                                       {{1, "Gr\xc3\xbc\xc3\x9f" "e"}, {3, "\xe2\x82\xac"}}, "UTF-8"));
    ASSERT_TRUE(zar::test::makeCatalog(d + "/de_DE.ISO-8859-1/t.cat", {{1, "Gr\xfc\xdf" "e"}},
                                       "ISO-8859-1", "de_DE.ISO-8859-1"));
    ASSERT_TRUE(zar::test::makeCatalog(d + "/fr/t.cat", {{1, "Bonjour \xc3\xa0 vous"}}));
    ASSERT_TRUE(zar::test::makeCatalog(d + "/p%cent/t", {{1, "percent"}}));
  }

  std::string text(const char* nlspath, const char* locale, int flags, int num = 1) {
    ScopedEnv env("NLSPATH", std::string(nlspath));
    LocPtr loc(nlz_loc_new(locale));
    if (loc == nullptr) return "<no locale>";
    CatPtr cat(nlz_catopen("t", flags, loc.get()));
    if (cat == nullptr) return "<errno " + std::to_string(errno) + ">";
    return nlz_catgets(cat.get(), 1, num, "<none>", nullptr);
  }

  std::string d() const { return dir_.path(); }
  zar::test::TempDir dir_;
};

TEST_F(CatalogTree, LocaleFormsAndFallbacks) {
  const std::string byL = d() + "/%L/%N.cat";
  const std::string byLang = d() + "/%l/%N.cat";
  struct Row {
    std::string nlspath;
    const char* locale;
    int flags;
    std::string want;
  };
  const Row rows[] = {
      {byL, "de_DE.UTF-8", NLZ_CAT_LOCALE, "Gr\xc3\xbc\xc3\x9f" "e"},
      {byL, "de_DE.ISO-8859-1", NLZ_CAT_LOCALE, "Gr\xfc\xdf" "e"},
      {byLang, "fr_FR.UTF-8", NLZ_CAT_LOCALE, "Bonjour \xc3\xa0 vous"},
      {byL, "fr_FR.UTF-8", NLZ_CAT_LOCALE, "Bonjour \xc3\xa0 vous"},  // language form of %L
      {byL, "fr_FR.UTF-8", NLZ_CAT_LOCALE | NLZ_CAT_NO_LANG_FALLBACK, "Hello"},
      {byL, "en_US.UTF-8", NLZ_CAT_LOCALE, "Hello"},                   // English fallback
      {byL, "en_US.UTF-8", NLZ_CAT_LOCALE | NLZ_CAT_NO_C_FALLBACK, "<errno 2>"},
      {d() + "/%l_%t.%c/%N.cat", "de_DE.UTF-8", NLZ_CAT_LOCALE, "Gr\xc3\xbc\xc3\x9f" "e"},
      {d() + "/p%%cent/%N", "C", NLZ_CAT_LOCALE, "percent"},
      {"::" + d() + "/none/%N:" + byL, "C", NLZ_CAT_LOCALE, "Hello"},  // empty elements skipped
      {"", "de_DE.UTF-8", NLZ_CAT_LOCALE, "<errno 2>"},
  };
  for (const Row& r : rows)
    EXPECT_EQ(r.want, text(r.nlspath.c_str(), r.locale, r.flags)) << r.nlspath << " " << r.locale;
}

TEST_F(CatalogTree, DataDirectoryIsSearchedAfterNlspath) {
  ASSERT_EQ(0, nlz_set_dir(d().c_str()));
  EXPECT_EQ("Gr\xc3\xbc\xc3\x9f" "e", text("/nowhere/%N", "de_DE.UTF-8", NLZ_CAT_LOCALE));
  EXPECT_EQ("<errno 2>",
            text("/nowhere/%N", "de_DE.UTF-8", NLZ_CAT_LOCALE | NLZ_CAT_NO_DATADIR));
  nlz_set_dir("");
}

TEST_F(CatalogTree, TextsAreConvertedIntoTheRequestedCodeSet) {
  ScopedEnv env("NLSPATH", d() + "/%L/%N.cat");
  LocPtr loc(nlz_loc_new("de_DE.UTF-8"));
  CatPtr cat(nlz_catopen("t", NLZ_CAT_LOCALE, loc.get()));
  ASSERT_NE(nullptr, cat);
  EXPECT_STREQ("UTF-8", nlz_cat_cs_name(cat.get()));
  nlz_cs_t latin1 = nlz_cs_new("ISO-8859-1");
  nlz_cs_t utf8 = nlz_cs_new("UTF8");
  const char* a = nlz_catgets(cat.get(), 1, 1, "?", latin1);
  EXPECT_STREQ("Gr\xfc\xdf" "e", a);
  EXPECT_EQ(a, nlz_catgets(cat.get(), 1, 1, "?", latin1));  // kept, same text
  EXPECT_STREQ("Gr\xc3\xbc\xc3\x9f" "e", nlz_catgets(cat.get(), 1, 1, "?", utf8));
  EXPECT_STREQ("?", nlz_catgets(cat.get(), 1, 3, "?", latin1));  // euro: not in latin1
  EXPECT_STREQ("?", nlz_catgets(cat.get(), 1, 99, "?", nullptr));
  EXPECT_STREQ("?", nlz_catgets(cat.get(), 2, 1, "?", nullptr));
  nlz_cs_free(latin1);
  nlz_cs_free(utf8);
  // Without a marker the code set is the one of the locale it was opened for.
  LocPtr fr(nlz_loc_new("fr_FR.UTF-8"));
  ScopedEnv env2("NLSPATH", d() + "/%l/%N.cat");
  CatPtr frCat(nlz_catopen("t", NLZ_CAT_LOCALE, fr.get()));
  ASSERT_NE(nullptr, frCat);
  EXPECT_STREQ("UTF-8", nlz_cat_cs_name(frCat.get()));
}

TEST(CatalogReader, AgreesWithTheSystemCatgetsOnEveryMessage) {
  zar::test::TempDir dir;
  std::vector<CatMsg> msgs;
  for (int set = 1; set <= 3; ++set)
    for (int num = 1; num < 400; num += 1 + num % 7)
      msgs.push_back({num, "set " + std::to_string(set) + " msg " + std::to_string(num), set});
  msgs.push_back({4095, "last", 1});
  std::string path = dir.file("big.cat");
  ASSERT_TRUE(zar::test::makeCatalog(path, msgs));
  CatPtr cat(nlz_catopen(path.c_str(), 0, nullptr));
  ASSERT_NE(nullptr, cat);
  nl_catd sys = catopen(path.c_str(), 0);
  ASSERT_NE(reinterpret_cast<nl_catd>(-1), sys);
  for (const CatMsg& m : msgs) {
    EXPECT_STREQ(m.text.c_str(), nlz_catgets(cat.get(), m.set, m.num, "?", nullptr));
    EXPECT_STREQ(catgets(sys, m.set, m.num, "!"), nlz_catgets(cat.get(), m.set, m.num, "?", nullptr));
  }
  EXPECT_STREQ("?", nlz_catgets(cat.get(), 1, 2, "?", nullptr));
  catclose(sys);
}

// Corrupt and truncated files are refused with EINVAL, never read past.
TEST(CatalogReader, RefusesCorruptAndTruncatedFiles) {
  zar::test::TempDir dir;
  std::string good = dir.file("good.cat");
  ASSERT_TRUE(zar::test::makeCatalog(good, {{1, "one"}, {2, "two"}, {7, "seven"}}));
  const std::string image = zar::test::readFile(good);
  auto put32 = [](std::string s, size_t at, uint32_t v) {
    memcpy(&s[at], &v, 4);
    return s;
  };
  std::vector<std::pair<std::string, std::string>> bad = {
      {"empty", ""},
      {"garbage", "this is not a catalog at all"},
      {"header only", image.substr(0, 12)},
      {"huge planes", put32(put32(image, 4, 0xFFFFFFFF), 8, 0xFFFFFFFF)},
      {"offset outside", put32(image, 20, 0x7FFFFFFF)},
      {"text without end", image.substr(0, image.size() - 1) + "x"},
  };
  for (size_t cut = 13; cut < image.size(); cut += 9)
    bad.emplace_back("cut at " + std::to_string(cut), image.substr(0, cut));
  for (const auto& [what, bytes] : bad) {
    std::string path = dir.file("bad.cat");
    zar::test::writeFile(path, bytes);
    errno = 0;
    nlz_cat_t cat = nlz_catopen(path.c_str(), 0, nullptr);
    if (cat != nullptr) {
      // A cut that leaves whole tables and texts is still a valid catalog.
      EXPECT_TRUE(what.rfind("cut at", 0) == 0) << what;
      nlz_catgets(cat, 1, 7, "?", nullptr);
      nlz_catclose(cat);
      continue;
    }
    EXPECT_EQ(EINVAL, errno) << what;
  }
  EXPECT_EQ(nullptr, nlz_catopen(dir.path().c_str(), 0, nullptr));  // a directory
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(CatalogTree, UnreadableEntriesAreSkippedAndReported) {
  // An element naming a directory, then a good one.
  EXPECT_EQ("Hello", text((d() + "/%L:" + d() + "/%L/%N.cat").c_str(), "C", NLZ_CAT_LOCALE));
  ScopedEnv env("NLSPATH", d() + "/%L/%N.cat");
  LocPtr loc(nlz_loc_new("C"));
  {
    FaultPlan plan(zar::fault::Op::kOpen, 1, true, EACCES);
    EXPECT_EQ(nullptr, nlz_catopen("t", NLZ_CAT_LOCALE, loc.get()));
    EXPECT_EQ(EACCES, errno);
  }
  {
    FaultPlan plan(zar::fault::Op::kRead, 1, true, EIO);
    EXPECT_EQ(nullptr, nlz_catopen("t", NLZ_CAT_LOCALE, loc.get()));
    EXPECT_EQ(EINVAL, errno);
  }
  {
    FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
    EXPECT_EQ(nullptr, nlz_catopen("t", NLZ_CAT_LOCALE, loc.get()));
    EXPECT_EQ(ENOMEM, errno);
  }
  CatPtr cat(nlz_catopen("t", NLZ_CAT_LOCALE, loc.get()));
  EXPECT_NE(nullptr, cat);
}

TEST_F(CatalogTree, HugePathsAndLocaleNamesFailCleanly) {
  std::string many;
  for (int i = 0; i < 3000; ++i) many += "%L%N%l%t%c%%%x";
  EXPECT_EQ("Hello", text((many + ":" + d() + "/%L/%N.cat").c_str(), "C", NLZ_CAT_LOCALE));
  EXPECT_EQ("<errno 2>", text(many.c_str(), "C", NLZ_CAT_LOCALE));
  std::string colons(5000, ':');
  EXPECT_EQ("<errno 2>", text(colons.c_str(), "C", NLZ_CAT_LOCALE));
  // Without NLZ_CAT_LOCALE the locale comes from LANG: a name of thousands
  // of bytes is no locale form; only the English fallback remains.
  ScopedEnv lang("LANG", std::string(6000, 'x') + "_YY.UTF-8");
  EXPECT_EQ("Hello", text((d() + "/%L/%N.cat").c_str(), "C", 0));
  EXPECT_EQ("<errno 2>", text((d() + "/%L/%N.cat").c_str(), "C", NLZ_CAT_NO_C_FALLBACK));
}

TEST(CatalogReader, BadArguments) {
  EXPECT_EQ(nullptr, nlz_catopen(nullptr, 0, nullptr));
  EXPECT_EQ(nullptr, nlz_catopen("", 0, nullptr));
  EXPECT_STREQ("d", nlz_catgets(nullptr, 1, 1, "d", nullptr));
  EXPECT_EQ(-1, nlz_catclose(nullptr));
}

}  // namespace
