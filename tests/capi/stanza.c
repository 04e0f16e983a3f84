/* The stanza API from C99 through the shared library: the record's fields are
 * read directly, an edit reaches the file, a memory-mode record walks the
 * stanzas from the last one. */
#define _POSIX_C_SOURCE 200809L /* mkstemp, fdopen, unlink */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zar/zar.h"

static int failures = 0;
#define CHECK(cond)                                             \
  do {                                                          \
    if (!(cond)) {                                              \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                               \
    }                                                           \
  } while (0)

int main(void) {
  char path[] = "/tmp/zarcapiXXXXXX";
  FILE* out = fdopen(mkstemp(path), "w");
  uint32_t st = 1;
  zarStzFile* f;
  CHECK(out != NULL);
  fputs("[server]\nport = 80 # default\n[log]\n", out);
  fclose(out);

  f = zarStzFileOpen(path, ZAR_STZ_WRITE, &st);
  CHECK(f != NULL && st == ZAR_S_OK);
  if (f != NULL) {
    CHECK(strcmp(f->stanzaName, "server") == 0 && strcmp(f->value, "80") == 0);
    zarStzAddEntry(f, "host", NULL);
    CHECK(f->status == ZAR_S_OK && zarStzStanzaSize(f) == 2u && f->value == NULL);
    zarStzFileClose(f);
  }
  f = zarStzFileOpen(path, ZAR_STZ_READ | ZAR_STZ_MEMORY, &st);
  CHECK(f != NULL && f->stream == NULL && f->memory != NULL);
  if (f != NULL) {
    CHECK(strcmp(f->stanzaName, "log") == 0 && zarStzMoveEntry(f, "server", "host") == 1);
    zarStzFileClose(f);
  }
  CHECK(zarStzFileOpen(path, ZAR_STZ_READ | ZAR_STZ_WRITE, &st) == NULL);
  CHECK(st == ZAR_S_STZ_BAD_ARGUMENT);
  unlink(path);
  return failures == 0 ? 0 : 1;
}
