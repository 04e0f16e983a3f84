// Code sets, conversions, locales and settings of the internationalisation
// layer, with real conversions in UTF-8, ISO-8859-1 and EUC-JP.
#include "platform/nlz.h"

#include <errno.h>
#include <locale.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/testutil/testutil.h"

namespace {

using zar::test::FaultPlan;

struct CsDeleter {
  void operator()(zar_codeset_s* cs) const { nlz_cs_free(cs); }
};
using CsPtr = std::unique_ptr<zar_codeset_s, CsDeleter>;
CsPtr cs(const char* name) { return CsPtr(nlz_cs_new(name)); }

// The bytes a call wrote, or "-1 ERRNAME" when it failed.
std::string result(int n, const char* out) {
  return n < 0 ? std::string("-1 ") + strerrorname_np(errno) : std::string(out, n);
}

// nlz_to_utf8 (or nlz_from_utf8) of in with room bytes of output; the byte
// after the room must stay untouched.
std::string convert(nlz_cs_t h, bool toUtf8, const std::string& in, int room = 64) {
  char out[65];
  memset(out, 'Z', sizeof out);
  int n = (toUtf8 ? nlz_to_utf8 : nlz_from_utf8)(h, in.data(), static_cast<int>(in.size()), out,
                                                  room);
  return out[room] == 'Z' ? result(n, out) : "overrun";
}

TEST(CsName, IsNormalisedOrRefused) {
  const struct {
    const char *given, *normalised;  // null: refused
  } rows[] = {{"UTF8", "UTF-8"},       {"utf-8", "UTF-8"},  {"ISO8859-1", "ISO-8859-1"},
              {"iso_8859_1", "ISO-8859-1"},                 {"latin1", "ISO-8859-1"},
              {"ISO-8859-15", "ISO-8859-15"},               {"646", "US-ASCII"},
              {"ANSI_X3.4-1968", "US-ASCII"},               {"eucJP", "EUC-JP"},
              {"windows-1252", "CP1252"}, {"UTF-16", nullptr}, {"UCS-4", nullptr}, {"", nullptr},
              {"no-such-codeset", nullptr},
              {"ISO-8859-1-and-then-a-name-far-too-long-for-any-code-set-xxxxx", nullptr}};
  for (const auto& r : rows) {
    CsPtr h = cs(r.given);
    EXPECT_STREQ(r.normalised, h ? nlz_cs_name(h.get()) : nullptr) << r.given;
  }
}

// Good texts round-trip through UTF-8 and need exactly their room; bad ones
// fail with EILSEQ.
TEST(Conversion, RoundTripsAndRefusesBadInput) {
  const struct {
    const char* cs;
    std::string native, utf8;
  } good[] = {{"ISO-8859-1", "Gr\xfc\xdf" "e", "Gr\xc3\xbc\xc3\x9f" "e"},
              {"EUC-JP", "\xa4\xa2\xa4\xa4" "a", "\xe3\x81\x82\xe3\x81\x84" "a"},
              {"UTF-8", "\xe2\x82\xac\xf0\x9d\x84\x9e", "\xe2\x82\xac\xf0\x9d\x84\x9e"},
              {"US-ASCII", "plain", "plain"}, {"ISO-8859-1", "", ""}};
  for (const auto& r : good) {
    SCOPED_TRACE(r.cs + (" " + r.utf8));
    CsPtr h = cs(r.cs);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(r.utf8, convert(h.get(), true, r.native));
    EXPECT_EQ(r.native, convert(h.get(), false, r.utf8));
    int room = static_cast<int>(r.utf8.size());
    EXPECT_EQ(r.utf8, convert(h.get(), true, r.native, room));
    EXPECT_EQ(room > 0 ? "-1 E2BIG" : "", convert(h.get(), true, r.native, room > 0 ? room - 1 : 0));
  }
  const struct {
    const char* cs;
    bool toUtf8;
    std::string input;
  } bad[] = {{"UTF-8", true, "\xc0\xaf"},          {"UTF-8", true, "\xed\xa0\x80"},  // surrogate
             {"UTF-8", true, "ab\xe3\x81"},        {"UTF-8", true, "\xf4\x90\x80\x80"},
             {"US-ASCII", true, "caf\xe9"},        {"EUC-JP", true, "\xa4"},  // lead byte alone
             {"ISO-8859-1", false, "\xe2\x82\xac"}, {"ISO-8859-1", false, "\xff"}};
  for (const auto& r : bad)
    EXPECT_EQ("-1 EILSEQ", convert(cs(r.cs).get(), r.toUtf8, r.input)) << r.cs << " " << r.input;
  CsPtr latin1 = cs("ISO-8859-1");
  {
    FaultPlan plan(zar::fault::Op::kIconv, 1, false, EIO);
    EXPECT_EQ("-1 EIO", convert(latin1.get(), true, "a"));
  }
  EXPECT_EQ("a", convert(latin1.get(), true, "a"));
}

TEST(Wide, SurrogatePairsAreOneCharacterBothWays) {
  const struct {
    const char* cs;
    std::string mb;
    std::vector<nlz_wchar_t> wide;
  } rows[] = {
      {"UTF-8", "a\xe2\x82\xac\xf0\x9d\x84\x9e", {0x61, 0x20AC, 0xD834, 0xDD1E}},
      {"EUC-JP", "\xa4\xa2z", {0x3042, 0x7A}}, {"ISO-8859-1", "\xe4", {0xE4}},
      // ASCII alone, and an ASCII run before other characters.
      {"UTF-8", "k = v", {0x6B, 0x20, 0x3D, 0x20, 0x76}}, {"UTF-8", "ab\xc3\xa9", {0x61, 0x62, 0xE9}},
      {"ISO-8859-1", "ab\xe4", {0x61, 0x62, 0xE4}}, {"EUC-JP", "ab", {0x61, 0x62}}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.cs + (" " + r.mb));
    CsPtr h = cs(r.cs);
    nlz_wchar_t w[16];
    int n = nlz_mbstowcs(h.get(), w, r.mb.c_str(), 16);
    ASSERT_EQ(static_cast<int>(r.wide.size()), n);
    EXPECT_EQ(r.wide, std::vector<nlz_wchar_t>(w, w + n));
    EXPECT_EQ(0, w[n]);
    EXPECT_EQ(-1, nlz_mbstowcs(h.get(), w, r.mb.c_str(), n));  // no room for the terminator
    char back[32];
    int m = nlz_wcstombs(h.get(), back, w, sizeof back);
    EXPECT_EQ(r.mb, result(m, back));
    EXPECT_EQ(-1, nlz_wcstombs(h.get(), back, w, m));  // the NUL does not fit
  }
  // Lone or reversed surrogates, and characters the code set lacks.
  const nlz_wchar_t lone[] = {0x61, 0xD834, 0x62, 0}, lowFirst[] = {0xDD1E, 0xD834, 0},
                    euro[] = {0x20AC, 0};
  char out[16];
  for (auto [name, w] : {std::pair{"UTF-8", lone}, {"UTF-8", lowFirst}, {"ISO-8859-1", lone},
                         {"ISO-8859-1", euro}})
    EXPECT_EQ(-1, nlz_wcstombs(cs(name).get(), out, w, sizeof out)) << name << " " << w[0];
}

TEST(OneChar, WctombAndMblenAgree) {
  const struct {
    const char* cs;
    uint32_t wc;
    std::string bytes;  // empty: not representable
  } rows[] = {{"UTF-8", 0x41, "A"},     {"UTF-8", 0xE4, "\xc3\xa4"}, {"UTF-8", 0x1D11E, "\xf0\x9d\x84\x9e"},
              {"ISO-8859-1", 0xE4, "\xe4"}, {"ISO-8859-1", 0x20AC, ""}, {"EUC-JP", 0x3042, "\xa4\xa2"},
              {"EUC-JP", 0x41, "A"},    {"UTF-8", 0xD800, ""},       {"UTF-8", 0x110000, ""},
              {"US-ASCII", 0xE4, ""}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.cs + (" " + std::to_string(r.wc)));
    CsPtr h = cs(r.cs);
    char out[8];
    int n = nlz_wctomb(h.get(), out, r.wc);
    EXPECT_EQ(r.bytes.empty() ? "-1" : r.bytes, n < 0 ? "-1" : std::string(out, n));
    if (n <= 0) continue;
    EXPECT_EQ(n, nlz_mblen(h.get(), r.bytes.data(), n));
    EXPECT_TRUE(n == 1 || nlz_mblen(h.get(), r.bytes.data(), n - 1) == -1);  // incomplete
  }
  CsPtr euc = cs("EUC-JP");
  EXPECT_EQ(0, nlz_mblen(euc.get(), "", 1));
  EXPECT_EQ(-1, nlz_mblen(euc.get(), "\xa4" "a", 2));  // lead byte then ASCII
  EXPECT_EQ(-1, nlz_mblen(euc.get(), "\xff", 1));
}

TEST(OneChar, NullHandleFollowsTheThreadLocale) {
  locale_t latin1 = newlocale(LC_ALL_MASK, "de_DE.ISO-8859-1", nullptr);
  locale_t utf8 = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(nullptr, latin1) << "LOCPATH must hold the test locales";
  ASSERT_NE(nullptr, utf8);
  char out[8];
  locale_t old = uselocale(latin1);
  EXPECT_EQ(1, nlz_wctomb(nullptr, out, 0xE4));
  EXPECT_EQ(1, nlz_mblen(nullptr, "\xe4", 1));
  EXPECT_STREQ("ISO-8859-1", nlz_cs_name(nullptr));
  uselocale(utf8);
  EXPECT_EQ(2, nlz_wctomb(nullptr, out, 0xE4));
  EXPECT_EQ(-1, nlz_mblen(nullptr, "\xe4", 1));
  EXPECT_EQ(1, nlz_cs_is_utf8(nullptr));
  uselocale(old);
  freelocale(latin1);
  freelocale(utf8);
}

TEST(Text, StrstrMatchesAtCharacterBoundariesAndIswspaceKnowsUnicode) {
  CsPtr euc = cs("EUC-JP");
  const char* hay = "\xa4\xa2\xa4\xa4x";  // two characters then 'x'
  EXPECT_EQ(nullptr, nlz_strstr(euc.get(), hay, "\xa2\xa4"));  // straddles a boundary
  EXPECT_EQ(hay + 2, nlz_strstr(euc.get(), hay, "\xa4\xa4"));
  EXPECT_EQ(hay + 4, nlz_strstr(euc.get(), hay, "x"));
  EXPECT_EQ(hay, nlz_strstr(euc.get(), hay, ""));
  EXPECT_EQ(nullptr, nlz_strstr(euc.get(), "abc", "abcd"));
  const char* path = "/opt/kpsrv/nls/msg//%L/%N";
  EXPECT_EQ(path, nlz_strstr(cs("UTF-8").get(), path, "/opt/kpsrv/nls/msg/"));
  for (nlz_wchar_t wc : {0x20, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0xA0, 0x2003, 0x3000, 0x2028})
    EXPECT_EQ(1, nlz_iswspace(wc)) << wc;
  for (nlz_wchar_t wc : {0x41, 0x00, 0x200B, 0xFEFF, 0x5F}) EXPECT_EQ(0, nlz_iswspace(wc)) << wc;
}

TEST(Threads, ConcurrentConversionsOnOneHandleStayCorrect) {
  CsPtr euc = cs("EUC-JP");
  ASSERT_NE(nullptr, euc);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        if (convert(euc.get(), true, "\xa4\xa2\xa4\xa4") != "\xe3\x81\x82\xe3\x81\x84") ++wrong;
        if (nlz_mblen(euc.get(), "\xa4\xa2", 2) != 2) ++wrong;
        if (convert(euc.get(), false, "\xe3\x81\x82") != "\xa4\xa2") ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

TEST(Locale, ObjectsKnowTheirNameAndCodeSet) {
  for (const char* name : {"de_DE.ISO-8859-1", "ja_JP.EUC-JP"}) {
    nlz_loc_t loc = nlz_loc_new(name);
    ASSERT_NE(nullptr, loc) << name;
    EXPECT_STREQ(name, nlz_loc_name(loc));
    EXPECT_STREQ(strchr(name, '.') + 1, nlz_loc_cs_name(loc));
    nlz_loc_free(loc);
  }
  EXPECT_EQ(nullptr, nlz_loc_new("xx_NOWHERE.UTF-8"));
  EXPECT_EQ(nullptr, nlz_loc_new(std::string(5000, 'd').c_str()));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(nullptr, nlz_loc_new(nullptr));
}

// Canonical locale and language names, or "-1", in a buffer of len bytes.
TEST(Locale, CanonicalNamesAndLanguages) {
  static const std::string kHuge(4000, 'a');
  const struct {
    const char *name, *loc, *lang;  // "-1": fails
    int len;
  } rows[] = {{"de_DE.ISO-8859-1@euro", "de_DE", "de", 32}, {"de-de", "de_DE", "de", 32},
              {"EN_us.utf8", "en_US", "en", 32},  {"es_419.UTF-8", "es_419", "es", 32},
              {"fr", "fr", "fr", 32},             {"C.UTF-8", "C", "C", 32},
              {"POSIX", "C", "C", 32},            {"", "-1", "-1", 32},
              {"1x_YY", "-1", "-1", 32},          {"de_DEU", "-1", "-1", 32},
              {nullptr, "-1", "-1", 32},          {"de_DE", "-1", "de", 3},  // never overruns
              {kHuge.c_str(), "-1", "-1", 32}};
  for (const auto& r : rows) {
    char buf[33];
    auto canon = [&](int (*fn)(const char*, char*, int)) {
      memset(buf, 'Z', sizeof buf);
      int rc = fn(r.name, buf, r.len);
      return buf[r.len] != 'Z' ? "overrun" : rc == 0 ? std::string(buf) : std::to_string(rc);
    };
    EXPECT_EQ(r.loc, canon(nlz_canonical_loc)) << (r.name ? r.name : "null");
    EXPECT_EQ(r.lang, canon(nlz_canonical_lang)) << (r.name ? r.name : "null");
  }
}

TEST(Locale, ProcessNamesFollowSetlocale) {
  int status = zar::test::runInChild([] {
    char lang[64], codeset[32];
    if (nlz_os_cs_name(codeset, sizeof codeset) != 0 || strcmp(codeset, "ANSI_X3.4-1968") != 0)
      return 1;
    if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) return 2;
    if (nlz_os_lang_name(lang, sizeof lang) != 0 || strcmp(lang, "de_DE.ISO-8859-1") != 0) return 3;
    if (nlz_os_cs_name(codeset, sizeof codeset) != 0 || strcmp(codeset, "ISO-8859-1") != 0)
      return 4;
    return nlz_os_lang_name(lang, 4) == -1 ? 0 : 5;  // does not fit
  });
  EXPECT_EQ(0, zar::test::exitCode(status));
}

TEST(Settings, DirectoryCodeSetAndMessagePath) {
  ASSERT_EQ(0, nlz_set_dir("/first/dir"));
  const char* first = nlz_get_dir();
  ASSERT_EQ(0, nlz_set_dir("/second"));
  EXPECT_STREQ("/second", nlz_get_dir());
  EXPECT_STREQ("/first/dir", first);  // still valid
  {
    FaultPlan plan(zar::fault::Op::kAlloc, 1);
    EXPECT_EQ(-1, nlz_set_dir("/third"));
  }
  EXPECT_STREQ("/second", nlz_get_dir());
  nlz_set_dir("");
  nlz_cs_t u = nlz_cs_new("UTF8");
  ASSERT_EQ(0, nlz_set_def_cs(u));
  EXPECT_EQ(u, nlz_get_def_cs());
  nlz_set_def_cs(nullptr);
  EXPECT_EQ(nullptr, nlz_get_def_cs());
  zar::test::ScopedEnv env("NLSPATH", "/x/%L/%N");
  EXPECT_STREQ("/x/%L/%N", nlz_get_nlspath());
}

}  // namespace
