// Random bytes: zar_get_random_bytes against getrandom(2) itself, for a
// UUID-sized and a page-sized request. Cases are named "zar/<case>" and
// "peer/<case>".
#include <benchmark/benchmark.h>
#include <sys/random.h>

#include <vector>

#include "zar/util.h"

namespace {

void zarRandom(benchmark::State& state) {
  std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (zar_get_random_bytes(buf.data(), static_cast<uint32_t>(buf.size())) != 0)
      state.SkipWithError("zar_get_random_bytes failed");
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
}

void peerRandom(benchmark::State& state) {
  std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (getrandom(buf.data(), buf.size(), 0) != static_cast<ssize_t>(buf.size()))
      state.SkipWithError("getrandom failed");
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
}

BENCHMARK(zarRandom)->Name("zar/random_bytes_16")->Arg(16);
BENCHMARK(peerRandom)->Name("peer/random_bytes_16")->Arg(16);
BENCHMARK(zarRandom)->Name("zar/random_bytes_4096")->Arg(4096);
BENCHMARK(peerRandom)->Name("peer/random_bytes_4096")->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
