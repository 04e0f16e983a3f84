// ZARHashTable and ZARHashTableIter: bucket folding, duplicates at head and
// tail, and walk order.
#include "zar/hashtable.hpp"

#include <string>
#include <utility>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/string.hpp"

namespace {

// A key whose hash the test chooses, so that it lands in a known bucket of a
// small table (below 256 buckets a hash under 256 folds to itself).
struct Key {
  unsigned h;
  std::string name;
  Key(unsigned hash, std::string n) : h(hash), name(std::move(n)) {}
  unsigned hash() const { return h; }
  int compare(const Key& o) const { return name.compare(o.name); }
};

struct Value {
  int v;
  explicit Value(int x) : v(x) {}
};

using Table = ZARHashTable<Key, Value>;

std::vector<std::pair<std::string, int>> walk(const Table& t) {
  std::vector<std::pair<std::string, int>> out;
  ZARHashTableIter<Key, Value> it(t);
  Key* k = nullptr;
  Value* v = nullptr;
  while (it.next(k, v)) out.emplace_back(k->name, v != nullptr ? v->v : -1);
  return out;
}

using Walk = std::vector<std::pair<std::string, int>>;

// Folds the hash by the table size, then takes the remainder; the keys of
// the command-line parser's 29-bucket tables land in their buckets.
TEST(ZARHashTable, BucketOfFoldsThenTakesTheRemainder) {
  const struct {
    unsigned hash, buckets, bucket;
  } folds[] = {{0x12345678u, 16777216u, 0x345678u}, {0x12345678u, 65536u, 0x5758u},
               {0x12345678u, 256u, 0x4Cu},          {0x12345678u, 255u, 164u},
               {0x12345678u, 29u, 20u},             {5381u, 29u, 27u}};
  for (const auto& c : folds) EXPECT_EQ(c.bucket, Table::bucketOf(c.hash, c.buckets)) << c.buckets;
  using Strings = ZARHashTable<ZARString, ZARString>;
  const std::pair<const char*, unsigned> keys[] = {{"", 27}, {"help", 25}, {"rspfile", 28}};
  Strings t;
  ASSERT_TRUE(t.init(29, true));
  for (const auto& [key, bucket] : keys) {
    EXPECT_EQ(bucket, Strings::bucketOf(ZARString(key).hash(), 29)) << key;
    ASSERT_TRUE(t.insertHead(new ZARString(key), new ZARString(key)));
  }
  for (const auto& [key, bucket] : keys) EXPECT_STREQ(key, t.find(ZARString(key))->getData());
  EXPECT_EQ(nullptr, t.find(ZARString("other")));
}

// Buckets walk in ascending order, each chain from head to tail; a key
// inserted at the head shadows older equal keys, one at the tail does not.
TEST(ZARHashTable, WalkOrderAndShadowing) {
  Table t;
  ASSERT_TRUE(t.init(29, true));
  ASSERT_TRUE(t.insertTail(new Key(25, "in25"), new Value(25)));
  ASSERT_TRUE(t.insertTail(new Key(3, "k"), new Value(1)));
  ASSERT_TRUE(t.insertTail(new Key(32, "k"), new Value(2)));  // 32 % 29 == 3
  ASSERT_TRUE(t.insertHead(new Key(100, "in13"), nullptr));   // 100 % 29 == 13
  ASSERT_TRUE(t.insertTail(new Key(28, "in28"), new Value(28)));  // the last bucket
  EXPECT_EQ((Walk{{"k", 1}, {"k", 2}, {"in13", -1}, {"in25", 25}, {"in28", 28}}), walk(t));
  EXPECT_EQ(1, t.find(Key(3, "k"))->v);
  EXPECT_EQ(nullptr, t.find(Key(100, "in13")));  // a null value answers like a miss
  ASSERT_TRUE(t.insertHead(new Key(61, "k"), new Value(3)));  // 61 % 29 == 3
  EXPECT_EQ(3, t.find(Key(3, "k"))->v);
  EXPECT_EQ(6u, t.getCount());
}

}  // namespace
