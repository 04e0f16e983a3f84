// ZARString and ZARStringRef: storage and growth (heap blocks counted through
// the allocation seam), comparison signs, hashing, the terminated copy, and
// allocation failure leaving a string unchanged.
#include "zar/string.hpp"

#include <string.h>

#include <string>
#include <utility>

#include "tests/testutil/testutil.h"

namespace {

using zar::fault::Op;
using zar::test::FaultPlan;

std::string text(const ZARString& s) { return std::string(s.getData(), s.getLen()); }
bool isInline(ZARString& s) { return s.getData() != s.buffer() || s.capacity() == 30; }

// Builds a string by a sequence of operations, counting heap allocations.
struct GrowthCase {
  const char* name;
  int first;    // length of the first set()
  int second;   // length of the following append(); -1: none
  unsigned capacity;
  long allocs;
  bool inlineAfter;
};

class Growth : public ::testing::TestWithParam<GrowthCase> {};

TEST_P(Growth, AllocatesExactlyAndOnlyBeyond29Bytes) {
  const GrowthCase& c = GetParam();
  ZARString s;
  FaultPlan count(Op::kAlloc, 0);
  ASSERT_TRUE(s.set(std::string(c.first, 'a').c_str()));
  if (c.second >= 0) {
    ASSERT_TRUE(s.append(std::string(c.second, 'b').c_str(), c.second));
  }
  EXPECT_EQ(c.capacity, s.capacity());
  EXPECT_EQ(c.allocs, count.calls());
  EXPECT_EQ(c.inlineAfter, isInline(s));
  std::string want = std::string(c.first, 'a') + std::string(c.second < 0 ? 0 : c.second, 'b');
  EXPECT_EQ(want, text(s));
  EXPECT_EQ('\0', s.getData()[s.getLen()]);
}

INSTANTIATE_TEST_SUITE_P(
    ZARString, Growth,
    ::testing::Values(GrowthCase{"Empty", 0, -1, 30, 0, true},
                      GrowthCase{"TwentyNineStayInline", 29, -1, 30, 0, true},
                      GrowthCase{"ThirtiethByteMovesTo31", 29, 1, 31, 1, false},
                      GrowthCase{"LongValueExact", 100, -1, 101, 1, false},
                      GrowthCase{"EachGrowthExact", 40, 1, 42, 2, false},
                      GrowthCase{"ShortAppendsStayInline", 10, 19, 30, 0, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ZARString, SetReusesTheHeapBlockAndKeepsItForShortValues) {
  ZARString s;
  ASSERT_TRUE(s.set(std::string(40, 'x').c_str()));
  char* block = s.buffer();
  ASSERT_TRUE(s.set("short"));
  EXPECT_EQ(41u, s.capacity());
  EXPECT_EQ(block, s.buffer());
  EXPECT_NE(s.buffer(), s.getData());  // short value in the inline buffer
  EXPECT_EQ("short", text(s));
  FaultPlan count(Op::kAlloc, 0);
  ASSERT_TRUE(s.set(std::string(35, 'y').c_str()));
  EXPECT_EQ(0, count.calls());
  EXPECT_EQ(block, s.getData());
  EXPECT_EQ(std::string(35, 'y'), text(s));
  s.reset();
  EXPECT_EQ(30u, s.capacity());
  EXPECT_EQ(0, s.getLen());
}

TEST(ZARString, ExpandCarriesInlineContentIntoTheNewBlock) {
  ZARString s(std::string(31, 'x').c_str());  // 32-byte block
  ASSERT_TRUE(s.set("abcde"));
  ASSERT_TRUE(s.expand(40));
  EXPECT_EQ(41u, s.capacity());
  EXPECT_EQ(s.buffer(), s.getData());
  EXPECT_STREQ("abcde", s.getData());
  FaultPlan count(Op::kAlloc, 0);
  EXPECT_TRUE(s.expand(29));
  EXPECT_TRUE(s.expand(40));
  EXPECT_EQ(0, count.calls());
}

TEST(ZARString, WriteInProtocolReplacesTheContent) {
  ZARString s("old");
  ASSERT_TRUE(s.expand(50));
  snprintf(s.buffer(), s.capacity(), "%s-%d", std::string(40, 'n').c_str(), 7);
  EXPECT_EQ(s.buffer(), s.assertBuffer(-1));
  EXPECT_EQ(42, s.getLen());
  s.assertBuffer(3);
  EXPECT_EQ("nnn", text(s));
  s.assertBuffer(1000);  // cut to the buffer, still terminated
  EXPECT_EQ(50, s.getLen());
}

TEST(ZARString, AppendingTheNulByteOrNullAddsNothing) {
  ZARString s("ab");
  EXPECT_TRUE(s.append('\0'));
  EXPECT_TRUE(s.append(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(s.append('c'));
  EXPECT_EQ("abc", text(s));
}

TEST(ZARString, AppendsAndSetsFromItsOwnContent) {
  ZARString s(std::string(20, 'a').c_str());
  ASSERT_TRUE(s.append(s));  // moves to the heap while reading itself
  EXPECT_EQ(std::string(40, 'a'), text(s));
  ASSERT_TRUE(s.set(s.getData() + 5));
  EXPECT_EQ(std::string(35, 'a'), text(s));
}

// Every allocating operation, failed at its allocation, returns false and
// leaves content, length and capacity as they were.
struct FailCase {
  const char* name;
  const char* before;
  bool (*op)(ZARString&);
};

class AllocFailure : public ::testing::TestWithParam<FailCase> {};

TEST_P(AllocFailure, LeavesTheStringUnchanged) {
  const FailCase& c = GetParam();
  ZARString s(c.before);
  std::string content = text(s);
  unsigned cap = s.capacity();
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

const std::string kLong(60, 'L');
const ZARString kLongString(kLong.c_str());
INSTANTIATE_TEST_SUITE_P(
    ZARString, AllocFailure,
    ::testing::Values(
        FailCase{"AppendInline", "abc", [](ZARString& s) { return s.append(kLong.c_str()); }},
        FailCase{"AppendHeap", "0123456789012345678901234567890123",
                 [](ZARString& s) { return s.append(kLong.c_str()); }},
        FailCase{"SetInline", "abc", [](ZARString& s) { return s.set(kLong.c_str()); }},
        FailCase{"SetHeap", "0123456789012345678901234567890123",
                 [](ZARString& s) { return s.set(kLong.c_str()); }},
        FailCase{"Expand", "abc", [](ZARString& s) { return s.expand(100); }},
        FailCase{"CopyAssign", "abc",
                 [](ZARString& s) {
                   s = kLongString;
                   return s.getLen() == kLongString.getLen();
                 }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ZARString, ConstructorThatCannotAllocateLeavesItEmpty) {
  FaultPlan fail(Op::kAlloc, 1);
  ZARString s(kLong.c_str());
  EXPECT_EQ(0, s.getLen());
  EXPECT_STREQ("", s.getData());
}

TEST(ZARString, MoveTakesTheBlockAndEmptiesTheSource) {
  ZARString longer(kLong.c_str());
  const char* block = longer.getData();
  ZARString moved(std::move(longer));
  EXPECT_EQ(block, moved.getData());
  EXPECT_EQ(0, longer.getLen());      // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(30u, longer.capacity());  // NOLINT(bugprone-use-after-move)
  ZARString shorter("tiny");
  moved = std::move(shorter);
  EXPECT_EQ("tiny", text(moved));
  EXPECT_TRUE(isInline(moved));
  EXPECT_NE(shorter.getData(), moved.getData());  // NOLINT(bugprone-use-after-move)
}

struct HashCase {
  std::string bytes;
  unsigned stringHash;
  unsigned refHash;
};

class Hash : public ::testing::TestWithParam<HashCase> {};

TEST_P(Hash, IsDjb2XorStringStopsAtNulReferenceDoesNot) {
  const HashCase& c = GetParam();
  ZARString s(c.bytes.data(), static_cast<int>(c.bytes.size()));
  ZARStringRef r(c.bytes.data(), static_cast<int>(c.bytes.size()), false);
  EXPECT_EQ(c.stringHash, s.hash());
  EXPECT_EQ(c.refHash, r.hash());
}

INSTANTIATE_TEST_SUITE_P(ZARString, Hash,
                         ::testing::Values(HashCase{"", 5381, 5381},
                                           HashCase{"a", 177604, 177604},
                                           HashCase{"help", 2087804052u, 2087804052u},
                                           HashCase{"rspfile", 702755058u, 702755058u},
                                           HashCase{std::string("a\0b", 3), 177604, 193410726u}));

// Comparison signs for every overload.
struct CmpCase {
  const char* name;
  int (*cmp)();
  int sign;
};

class CompareSign : public ::testing::TestWithParam<CmpCase> {};

int sign(int v) { return (v > 0) - (v < 0); }

TEST_P(CompareSign, HasTheExpectedSign) { EXPECT_EQ(GetParam().sign, sign(GetParam().cmp())); }

INSTANTIATE_TEST_SUITE_P(
    ZARString, CompareSign,
    ::testing::Values(
        CmpCase{"StrLongerThanRef", [] { return ZARString("abc").compare(ZARStringRef("ab", 2)); }, 1},
        CmpCase{"StrShorterThanRef", [] { return ZARString("a").compare(ZARStringRef("ab", 2)); }, -1},
        CmpCase{"StrEqualsRefSlice", [] { return ZARString("ab").compare(ZARStringRef("abX", 2)); }, 0},
        CmpCase{"StrTextNulTerminated", [] { return ZARString("abc").compare("abcdef", -1); }, -1},
        CmpCase{"StrTextFirstThree", [] { return ZARString("abc").compare("abcdef", 3); }, 0},
        CmpCase{"RefShorter", [] { return ZARStringRef("ab", 2).compare(ZARStringRef("abc", 3)); }, -1},
        CmpCase{"RefLonger", [] { return ZARStringRef("abc", 3).compare(ZARStringRef("ab", 2)); }, 1},
        CmpCase{"RefSameAddress",
                [] {
                  static const char t[] = "same";
                  return ZARStringRef(t, 4).compare(ZARStringRef(t, 4));
                },
                0},
        CmpCase{"RefCaseDiffers", [] { return ZARStringRef("YES", 3).compare("yes", -1); }, -1},
        CmpCase{"RefIgnoringCase", [] { return ZARStringRef("YES", 3).icompare("yes", -1); }, 0},
        CmpCase{"RefPrefixOfString", [] { return ZARStringRef("ab", 2).compare(ZARString("abc")); }, -1},
        CmpCase{"RefBeyondString", [] { return ZARStringRef("abc", 3).compare(ZARString("ab")); }, 1},
        CmpCase{"RefIcaseString", [] { return ZARStringRef("HeLp", 4).icompare(ZARString("help")); }, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ZARStringRef, DefaultRefersToTheEmptyTerminatedText) {
  ZARStringRef r;
  EXPECT_EQ(ZARStringRef::emptyString, r.getData());
  EXPECT_EQ(0, r.getLen());
  EXPECT_TRUE(r.isNullTerminated());
  EXPECT_EQ(r.getData(), r.getNullTermData());
  ZARStringRef fromNull(nullptr, 5, false);
  EXPECT_EQ(0, fromNull.getLen());
  EXPECT_TRUE(fromNull.isNullTerminated());
}

TEST(ZARStringRef, LearnsAnUnknownLengthOnceAndCopiesLearnIt) {
  char buf[] = "hello";
  ZARStringRef r(buf, -1, false);
  EXPECT_TRUE(r.isNullTerminated());
  ZARStringRef copy(r);  // makes r learn its length
  buf[2] = '\0';
  EXPECT_EQ(5, r.getLen());
  EXPECT_EQ(5, copy.getLen());
  ZARStringRef later(buf, -1);
  ZARStringRef assigned;
  assigned = later;  // a length of -1 stays -1 and is learnt by each
  EXPECT_EQ(2, assigned.getLen());
}

TEST(ZARStringRef, TerminatedCopyIsOwnAndNeverShared) {
  const char* whole = "abcdefgh";
  ZARStringRef r(whole, 5, false);
  const char* copy = r.getNullTermData();
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(whole, copy);
  EXPECT_STREQ("abcde", copy);
  EXPECT_EQ(copy, r.getNullTermData());
  ZARStringRef other(r);
  ZARStringRef assigned;
  assigned = r;
  EXPECT_NE(copy, other.getNullTermData());
  EXPECT_NE(copy, assigned.getNullTermData());
  EXPECT_STREQ("abcde", assigned.getNullTermData());
  static const char kEmbedded[] = {'a', '\0', 'b'};
  ZARStringRef slice(kEmbedded, 3, false);
  EXPECT_EQ(0, memcmp("a\0\0", slice.getNullTermData(), 4));
  r.set(whole, 3, false);  // frees the copy (ASan sees a use of it as an error)
  EXPECT_STREQ("abc", r.getNullTermData());
}

}  // namespace
