/*
 * libzar: UTC timestamps, their text forms and the local time zone.
 *
 * Conventions of this family:
 * - A utc_t is a 16-byte value the caller owns (on the stack or in a record);
 *   nothing here allocates memory for the caller or keeps a caller's pointer.
 * - Every function returns int: 0 on success, -1 on failure. There is no
 *   status word; a failure means the input timestamp could not be decoded
 *   (its version is not 1), a text did not fit its buffer, or a value was out
 *   of the range the function documents.
 * - Where a function reads a timestamp and is given a null utc_t pointer, it
 *   reads the current time instead. Output pointers may be null: that output
 *   is then skipped. On failure, numeric outputs are zeroed (except where a
 *   contract says otherwise) and text buffers are left untouched.
 * - Time differentials (TDF) are given and returned as a long number of
 *   seconds east of UTC; a timestamp stores them in whole minutes, truncated
 *   toward zero, in 12 bits (-2048 to 2047 minutes).
 * - Every function may be called from any thread. The local-zone functions
 *   share one process-wide zone state under one lock.
 *
 * Layout of a utc_t as the library writes it (little-endian):
 *   bytes 0-7    100-ns intervals since 1582-10-15 00:00:00 UTC, unsigned
 *   bytes 8-13   inaccuracy in 100-ns intervals, 48 bits (bytes 8-11 low 32,
 *                12-13 high 16); all ones (0xFFFFFFFFFFFF) means unknown
 *   byte 14      TDF minutes, low 8 bits
 *   byte 15      bits 0-3 TDF minutes, high 4 bits; bits 4-6 version (1);
 *                bit 7 byte-order flag (0)
 * Timestamps with bit 7 of byte 15 set are read in the big-endian layout: time
 * from bytes 0-7 big-endian, inaccuracy from bytes 8-13 big-endian (48 bits),
 * TDF minutes = byte 14 * 16 + (byte 15 & 0x0F). The library never writes it.
 */
#ifndef ZAR_UTC_H
#define ZAR_UTC_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "zar/export.h"

/* The platform's types, complete in <time.h> and <sys/time.h> under POSIX;
 * declared here so that the header also compiles in strict C99. */
struct timespec;
struct timeval;
struct timezone;
struct tm;

/* A 16-byte UTC timestamp (layout above). Copy it by value; compare the
 * times with zar_utc_bintime. */
typedef struct utc_s {
  unsigned char char_array[16];
} utc_t;

ZAR_EXTERN_C_BEGIN

/* FracCvtArray[k] (k = 1 to 9) is the factor that turns a k-digit decimal
 * fraction of a second into nanoseconds: 10^(9-k). FracCvtArray[0] is 0. */
ZAR_API extern const int64_t FracCvtArray[10];

/* Builds *utc from seconds and nanoseconds since 1970-01-01 00:00:00 UTC
 * (nanoseconds rounded to the nearest 100 ns), an inaccuracy (rounded up to
 * 100 ns; null or a negative tv_sec means unknown) and a TDF in seconds.
 * REQUIRES: utc is not null (a null utc is an internal consistency failure
 *           that aborts the process); time is not null (else -1).
 * No range check is made: times outside the 64-bit count wrap. */
ZAR_API int zar_utc_mkbintime(utc_t* utc, const struct timespec* time,
                              const struct timespec* inacc, long tdf);

/* The current time from gettimeofday(2) with unknown inaccuracy and the TDF
 * of the system's kernel time zone (0 on most systems). Returns 0.
 * REQUIRES: utc is not null (as for zar_utc_mkbintime). */
ZAR_API int zar_utc_gettime(utc_t* utc);
/* Same as zar_utc_gettime. */
ZAR_API int zar_utc_gettime_noshm(utc_t* utc);

/* Takes *utc apart: seconds and nanoseconds since 1970 (seconds rounded
 * toward minus infinity, nanoseconds 0 to 999,999,900), the inaccuracy
 * (tv_sec = tv_nsec = -1 when unknown) and the TDF in seconds.
 * Returns -1 when utc cannot be decoded (outputs zeroed) or, after writing
 * every output, when the seconds fall outside 0 to 4,294,967,295. */
ZAR_API int zar_utc_bintime(struct timespec* time, struct timespec* inacc, long* tdf,
                            const utc_t* utc);

/* Broken-down time of *utc in its own TDF (tm_isdst -1), the nanoseconds of
 * the second, the inaccuracy broken down (tm_sec, tm_min, tm_hour and whole
 * days in tm_yday; every field -1 and *ins -1 when unknown) and the TDF in
 * seconds. Dates before 1582-10-15 are in the Julian calendar, with their
 * true weekday. */
ZAR_API int zar_utc_anytime(struct tm* timetm, long* tns, struct tm* inacctm, long* ins,
                            long* tdf, const utc_t* utc);
/* As zar_utc_anytime, in UTC (tm_isdst 0). */
ZAR_API int zar_utc_gmtime(struct tm* timetm, long* tns, struct tm* inacctm, long* ins,
                           const utc_t* utc);

/* Text of *utc in its own TDF with the offset and the inaccuracy, for
 * example "2024-02-29-13:00:00.123+01:00I-----" (milliseconds truncated;
 * "I-----" for unknown inaccuracy, else "I<seconds>.<ms>" rounded up).
 * Returns -1 and writes nothing when the text and its NUL do not fit in len
 * bytes; 50 bytes are enough for every timestamp. */
ZAR_API int zar_utc_ascanytime(char* cp, size_t len, const utc_t* utc);
/* Text of *utc in UTC with the inaccuracy, for example
 * "2024-02-29-12:00:00.123I-----": milliseconds rounded to the nearest, the
 * carry of a rounding to 1000 ms going into the seconds. Same fit rule. */
ZAR_API int zar_utc_ascgmtime(char* cp, size_t len, const utc_t* utc);

/* *out = *in with another TDF (seconds); time and inaccuracy unchanged.
 * out may be the same object as in.
 * REQUIRES: out is not null (as for zar_utc_mkbintime). */
ZAR_API int utc_settdf(utc_t* out, const utc_t* in, long tdf);

/* gettimeofday(2) with a null time-zone argument. */
ZAR_API int zar_gettimeofday(struct timeval* tv);
/* Zeroes *tz when given, then returns gettimeofday(tv, tz). */
ZAR_API int zar_gettimeofday_tz(struct timeval* tv, struct timezone* tz);

/* The local zone at the instant *utc: offset in seconds east of UTC, the
 * daylight-saving flag (0 or 1) and, when tzname is not null and len is not
 * 0, the abbreviation copied with strncpy(tzname, abbreviation, len) (so an
 * abbreviation of len bytes or more is not terminated).
 * The zone comes from the TZ environment variable: empty means UTC ("GMT");
 * otherwise a zone file name under /usr/share/zoneinfo, an absolute path
 * (either optionally after ':'), or a POSIX rule string such as
 * "EST5EDT,M3.2.0,M11.1.0"; a value that is none of these names a zone of
 * offset 0 after itself. Unset TZ means /etc/localtime, else the zone file
 * "GMT", else GMT. The zone is rebuilt only when TZ changes.
 * Returns -1 only when utc cannot be decoded (*tdf and *isdst then 0). */
ZAR_API int zar_utc_localzone(char* tzname, size_t len, long* tdf, int* isdst,
                              const utc_t* utc);

/* Text of *utc in local time (zar_utc_localzone), in the form of
 * zar_utc_ascanytime, for example "2024-02-29-13:00:00.000+01:00I-----".
 * Returns -1 when utc cannot be decoded or the text does not fit. */
ZAR_API int zar_utc_asclocaltime(char* cp, size_t len, const utc_t* utc);

ZAR_EXTERN_C_END

#endif /* ZAR_UTC_H */
