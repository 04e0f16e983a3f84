/*
 * libzar: locale and code sets.
 *
 * Code-set handles and locale objects are opaque. Handles returned by the
 * accessors of this header belong to the library (process-wide ones live for
 * the process, per-thread ones until the thread ends); callers never free them.
 */
#ifndef ZAR_NLS_H
#define ZAR_NLS_H

#include "zar/export.h"

/* A code-set handle: names the code set in which text is written, and
 * converts into and out of it. */
typedef struct zar_codeset_s* zar_codeset_t;
/* A locale object, as made for a locale name. */
typedef struct zar_locale_s* zar_locale_t;

#endif /* ZAR_NLS_H */
