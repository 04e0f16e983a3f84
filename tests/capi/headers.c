/* The whole C API compiles as C99 and links against the shared library. */
#include <stdio.h>

#include "zar/zar.h"

int main(void) {
  /* Status macros are unsigned 32-bit constants usable in C. */
  unsigned long st = ZAR_S_STZ_WOULD_BLOCK;
  if (st != 0x38C520A9UL) {
    fprintf(stderr, "status macro has the wrong value\n");
    return 1;
  }
  return 0;
}
