// ZARStringIter: the tokenizer's rules (space skipping, empty tokens, no
// token after a final delimiter), counting, and the modifying mode.
#include <string.h>

#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/string.hpp"

namespace {

TEST(ZARStringIter, YieldsTheTokensAndCountsThem) {
  const struct {
    std::string text;
    char delimiter;
    std::vector<std::string> tokens;
  } cases[] = {
      {"a, b ,,c,", ',', {"a", "b ", "", "c"}},  // spaces skipped before a token, no token at the end
      {"", ',', {}},
      {"   ", ',', {}},
      {",a", ',', {"", "a"}},
      {"a,\tb", ',', {"a", "\tb"}},  // only blanks are skipped
      {"  a  b  ", ' ', {"a", "b"}},
      {"whole text", ',', {"whole text"}},
      {",,", ',', {"", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
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
  ZARStringIter none;  // default constructed: yields nothing
  ZARStringRef tok;
  EXPECT_FALSE(none.next(tok));
  EXPECT_FALSE(none.contains(ZARStringRef("")));
  EXPECT_EQ(0, none.entries());
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
  EXPECT_EQ(1, it.entries());  // counted after a delimiter was overwritten: the NUL hides the rest
  ASSERT_TRUE(it.next(tok));
  EXPECT_STREQ("y", tok.getData());
}

}  // namespace
