// The C++ classes against the standard library: ZARString append and set of
// short and long values against std::string, ZARHashTable find against
// std::unordered_map over the same keys, and ZARMsgCache hits from one and
// four threads against a map of texts under a std::shared_mutex.
//
// Names: "zar/<case>" measures libzar, "peer/<case>" the same work done with
// the peer; the ratio of the two is what is reported.
#include <benchmark/benchmark.h>

#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "zar/zar.hpp"

namespace {

// 12 bytes fit both the inline buffer of ZARString (29) and the short-string
// buffer of libstdc++'s std::string (15); 200 bytes fit neither.
const std::string kShort = "short-value1";
const std::string kShort2 = "other-value2";
const std::string kLong(200, 'L');
const std::string kLong2(190, 'M');

void zarAppend(benchmark::State& state, const std::string& v) {
  for (auto _ : state) {
    ZARString s;
    s.append(v.data(), static_cast<int>(v.size()));
    benchmark::DoNotOptimize(s.getData());
  }
}

void peerAppend(benchmark::State& state, const std::string& v) {
  for (auto _ : state) {
    std::string s;
    s.append(v.data(), v.size());
    benchmark::DoNotOptimize(s.data());
  }
}

// Alternating set of two values into one long-lived string: the heap block
// (or capacity) is reused after the first round.
void zarSet(benchmark::State& state, const std::string& a, const std::string& b) {
  ZARString s;
  bool flip = false;
  for (auto _ : state) {
    const std::string& v = flip ? a : b;
    s.set(v.data(), static_cast<int>(v.size()));
    benchmark::DoNotOptimize(s.getData());
    flip = !flip;
  }
}

void peerSet(benchmark::State& state, const std::string& a, const std::string& b) {
  std::string s;
  bool flip = false;
  for (auto _ : state) {
    const std::string& v = flip ? a : b;
    s.assign(v.data(), v.size());
    benchmark::DoNotOptimize(s.data());
    flip = !flip;
  }
}

// Building a 512-byte value from 64 appends of 8 bytes: exact growth copies
// the content at every append past the inline buffer.
void zarBuild(benchmark::State& state) {
  for (auto _ : state) {
    ZARString s;
    for (int i = 0; i < 64; ++i) s.append("abcdefgh", 8);
    benchmark::DoNotOptimize(s.getData());
  }
}

void peerBuild(benchmark::State& state) {
  for (auto _ : state) {
    std::string s;
    for (int i = 0; i < 64; ++i) s.append("abcdefgh", 8);
    benchmark::DoNotOptimize(s.data());
  }
}

BENCHMARK_CAPTURE(zarAppend, short, kShort)->Name("zar/string_append_short");
BENCHMARK_CAPTURE(peerAppend, short, kShort)->Name("peer/string_append_short");
BENCHMARK_CAPTURE(zarAppend, long, kLong)->Name("zar/string_append_long");
BENCHMARK_CAPTURE(peerAppend, long, kLong)->Name("peer/string_append_long");
BENCHMARK_CAPTURE(zarSet, short, kShort, kShort2)->Name("zar/string_set_short");
BENCHMARK_CAPTURE(peerSet, short, kShort, kShort2)->Name("peer/string_set_short");
BENCHMARK_CAPTURE(zarSet, long, kLong, kLong2)->Name("zar/string_set_long");
BENCHMARK_CAPTURE(peerSet, long, kLong, kLong2)->Name("peer/string_set_long");
BENCHMARK(zarBuild)->Name("zar/string_build_64x8");
BENCHMARK(peerBuild)->Name("peer/string_build_64x8");

// ---- Hash table ----------------------------------------------------------------

std::vector<std::string> makeKeys(int n) {
  std::vector<std::string> keys;
  keys.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) keys.push_back("option-" + std::to_string(i * 7919));
  return keys;
}

// n keys in a table of n buckets (ZARHashTable does not grow; the command
// line's tables use 29 buckets for a handful of options).
void zarFind(benchmark::State& state) {
  int n = static_cast<int>(state.range(0));
  std::vector<std::string> keys = makeKeys(n);
  ZARHashTable<ZARString, ZARString> table;
  table.init(static_cast<unsigned>(n), true);
  std::vector<ZARString> probes;
  probes.reserve(keys.size());
  for (const std::string& k : keys) {
    table.insertHead(new ZARString(k.c_str()), new ZARString("value"));
    probes.emplace_back(k.c_str());
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.find(probes[i]));
    if (++i == probes.size()) i = 0;
  }
}

void peerFind(benchmark::State& state) {
  int n = static_cast<int>(state.range(0));
  std::vector<std::string> keys = makeKeys(n);
  std::unordered_map<std::string, std::string> table;
  for (const std::string& k : keys) table.emplace(k, "value");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table.find(keys[i]));
    if (++i == keys.size()) i = 0;
  }
}

BENCHMARK(zarFind)->Name("zar/hashtable_find")->Arg(29)->Arg(1024);
BENCHMARK(peerFind)->Name("peer/hashtable_find")->Arg(29)->Arg(1024);

// ---- Message cache ---------------------------------------------------------------

// Ids of the library's own client messages, all cached before timing starts.
constexpr unsigned kFirstId = 0x38C52096u;
constexpr unsigned kIds = 30;

ZARMsgCache* sharedCache() {
  static ZARMsgCache* cache = [] {
    auto* c = new ZARMsgCache;
    for (unsigned i = 0; i < kIds; ++i) c->getMessage(kFirstId + i);
    return c;
  }();
  return cache;
}

void zarCacheHit(benchmark::State& state) {
  ZARMsgCache* cache = sharedCache();
  unsigned i = static_cast<unsigned>(state.thread_index());
  for (auto _ : state) {
    benchmark::DoNotOptimize(cache->getMessage(kFirstId + i % kIds));
    ++i;
  }
}

struct PeerCache {
  std::shared_mutex mu;
  std::unordered_map<unsigned, std::string> texts;
  const char* get(unsigned id) {
    std::shared_lock<std::shared_mutex> lock(mu);
    auto it = texts.find(id);
    return it == texts.end() ? nullptr : it->second.c_str();
  }
};

PeerCache* sharedPeer() {
  static PeerCache* cache = [] {
    auto* c = new PeerCache;
    for (unsigned i = 0; i < kIds; ++i) c->texts.emplace(kFirstId + i, sharedCache()->getMessage(kFirstId + i));
    return c;
  }();
  return cache;
}

void peerCacheHit(benchmark::State& state) {
  PeerCache* cache = sharedPeer();
  unsigned i = static_cast<unsigned>(state.thread_index());
  for (auto _ : state) {
    benchmark::DoNotOptimize(cache->get(kFirstId + i % kIds));
    ++i;
  }
}

BENCHMARK(zarCacheHit)->Name("zar/msgcache_hit")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(peerCacheHit)->Name("peer/msgcache_hit")->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
