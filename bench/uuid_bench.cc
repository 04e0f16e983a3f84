// UUIDs: libzar's kp_uuid_create and kp_uuid_to_string against libuuid's
// uuid_generate_time and uuid_unparse. Cases are named "zar/<case>" and
// "peer/<case>". The creation cases also run from two threads, which shows
// the cost of the generator's lock.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <uuid/uuid.h>

#include "zar/uuid.h"

namespace {

void zarCreate(benchmark::State& state) {
  kp_uuid_t u;
  uint64_t st = 0;
  for (auto _ : state) {
    kp_uuid_create(&u, &st);
    benchmark::DoNotOptimize(u);
  }
  if (st != 0) state.SkipWithError("kp_uuid_create failed");
}

void peerCreate(benchmark::State& state) {
  uuid_t u;
  for (auto _ : state) {
    uuid_generate_time(u);
    benchmark::DoNotOptimize(u);
  }
}

void zarToString(benchmark::State& state) {
  kp_uuid_t u;
  uint64_t st = 0;
  kp_uuid_create(&u, &st);
  for (auto _ : state) {
    char* text = nullptr;
    kp_uuid_to_string(&u, &text, &st);
    benchmark::DoNotOptimize(text);
    kp_uuid_string_free(&text, &st);
  }
}

void peerToString(benchmark::State& state) {
  uuid_t u;
  uuid_generate_time(u);
  char text[37];
  for (auto _ : state) {
    uuid_unparse(u, text);
    benchmark::DoNotOptimize(text);
  }
}

// The floor that an allocated result sets: the peer's text into a new
// allocation of the same size, freed again, as kp_uuid_to_string's caller does.
void allocatedPeerToString(benchmark::State& state) {
  uuid_t u;
  uuid_generate_time(u);
  for (auto _ : state) {
    char* text = static_cast<char*>(malloc(37));
    uuid_unparse(u, text);
    benchmark::DoNotOptimize(text);
    free(text);
  }
}

BENCHMARK(zarCreate)->Name("zar/uuid_create");
BENCHMARK(peerCreate)->Name("peer/uuid_create");
BENCHMARK(zarCreate)->Name("zar/uuid_create_2threads")->Threads(2);
BENCHMARK(peerCreate)->Name("peer/uuid_create_2threads")->Threads(2);
BENCHMARK(zarToString)->Name("zar/uuid_to_string");
BENCHMARK(peerToString)->Name("peer/uuid_to_string");
BENCHMARK(allocatedPeerToString)->Name("peer_malloc/uuid_to_string");

}  // namespace

BENCHMARK_MAIN();
