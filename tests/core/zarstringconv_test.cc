// ZARString's converting appends in a process whose locale is
// de_DE.ISO-8859-1, so that the local code page is not UTF-8: UTF-8 text is
// converted into Latin-1 and back, room is reserved for the worst case, and a
// failed conversion adds nothing.
#include <locale.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/string.hpp"

namespace {

// The local code page is learnt once per process, on first use: the locale
// must be in place before any test runs.
class Latin1Locale : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_NE(nullptr, setlocale(LC_ALL, "de_DE.ISO-8859-1"))
        << "de_DE.ISO-8859-1 missing; run with LOCPATH set (scripts/mklocales)";
  }
};
[[maybe_unused]] const ::testing::Environment* const kLocale =
    ::testing::AddGlobalTestEnvironment(new Latin1Locale);

std::string text(const ZARString& s) { return std::string(s.getData(), s.getLen()); }

const std::string kUtf8Word = "Gr\xC3\xBC\xC3\x9F" "e";  // Grüße
const std::string kLatin1Word = "Gr\xFC\xDF" "e";
const std::string kLatin1Twenty = "\xC4pfel und Birnen \xFC\xDF!";  // 20 bytes

// Appends the converted bytes into room reserved for the worst case: two
// bytes per byte into UTF-8, three per byte out of it.
TEST(ZARString, ConvertingAppendReservesRoomAndFailsWhole) {
  const struct {
    std::string before, source;
    ZARString::conversion_e conv;
    std::string after;
    unsigned capacity;
  } cases[] = {
      {"", kUtf8Word, ZARString::CONVERT_FROM_UTF8, kLatin1Word, 30},
      {"", kLatin1Word, ZARString::CONVERT_TO_UTF8, kUtf8Word, 30},
      {"", kLatin1Twenty, ZARString::CONVERT_TO_UTF8, "\xC3\x84pfel und Birnen \xC3\xBC\xC3\x9F!", 41},
      {"ab", kUtf8Word + "1234", ZARString::CONVERT_FROM_UTF8, "ab" + kLatin1Word + "1234", 36},
      {"keep", "\xFF\xFE", ZARString::CONVERT_FROM_UTF8, "keep", 30},  // invalid UTF-8
      {"keep", "\xE2\x82\xAC", ZARString::CONVERT_FROM_UTF8, "keep", 30},  // not in Latin-1
      {"x", kUtf8Word, ZARString::CONVERT_NONE, "x" + kUtf8Word, 30},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before + "+" + c.source);
    ZARString s(c.before.c_str());
    EXPECT_TRUE(s.append(c.source.data(), static_cast<int>(c.source.size()), c.conv));
    EXPECT_EQ(c.after, text(s));
    EXPECT_EQ(c.capacity, s.capacity());
    EXPECT_EQ('\0', s.getData()[s.getLen()]);
  }
}

TEST(ZARString, ConvertingSetAndOwnContentAsSource) {
  ZARString s(kLatin1Twenty.c_str(), -1, ZARString::CONVERT_TO_UTF8);
  std::string utf8 = text(s);
  ASSERT_TRUE(s.set(utf8.c_str(), -1, ZARString::CONVERT_FROM_UTF8));
  EXPECT_EQ(kLatin1Twenty, text(s));
  ASSERT_TRUE(s.append(s.getData(), s.getLen(), ZARString::CONVERT_TO_UTF8));
  EXPECT_EQ(kLatin1Twenty + utf8, text(s));
}

}  // namespace
