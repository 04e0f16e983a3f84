// The crypto toolkit's random-byte interface, over the kernel's getrandom(2).
//
// A context is made once (KRY_Init), configured (KRY_SetValue), attached to
// the kernel's source (KRY_Attach) and then used from any number of threads:
// KRY_RAND_bytes keeps no state in the context beyond its settings, and the
// kernel's source is safe for concurrent use. Failures are kept per thread in
// an error queue, as the toolkit's callers expect: KRY_ERR_get_error takes the
// oldest error of the calling thread off the queue, KRY_ERR_error_string
// describes a code. Every call may be made to fail by the fault-injection seam
// (zar::fault::Op::kRandom) as a failing getrandom would.
#ifndef ZAR_PLATFORM_KRY_H_
#define ZAR_PLATFORM_KRY_H_

#include <stddef.h>

typedef struct kry_ctx_s* KRY_CTX;

// Status block of the calls that take one: 0 is success, otherwise an error
// code as KRY_ERR_get_error returns (the same code is queued too).
typedef struct {
  unsigned long code;
} KRY_STATUS;

// Value identifiers of KRY_SetValue.
#define KRY_VALUE_NONBLOCKING 0  // "on": fail at once while the kernel's pool is
                                 // not yet initialised; "off" (default): wait for it

// Error codes: library in bits 31..24, reason in bits 23..16, errno in 15..0.
#define KRY_LIB_RAND 0x24UL
#define KRY_R_GETRANDOM_FAILED 1UL  // the kernel's source failed (errno kept)
#define KRY_R_NOT_ATTACHED 2UL      // context not attached to a source
#define KRY_R_BAD_ARGUMENT 3UL      // null context or buffer, or count too large
#define KRY_R_BAD_VALUE_ID 4UL      // KRY_SetValue: unknown value identifier
#define KRY_R_BAD_VALUE 5UL         // KRY_SetValue: value not "on" or "off"
#define KRY_R_NO_MEMORY 6UL
#define KRY_ERROR_CODE(reason, err) ((KRY_LIB_RAND << 24) | ((reason) << 16) | ((unsigned long)(err) & 0xFFFFUL))
#define KRY_ERROR_STRING_LEN 256

// Makes a context (config must be null: no configuration file is read).
// Null with status->code set on failure. status may be null.
KRY_CTX KRY_Init(KRY_STATUS* status, const void* config);
// Sets a value of the context; 1 on success, 0 with status->code on failure.
int KRY_SetValue(KRY_CTX ctx, KRY_STATUS* status, int id, const char* value);
// Attaches the context to the kernel's source after checking that it
// answers; 1 on success, 0 with status->code on failure.
int KRY_Attach(KRY_CTX ctx, KRY_STATUS* status);
// Fills count bytes of buf with cryptographically strong random bytes: 1 on
// success, 0 on failure (an error is queued for the calling thread). Never
// returns fewer bytes than asked.
int KRY_RAND_bytes(KRY_CTX ctx, unsigned char* buf, size_t count);
// The oldest queued error of the calling thread (removed), or 0.
unsigned long KRY_ERR_get_error(KRY_CTX ctx);
// Describes an error code in at most KRY_ERROR_STRING_LEN bytes of buf
// (terminated); returns buf.
char* KRY_ERR_error_string(unsigned long code, char* buf);
// Releases a context (null is ignored).
void KRY_Free(KRY_CTX ctx);

#endif  // ZAR_PLATFORM_KRY_H_
