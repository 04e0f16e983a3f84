/* The snprintf and asprintf families from C, through the shared library. */
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "zar/zar.h"

static int failures = 0;
#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

static int viaV(char* buf, int size, const char* fmt, ...) {
  va_list ap;
  int n;
  va_start(ap, fmt);
  n = zar_vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

static int viaVas(char** out, zar_codeset_t cs, const char* fmt, ...) {
  va_list ap;
  int n;
  va_start(ap, fmt);
  n = zar_vasprintf_cs(out, cs, fmt, ap);
  va_end(ap);
  return n;
}

int main(void) {
  char buf[64];
  char* text = NULL;
  static const uint16_t wide[] = {'w', 'i', 'd', 'e', 0};

  CHECK(zar_snprintf(buf, sizeof buf, "%2$s %1$s|%3$05d|%4$-4x|%5$.2f", "a", "b", -42, 255u, 2.5) ==
            19 && strcmp(buf, "b a|-0042|ff  |2.50") == 0);
  CHECK(zar_snprintf(buf, 4, "abcdef") == 6 && strcmp(buf, "abc") == 0);
  CHECK(viaV(buf, sizeof buf, "%*d|%ls", 4, 7, "narrow") == 11 && strcmp(buf, "   7|narrow") == 0);
  CHECK(zar_snprintf_cs(buf, sizeof buf, NULL, "%S%C", wide, 'x') == 5 && strcmp(buf, "widex") == 0);
  errno = 0;
  CHECK(zar_snprintf(buf, sizeof buf, "%lf", 1.0) == -1 && errno == EINVAL);
  CHECK(zar_snprintf_utf8(buf, sizeof buf, "%S", wide) == 4 && strcmp(buf, "wide") == 0);
  CHECK(zar_snprintf_lcp(buf, sizeof buf, "<%-5S>", wide) == 7 && strcmp(buf, "<wide >") == 0);
  CHECK(zar_asprintf(&text, "%s-%d", "a", 7) == 3 && text != NULL && strcmp(text, "a-7") == 0);
  zar_asprintf_free(text);
  CHECK(zar_asprintf_cs(&text, NULL, "[%5S]", wide) == 7 && strcmp(text, "[ wide]") == 0);
  zar_asprintf_free(text);
  CHECK(zar_asprintf_utf8(&text, "%C", 0xe9) == 2 && strcmp(text, "\xc3\xa9") == 0);
  zar_asprintf_free(text);
  CHECK(zar_asprintf_lcp(&text, "%s", "x") == 1 && strcmp(text, "x") == 0);
  zar_asprintf_free(text);
  text = buf;
  CHECK(viaVas(&text, NULL, "%y") == -1 && text == buf); /* a failure leaves the result alone */
  return failures == 0 ? 0 : 1;
}
