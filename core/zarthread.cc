// Thread creation with default attributes, cancellable delays and expiration
// times.
//
// Cancellation: glibc cancels a thread by unwinding it, so the RAII owners
// below are the clean-up handlers. The start record is owned by the new
// thread for the whole run of its routine and freed on return, pthread_exit
// or cancellation; the delay mutex is held by a guard around the timed wait,
// which re-acquires it before a cancelled thread unwinds, so the guard
// releases it again.
#include <errno.h>
#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "zar/thread.h"

namespace zar::thread {
namespace {

constexpr long kNsPerSecond = 1000000000L;

// One per created thread; allocated by the creator, owned by the new thread.
struct StartRecord {
  const void* tag;        // creator's tag, kept as given
  uint32_t tagNumber;     // creator's tag number, kept as given
  void* (*start)(void*);  // the caller's routine
  void* arg;              // its argument
};

// The delay machinery: a process-wide mutex and a condition that nobody
// signals; it exists only to wait with a deadline.
// Invariants: mu is a leaf lock, held only around the timed wait on cv.
struct DelayState {
  zar::Mutex mu;
  pthread_cond_t cv;
};
DelayState gDelay = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER};

void* zarthreadStart(void* p) {
  mem::Unique<StartRecord> record(static_cast<StartRecord*>(p));
  return record->start(record->arg);
}

// Carries whole seconds out of the nanoseconds; false when the interval is
// negative. Seconds saturate instead of overflowing.
bool normalise(const struct timespec* in, struct timespec* out) {
  if (in == nullptr || in->tv_sec < 0 || in->tv_nsec < 0) return false;
  time_t carry = static_cast<time_t>(in->tv_nsec / kNsPerSecond);
  out->tv_nsec = in->tv_nsec % kNsPerSecond;
  out->tv_sec = in->tv_sec > INT64_MAX - carry ? INT64_MAX : in->tv_sec + carry;
  return true;
}

time_t addSeconds(time_t a, time_t b) {
  return a > INT64_MAX - b ? INT64_MAX : a + b;
}

}  // namespace
}  // namespace zar::thread

using zar::thread::kNsPerSecond;

extern "C" {

ZAR_API int zarthread_attr_init(pthread_attr_t* attr) {
  if (attr == nullptr) return EINVAL;
  int rc = pthread_attr_init(attr);
  if (rc != 0) return rc;
  rc = pthread_attr_setscope(attr, PTHREAD_SCOPE_SYSTEM);
  if (rc == 0) rc = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_JOINABLE);
  if (rc != 0) pthread_attr_destroy(attr);
  return rc;
}

ZAR_API int zarthread_create_(const void* tag, uint32_t tagNumber, pthread_t* thread,
                              const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  using zar::thread::StartRecord;
  if (thread == nullptr || start == nullptr) return EINVAL;
  pthread_attr_t local;
  if (attr == nullptr) {
    int rc = zarthread_attr_init(&local);
    if (rc != 0) return rc;
  }
  StartRecord* record = zar::mem::make<StartRecord>(StartRecord{tag, tagNumber, start, arg});
  int rc = EAGAIN;
  if (record != nullptr) {
    rc = pthread_create(thread, attr != nullptr ? attr : &local, zar::thread::zarthreadStart,
                        record);
    if (rc != 0) zar::mem::free(record);
  }
  if (attr == nullptr) pthread_attr_destroy(&local);
  return rc;
}

ZAR_API int zarthread_delay_np(const struct timespec* interval) {
  struct timespec rel;
  if (!zar::thread::normalise(interval, &rel)) return EINVAL;
  struct timespec deadline;
  deadline.tv_sec = zar::thread::addSeconds(time(nullptr), rel.tv_sec);
  deadline.tv_nsec = rel.tv_nsec;
  int rc = pthread_mutex_lock(&zar::thread::gDelay.mu);
  if (rc != 0) return rc;
  int unlockRc = 0;
  int waitRc;
  {
    // Releases the mutex on the way out, also when the wait is cancelled.
    struct Unlock {
      int* rc;
      ~Unlock() { *rc = pthread_mutex_unlock(&zar::thread::gDelay.mu); }
    } unlock{&unlockRc};
    do {
      waitRc = pthread_cond_timedwait(&zar::thread::gDelay.cv, &zar::thread::gDelay.mu, &deadline);
    } while (waitRc == 0 || waitRc == EINTR);  // nobody signals: only spurious wake-ups
  }
  return waitRc == ETIMEDOUT ? unlockRc : waitRc;
}

ZAR_API int zarthread_sleep_np(int32_t seconds) {
  struct timespec interval;
  interval.tv_sec = seconds;
  interval.tv_nsec = 0;
  return zarthread_delay_np(&interval);
}

ZAR_API int zarthread_get_expiration_np(const struct timespec* interval,
                                        struct timespec* expiration) {
  struct timespec rel;
  if (expiration == nullptr || !zar::thread::normalise(interval, &rel)) return EINVAL;
  struct timeval now;
  gettimeofday(&now, nullptr);
  long ns = now.tv_usec * 1000L + rel.tv_nsec;
  time_t sec = zar::thread::addSeconds(now.tv_sec, rel.tv_sec);
  if (ns >= kNsPerSecond) {
    ns -= kNsPerSecond;
    sec = zar::thread::addSeconds(sec, 1);
  }
  expiration->tv_sec = sec;
  expiration->tv_nsec = ns;
  return 0;
}

}  // extern "C"
