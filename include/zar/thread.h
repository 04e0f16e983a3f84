/*
 * libzar: threads, delays and expiration times.
 *
 * Conventions of this header:
 * - Results are POSIX error numbers (0 on success, e.g. EINVAL, EAGAIN), not
 *   status codes.
 * - Ownership: the library allocates a small start record for each thread it
 *   creates and frees it when the thread's routine returns, exits or is
 *   cancelled; the caller owns the pthread_t and joins or detaches it.
 * - NULL: a null attribute set means the library's defaults (system scope,
 *   joinable); other null pointers give EINVAL.
 * - Threads: every function may be called from any thread. The delays are
 *   cancellation points and release everything they hold when cancelled.
 */
#ifndef ZAR_THREAD_H
#define ZAR_THREAD_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* Initialises attr with the library's defaults: system contention scope and
 * joinable. On failure the attribute set is destroyed again.
 * Returns 0 or the error number of the failing pthread call. */
ZAR_API int zarthread_attr_init(pthread_attr_t* attr);

/* Creates a thread that runs start(arg). attr may be null (the defaults of
 * zarthread_attr_init). tag and tagNumber identify the creator (for example
 * the source file and line, see zarthread_create) and are kept with the
 * thread's start record.
 * Returns the result of pthread_create, the error number of the default
 * attributes, EAGAIN when the start record cannot be allocated, or EINVAL for
 * a null thread or start routine. */
ZAR_API int zarthread_create_(const void* tag, uint32_t tagNumber, pthread_t* thread,
                              const pthread_attr_t* attr, void* (*start)(void*), void* arg);

/* zarthread_create_ tagged with the caller's source file and line. */
#define zarthread_create(thread, attr, start, arg) \
  zarthread_create_(__FILE__, (uint32_t)__LINE__, (thread), (attr), (start), (arg))

/* Waits for about the relative interval: until the wall-clock second that is
 * interval seconds after the current one, plus interval nanoseconds. The
 * fraction of the current second is not added, so the wait is up to one
 * second shorter than the interval. Nanoseconds of a second or more are
 * carried into the seconds. A cancellation point.
 * Returns 0, EINVAL for a null or negative interval, or the error number of
 * the internal lock or wait. */
ZAR_API int zarthread_delay_np(const struct timespec* interval);

/* zarthread_delay_np of seconds and 0 nanoseconds (EINVAL when negative). */
ZAR_API int zarthread_sleep_np(int32_t seconds);

/* Stores in *expiration the absolute wall-clock time (as gettimeofday reads
 * it) that lies interval after now, normalised (nanoseconds below 1e9).
 * Returns 0, or EINVAL for a null pointer or a negative interval. */
ZAR_API int zarthread_get_expiration_np(const struct timespec* interval,
                                        struct timespec* expiration);

ZAR_EXTERN_C_END

#endif /* ZAR_THREAD_H */
