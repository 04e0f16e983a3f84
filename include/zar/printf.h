/*
 * libzar: formatted output with the library's own printf engine.
 *
 * Conventions of this family:
 * - Results: the length of the whole formatted text without the terminator
 *   (also when the buffer was too small), or -1 on a malformed format, a wide
 *   character the code set cannot represent, an allocation failure or a
 *   result longer than INT_MAX bytes; errno then says which (EINVAL, EILSEQ,
 *   ENOMEM, EOVERFLOW). No status out-parameter.
 * - Buffers: the snprintf functions write at most size bytes, terminator
 *   included, and always terminate when size >= 1; a cut output is a prefix
 *   of the whole text (a wide string is cut at a character boundary). A size
 *   of 0 or below writes nothing; the buffer may then be NULL.
 * - Memory: the asprintf functions store a newly allocated text in *result,
 *   which the caller releases with zar_asprintf_free (or free(3)). On a
 *   malformed format *result is left as it was; on an allocation failure it
 *   is set to NULL.
 * - Code sets: %C and %S take 16-bit wide characters (char16_t, u"..."
 *   literals; a surrogate pair is one character) and convert them into a
 *   code set: the caller's handle (_cs; NULL means the code set of the
 *   calling thread's locale), the thread's local code page (_lcp), UTF-8
 *   (_utf8), or for the plain functions the code set of the thread's locale.
 * - The format grammar and its differences from C printf (%ls is a byte
 *   string, %p prints "0x..." and nothing for NULL, a precision clears the
 *   '0' flag, %lf and %hhd are errors, positional arguments %n$ and *m$) are
 *   described in docs/printf.md. Every function is safe to call from any
 *   thread; the arguments are read once, whatever the number of renderings.
 */
#ifndef ZAR_PRINTF_H
#define ZAR_PRINTF_H

#include <stdarg.h>

#include "zar/export.h"
#include "zar/nls.h"

ZAR_EXTERN_C_BEGIN

/* snprintf into buf of size bytes; wide conversions in the thread's locale
 * code set. REQUIRES: fmt non-NULL (else -1, EINVAL). */
ZAR_API int zar_snprintf(char* buf, int size, const char* fmt, ...);
ZAR_API int zar_vsnprintf(char* buf, int size, const char* fmt, va_list ap);

/* As zar_snprintf, with wide conversions into the code set cs. */
ZAR_API int zar_snprintf_cs(char* buf, int size, zar_codeset_t cs, const char* fmt, ...);
ZAR_API int zar_vsnprintf_cs(char* buf, int size, zar_codeset_t cs, const char* fmt,
                             va_list ap);

/* As zar_snprintf, with wide conversions into the calling thread's local
 * code page (zarsvc_get_local_code_page(), zar/nls.h). */
ZAR_API int zar_snprintf_lcp(char* buf, int size, const char* fmt, ...);
ZAR_API int zar_vsnprintf_lcp(char* buf, int size, const char* fmt, va_list ap);

/* As zar_snprintf, with wide conversions into UTF-8
 * (zarsvc_get_utf8_code_page(), zar/nls.h). */
ZAR_API int zar_snprintf_utf8(char* buf, int size, const char* fmt, ...);
ZAR_API int zar_vsnprintf_utf8(char* buf, int size, const char* fmt, va_list ap);

/* Formats into a new text stored in *result; returns its length.
 * REQUIRES: result and fmt non-NULL (else -1, EINVAL, *result untouched). */
ZAR_API int zar_asprintf(char** result, const char* fmt, ...);
ZAR_API int zar_vasprintf(char** result, const char* fmt, va_list ap);
ZAR_API int zar_asprintf_cs(char** result, zar_codeset_t cs, const char* fmt, ...);
ZAR_API int zar_vasprintf_cs(char** result, zar_codeset_t cs, const char* fmt, va_list ap);
ZAR_API int zar_asprintf_lcp(char** result, const char* fmt, ...);
ZAR_API int zar_vasprintf_lcp(char** result, const char* fmt, va_list ap);
ZAR_API int zar_asprintf_utf8(char** result, const char* fmt, ...);
ZAR_API int zar_vasprintf_utf8(char** result, const char* fmt, va_list ap);

/* Releases a text made by the asprintf functions; NULL is ignored. */
ZAR_API void zar_asprintf_free(char* text);

ZAR_EXTERN_C_END

#endif /* ZAR_PRINTF_H */
