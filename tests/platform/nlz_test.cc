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

// ---- Names -------------------------------------------------------------------------

struct NameCase {
  const char* given;
  const char* normalised;  // null: refused
};

class CsName : public ::testing::TestWithParam<NameCase> {};

TEST_P(CsName, IsNormalisedOrRefused) {
  CsPtr h = cs(GetParam().given);
  if (GetParam().normalised == nullptr) {
    EXPECT_EQ(nullptr, h);
    return;
  }
  ASSERT_NE(nullptr, h) << GetParam().given;
  EXPECT_STREQ(GetParam().normalised, nlz_cs_name(h.get()));
}

INSTANTIATE_TEST_SUITE_P(
    Table, CsName,
    ::testing::Values(NameCase{"UTF8", "UTF-8"}, NameCase{"utf-8", "UTF-8"},
                      NameCase{"ISO8859-1", "ISO-8859-1"}, NameCase{"iso_8859_1", "ISO-8859-1"},
                      NameCase{"latin1", "ISO-8859-1"}, NameCase{"ISO-8859-15", "ISO-8859-15"},
                      NameCase{"646", "US-ASCII"}, NameCase{"ANSI_X3.4-1968", "US-ASCII"},
                      NameCase{"eucJP", "EUC-JP"}, NameCase{"windows-1252", "CP1252"},
                      NameCase{"UTF-16", nullptr}, NameCase{"UCS-4", nullptr},
                      NameCase{"", nullptr}, NameCase{"no-such-codeset", nullptr},
                      NameCase{"ISO-8859-1-and-then-a-name-far-too-long-for-any-code-set-xxxxx",
                               nullptr}));

// ---- Conversions ----------------------------------------------------------------------

struct ConvCase {
  const char* cs;
  std::string native;
  std::string utf8;
};

class Conversion : public ::testing::TestWithParam<ConvCase> {};

TEST_P(Conversion, RoundTripsThroughUtf8) {
  CsPtr h = cs(GetParam().cs);
  ASSERT_NE(nullptr, h);
  const std::string& native = GetParam().native;
  const std::string& utf8 = GetParam().utf8;
  char out[64];
  int n = nlz_to_utf8(h.get(), native.data(), static_cast<int>(native.size()), out, sizeof out);
  ASSERT_EQ(static_cast<int>(utf8.size()), n);
  EXPECT_EQ(utf8, std::string(out, static_cast<size_t>(n)));
  n = nlz_from_utf8(h.get(), utf8.c_str(), -1, out, sizeof out);
  ASSERT_EQ(static_cast<int>(native.size()), n);
  EXPECT_EQ(native, std::string(out, static_cast<size_t>(n)));
  // Exactly enough room works; one byte less fails without overrunning.
  char exact[64];
  memset(exact, 'Z', sizeof exact);
  EXPECT_EQ(static_cast<int>(utf8.size()),
            nlz_to_utf8(h.get(), native.data(), static_cast<int>(native.size()), exact,
                        static_cast<int>(utf8.size())));
  EXPECT_EQ('Z', exact[utf8.size()]);
  if (!utf8.empty()) {
    EXPECT_EQ(-1, nlz_to_utf8(h.get(), native.data(), static_cast<int>(native.size()), exact,
                              static_cast<int>(utf8.size()) - 1));
    EXPECT_EQ(E2BIG, errno);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Conversion,
    ::testing::Values(ConvCase{"ISO-8859-1", "Gr\xfc\xdf" "e", "Gr\xc3\xbc\xc3\x9f" "e"},
                      ConvCase{"EUC-JP", "\xa4\xa2\xa4\xa4" "a", "\xe3\x81\x82\xe3\x81\x84" "a"},
                      ConvCase{"UTF-8", "\xe2\x82\xac\xf0\x9d\x84\x9e", "\xe2\x82\xac\xf0\x9d\x84\x9e"},
                      ConvCase{"US-ASCII", "plain", "plain"}, ConvCase{"ISO-8859-1", "", ""}));

struct BadCase {
  const char* cs;
  bool toUtf8;  // direction
  std::string input;
};

class BadInput : public ::testing::TestWithParam<BadCase> {};

TEST_P(BadInput, FailsWithEilseq) {
  CsPtr h = cs(GetParam().cs);
  ASSERT_NE(nullptr, h);
  char out[64];
  const std::string& in = GetParam().input;
  int n = GetParam().toUtf8
              ? nlz_to_utf8(h.get(), in.data(), static_cast<int>(in.size()), out, sizeof out)
              : nlz_from_utf8(h.get(), in.data(), static_cast<int>(in.size()), out, sizeof out);
  EXPECT_EQ(-1, n);
  EXPECT_EQ(EILSEQ, errno);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadInput,
    ::testing::Values(BadCase{"UTF-8", true, "\xc0\xaf"},           // overlong
                      BadCase{"UTF-8", true, "\xed\xa0\x80"},       // surrogate
                      BadCase{"UTF-8", true, "ab\xe3\x81"},         // cut short
                      BadCase{"UTF-8", true, "\xf4\x90\x80\x80"},   // past U+10FFFF
                      BadCase{"US-ASCII", true, "caf\xe9"},
                      BadCase{"EUC-JP", true, "\xa4"},              // lead byte alone
                      BadCase{"ISO-8859-1", false, "\xe2\x82\xac"},  // euro not in latin1
                      BadCase{"ISO-8859-1", false, "\xff"}));       // invalid UTF-8

TEST(Conversion, InjectedFailureIsReportedThenCleared) {
  CsPtr h = cs("ISO-8859-1");
  ASSERT_NE(nullptr, h);
  char out[8];
  {
    FaultPlan plan(zar::fault::Op::kIconv, 1, false, EIO);
    EXPECT_EQ(-1, nlz_to_utf8(h.get(), "a", 1, out, sizeof out));
    EXPECT_EQ(EIO, errno);
  }
  EXPECT_EQ(1, nlz_to_utf8(h.get(), "a", 1, out, sizeof out));
}

// ---- Wide characters --------------------------------------------------------------------

TEST(Wide, SurrogatePairsAreOneCharacterBothWays) {
  struct Row {
    const char* cs;
    std::string mb;
    std::vector<nlz_wchar_t> wide;
  };
  const Row rows[] = {
      {"UTF-8", "a\xe2\x82\xac\xf0\x9d\x84\x9e", {0x61, 0x20AC, 0xD834, 0xDD1E}},
      {"EUC-JP", "\xa4\xa2z", {0x3042, 0x7A}},
      {"ISO-8859-1", "\xe4", {0xE4}},
      // ASCII alone, and an ASCII run before other characters.
      {"UTF-8", "k = v", {0x6B, 0x20, 0x3D, 0x20, 0x76}},
      {"UTF-8", "ab\xc3\xa9", {0x61, 0x62, 0xE9}},
      {"ISO-8859-1", "ab\xe4", {0x61, 0x62, 0xE4}},
      {"EUC-JP", "ab", {0x61, 0x62}},
  };
  for (const Row& r : rows) {
    CsPtr h = cs(r.cs);
    ASSERT_NE(nullptr, h);
    nlz_wchar_t w[16];
    int n = nlz_mbstowcs(h.get(), w, r.mb.c_str(), 16);
    ASSERT_EQ(static_cast<int>(r.wide.size()), n) << r.cs;
    EXPECT_EQ(r.wide, std::vector<nlz_wchar_t>(w, w + n)) << r.cs;
    EXPECT_EQ(0, w[n]);
    // No room for the terminator: failure.
    EXPECT_EQ(-1, nlz_mbstowcs(h.get(), w, r.mb.c_str(), n));
    char back[32];
    int m = nlz_wcstombs(h.get(), back, w, sizeof back);
    ASSERT_EQ(static_cast<int>(r.mb.size()), m) << r.cs;
    EXPECT_EQ(r.mb, std::string(back));
    EXPECT_EQ(-1, nlz_wcstombs(h.get(), back, w, m));  // NUL does not fit
  }
}

TEST(Wide, LoneSurrogatesAndUnrepresentableCharactersFail) {
  CsPtr utf8 = cs("UTF-8");
  CsPtr latin1 = cs("ISO-8859-1");
  char out[16];
  const nlz_wchar_t lone[] = {0x61, 0xD834, 0x62, 0};
  const nlz_wchar_t lowFirst[] = {0xDD1E, 0xD834, 0};
  const nlz_wchar_t euro[] = {0x20AC, 0};
  EXPECT_EQ(-1, nlz_wcstombs(utf8.get(), out, lone, sizeof out));
  EXPECT_EQ(-1, nlz_wcstombs(utf8.get(), out, lowFirst, sizeof out));
  EXPECT_EQ(-1, nlz_wcstombs(latin1.get(), out, lone, sizeof out));
  EXPECT_EQ(-1, nlz_wcstombs(latin1.get(), out, euro, sizeof out));
}

struct CharCase {
  const char* cs;
  uint32_t wc;
  std::string bytes;  // empty: not representable
};

class OneChar : public ::testing::TestWithParam<CharCase> {};

TEST_P(OneChar, WctombAndMblenAgree) {
  CsPtr h = cs(GetParam().cs);
  ASSERT_NE(nullptr, h);
  char out[8];
  int n = nlz_wctomb(h.get(), out, GetParam().wc);
  const std::string& want = GetParam().bytes;
  if (want.empty()) {
    EXPECT_EQ(-1, n);
    return;
  }
  ASSERT_EQ(static_cast<int>(want.size()), n);
  EXPECT_EQ(want, std::string(out, static_cast<size_t>(n)));
  EXPECT_EQ(n, nlz_mblen(h.get(), want.data(), static_cast<int>(want.size())));
  if (n > 1) {
    EXPECT_EQ(-1, nlz_mblen(h.get(), want.data(), n - 1));  // incomplete
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, OneChar,
    ::testing::Values(CharCase{"UTF-8", 0x41, "A"}, CharCase{"UTF-8", 0xE4, "\xc3\xa4"},
                      CharCase{"UTF-8", 0x1D11E, "\xf0\x9d\x84\x9e"},
                      CharCase{"ISO-8859-1", 0xE4, "\xe4"}, CharCase{"ISO-8859-1", 0x20AC, ""},
                      CharCase{"EUC-JP", 0x3042, "\xa4\xa2"}, CharCase{"EUC-JP", 0x41, "A"},
                      CharCase{"UTF-8", 0xD800, ""}, CharCase{"UTF-8", 0x110000, ""},
                      CharCase{"US-ASCII", 0xE4, ""}));

TEST(Mblen, NulInvalidAndNullHandleFollowTheThreadLocale) {
  CsPtr euc = cs("EUC-JP");
  EXPECT_EQ(0, nlz_mblen(euc.get(), "", 1));
  EXPECT_EQ(-1, nlz_mblen(euc.get(), "\xa4" "a", 2));  // lead byte then ASCII
  EXPECT_EQ(-1, nlz_mblen(euc.get(), "\xff", 1));
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

TEST(Strstr, MatchesOnlyAtCharacterBoundaries) {
  CsPtr euc = cs("EUC-JP");
  const char* hay = "\xa4\xa2\xa4\xa4x";  // two characters then 'x'
  EXPECT_EQ(nullptr, nlz_strstr(euc.get(), hay, "\xa2\xa4"));  // straddles a boundary
  EXPECT_EQ(hay + 2, nlz_strstr(euc.get(), hay, "\xa4\xa4"));
  EXPECT_EQ(hay + 4, nlz_strstr(euc.get(), hay, "x"));
  EXPECT_EQ(hay, nlz_strstr(euc.get(), hay, ""));
  EXPECT_EQ(nullptr, nlz_strstr(euc.get(), "abc", "abcd"));
  CsPtr utf8 = cs("UTF-8");
  const char* path = "/opt/kpsrv/nls/msg//%L/%N";
  EXPECT_EQ(path, nlz_strstr(utf8.get(), path, "/opt/kpsrv/nls/msg/"));
}

TEST(Iswspace, KnowsAsciiAndUnicodeSpaces) {
  for (nlz_wchar_t wc : {0x20, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0xA0, 0x2003, 0x3000, 0x2028})
    EXPECT_EQ(1, nlz_iswspace(wc)) << wc;
  for (nlz_wchar_t wc : {0x41, 0x00, 0x200B, 0xFEFF, 0x5F})
    EXPECT_EQ(0, nlz_iswspace(wc)) << wc;
}

TEST(Threads, ConcurrentConversionsOnOneHandleStayCorrect) {
  CsPtr euc = cs("EUC-JP");
  ASSERT_NE(nullptr, euc);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        char out[32];
        int n = nlz_to_utf8(euc.get(), "\xa4\xa2\xa4\xa4", 4, out, sizeof out);
        if (n != 6 || memcmp(out, "\xe3\x81\x82\xe3\x81\x84", 6) != 0) ++wrong;
        if (nlz_mblen(euc.get(), "\xa4\xa2", 2) != 2) ++wrong;
        if (nlz_from_utf8(euc.get(), "\xe3\x81\x82", 3, out, sizeof out) != 2) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

// ---- Locales --------------------------------------------------------------------------

TEST(Locale, ObjectsKnowTheirNameAndCodeSet) {
  nlz_loc_t de = nlz_loc_new("de_DE.ISO-8859-1");
  ASSERT_NE(nullptr, de);
  EXPECT_STREQ("de_DE.ISO-8859-1", nlz_loc_name(de));
  EXPECT_STREQ("ISO-8859-1", nlz_loc_cs_name(de));
  nlz_loc_free(de);
  nlz_loc_t ja = nlz_loc_new("ja_JP.EUC-JP");
  ASSERT_NE(nullptr, ja);
  EXPECT_STREQ("EUC-JP", nlz_loc_cs_name(ja));
  nlz_loc_free(ja);
  EXPECT_EQ(nullptr, nlz_loc_new("xx_NOWHERE.UTF-8"));
  EXPECT_EQ(nullptr, nlz_loc_new(std::string(5000, 'd').c_str()));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(nullptr, nlz_loc_new(nullptr));
}

struct CanonCase {
  const char* name;
  const char* loc;   // null: fails
  const char* lang;  // null: fails
};

class Canonical : public ::testing::TestWithParam<CanonCase> {};

TEST_P(Canonical, LocaleAndLanguage) {
  char buf[32];
  const CanonCase& c = GetParam();
  if (c.loc == nullptr) {
    EXPECT_EQ(-1, nlz_canonical_loc(c.name, buf, sizeof buf));
  } else {
    ASSERT_EQ(0, nlz_canonical_loc(c.name, buf, sizeof buf));
    EXPECT_STREQ(c.loc, buf);
  }
  if (c.lang == nullptr) {
    EXPECT_EQ(-1, nlz_canonical_lang(c.name, buf, sizeof buf));
  } else {
    ASSERT_EQ(0, nlz_canonical_lang(c.name, buf, sizeof buf));
    EXPECT_STREQ(c.lang, buf);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, Canonical,
    ::testing::Values(CanonCase{"de_DE.ISO-8859-1@euro", "de_DE", "de"},
                      CanonCase{"de-de", "de_DE", "de"}, CanonCase{"EN_us.utf8", "en_US", "en"},
                      CanonCase{"es_419.UTF-8", "es_419", "es"}, CanonCase{"fr", "fr", "fr"},
                      CanonCase{"C.UTF-8", "C", "C"}, CanonCase{"POSIX", "C", "C"},
                      CanonCase{"", nullptr, nullptr}, CanonCase{"1x_YY", nullptr, nullptr},
                      CanonCase{"de_DEU", nullptr, nullptr}, CanonCase{nullptr, nullptr, nullptr}));

TEST(Locale, CanonicalNamesNeverOverrunTheBuffer) {
  char small[3];
  EXPECT_EQ(-1, nlz_canonical_loc("de_DE", small, sizeof small));
  EXPECT_EQ(0, nlz_canonical_lang("de_DE", small, sizeof small));
  EXPECT_STREQ("de", small);
  std::string huge(4000, 'a');
  char buf[32];
  EXPECT_EQ(-1, nlz_canonical_loc(huge.c_str(), buf, sizeof buf));
}

TEST(Locale, ProcessNamesFollowSetlocale) {
  int status = zar::test::runInChild([] {
    char lang[64];
    char codeset[32];
    if (nlz_os_cs_name(codeset, sizeof codeset) != 0 || strcmp(codeset, "ANSI_X3.4-1968") != 0)
      return 1;
    if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) return 2;
    if (nlz_os_lang_name(lang, sizeof lang) != 0 || strcmp(lang, "de_DE.ISO-8859-1") != 0)
      return 3;
    if (nlz_os_cs_name(codeset, sizeof codeset) != 0 || strcmp(codeset, "ISO-8859-1") != 0)
      return 4;
    if (nlz_os_lang_name(lang, 4) != -1) return 5;  // does not fit
    return 0;
  });
  EXPECT_EQ(0, zar::test::exitCode(status));
}

// ---- Settings ---------------------------------------------------------------------------

TEST(Settings, DirectoryTextsStayValidAcrossChanges) {
  ASSERT_EQ(0, nlz_set_dir("/first/dir"));
  const char* first = nlz_get_dir();
  EXPECT_STREQ("/first/dir", first);
  ASSERT_EQ(0, nlz_set_dir("/second"));
  EXPECT_STREQ("/second", nlz_get_dir());
  EXPECT_STREQ("/first/dir", first);
  {
    FaultPlan plan(zar::fault::Op::kAlloc, 1);
    EXPECT_EQ(-1, nlz_set_dir("/third"));
  }
  EXPECT_STREQ("/second", nlz_get_dir());
  nlz_set_dir("");
}

TEST(Settings, DefaultCodeSetAndMessagePath) {
  nlz_cs_t u = nlz_cs_new("UTF8");
  ASSERT_EQ(0, nlz_set_def_cs(u));
  EXPECT_EQ(u, nlz_get_def_cs());
  nlz_set_def_cs(nullptr);
  EXPECT_EQ(nullptr, nlz_get_def_cs());
  zar::test::ScopedEnv env("NLSPATH", "/x/%L/%N");
  EXPECT_STREQ("/x/%L/%N", nlz_get_nlspath());
}

}  // namespace
