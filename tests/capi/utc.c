/* The time API from C: a timestamp built from seconds, its text forms, the
 * exported fraction table, and the local zone with TZ set to a rule string. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zar/utc.h"

static int fail(const char* what, const char* got) {
  fprintf(stderr, "%s: got \"%s\"\n", what, got);
  return 1;
}

int main(void) {
  utc_t u;
  char text[50];
  char name[8];
  long tdf = 0;
  int isdst = -1;
  struct timespec ts;
  ts.tv_sec = 1709208000; /* 2024-02-29 12:00:00 UTC */
  ts.tv_nsec = 123456800;
  if (sizeof(utc_t) != 16) return fail("sizeof utc_t", "not 16");
  if (zar_utc_mkbintime(&u, &ts, NULL, 3600) != 0) return fail("mkbintime", "-1");
  if (zar_utc_ascanytime(text, sizeof text, &u) != 0 ||
      strcmp(text, "2024-02-29-13:00:00.123+01:00I-----") != 0)
    return fail("ascanytime", text);
  if (zar_utc_ascgmtime(text, sizeof text, &u) != 0 ||
      strcmp(text, "2024-02-29-12:00:00.123I-----") != 0)
    return fail("ascgmtime", text);
  if (FracCvtArray[3] != 1000000) return fail("FracCvtArray[3]", "wrong");
  if (setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1) != 0) return fail("setenv", "-1");
  if (zar_utc_localzone(name, sizeof name, &tdf, &isdst, &u) != 0 || tdf != -18000 ||
      isdst != 0 || strcmp(name, "EST") != 0)
    return fail("localzone", name);
  if (zar_utc_asclocaltime(text, sizeof text, &u) != 0 ||
      strcmp(text, "2024-02-29-07:00:00.123-05:00I-----") != 0)
    return fail("asclocaltime", text);
  return 0;
}
