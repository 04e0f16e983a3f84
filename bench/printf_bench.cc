// The formatted-output engine: zar_snprintf and zar_asprintf against glibc's
// snprintf and asprintf on the same formats, and fmt's format_to_n for
// reference. Cases are named "zar/<family>/<case>" and "peer/<family>/<case>"
// so that scripts/bench puts the pairs side by side; fmt runs as
// "fmt/snprintf/<case>".
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include <type_traits>

#include "core/zarprintf.h"
#include "zar/printf.h"

namespace {

// Doubles are read through a volatile so that the compiler cannot fold them
// (and are kept away from DoNotOptimize, which mangles them with GCC 12).
volatile double gPi = 3.14159265;
volatile double gHalf = 0.5;

const char16_t kWide16[] = u"Gr\u00fc\u00dfe aus K\u00f6ln \u2013 \u20ac 42, sch\u00f6n!";
const wchar_t kWide32[] = L"Gr\u00fc\u00dfe aus K\u00f6ln \u2013 \u20ac 42, sch\u00f6n!";

nlz_cs_t utf8() {
  static nlz_cs_t cs = nlz_cs_shared("UTF8");
  return cs;
}

// glibc converts %ls with the locale's code set: make it UTF-8 once.
void useUtf8Locale() {
  static bool done = setlocale(LC_ALL, "C.UTF-8") != nullptr;
  (void)done;
}

// The cases: each calls the given engine with its format and arguments. The
// ten-conversion case has nine arguments (the tenth conversion is "%%"): the
// most that the engine formats without touching the heap.
template <class Call>
int sDashD(Call call) { return call("%s-%d", "request", 4711); }
template <class Call>
int paddedFields(Call call) { return call("%-10s|%5d|%x", "name", 1234, 0xbeefu); }
template <class Call>
int zeroPaddedFloat(Call call) { return call("%08.3f", gPi); }
template <class Call>
int positional(Call call) { return call("%2$s %1$s", "world", "hello"); }
template <class Call>
int longLong(Call call) { return call("%lld", 1234567890123LL); }
template <class Call>
int tenConversions(Call call) {
  return call("%d|%s|%x|%c|%ld|%u|%.2f|%-6s|%08X|%%", 42, "ten", 255u, 'c', -7L, 99u, gHalf,
              "left", 0xabcu);
}

// snprintf into a 256-byte buffer.
#define ZAR_SNPRINTF_CASE(name, fn)                                                        \
  void zarSnprintf_##name(benchmark::State& state) {                                        \
    char buf[256];                                                                          \
    for (auto _ : state) {                                                                  \
      int n = fn([&](const char* f, auto... a) { return zar_snprintf(buf, sizeof buf, f, a...); }); \
      benchmark::DoNotOptimize(n);                                                          \
      benchmark::DoNotOptimize(buf);                                                        \
    }                                                                                       \
  }                                                                                         \
  void peerSnprintf_##name(benchmark::State& state) {                                       \
    char buf[256];                                                                          \
    for (auto _ : state) {                                                                  \
      int n = fn([&](const char* f, auto... a) { return snprintf(buf, sizeof buf, f, a...); }); \
      benchmark::DoNotOptimize(n);                                                          \
      benchmark::DoNotOptimize(buf);                                                        \
    }                                                                                       \
  }                                                                                         \
  void zarAsprintf_##name(benchmark::State& state) {                                        \
    for (auto _ : state) {                                                                  \
      char* out = nullptr;                                                                  \
      int n = fn([&](const char* f, auto... a) { return zar_asprintf(&out, f, a...); });    \
      benchmark::DoNotOptimize(n);                                                          \
      benchmark::DoNotOptimize(out);                                                        \
      zar_asprintf_free(out);                                                               \
    }                                                                                       \
  }                                                                                         \
  void peerAsprintf_##name(benchmark::State& state) {                                       \
    for (auto _ : state) {                                                                  \
      char* out = nullptr;                                                                  \
      int n = fn([&](const char* f, auto... a) { return asprintf(&out, f, a...); });        \
      benchmark::DoNotOptimize(n);                                                          \
      benchmark::DoNotOptimize(out);                                                        \
      free(out);                                                                            \
    }                                                                                       \
  }                                                                                         \
  BENCHMARK(zarSnprintf_##name)->Name("zar/snprintf/" #name);                               \
  BENCHMARK(peerSnprintf_##name)->Name("peer/snprintf/" #name);                             \
  BENCHMARK(zarAsprintf_##name)->Name("zar/asprintf/" #name);                               \
  BENCHMARK(peerAsprintf_##name)->Name("peer/asprintf/" #name);

ZAR_SNPRINTF_CASE(s_dash_d, sDashD)
ZAR_SNPRINTF_CASE(padded_s_d_x, paddedFields)
ZAR_SNPRINTF_CASE(float_08_3f, zeroPaddedFloat)
ZAR_SNPRINTF_CASE(positional_2_1, positional)
ZAR_SNPRINTF_CASE(lld, longLong)
ZAR_SNPRINTF_CASE(ten_conversions, tenConversions)

// Wide string: %S (16-bit units) into UTF-8 against glibc's %ls (wchar_t)
// in a UTF-8 locale.
void zarSnprintfWide(benchmark::State& state) {
  char buf[256];
  nlz_cs_t cs = utf8();
  for (auto _ : state) {
    int n = zar_snprintf_cs(buf, sizeof buf, cs, "text=%S", kWide16);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
  }
}
void peerSnprintfWide(benchmark::State& state) {
  useUtf8Locale();
  char buf[256];
  for (auto _ : state) {
    int n = snprintf(buf, sizeof buf, "text=%ls", kWide32);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
  }
}
void zarAsprintfWide(benchmark::State& state) {
  nlz_cs_t cs = utf8();
  for (auto _ : state) {
    char* out = nullptr;
    int n = zar_asprintf_cs(&out, cs, "text=%S", kWide16);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out);
    zar_asprintf_free(out);
  }
}
void peerAsprintfWide(benchmark::State& state) {
  useUtf8Locale();
  for (auto _ : state) {
    char* out = nullptr;
    int n = asprintf(&out, "text=%ls", kWide32);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out);
    free(out);
  }
}
BENCHMARK(zarSnprintfWide)->Name("zar/snprintf/wide_string");
BENCHMARK(peerSnprintfWide)->Name("peer/snprintf/wide_string");
BENCHMARK(zarAsprintfWide)->Name("zar/asprintf/wide_string");
BENCHMARK(peerAsprintfWide)->Name("peer/asprintf/wide_string");

// fmt's format_to_n into the same 256-byte buffer, for reference.
template <class... A>
void fmtCase(benchmark::State& state, fmt::format_string<std::type_identity_t<A>&...> f, A... a) {
  char buf[256];
  for (auto _ : state) {
    auto r = fmt::format_to_n(buf, sizeof buf - 1, f, a...);
    *r.out = '\0';
    benchmark::DoNotOptimize(r.size);
    benchmark::DoNotOptimize(buf);
  }
}
void fmtSDashD(benchmark::State& s) { fmtCase(s, "{}-{}", "request", 4711); }
void fmtPadded(benchmark::State& s) { fmtCase(s, "{:<10}|{:>5}|{:x}", "name", 1234, 0xbeefu); }
void fmtFloat(benchmark::State& s) { fmtCase(s, "{:08.3f}", static_cast<double>(gPi)); }
void fmtPositional(benchmark::State& s) { fmtCase(s, "{1} {0}", "world", "hello"); }
void fmtLongLong(benchmark::State& s) { fmtCase(s, "{}", 1234567890123LL); }
void fmtTen(benchmark::State& s) {
  fmtCase(s, "{}|{}|{:x}|{}|{}|{}|{:.2f}|{:<6}|{:08X}|%", 42, "ten", 255u, 'c', -7L, 99u,
          static_cast<double>(gHalf), "left", 0xabcu);
}
BENCHMARK(fmtSDashD)->Name("fmt/snprintf/s_dash_d");
BENCHMARK(fmtPadded)->Name("fmt/snprintf/padded_s_d_x");
BENCHMARK(fmtFloat)->Name("fmt/snprintf/float_08_3f");
BENCHMARK(fmtPositional)->Name("fmt/snprintf/positional_2_1");
BENCHMARK(fmtLongLong)->Name("fmt/snprintf/lld");
BENCHMARK(fmtTen)->Name("fmt/snprintf/ten_conversions");

}  // namespace

BENCHMARK_MAIN();
