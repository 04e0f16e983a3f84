// The time service against glibc: reading the clock (zar_utc_gettime against
// clock_gettime) and the local-time text that stamps every log record
// (zar_utc_asclocaltime against localtime_r + strftime making the same text),
// with TZ unset, naming a zone file and holding a rule string. Cases are
// named "zar/<case>" and "peer/<case>" so that the pairs line up.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <random>
#include <vector>

#include "zar/utc.h"

namespace {

constexpr size_t kInstants = 1024;

struct Instants {
  std::vector<utc_t> utc;
  std::vector<struct timespec> ts;
};

// Random instants of 2024, the same for both sides.
const Instants& instants() {
  static const Instants all = [] {
    Instants in;
    std::mt19937_64 rng(7);
    for (size_t i = 0; i < kInstants; ++i) {
      struct timespec ts;
      ts.tv_sec = 1'704'067'200 + static_cast<time_t>(rng() % (366 * 86'400));
      ts.tv_nsec = static_cast<long>(rng() % 10'000'000) * 100;
      utc_t u;
      zar_utc_mkbintime(&u, &ts, nullptr, 0);
      in.ts.push_back(ts);
      in.utc.push_back(u);
    }
    return in;
  }();
  return all;
}

char* put2(char* p, long v) {
  p[0] = static_cast<char>('0' + v / 10);
  p[1] = static_cast<char>('0' + v % 10);
  return p + 2;
}

// glibc's way to the same text: localtime_r, strftime for the calendar part,
// then the milliseconds, the offset and the unknown inaccuracy appended.
size_t peerText(const struct timespec& ts, char* buf, size_t len) {
  struct tm tm;
  localtime_r(&ts.tv_sec, &tm);
  size_t n = strftime(buf, len, "%Y-%m-%d-%H:%M:%S", &tm);
  char* p = buf + n;
  long ms = ts.tv_nsec / 1'000'000;
  *p++ = '.';
  *p++ = static_cast<char>('0' + ms / 100);
  p = put2(p, ms % 100);
  long off = tm.tm_gmtoff / 60 * 60;  // whole minutes, as a timestamp keeps them
  *p++ = off < 0 ? '-' : '+';
  if (off < 0) off = -off;
  p = put2(p, off / 3600);
  *p++ = ':';
  p = put2(p, off % 3600 / 60);
  memcpy(p, "I-----", 7);
  return static_cast<size_t>(p + 6 - buf);
}

// Sets TZ for a case (null: unset) for both libraries, and checks once that
// both make the same text for every instant, so that the pair is fair.
bool useZone(benchmark::State& state, const char* tz) {
  if (tz != nullptr) {
    setenv("TZ", tz, 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  const Instants& in = instants();
  for (size_t i = 0; i < kInstants; ++i) {
    char a[64];
    char b[64];
    zar_utc_asclocaltime(a, sizeof a, &in.utc[i]);
    peerText(in.ts[i], b, sizeof b);
    if (strcmp(a, b) != 0) {
      fprintf(stderr, "texts differ: zar %s, glibc %s\n", a, b);
      state.SkipWithError("zar and glibc texts differ");
      return false;
    }
  }
  return true;
}

void zarLocalText(benchmark::State& state, const char* tz) {
  if (!useZone(state, tz)) return;
  const Instants& in = instants();
  char buf[50];
  size_t i = 0;
  for (auto _ : state) {
    zar_utc_asclocaltime(buf, sizeof buf, &in.utc[i]);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) & (kInstants - 1);
  }
}

void peerLocalText(benchmark::State& state, const char* tz) {
  if (!useZone(state, tz)) return;
  const Instants& in = instants();
  char buf[50];
  size_t i = 0;
  for (auto _ : state) {
    peerText(in.ts[i], buf, sizeof buf);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) & (kInstants - 1);
  }
}

void zarGettime(benchmark::State& state) {
  utc_t u;
  for (auto _ : state) {
    zar_utc_gettime(&u);
    benchmark::DoNotOptimize(u);
  }
}

void peerGettime(benchmark::State& state) {
  struct timespec ts;
  for (auto _ : state) {
    clock_gettime(CLOCK_REALTIME, &ts);
    benchmark::DoNotOptimize(ts);
  }
}

constexpr char kZoneFile[] = "Europe/Berlin";
constexpr char kRule[] = "CET-1CEST,M3.5.0,M10.5.0/3";

}  // namespace

BENCHMARK(zarGettime)->Name("zar/gettime");
BENCHMARK(peerGettime)->Name("peer/gettime");
BENCHMARK_CAPTURE(zarLocalText, tz_unset, nullptr)->Name("zar/asclocaltime_tz_unset");
BENCHMARK_CAPTURE(peerLocalText, tz_unset, nullptr)->Name("peer/asclocaltime_tz_unset");
BENCHMARK_CAPTURE(zarLocalText, tz_file, kZoneFile)->Name("zar/asclocaltime_tz_file");
BENCHMARK_CAPTURE(peerLocalText, tz_file, kZoneFile)->Name("peer/asclocaltime_tz_file");
BENCHMARK_CAPTURE(zarLocalText, tz_rule, kRule)->Name("zar/asclocaltime_tz_rule");
BENCHMARK_CAPTURE(peerLocalText, tz_rule, kRule)->Name("peer/asclocaltime_tz_rule");

BENCHMARK_MAIN();
