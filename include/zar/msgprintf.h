/*
 * libzar: printf functions whose format is a message, named by its status
 * code.
 *
 * The message's text comes from the catalog of the user's locale, else from
 * the compiled message tables; its conversions take the arguments. "pgm"
 * forms put the program name (zar_svc_set_progname) and ":  " in front and,
 * when printing, a line feed after. "_utf8" forms take the UTF-8 text of the
 * message: the sprintf forms return UTF-8, the printing forms write it in the
 * calling thread's local code page.
 *
 * Conventions of this header:
 * - Results: the printing functions return the number of bytes of the
 *   message written (prefix and line feed not counted), or -1 when there is
 *   no text (for the UTF-8 forms: a number with no text in the catalogs or
 *   tables; for all: memory exhausted). The plain forms print a number
 *   without any text as "Unknown message number 0x%8.8lx".
 * - Ownership: the sprintf functions return a newly allocated text that the
 *   caller frees with free(3), or null. The plain sprintf forms produce at
 *   most 4095 bytes (a longer result is cut).
 * - Threads: safe from any thread; each function runs with thread
 *   cancellation disabled and restores the state it found.
 * - The arguments must match the conversions of the message's text.
 */
#ifndef ZAR_MSGPRINTF_H
#define ZAR_MSGPRINTF_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

ZAR_API int zar_printf(uint32_t message, ...);
ZAR_API int zar_vprintf(uint32_t message, va_list args);
ZAR_API int zar_fprintf(FILE* stream, uint32_t message, ...);
ZAR_API int zar_vfprintf(FILE* stream, uint32_t message, va_list args);
ZAR_API char* zar_sprintf(uint32_t message, ...);
ZAR_API char* zar_vsprintf(uint32_t message, va_list args);

ZAR_API int zar_pgm_printf(uint32_t message, ...);
ZAR_API int zar_pgm_vprintf(uint32_t message, va_list args);
ZAR_API int zar_pgm_fprintf(FILE* stream, uint32_t message, ...);
ZAR_API int zar_pgm_vfprintf(FILE* stream, uint32_t message, va_list args);
ZAR_API char* zar_pgm_sprintf(uint32_t message, ...);
ZAR_API char* zar_pgm_vsprintf(uint32_t message, va_list args);

ZAR_API int zar_printf_utf8(uint32_t message, ...);
ZAR_API int zar_vprintf_utf8(uint32_t message, va_list args);
ZAR_API int zar_fprintf_utf8(FILE* stream, uint32_t message, ...);
ZAR_API int zar_vfprintf_utf8(FILE* stream, uint32_t message, va_list args);
ZAR_API char* zar_sprintf_utf8(uint32_t message, ...);
ZAR_API char* zar_vsprintf_utf8(uint32_t message, va_list args);

ZAR_API int zar_pgm_printf_utf8(uint32_t message, ...);
ZAR_API int zar_pgm_vprintf_utf8(uint32_t message, va_list args);
ZAR_API int zar_pgm_fprintf_utf8(FILE* stream, uint32_t message, ...);
ZAR_API int zar_pgm_vfprintf_utf8(FILE* stream, uint32_t message, va_list args);
ZAR_API char* zar_pgm_sprintf_utf8(uint32_t message, ...);
ZAR_API char* zar_pgm_vsprintf_utf8(uint32_t message, va_list args);

ZAR_EXTERN_C_END

#endif /* ZAR_MSGPRINTF_H */
