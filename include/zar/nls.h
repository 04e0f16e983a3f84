/*
 * libzar: locale and code sets.
 *
 * Code-set handles and locale objects are opaque. Handles returned by the
 * accessors of this header belong to the library (process-wide ones live for
 * the process, per-thread ones until the thread ends); callers never free them.
 *
 * Conventions of this header:
 * - Status: zar_svc_nls_init writes a status code (zar/status.h) into the low
 *   32 bits of *status (null: not wanted).
 * - NULL: an accessor returns null when its handle or object could not be
 *   made; the failure is reported once as message 0x38C5209C (XKJSC0156E).
 * - Every function is safe from any thread; per-thread handles are made on
 *   the first call in each thread and released when the thread ends.
 */
#ifndef ZAR_NLS_H
#define ZAR_NLS_H

#include "zar/export.h"

/* A code-set handle: names the code set in which text is written, and
 * converts into and out of it. */
typedef struct zar_codeset_s* zar_codeset_t;
/* A locale object, as made for a locale name. */
typedef struct zar_locale_s* zar_locale_t;

ZAR_EXTERN_C_BEGIN

/*
 * The process's message locale name, as the operating system gave it on the
 * first zarsvc_get_locale of the process (at most 511 bytes); the empty text
 * before that call. The text is owned by the library.
 */
ZAR_API const char* zarsvc_get_locale_name(void);

/*
 * The calling thread's locale object, made on its first call from the locale
 * name (the process-wide name is fixed by the first call in the process).
 * Null when it could not be made; a later call tries again.
 */
ZAR_API zar_locale_t zarsvc_get_locale(void);

/*
 * The calling thread's handle for the local code page, the code set of the
 * process's locale (as the operating system gave it on the first call in the
 * process). Null when it could not be made; a thread whose handle could not
 * be made keeps null and does not try again.
 */
ZAR_API zar_codeset_t zarsvc_get_local_code_page(void);

/*
 * The process-wide UTF-8 handle (made by zar_svc_nls_init when needed); the
 * same value as kp_zar_svc_utf8_cs. Null only when no UTF-8 handle could be
 * made.
 */
ZAR_API zar_codeset_t zarsvc_get_utf8_code_page(void);

/*
 * Makes the process-wide UTF-8 handle once. Status 0, or 0x10652206 when the
 * handle could not be made (a later call tries again).
 */
ZAR_API void zar_svc_nls_init(unsigned long* status);

/*
 * The process-wide UTF-8 handle once zar_svc_nls_init has made it; null
 * before. Programs read it; the library sets it.
 */
ZAR_API extern zar_codeset_t kp_zar_svc_utf8_cs;

ZAR_EXTERN_C_END

#endif /* ZAR_NLS_H */
