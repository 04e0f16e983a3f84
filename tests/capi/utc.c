/* The time API from C99: a timestamp built from seconds, its text forms and
 * the local zone with TZ set to a rule string. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zar/utc.h"

int main(void) {
  utc_t u;
  char any[50] = "", local[50] = "", name[8] = "";
  long tdf = 0;
  int isdst = -1, bad;
  struct timespec ts = {1709208000, 123456800}; /* 2024-02-29 12:00:00.1234568 UTC */
  bad = zar_utc_mkbintime(&u, &ts, NULL, 3600) != 0;
  zar_utc_ascanytime(any, sizeof any, &u);
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
  zar_utc_localzone(name, sizeof name, &tdf, &isdst, &u);
  zar_utc_asclocaltime(local, sizeof local, &u);
  bad |= strcmp(any, "2024-02-29-13:00:00.123+01:00I-----") != 0 || tdf != -18000 || isdst != 0 ||
         strcmp(name, "EST") != 0 || strcmp(local, "2024-02-29-07:00:00.123-05:00I-----") != 0;
  if (bad) fprintf(stderr, "utc from C: \"%s\" \"%s\" %s %ld %d\n", any, local, name, tdf, isdst);
  return bad;
}
