// ZARMsgCache: one fetch per id, sorted chains shared by ids with the same
// remainder, and threads that ask for the same ids at once.
#include "zar/msgcache.hpp"

#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"

namespace {

using zar::fault::Op;
using zar::test::FaultPlan;

std::string unknownText(unsigned id) {
  char buf[64];
  snprintf(buf, sizeof buf, "Unknown message number 0x%8.8x", id);
  return buf;
}

// A text is fetched once; later requests get the same pointer without
// allocating.
TEST(ZARMsgCache, FetchesOnceAndHandsBackCachedTexts) {
  ZARMsgCache cache;
  const char* first = cache.getMessage(0x38C52097u);
  ASSERT_NE(nullptr, first);
  unsigned long st = 0;
  char* direct = zar_msg_get_msg(0x38C52097u, &st);
  EXPECT_STREQ(direct, first);
  free(direct);
  {
    FaultPlan fail(Op::kAlloc, 1, /*sticky=*/true);
    EXPECT_EQ(first, cache.getMessage(0x38C52097u));
    EXPECT_EQ(0, fail.calls());
    EXPECT_EQ(nullptr, cache.getMessage(0x38C52096u));
  }
}

// Ids 5, 102 and 199 share one chain (remainder 5 of 97); whatever order they
// are cached in, each is found, and an uncached neighbour is not.
TEST(ZARMsgCache, SharedChainFindsEveryIdAndNoOther) {
  const std::vector<unsigned> orders[] = {{102}, {102, 5}, {102, 5, 199}, {199, 102, 5}, {5, 102, 199}};
  for (const auto& order : orders) {
    ZARMsgCache cache;
    std::map<unsigned, const char*> got;
    for (unsigned id : order) {
      EXPECT_EQ(nullptr, cache.searchHashTable(id));
      got[id] = cache.getMessage(id);
      ASSERT_NE(nullptr, got[id]);
      EXPECT_EQ(unknownText(id), got[id]);
    }
    for (const auto& [id, text] : got) EXPECT_EQ(text, cache.searchHashTable(id)) << id;
    EXPECT_EQ(nullptr, cache.searchHashTable(296));  // 296 % 97 == 5 as well
    EXPECT_EQ(nullptr, cache.searchHashTable(6));
  }
}

TEST(ZARMsgCache, ThreadsAskingTheSameIdsGetTheSamePointers) {
  constexpr int kThreads = 4;
  constexpr unsigned kIds = 40;  // all in one chain: 1000 + k * 97
  for (int round = 0; round < 20; ++round) {
    ZARMsgCache cache;
    std::vector<std::vector<const char*>> seen(kThreads, std::vector<const char*>(kIds));
    zar::test::runConcurrently(kThreads, [&](int t) -> long {
      // Overlapping ranges walked in different directions and from different offsets.
      for (unsigned i = 0; i < kIds; ++i) {
        unsigned k = (t % 2 == 0) ? (i + static_cast<unsigned>(t) * 5) % kIds : kIds - 1 - i;
        seen[static_cast<size_t>(t)][k] = cache.getMessage(1000 + k * 97);
      }
      return 0;
    });
    for (unsigned k = 0; k < kIds; ++k) {
      ASSERT_NE(nullptr, seen[0][k]);
      EXPECT_EQ(unknownText(1000 + k * 97), seen[0][k]);
      for (int t = 1; t < kThreads; ++t) ASSERT_EQ(seen[0][k], seen[static_cast<size_t>(t)][k]);
    }
  }
}

}  // namespace
