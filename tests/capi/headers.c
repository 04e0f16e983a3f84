/* The whole C API compiles as C99 and links against the shared library. */
#include "zar/zar.h"

int main(void) { return zar_get_path(~0u) == NULL ? ZAR_S_OK : 1; }
