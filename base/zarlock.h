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

// Lock contracts that clang checks (-Wthread-safety; the thread-safety test
// builds the library that way): state names the lock that guards it, and
// functions name the locks they need held (REQUIRES) or must not hold
// (EXCLUDES). Other compilers ignore them.
#if defined(__clang__)
#define ZAR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZAR_THREAD_ANNOTATION(x)
#endif
#define ZAR_CAPABILITY(name) ZAR_THREAD_ANNOTATION(capability(name))
#define ZAR_SCOPED_CAPABILITY ZAR_THREAD_ANNOTATION(scoped_lockable)
#define ZAR_GUARDED_BY(mu) ZAR_THREAD_ANNOTATION(guarded_by(mu))
#define ZAR_PT_GUARDED_BY(mu) ZAR_THREAD_ANNOTATION(pt_guarded_by(mu))
#define ZAR_ACQUIRED_BEFORE(...) ZAR_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ZAR_ACQUIRED_AFTER(...) ZAR_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ZAR_REQUIRES(...) ZAR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZAR_EXCLUDES(...) ZAR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZAR_ACQUIRE(...) ZAR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZAR_RELEASE(...) ZAR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZAR_NO_THREAD_SAFETY_ANALYSIS ZAR_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zar {

// A pthread mutex that the lock-contract analysis knows as a lock. The same
// type as pthread_mutex_t: the pthread functions take its address.
typedef pthread_mutex_t Mutex ZAR_CAPABILITY("mutex");

// Holds a pthread mutex for its scope. Not recursive; the mutex must not be
// held by the calling thread already.
class ZAR_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mu) ZAR_ACQUIRE(mu) : mu_(&mu) { pthread_mutex_lock(mu_); }
  ~MutexLock() ZAR_RELEASE() { pthread_mutex_unlock(mu_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* const mu_;
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
