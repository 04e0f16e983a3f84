// zar time [--gmt] [--at SECONDS[.FRACTION]] [--zone]: prints an instant
// (now, or SECONDS since 1970-01-01 00:00:00 UTC) as the library's local-time
// text, or in UTC with --gmt. --zone adds a line with the local zone at that
// instant: its offset in seconds east of UTC, its daylight-saving flag and its
// abbreviation. The zone comes from TZ, as for every program of the library.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "tools/zar/command.h"
#include "zar/utc.h"

namespace zar::tool {
namespace {

// Seconds since 1970 that a timestamp holds as a calendar date: its count of
// 100-ns intervals starts 12,219,292,800 s before 1970, and counts from 2^63
// on are read as dates before that start.
constexpr long long kMinSeconds = -12'219'292'800LL;
constexpr long long kMaxSeconds = 910'117'910'885LL;  // exclusive

// SECONDS[.FRACTION] with an optional '-', at most nine fraction digits.
bool parseInstant(const char* text, struct timespec* out) {
  const char* p = text;
  bool neg = false;
  if (*p == '-') {
    neg = true;
    ++p;
  }
  if (*p < '0' || *p > '9') return false;
  long long sec = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    sec = sec * 10 + (*p - '0');
    if (sec > kMaxSeconds - kMinSeconds) return false;
  }
  long nsec = 0;
  if (*p == '.') {
    ++p;
    int digits = 0;
    long frac = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
      if (++digits > 9) return false;
      frac = frac * 10 + (*p - '0');
    }
    if (digits == 0) return false;
    nsec = static_cast<long>(frac * FracCvtArray[digits]);
  }
  if (*p != '\0') return false;
  if (neg) {
    sec = -sec;
    if (nsec != 0) {
      sec -= 1;
      nsec = 1'000'000'000 - nsec;
    }
  }
  if (sec < kMinSeconds || sec >= kMaxSeconds) return false;
  out->tv_sec = static_cast<time_t>(sec);
  out->tv_nsec = nsec;
  return true;
}

int runTime(const Command& self, int argc, char** argv) {
  bool gmt = false;
  bool zone = false;
  const char* atText = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (strcmp(a, "--gmt") == 0) {
      gmt = true;
    } else if (strcmp(a, "--zone") == 0) {
      zone = true;
    } else if (strcmp(a, "--at") == 0) {
      if (i + 1 >= argc) return usageError(self, "--at needs SECONDS[.FRACTION]");
      atText = argv[++i];
    } else if (strncmp(a, "--at=", 5) == 0) {
      atText = a + 5;
    } else {
      return usageError(self, "unknown argument '%s'", a);
    }
  }
  utc_t instant;
  if (atText != nullptr) {
    struct timespec ts;
    if (!parseInstant(atText, &ts)) {
      return usageError(self, "bad instant '%s': want SECONDS[.FRACTION] since 1970", atText);
    }
    zar_utc_mkbintime(&instant, &ts, nullptr, 0);
  } else {
    zar_utc_gettime(&instant);
  }
  char text[64];
  int rc = gmt ? zar_utc_ascgmtime(text, sizeof text, &instant)
               : zar_utc_asclocaltime(text, sizeof text, &instant);
  if (rc != 0) {
    fprintf(stderr, "zar time: the instant cannot be printed\n");
    return 1;
  }
  printf("%s\n", text);
  if (zone) {
    char name[128];
    long tdf = 0;
    int isdst = 0;
    if (zar_utc_localzone(name, sizeof name - 1, &tdf, &isdst, &instant) != 0) {
      fprintf(stderr, "zar time: the local zone cannot be read\n");
      return 1;
    }
    name[sizeof name - 1] = '\0';
    printf("offset=%ld isdst=%d abbreviation=%s\n", tdf, isdst, name);
  }
  if (fflush(stdout) != 0) {
    fprintf(stderr, "zar time: cannot write standard output\n");
    return 1;
  }
  return 0;
}

}  // namespace

ZAR_TOOL_COMMAND("time", "[--gmt] [--at SECONDS[.FRACTION]] [--zone]",
                 "print an instant in local time or UTC, and the local zone", runTime);

}  // namespace zar::tool
