// Cryptographically strong random bytes from the crypto toolkit.
//
// One toolkit context per process, made on the first request under a
// once-control and never released; after that any thread may ask for bytes
// (the toolkit's context keeps no per-call state). Toolkit failures are
// logged as error messages of the client component and reported as
// ZAR_S_KRY_FAILURE.
#include <pthread.h>
#include <string.h>

#include "base/report.h"
#include "platform/kry.h"
#include "zar/status.h"
#include "zar/util.h"

namespace zar::random {
namespace {

constexpr char kRecordName[] = "core/zarrandom";

// Invariants: ctx is set once, inside once, and only read afterwards; null
// when the toolkit could not be set up.
struct RandomState {
  pthread_once_t once;
  KRY_CTX ctx;
};
RandomState gRandom = {PTHREAD_ONCE_INIT, nullptr};

void initContext() {
  KRY_STATUS st;
  memset(&st, 0, sizeof st);
  KRY_CTX ctx = KRY_Init(&st, nullptr);
  if (ctx != nullptr) {
    // Wait for the kernel's pool rather than failing early in boot; the
    // results are not needed: a context that cannot deliver fails later,
    // in KRY_RAND_bytes, with its own error.
    KRY_SetValue(ctx, &st, KRY_VALUE_NONBLOCKING, "off");
    memset(&st, 0, sizeof st);
    KRY_Attach(ctx, &st);
  }
  gRandom.ctx = ctx;
}

}  // namespace
}  // namespace zar::random

extern "C" ZAR_API uint32_t zar_get_random_bytes(void* buffer, uint32_t count) {
  using namespace zar::random;
  if (count == 0 || buffer == nullptr) return ZAR_S_INVALID_INPUT;
  pthread_once(&gRandom.once, initContext);
  if (gRandom.ctx == nullptr) return ZAR_S_NO_MEMORY;
  if (KRY_RAND_bytes(gRandom.ctx, static_cast<unsigned char*>(buffer), count) == 1) return ZAR_S_OK;
  unsigned long err = KRY_ERR_get_error(gRandom.ctx);
  if (err != 0) {
    char text[KRY_ERROR_STRING_LEN];
    KRY_ERR_error_string(err, text);
    zar::report::error(kRecordName, __LINE__, ZAR_S_KRY_FAILURE_DETAIL, "%s%s", "KRY_RAND_bytes",
                       text);
  } else {
    zar::report::error(kRecordName, __LINE__, ZAR_S_KRY_FAILURE_NO_DETAIL, "%s", "KRY_RAND_bytes");
  }
  return ZAR_S_KRY_FAILURE;
}
