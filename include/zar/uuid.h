/*
 * libzar: time-based UUIDs (version 1, DCE variant) and their text form.
 *
 * Conventions of this header:
 * - Status: every function writes a status code (zar/status.h) into the low
 *   32 bits of its last argument, a pointer to an unsigned 64-bit integer;
 *   0 is success. A null status pointer means the caller does not want it.
 * - Ownership: kp_uuid_to_string allocates the text for the caller, who
 *   releases it with kp_uuid_string_free. Everything else works in the
 *   caller's memory.
 * - NULL: a null input UUID counts as the nil UUID. A null output UUID gives
 *   ZAR_S_INVALID_INPUT and writes nothing.
 * - Variants: every function that reads a UUID first checks its variant;
 *   the NCS, DCE and reserved-vendor variants are accepted, the unknown one
 *   (byte 8 at 0xE0 or above) fails with ZAR_S_UUID_BAD_VARIANT. A failed call
 *   returns 0 (kp_uuid_compare -1) and writes no UUID.
 * - Threads: every function may be called from any thread; UUID creation is
 *   serialised inside the library. A child process made by fork starts a
 *   fresh clock sequence, so parent and child never make the same UUID.
 */
#ifndef ZAR_UUID_H
#define ZAR_UUID_H

#include <stdint.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* A UUID: 16 bytes, the integers in host byte order in memory. */
typedef struct kp_uuid_s {
  uint32_t time_low;                 /* timestamp bits 0-31 */
  uint16_t time_mid;                 /* timestamp bits 32-47 */
  uint16_t time_hi_and_version;      /* timestamp bits 48-59; version in the top 4 bits */
  uint8_t clock_seq_hi_and_reserved; /* clock sequence bits 8-13; variant in the top bits */
  uint8_t clock_seq_low;             /* clock sequence bits 0-7 */
  uint8_t node[6];                   /* IEEE 802 address of the host */
} kp_uuid_t;

/* Length of the text form without its terminating NUL. */
#define KP_UUID_STRING_LEN 36

/* The nil UUID: 16 zero bytes. */
ZAR_API extern const kp_uuid_t uuid_g_nil_uuid;

/* Makes a new time-based UUID from the clock, the clock sequence and the
 * host's node address (looked up once per process: a network interface,
 * else the file "/etc/ieee_802_addr", else a random multicast address drawn
 * once per process). Status ZAR_S_UUID_NO_ADDRESS when no node address can be
 * had (the next call tries again). */
ZAR_API void kp_uuid_create(kp_uuid_t* uuid, uint64_t* status);

/* Stores the nil UUID. */
ZAR_API void kp_uuid_create_nil(kp_uuid_t* uuid, uint64_t* status);

/* Stores in *text a newly allocated 37-byte text
 * "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (lower case) of uuid, or null on
 * failure (ZAR_S_UUID_NO_MEMORY, ZAR_S_UUID_BAD_VARIANT). A null text pointer
 * makes the call do nothing (status 0). */
ZAR_API void kp_uuid_to_string(const kp_uuid_t* uuid, char** text, uint64_t* status);

/* Parses either text form: "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" or the old
 * "xxxxxxxxxxxx.xx.xx.xx.xx.xx.xx.xx.xx" (bytes 6 and 7 then become 0). A null
 * or empty text gives the nil UUID. Status ZAR_S_UUID_BAD_TEXT for any other
 * length or shape, ZAR_S_UUID_BAD_VARIANT for an unknown variant; *uuid is
 * then unchanged. */
ZAR_API void kp_uuid_from_string(const char* text, kp_uuid_t* uuid, uint64_t* status);

/* Frees a text of kp_uuid_to_string and sets *text to null. */
ZAR_API void kp_uuid_string_free(char** text, uint64_t* status);

/* 1 when all 16 bytes are equal, else 0. */
ZAR_API int kp_uuid_equal(const kp_uuid_t* uuid1, const kp_uuid_t* uuid2, uint64_t* status);

/* -1, 0 or 1 as uuid1 is below, equal to or above uuid2, comparing the fields
 * in order as unsigned numbers. A null UUID counts as the nil UUID. */
ZAR_API int kp_uuid_compare(const kp_uuid_t* uuid1, const kp_uuid_t* uuid2, uint64_t* status);

/* 1 when all 16 bytes are zero, else 0. */
ZAR_API int kp_uuid_is_nil(const kp_uuid_t* uuid, uint64_t* status);

/* A 16-bit hash of the 16 bytes as they lie in memory (0 for the nil UUID). */
ZAR_API uint16_t kp_uuid_hash(const kp_uuid_t* uuid, uint64_t* status);

/* Stores the host's IEEE 802 address in address (6 bytes): the hardware
 * address of the first network interface that is neither loopback nor
 * point-to-point (six zero bytes when there is none). Ends the process with
 * exit status 1 when no socket can be opened or the interface enquiry fails.
 * Status 0, or ZAR_S_INVALID_INPUT for a null address. */
ZAR_API void kp_get_802_addr(uint8_t* address, uint64_t* status);

ZAR_EXTERN_C_END

#endif /* ZAR_UUID_H */
