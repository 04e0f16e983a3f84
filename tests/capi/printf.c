/* The printf families from C99 through the shared library: plain, va_list,
 * code-set and allocating forms, with 16-bit wide texts. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "zar/zar.h"

static int viaV(char* buf, int size, const char* fmt, ...) {
  va_list ap;
  int n;
  va_start(ap, fmt);
  n = zar_vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

int main(void) {
  char buf[64];
  char* text = NULL;
  static const uint16_t wide[] = {'w', 'i', 'd', 'e', 0};
  int bad = 0;
  bad |= zar_snprintf(buf, sizeof buf, "%2$s %1$s|%3$05d", "a", "b", -42) != 9 || strcmp(buf, "b a|-0042");
  bad |= viaV(buf, 4, "%*d|", 4, 7) != 5 || strcmp(buf, "   ");
  bad |= zar_snprintf_utf8(buf, sizeof buf, "<%-5S>%C", wide, 0xe9) != 9 || strcmp(buf, "<wide >\xc3\xa9");
  bad |= zar_asprintf_cs(&text, NULL, "%s-%d", "a", 7) != 3 || strcmp(text, "a-7");
  zar_asprintf_free(text);
  if (bad) fprintf(stderr, "printf from C failed\n");
  return bad;
}
