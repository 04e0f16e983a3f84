/* The time API from C: a timestamp built from seconds, its text forms, the
 * exported fraction table, and the local zone with TZ set to a rule string. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zar/utc.h"

static int check(const char* what, int ok, const char* got) {
  if (!ok) fprintf(stderr, "%s: got \"%s\"\n", what, got);
  return ok ? 0 : 1;
}

int main(void) {
  utc_t u;
  char any[50] = "", gmt[50] = "", local[50] = "", name[8] = "";
  long tdf = 0;
  int isdst = -1, bad = 0;
  struct timespec ts;
  ts.tv_sec = 1709208000; /* 2024-02-29 12:00:00 UTC */
  ts.tv_nsec = 123456800;
  bad += check("sizeof utc_t", sizeof(utc_t) == 16 && FracCvtArray[3] == 1000000, "");
  bad += check("mkbintime", zar_utc_mkbintime(&u, &ts, NULL, 3600) == 0, "-1");
  zar_utc_ascanytime(any, sizeof any, &u);
  zar_utc_ascgmtime(gmt, sizeof gmt, &u);
  bad += check("ascanytime", strcmp(any, "2024-02-29-13:00:00.123+01:00I-----") == 0, any);
  bad += check("ascgmtime", strcmp(gmt, "2024-02-29-12:00:00.123I-----") == 0, gmt);
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
  zar_utc_localzone(name, sizeof name, &tdf, &isdst, &u);
  zar_utc_asclocaltime(local, sizeof local, &u);
  bad += check("localzone", tdf == -18000 && isdst == 0 && strcmp(name, "EST") == 0, name);
  bad += check("asclocaltime", strcmp(local, "2024-02-29-07:00:00.123-05:00I-----") == 0, local);
  return bad;
}
