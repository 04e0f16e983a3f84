/*
 * libzar: base64, random bytes and numbers.
 *
 * Conventions of this header:
 * - Ownership: every buffer is the caller's; nothing here allocates memory
 *   for the caller or keeps a pointer after returning.
 * - Status: zar_get_random_bytes and zar_strtol return a status code
 *   (zar/status.h), 0 on success. The base64 functions return nothing: the
 *   encoder either writes the whole text or nothing, the decoder reports the
 *   number of bytes it produced.
 * - NULL: a null buffer makes the base64 functions write nothing (the decoder
 *   still reports 0 bytes when its count pointer is given); null arguments of
 *   the status functions give a status, never a crash.
 * - Threads: every function may be called from any thread; none keeps state
 *   apart from the random-byte source, which is set up once per process.
 */
#ifndef ZAR_UTIL_H
#define ZAR_UTIL_H

#include <stdint.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* ---- Base64 -------------------------------------------------------------
 * Two alphabets: the standard one (values 62 and 63 are '+' and '/') and one
 * for URIs ('+' and '-'). Both pad with '='. */

/* Bytes needed to encode length bytes: the text and its terminating NUL. */
#define ZAR_BASE64_ENCODED_SIZE(length) ((((uint64_t)(length) + 2) / 3) * 4 + 1)
/* Bytes the decoder may write for length input characters: 3 for every 4
 * characters, rounded up. */
#define ZAR_BASE64_DECODED_SIZE(length) ((((uint64_t)(length) + 3) / 4) * 3)

/* Encodes length bytes of data into text as base64 with '=' padding, no line
 * breaks, terminated by a NUL.
 * REQUIRES: textSize >= ZAR_BASE64_ENCODED_SIZE(length); when it is smaller
 * nothing is written at all, not even the NUL. Empty input gives "". */
ZAR_API void zar_base64_std_encode(const void* data, uint64_t length, char* text,
                                   uint64_t textSize);
ZAR_API void zar_base64_uri_encode(const void* data, uint64_t length, char* text,
                                   uint64_t textSize);

/* Decodes length characters of base64 text into data and stores the number
 * of bytes produced in *dataLength. Characters outside the alphabet (white
 * space, line ends, the other alphabet's 63rd character, bytes with the top
 * bit set) are skipped; the first '=' ends the decoding. Unpadded text is
 * accepted: a last group of two or three characters gives one or two bytes.
 * REQUIRES: data holds ZAR_BASE64_DECODED_SIZE(length) bytes; the decoder
 * never writes beyond that (it may write one byte past the reported count
 * for an incomplete last group). */
ZAR_API void zar_base64_std_decode(const char* text, uint64_t length, void* data,
                                   uint64_t* dataLength);
ZAR_API void zar_base64_uri_decode(const char* text, uint64_t length, void* data,
                                   uint64_t* dataLength);

/* ---- Random bytes ------------------------------------------------------- */

/* Fills buffer with count cryptographically strong random bytes.
 * Returns 0; ZAR_S_INVALID_INPUT (0x38C5209B) for a count of 0 or a null
 * buffer (the buffer is not touched); ZAR_S_NO_MEMORY (0x38C52097) when the
 * random source could not be set up; ZAR_S_KRY_FAILURE (0x38C520B2) when it
 * failed (the failure is also logged as an error message). */
ZAR_API uint32_t zar_get_random_bytes(void* buffer, uint32_t count);

/* ---- Numbers ------------------------------------------------------------ */

/* Converts text to a long integer in base (0, or 2 to 36, as strtol) and
 * stores it in *value in every case (0 when nothing converted). Leading white
 * space and a sign are accepted; any trailing character, white space
 * included, makes the number invalid. An empty text is 0.
 * Returns 0; ZAR_S_BAD_NUMBER (0x38C520B0) for trailing characters or a null
 * text; ZAR_S_NUMBER_TOO_LARGE (0x38C520B1) when the number does not fit (the
 * value is then the largest or smallest long); ZAR_S_INVALID_INPUT
 * (0x38C5209B) for a null value pointer or an unsupported base. */
ZAR_API uint32_t zar_strtol(const char* text, int base, int64_t* value);

ZAR_EXTERN_C_END

#endif /* ZAR_UTIL_H */
