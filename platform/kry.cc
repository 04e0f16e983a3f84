// Random bytes from the kernel (getrandom(2)) behind the crypto toolkit's
// interface; see platform/kry.h.
#include "platform/kry.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>

#include <atomic>

#include "base/faultinj.h"
#include "base/zarmem.h"

struct kry_ctx_s {
  std::atomic<bool> nonBlocking{false};
  std::atomic<bool> attached{false};
};

namespace {

// Per-thread error queue: the oldest error is taken first; when full, the
// oldest is dropped so the latest failures stay visible.
constexpr int kQueueLen = 8;
struct ErrorQueue {
  unsigned long codes[kQueueLen];
  int head;
  int count;
};
thread_local ErrorQueue tErrors = {{0}, 0, 0};

unsigned long queueError(unsigned long reason, int err) {
  unsigned long code = KRY_ERROR_CODE(reason, err);
  if (tErrors.count == kQueueLen) {
    tErrors.head = (tErrors.head + 1) % kQueueLen;
    --tErrors.count;
  }
  tErrors.codes[(tErrors.head + tErrors.count) % kQueueLen] = code;
  ++tErrors.count;
  return code;
}

int fail(KRY_STATUS* status, unsigned long reason, int err) {
  unsigned long code = queueError(reason, err);
  if (status != nullptr) status->code = code;
  return 0;
}

// One getrandom call with the fault-injection seam in front.
ssize_t getRandom(void* buf, size_t len, unsigned flags) {
  int err = zar::fault::check(zar::fault::Op::kRandom);
  if (err != 0) {
    errno = err;
    return -1;
  }
  return getrandom(buf, len, flags);
}

const char* reasonText(unsigned long reason) {
  switch (reason) {
    case KRY_R_GETRANDOM_FAILED: return "the kernel's random source failed";
    case KRY_R_NOT_ATTACHED: return "context not attached to a random source";
    case KRY_R_BAD_ARGUMENT: return "invalid argument";
    case KRY_R_BAD_VALUE_ID: return "unknown value identifier";
    case KRY_R_BAD_VALUE: return "invalid value";
    case KRY_R_NO_MEMORY: return "memory could not be allocated";
    default: return "unknown reason";
  }
}

}  // namespace

KRY_CTX KRY_Init(KRY_STATUS* status, const void* config) {
  if (status != nullptr) status->code = 0;
  if (config != nullptr) {
    fail(status, KRY_R_BAD_ARGUMENT, EINVAL);
    return nullptr;
  }
  kry_ctx_s* ctx = zar::mem::make<kry_ctx_s>();
  if (ctx == nullptr) fail(status, KRY_R_NO_MEMORY, ENOMEM);
  return ctx;
}

int KRY_SetValue(KRY_CTX ctx, KRY_STATUS* status, int id, const char* value) {
  if (status != nullptr) status->code = 0;
  if (ctx == nullptr || value == nullptr) return fail(status, KRY_R_BAD_ARGUMENT, EINVAL);
  if (id != KRY_VALUE_NONBLOCKING) return fail(status, KRY_R_BAD_VALUE_ID, EINVAL);
  bool on = strcmp(value, "on") == 0;
  if (!on && strcmp(value, "off") != 0) return fail(status, KRY_R_BAD_VALUE, EINVAL);
  ctx->nonBlocking.store(on);
  return 1;
}

int KRY_Attach(KRY_CTX ctx, KRY_STATUS* status) {
  if (status != nullptr) status->code = 0;
  if (ctx == nullptr) return fail(status, KRY_R_BAD_ARGUMENT, EINVAL);
  unsigned char probe;
  for (;;) {
    ssize_t n = getRandom(&probe, 1, ctx->nonBlocking.load() ? GRND_NONBLOCK : 0);
    if (n == 1) break;
    if (n < 0 && errno == EINTR) continue;
    return fail(status, KRY_R_GETRANDOM_FAILED, n < 0 ? errno : EIO);
  }
  ctx->attached.store(true);
  return 1;
}

int KRY_RAND_bytes(KRY_CTX ctx, unsigned char* buf, size_t count) {
  if (ctx == nullptr || (buf == nullptr && count > 0)) return fail(nullptr, KRY_R_BAD_ARGUMENT, EINVAL);
  if (!ctx->attached.load()) return fail(nullptr, KRY_R_NOT_ATTACHED, 0);
  unsigned flags = ctx->nonBlocking.load() ? GRND_NONBLOCK : 0;
  size_t got = 0;
  while (got < count) {
    ssize_t n = getRandom(buf + got, count - got, flags);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(nullptr, KRY_R_GETRANDOM_FAILED, errno);
    }
    got += static_cast<size_t>(n);
  }
  return 1;
}

unsigned long KRY_ERR_get_error(KRY_CTX) {
  if (tErrors.count == 0) return 0;
  unsigned long code = tErrors.codes[tErrors.head];
  tErrors.head = (tErrors.head + 1) % kQueueLen;
  --tErrors.count;
  return code;
}

char* KRY_ERR_error_string(unsigned long code, char* buf) {
  thread_local char own[KRY_ERROR_STRING_LEN];
  if (buf == nullptr) buf = own;
  unsigned long lib = (code >> 24) & 0xFF;
  unsigned long reason = (code >> 16) & 0xFF;
  int err = static_cast<int>(code & 0xFFFF);
  if (lib != KRY_LIB_RAND) {
    snprintf(buf, KRY_ERROR_STRING_LEN, "error:%08lX:unknown library", code);
    return buf;
  }
  char sys[128] = "";
  char errText[96];
  if (err != 0) snprintf(sys, sizeof sys, ": %s", strerror_r(err, errText, sizeof errText));
  snprintf(buf, KRY_ERROR_STRING_LEN, "error:%08lX:random:%s%s", code, reasonText(reason), sys);
  return buf;
}

void KRY_Free(KRY_CTX ctx) { zar::mem::destroy(ctx); }
