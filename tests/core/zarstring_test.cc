// ZARString and ZARStringRef: storage and growth (heap blocks counted through
// the allocation seam), converting appends, comparison signs, hashing, the
// terminated copy, and allocation failure leaving a string unchanged. The
// process runs in de_DE.ISO-8859-1, so that the local code page is not UTF-8.
#include "zar/string.hpp"

#include <locale.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

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

TEST(ZARString, SetAndExpandReuseTheHeapBlock) {
  ZARString s;
  ASSERT_TRUE(s.set(std::string(40, 'x').c_str()));
  char* block = s.buffer();
  ASSERT_TRUE(s.set("short"));
  EXPECT_EQ(41u, s.capacity());
  EXPECT_EQ(block, s.buffer());
  EXPECT_NE(s.buffer(), s.getData());  // short value in the inline buffer
  EXPECT_EQ("short", text(s));
  {
    FaultPlan count(Op::kAlloc, 0);
    ASSERT_TRUE(s.set(std::string(35, 'y').c_str()));
    EXPECT_TRUE(s.expand(29));
    EXPECT_TRUE(s.expand(40));
    EXPECT_EQ(0, count.calls());
  }
  EXPECT_EQ(block, s.getData());
  EXPECT_EQ(std::string(35, 'y'), text(s));
  // Expanding carries inline content into the new block.
  ASSERT_TRUE(s.set("abcde"));
  ASSERT_TRUE(s.expand(50));
  EXPECT_EQ(51u, s.capacity());
  ASSERT_TRUE(s.expand(51));  // one more than the block holds with its NUL
  EXPECT_EQ(52u, s.capacity());
  EXPECT_EQ(s.buffer(), s.getData());
  EXPECT_STREQ("abcde", s.getData());
  s.reset();
  EXPECT_EQ(30u, s.capacity());
  EXPECT_EQ(0, s.getLen());
  ASSERT_TRUE(s.expand(30));  // 30 bytes and a NUL: past the inline buffer
  EXPECT_EQ(31u, s.capacity());
}

TEST(ZARString, WriteInProtocolAppendsAndSelfReference) {
  ZARString s("old");
  ASSERT_TRUE(s.expand(50));
  snprintf(s.buffer(), s.capacity(), "%s-%d", std::string(40, 'n').c_str(), 7);
  EXPECT_EQ(s.buffer(), s.assertBuffer(-1));
  EXPECT_EQ(42, s.getLen());
  s.assertBuffer(3);
  EXPECT_EQ("nnn", text(s));
  s.assertBuffer(1000);  // cut to the buffer, still terminated
  EXPECT_EQ(50, s.getLen());
  ZARString t("ab");
  EXPECT_TRUE(t.append('\0'));  // the NUL byte and null add nothing
  EXPECT_TRUE(t.append(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(t.append('c'));
  EXPECT_EQ("abc", text(t));
  ZARString u(std::string(20, 'a').c_str());
  ASSERT_TRUE(u.append(u));  // moves to the heap while reading itself
  EXPECT_EQ(std::string(40, 'a'), text(u));
  ASSERT_TRUE(u.set(u.getData() + 5));
  EXPECT_EQ(std::string(35, 'a'), text(u));
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

// A ZARString's hash stops at a NUL byte, a reference's does not.
TEST(ZARString, HashOfStringAndReference) {
  const std::string embedded("a\0b", 3);
  EXPECT_EQ(ZARString("a").hash(), ZARString(embedded.data(), 3).hash());
  EXPECT_EQ(ZARString("ab").hash(), ZARStringRef("ab", 2, false).hash());
  EXPECT_NE(ZARString("a").hash(), ZARStringRef(embedded.data(), 3, false).hash());
  EXPECT_NE(ZARString("ab").hash(), ZARString("ba").hash());
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
  ZARString s(kLatin1Twenty.c_str(), -1, ZARString::CONVERT_TO_UTF8);
  const std::string utf8 = text(s);
  ASSERT_TRUE(s.set(utf8.c_str(), -1, ZARString::CONVERT_FROM_UTF8));
  EXPECT_EQ(kLatin1Twenty, text(s));
  ASSERT_TRUE(s.append(s.getData(), s.getLen(), ZARString::CONVERT_TO_UTF8));  // its own content
  EXPECT_EQ(kLatin1Twenty + utf8, text(s));
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(ZARString, CompareSignsOfEveryOverload) {
  static const char same[] = "same";
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
      {R(same, 4).compare(R(same, 4)), 0},
      {R("YES", 3).compare("yes", -1), -1},
      {R("YES", 3).icompare("yes", -1), 0},
      {R("ab", 2).compare(ZARString("abc")), -1},
      {R("abc", 3).compare(ZARString("ab")), 1},
      {R("HeLp", 4).icompare(ZARString("help")), 0},
  };
  int row = 0;
  for (const auto& c : cases) EXPECT_EQ(c.sign, sign(c.got)) << "row " << row++;
}

// Null and default references are the empty terminated text; an unknown
// length is learnt once (copies learn it too); the terminated copy of a
// slice is the reference's own and never shared.
TEST(ZARStringRef, LengthsAndTerminatedCopies) {
  ZARStringRef r, fromNull(nullptr, 5, false);
  EXPECT_EQ(ZARStringRef::emptyString, r.getData());
  EXPECT_EQ(r.getData(), r.getNullTermData());
  EXPECT_TRUE(fromNull.isNullTerminated());
  EXPECT_EQ(0, r.getLen() + fromNull.getLen());
  char buf[] = "hello";
  ZARStringRef learnt(buf, -1, false);
  ZARStringRef copy(learnt);
  buf[2] = '\0';
  EXPECT_EQ(5, learnt.getLen());
  EXPECT_EQ(5, copy.getLen());
  ZARStringRef assigned;
  assigned = ZARStringRef(buf, -1);
  EXPECT_EQ(2, assigned.getLen());
  const char* whole = "abcdefgh";
  ZARStringRef slice(whole, 5, false);
  const char* term = slice.getNullTermData();
  EXPECT_NE(whole, term);
  EXPECT_STREQ("abcde", term);
  EXPECT_EQ(term, slice.getNullTermData());
  ZARStringRef other(slice);
  assigned = slice;
  EXPECT_NE(term, other.getNullTermData());
  EXPECT_NE(term, assigned.getNullTermData());
  EXPECT_STREQ("abcde", assigned.getNullTermData());
  static const char kEmbedded[] = {'a', '\0', 'b'};
  EXPECT_EQ(0, memcmp("a\0\0", ZARStringRef(kEmbedded, 3, false).getNullTermData(), 4));
  slice.set(whole, 3, false);  // frees the copy (ASan sees a use of it as an error)
  EXPECT_STREQ("abc", slice.getNullTermData());
}

}  // namespace
