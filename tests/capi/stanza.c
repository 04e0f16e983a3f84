/* The stanza API from C99 through the shared library: the record's fields
 * are read directly and an edit reaches the file. */
#define _POSIX_C_SOURCE 200809L /* mkstemp, fdopen */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zar/zar.h"

int main(void) {
  char path[] = "/tmp/zarcapiXXXXXX";
  FILE* out = fdopen(mkstemp(path), "w");
  uint32_t st = 1;
  zarStzFile* f;
  int bad = out == NULL;
  if (out != NULL) fputs("[server]\nport = 80 # default\n[log]\n", out), fclose(out);
  f = zarStzFileOpen(path, ZAR_STZ_WRITE, &st);
  bad |= f == NULL || st != ZAR_S_OK;
  if (f != NULL) {
    bad |= strcmp(f->stanzaName, "server") != 0 || strcmp(f->value, "80") != 0;
    zarStzAddEntry(f, "host", NULL);
    bad |= f->status != ZAR_S_OK || zarStzStanzaSize(f) != 2u;
    zarStzFileClose(f);
  }
  f = zarStzFileOpen(path, ZAR_STZ_READ | ZAR_STZ_MEMORY, &st);
  bad |= f == NULL || f->stream != NULL || zarStzMoveEntry(f, "server", "host") != 1;
  zarStzFileClose(f);
  unlink(path);
  if (bad) fprintf(stderr, "stanza from C failed\n");
  return bad;
}
