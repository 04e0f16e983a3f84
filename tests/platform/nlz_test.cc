// Code sets, conversions and locales of the internationalisation layer,
// with real conversions in UTF-8, ISO-8859-1 and EUC-JP.
#include "platform/nlz.h"

#include <errno.h>
#include <string.h>

#include <tuple>

#include "tests/testutil/testutil.h"

namespace {

using zar::test::FaultPlan;

// Handles shared for the life of the process (never freed).
nlz_cs_t cs(const char* name) { return nlz_cs_shared(name); }

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
  const std::pair<const char*, const char*> rows[] = {  // given, normalised (null: refused)
      {"UTF8", "UTF-8"},         {"utf-8", "UTF-8"},     {"ISO8859-1", "ISO-8859-1"},
      {"iso_8859_1", "ISO-8859-1"}, {"latin1", "ISO-8859-1"}, {"ISO-8859-15", "ISO-8859-15"},
      {"646", "US-ASCII"},       {"ANSI_X3.4-1968", "US-ASCII"}, {"eucJP", "EUC-JP"},
      {"windows-1252", "CP1252"}, {"UTF-16", nullptr}, {"UCS-4", nullptr}, {"", nullptr},
      {"no-such-codeset", nullptr},
      {"ISO-8859-1-and-then-a-name-far-too-long-for-any-code-set-xxxxx", nullptr}};
  for (const auto& [given, normalised] : rows) {
    nlz_cs_t h = nlz_cs_new(given);
    EXPECT_STREQ(normalised, h ? nlz_cs_name(h) : nullptr) << given;
    nlz_cs_free(h);
  }
}

// Good texts round-trip through UTF-8 and need exactly their room; bad ones
// fail with EILSEQ.
TEST(Conversion, RoundTripsAndRefusesBadInput) {
  const std::tuple<const char*, std::string, std::string> good[] = {  // code set, native, UTF-8
      {"ISO-8859-1", "Gr\xfc\xdf" "e", "Gr\xc3\xbc\xc3\x9f" "e"},
      {"EUC-JP", "\xa4\xa2\xa4\xa4" "a", "\xe3\x81\x82\xe3\x81\x84" "a"},
      {"UTF-8", "\xe2\x82\xac\xf0\x9d\x84\x9e", "\xe2\x82\xac\xf0\x9d\x84\x9e"},
      {"US-ASCII", "plain", "plain"}, {"ISO-8859-1", "", ""}};
  for (const auto& [name, native, utf8] : good) {
    SCOPED_TRACE(name + (" " + utf8));
    const int room = static_cast<int>(utf8.size());
    EXPECT_EQ(utf8, convert(cs(name), true, native));
    EXPECT_EQ(native, convert(cs(name), false, utf8));
    EXPECT_EQ(utf8, convert(cs(name), true, native, room));
    EXPECT_EQ(room > 0 ? "-1 E2BIG" : "", convert(cs(name), true, native, room > 0 ? room - 1 : 0));
  }
  const std::tuple<const char*, bool, std::string> bad[] = {  // code set, to UTF-8, input
      {"UTF-8", true, "\xc0\xaf"},   {"UTF-8", true, "\xe0\x80\xaf"},  // overlong, 2 and 3 bytes
      {"UTF-8", true, "\xed\xa0\x80"},  // a surrogate
      {"UTF-8", true, "ab\xe3\x81"}, {"UTF-8", true, "\xf4\x90\x80\x80"},  // cut; past U+10FFFF
      {"US-ASCII", true, "caf\xe9"}, {"EUC-JP", true, "\xa4"},  // lead byte alone
      {"UTF-8", true, "\xff" "abcdefgh"},  // a bad byte leading eight US-ASCII ones
      {"ISO-8859-1", false, "\xe2\x82\xac"}, {"ISO-8859-1", false, "\xff"}};
  for (const auto& [name, toUtf8, input] : bad)
    EXPECT_EQ("-1 EILSEQ", convert(cs(name), toUtf8, input)) << name << " " << input;
  char out[8], cut[] = "ab\xe3\x81\x82";  // the length cuts a character the bytes after complete
  EXPECT_EQ("-1 EILSEQ", result(nlz_to_utf8(cs("UTF-8"), cut, 4, out, 8), out));
  {
    FaultPlan plan(zar::fault::Op::kIconv, 1, false, EIO);
    EXPECT_EQ("-1 EIO", convert(cs("ISO-8859-1"), true, "a"));
  }
  EXPECT_EQ("a", convert(cs("ISO-8859-1"), true, "a"));
}

TEST(Wide, SurrogatePairsAreOneCharacterBothWays) {
  const std::tuple<const char*, std::string, std::vector<nlz_wchar_t>> rows[] = {
      {"UTF-8", "a\xe2\x82\xac\xf0\x9d\x84\x9e", {0x61, 0x20AC, 0xD834, 0xDD1E}},
      {"EUC-JP", "\xa4\xa2z", {0x3042, 0x7A}}, {"ISO-8859-1", "\xe4", {0xE4}},
      // ASCII alone, and an ASCII run before other characters.
      {"UTF-8", "k = v", {0x6B, 0x20, 0x3D, 0x20, 0x76}},
      {"UTF-8", "ab\xc3\xa9", {0x61, 0x62, 0xE9}},
      {"ISO-8859-1", "ab\xe4", {0x61, 0x62, 0xE4}}, {"EUC-JP", "ab", {0x61, 0x62}}};
  for (const auto& [name, mb, wide] : rows) {
    SCOPED_TRACE(name + (" " + mb));
    nlz_wchar_t w[16];
    char back[32];
    const int n = nlz_mbstowcs(cs(name), w, mb.c_str(), 16);
    ASSERT_EQ(static_cast<int>(wide.size()), n);
    EXPECT_EQ(wide, std::vector<nlz_wchar_t>(w, w + n + 1 - (w[n] == 0)));  // terminated
    EXPECT_EQ(-1, nlz_mbstowcs(cs(name), w, mb.c_str(), n));  // no room for the terminator
    const int m = nlz_wcstombs(cs(name), back, w, sizeof back);
    EXPECT_EQ(mb, result(m, back));
    EXPECT_EQ(-1, nlz_wcstombs(cs(name), back, w, m));  // the NUL does not fit
  }
  // Lone or reversed surrogates, and characters the code set lacks.
  const nlz_wchar_t lone[] = {0x61, 0xD834, 0x62, 0}, lowFirst[] = {0xDD1E, 0xD834, 0},
                    euro[] = {0x20AC, 0};
  char out[16];
  for (auto [name, w] : {std::pair{"UTF-8", lone}, {"UTF-8", lowFirst}, {"ISO-8859-1", lone},
                         {"ISO-8859-1", euro}})
    EXPECT_EQ(-1, nlz_wcstombs(cs(name), out, w, sizeof out)) << name << " " << w[0];
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
  const std::tuple<const char*, const char*, const char*, int> rows[] = {
      // name, locale, language ("-1": fails), buffer length
      {"de_DE.ISO-8859-1@euro", "de_DE", "de", 32}, {"de-de", "de_DE", "de", 32},
      {"EN_us.utf8", "en_US", "en", 32},  {"es_419.UTF-8", "es_419", "es", 32},
      {"fr", "fr", "fr", 32},             {"C.UTF-8", "C", "C", 32},
      {"POSIX", "C", "C", 32},            {"", "-1", "-1", 32},
      {"1x_YY", "-1", "-1", 32},          {"de_DEU", "-1", "-1", 32},
      {nullptr, "-1", "-1", 32},          {"de_DE", "-1", "de", 3},  // never overruns
      {kHuge.c_str(), "-1", "-1", 32}};
  for (const auto& [name, loc, lang, len] : rows) {
    char buf[33];
    auto canon = [&, name = name, len = len](int (*fn)(const char*, char*, int)) {
      memset(buf, 'Z', sizeof buf);
      int rc = fn(name, buf, len);
      return buf[len] != 'Z' ? "overrun" : rc == 0 ? std::string(buf) : std::to_string(rc);
    };
    EXPECT_EQ(loc, canon(nlz_canonical_loc)) << (name ? name : "null");
    EXPECT_EQ(lang, canon(nlz_canonical_lang)) << (name ? name : "null");
  }
}

}  // namespace
