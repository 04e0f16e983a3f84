// Message texts: a lookup served from a cached catalog, a compiled-only
// lookup (catalogs switched off) and the error text, each against the bare
// catgets of an open catalog, which is what a program without the library
// would call; and the cached lookup against catgets plus the copy that
// zar_msg_get_msg hands its caller.
#include <benchmark/benchmark.h>
#include <nl_types.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "core/svcutl/msgint.h"
#include "zar/msg.h"

namespace {

constexpr uint32_t kCode = 0x38C52097;  // XKJSC0151E, in kpwsc.cat and the client table
const std::string kCatalogs = ZAR_BENCH_NLS_DIR;

nl_catd openPeerCatalog() {
  static nl_catd cat = catopen((kCatalogs + "/C/kpwsc.cat").c_str(), 0);
  return cat;
}

void zarCachedCatalog(benchmark::State& state) {
  zar::msg::gMsg.noXpgCat = 0;
  unsigned long st;
  free(zar_msg_get_msg(kCode, &st));  // opens and caches the catalog
  if (st != 0) state.SkipWithError("no catalog text");
  for (auto _ : state) {
    char* t = zar_msg_get_msg(kCode, &st);
    benchmark::DoNotOptimize(t);
    free(t);
  }
}

void zarCompiledOnly(benchmark::State& state) {
  zar::msg::gMsg.noXpgCat = 1;  // as SVC_NOXPGCAT=1 would set it
  unsigned long st;
  for (auto _ : state) {
    char* t = zar_msg_get_msg(kCode, &st);
    benchmark::DoNotOptimize(t);
    free(t);
  }
  zar::msg::gMsg.noXpgCat = 0;
}

void zarErrorText(benchmark::State& state) {
  zar::msg::gMsg.noXpgCat = 0;
  zar_error_string_t buf;
  int st;
  for (auto _ : state) {
    zar_error_inq_text(kCode, buf, &st);
    benchmark::DoNotOptimize(buf);
  }
}

// The peer: catgets on a catalog the program keeps open.
void peerCatgets(benchmark::State& state) {
  nl_catd cat = openPeerCatalog();
  if (cat == reinterpret_cast<nl_catd>(-1)) state.SkipWithError("catopen failed");
  for (auto _ : state) benchmark::DoNotOptimize(catgets(cat, 1, kCode & 0xFFF, "?"));
}

// The same with the copy a caller of zar_msg_get_msg gets.
void peerCatgetsCopy(benchmark::State& state) {
  nl_catd cat = openPeerCatalog();
  for (auto _ : state) {
    char* t = strdup(catgets(cat, 1, kCode & 0xFFF, "?"));
    benchmark::DoNotOptimize(t);
    free(t);
  }
}

// The peer of the error text: catgets plus the same suffix.
void peerErrorText(benchmark::State& state) {
  nl_catd cat = openPeerCatalog();
  char buf[ZAR_ERROR_STRING_LEN];
  for (auto _ : state) {
    snprintf(buf, sizeof buf, "%s (%s / %s)", catgets(cat, 1, kCode & 0xFFF, "?"), "kp", "wsc");
    benchmark::DoNotOptimize(buf);
  }
}

}  // namespace

BENCHMARK(zarCachedCatalog)->Name("zar/msg_cached_catalog");
BENCHMARK(peerCatgets)->Name("peer/msg_cached_catalog");
BENCHMARK(zarCachedCatalog)->Name("zar/msg_cached_catalog_copy");
BENCHMARK(peerCatgetsCopy)->Name("peer/msg_cached_catalog_copy");
BENCHMARK(zarCompiledOnly)->Name("zar/msg_compiled_only");
BENCHMARK(peerCatgets)->Name("peer/msg_compiled_only");
BENCHMARK(zarErrorText)->Name("zar/error_inq_text");
BENCHMARK(peerErrorText)->Name("peer/error_inq_text");

int main(int argc, char** argv) {
  setenv("NLSPATH", (kCatalogs + "/%L/%N").c_str(), 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
