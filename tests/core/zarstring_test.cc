// ZARString and ZARStringRef: storage and growth (heap blocks counted through
// the allocation seam), converting appends, comparison signs, and allocation
// failure leaving a string unchanged. The process runs in de_DE.ISO-8859-1,
// so that the local code page is not UTF-8.
#include "zar/string.hpp"

#include <locale.h>

#include <algorithm>
#include <functional>
#include <string>

#include "tests/testutil/testutil.h"

namespace {

using zar::fault::Op;
using zar::test::FaultPlan;

// The local code page is learnt once per process, on first use.
struct Latin1 : ::testing::Environment {
  void SetUp() override { ASSERT_NE(nullptr, setlocale(LC_ALL, "de_DE.ISO-8859-1")) << "LOCPATH?"; }
};
[[maybe_unused]] auto* const kLocale = ::testing::AddGlobalTestEnvironment(new Latin1);

std::string text(const ZARString& s) { return std::string(s.getData(), s.getLen()); }
bool isInline(ZARString& s) { return s.getData() != s.buffer() || s.capacity() == 30; }

TEST(ZARString, AllocatesExactlyAndOnlyBeyond29Bytes) {
  const struct {
    int first;   // length of the first set()
    int second;  // length of the following append(); -1: none
    unsigned capacity;
    long allocs;
    bool inlineAfter;
  } cases[] = {{0, -1, 30, 0, true},     {29, -1, 30, 0, true},  {29, 1, 31, 1, false},
               {100, -1, 101, 1, false}, {40, 1, 42, 2, false},  {10, 19, 30, 0, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.first) + "+" + std::to_string(c.second));
    ZARString s;
    FaultPlan count(Op::kAlloc, 0);
    ASSERT_TRUE(s.set(std::string(c.first, 'a').c_str()));
    ASSERT_TRUE(c.second < 0 || s.append(std::string(c.second, 'b').c_str(), c.second));
    EXPECT_EQ(c.capacity, s.capacity());
    EXPECT_EQ(c.allocs, count.calls());
    EXPECT_EQ(c.inlineAfter, isInline(s));
    EXPECT_EQ(std::string(c.first, 'a') + std::string(std::max(c.second, 0), 'b'), text(s));
    EXPECT_EQ('\0', s.getData()[s.getLen()]);
  }
}

// Growing keeps a byte for the terminator: inline up to 29 bytes, a heap
// block one byte longer than the length asked for.
TEST(ZARString, ExpandKeepsRoomForTheTerminator) {
  ZARString s;
  ASSERT_TRUE(s.expand(30));
  EXPECT_EQ(31u, s.capacity());
  ASSERT_TRUE(s.expand(31));
  EXPECT_EQ(32u, s.capacity());
}

// Every allocating operation, failed at its allocation, returns false and
// leaves content, length and capacity as they were.
TEST(ZARString, AllocationFailureLeavesTheStringUnchanged) {
  const std::string lng(60, 'L');
  const ZARString longString(lng.c_str());
  const char* const heapValue = "0123456789012345678901234567890123";
  const struct {
    const char* before;
    std::function<bool(ZARString&)> op;
  } cases[] = {
      {"abc", [&](ZARString& s) { return s.append(lng.c_str()); }},
      {heapValue, [&](ZARString& s) { return s.append(lng.c_str()); }},
      {"abc", [&](ZARString& s) { return s.set(lng.c_str()); }},
      {heapValue, [&](ZARString& s) { return s.set(lng.c_str()); }},
      {"abc", [](ZARString& s) { return s.expand(100); }},
      {"abc", [&](ZARString& s) { return (s = longString).getLen() == longString.getLen(); }},
  };
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(row++);
    ZARString s(c.before);
    const std::string content = text(s);
    const unsigned cap = s.capacity();
    const char* data = s.getData();
    {
      FaultPlan fail(Op::kAlloc, 1);
      EXPECT_FALSE(c.op(s));
      EXPECT_EQ(1, fail.failures());
    }
    EXPECT_EQ(content, text(s));
    EXPECT_EQ(cap, s.capacity());
    EXPECT_EQ(data, s.getData());
  }
  FaultPlan fail(Op::kAlloc, 1);
  ZARString s(lng.c_str());  // a constructor that cannot allocate leaves it empty
  EXPECT_EQ(0, s.getLen());
  EXPECT_STREQ("", s.getData());
}

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

int sign(int v) { return (v > 0) - (v < 0); }

TEST(ZARString, CompareSignsOfEveryOverload) {
  using R = ZARStringRef;
  const struct {
    int got;
    int sign;
  } cases[] = {
      {ZARString("abc").compare(R("ab", 2)), 1},
      {ZARString("a").compare(R("ab", 2)), -1},
      {ZARString("ab").compare(R("abX", 2)), 0},
      {ZARString("abc").compare("abcdef", -1), -1},
      {ZARString("abc").compare("abcdef", 3), 0},
      {R("ab", 2).compare(R("abc", 3)), -1},
      {R("abc", 3).compare(R("ab", 2)), 1},
      {R("YES", 3).compare("yes", -1), -1},
      {R("YES", 3).icompare("yes", -1), 0},
      {R("ab", 2).compare(ZARString("abc")), -1},
      {R("abc", 3).compare(ZARString("ab")), 1},
      {R("HeLp", 4).icompare(ZARString("help")), 0},
  };
  int row = 0;
  for (const auto& c : cases) EXPECT_EQ(c.sign, sign(c.got)) << "row " << row++;
}

}  // namespace
