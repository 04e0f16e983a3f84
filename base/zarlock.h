// Lock guards and cancellation control over POSIX threads.
//
// Thread cancellation: glibc cancels a thread by unwinding its stack (a forced
// unwind), which runs C++ destructors on the way, exactly as the clean-up
// handlers of pthread_cleanup_push would run. A guard below that holds a
// process-wide lock is therefore that lock's cancellation clean-up: a thread
// cancelled while it holds the lock (for example while waiting on a condition
// variable, or inside a callback) releases it.
//
// Two rules follow for all library code:
// - No function that can reach a cancellation point is declared noexcept, and
//   no catch (...) swallows the unwind (a forced unwind through a noexcept
//   frame ends the process).
// - Destructors never reach a cancellation point. Where one must close a file
//   or stream, it disables cancellation first (CancelDisabled).
#ifndef ZAR_BASE_ZARLOCK_H_
#define ZAR_BASE_ZARLOCK_H_

#include <pthread.h>

namespace zar {

// Holds a pthread mutex for its scope. Not recursive; the mutex must not be
// held by the calling thread already.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mu) : mu_(mu) { pthread_mutex_lock(mu_); }
  ~MutexLock() { pthread_mutex_unlock(mu_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* const mu_;
};

// Like MutexLock, but may be released early (and only once) with unlock().
class ReleasableMutexLock {
 public:
  explicit ReleasableMutexLock(pthread_mutex_t* mu) : mu_(mu) { pthread_mutex_lock(mu_); }
  ~ReleasableMutexLock() {
    if (mu_ != nullptr) pthread_mutex_unlock(mu_);
  }
  void unlock() {
    pthread_mutex_unlock(mu_);
    mu_ = nullptr;
  }
  ReleasableMutexLock(const ReleasableMutexLock&) = delete;
  ReleasableMutexLock& operator=(const ReleasableMutexLock&) = delete;

 private:
  pthread_mutex_t* mu_;
};

// Shared or exclusive hold of a pthread read-write lock. ok() tells whether
// the lock was taken; the destructor releases it only then.
class RwLockHold {
 public:
  enum Mode { kRead, kWrite };
  RwLockHold(pthread_rwlock_t* rw, Mode mode)
      : rw_(rw),
        rc_(mode == kRead ? pthread_rwlock_rdlock(rw) : pthread_rwlock_wrlock(rw)) {}
  ~RwLockHold() {
    if (rc_ == 0) pthread_rwlock_unlock(rw_);
  }
  bool ok() const { return rc_ == 0; }
  int error() const { return rc_; }
  // Releases the lock now and returns the result of the release.
  int release() {
    if (rc_ != 0) return rc_;
    rc_ = -1;
    return pthread_rwlock_unlock(rw_);
  }
  RwLockHold(const RwLockHold&) = delete;
  RwLockHold& operator=(const RwLockHold&) = delete;

 private:
  pthread_rwlock_t* const rw_;
  int rc_;
};

// Disables thread cancellation for its scope and restores the previous state.
class CancelDisabled {
 public:
  CancelDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_); }
  ~CancelDisabled() { pthread_setcancelstate(old_, nullptr); }
  int previous() const { return old_; }
  CancelDisabled(const CancelDisabled&) = delete;
  CancelDisabled& operator=(const CancelDisabled&) = delete;

 private:
  int old_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace zar

#endif  // ZAR_BASE_ZARLOCK_H_
