// ZARStringIter: the tokenizer's rules (space skipping, empty tokens, no
// token after a final delimiter), counting, contains, and the modifying mode.
#include <string.h>

#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/string.hpp"

namespace {

struct SplitCase {
  const char* name;
  std::string text;
  char delimiter;
  std::vector<std::string> tokens;
};

class Split : public ::testing::TestWithParam<SplitCase> {};

TEST_P(Split, YieldsTheTokensAndCountsThem) {
  const SplitCase& c = GetParam();
  ZARStringIter it(ZARStringRef(c.text.data(), static_cast<int>(c.text.size())), c.delimiter);
  std::vector<std::string> got;
  ZARStringRef tok;
  while (it.next(tok)) {
    EXPECT_FALSE(tok.isNullTerminated());
    got.emplace_back(tok.getData(), tok.getLen());
  }
  EXPECT_EQ(c.tokens, got);
  EXPECT_FALSE(it.next(tok));
  EXPECT_EQ(static_cast<int>(c.tokens.size()), it.entries());
}

INSTANTIATE_TEST_SUITE_P(
    ZARStringIter, Split,
    ::testing::Values(SplitCase{"SpacesAndEmptyTokens", "a, b ,,c,", ',', {"a", "b ", "", "c"}},
                      SplitCase{"Empty", "", ',', {}},
                      SplitCase{"AllSpaces", "   ", ',', {}},
                      SplitCase{"LeadingDelimiter", ",a", ',', {"", "a"}},
                      SplitCase{"TabIsKept", "a,\tb", ',', {"a", "\tb"}},
                      SplitCase{"SpaceDelimiterRuns", "  a  b  ", ' ', {"a", "b"}},
                      SplitCase{"NoDelimiter", "whole text", ',', {"whole text"}},
                      SplitCase{"OnlyDelimiters", ",,", ',', {"", ""}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ZARStringIter, DefaultConstructedYieldsNothing) {
  ZARStringIter it;
  ZARStringRef tok;
  EXPECT_FALSE(it.next(tok));
  EXPECT_FALSE(it.contains(ZARStringRef("")));
  EXPECT_EQ(0, it.entries());
}

TEST(ZARStringIter, ContainsLooksOnlyAtTokensNotYetReturned) {
  ZARStringIter it(ZARStringRef("red,green, blue"), ',');
  EXPECT_TRUE(it.contains(ZARStringRef("blue")));
  EXPECT_FALSE(it.contains(ZARStringRef("Blue")));
  EXPECT_FALSE(it.contains(ZARStringRef("gre")));
  ZARStringRef tok;
  ASSERT_TRUE(it.next(tok));
  EXPECT_FALSE(it.contains(ZARStringRef("red")));
  ASSERT_TRUE(it.next(tok));
  EXPECT_EQ(0, tok.compare("green"));
}

TEST(ZARStringIter, ModifyingModeTerminatesTokensInPlace) {
  ZARString s("x,y");
  ZARStringIter it(s, ',', false);
  ZARStringRef tok;
  ASSERT_TRUE(it.next(tok));
  EXPECT_EQ(0, memcmp("x\0y", s.getData(), 4));
  EXPECT_EQ(3, s.getLen());
  EXPECT_EQ(s.getData(), tok.getData());
  EXPECT_EQ(1, tok.getLen());
  EXPECT_FALSE(tok.isNullTerminated());
  // Counted after a delimiter was overwritten: the NUL hides the rest.
  EXPECT_EQ(1, it.entries());
  ASSERT_TRUE(it.next(tok));
  EXPECT_STREQ("y", tok.getData());
}

TEST(ZARStringIter, CountTakenBeforeModifyingIsKept) {
  ZARString s(" a, b,c");
  ZARStringIter it(s, ',', false);
  EXPECT_EQ(3, it.entries());
  ZARStringRef tok;
  std::vector<std::string> got;
  while (it.next(tok)) got.emplace_back(tok.getData());  // each token now terminated
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), got);
  EXPECT_EQ(3, it.entries());
}

TEST(ZARStringIter, ReadOnlyModeNeverWritesAndInitializeRestarts) {
  ZARString s("p;q");
  ZARStringIter it(s, ';', true);
  ZARStringRef tok;
  while (it.next(tok)) {
  }
  EXPECT_STREQ("p;q", s.getData());
  EXPECT_EQ(2, it.entries());
  it.initialize(ZARStringRef("1 2 3"), ' ');
  EXPECT_EQ(3, it.entries());
  ASSERT_TRUE(it.next(tok));
  EXPECT_EQ(0, tok.compare("1"));
}

}  // namespace
