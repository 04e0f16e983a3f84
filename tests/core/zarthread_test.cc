#include <errno.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>

#include "tests/testutil/testutil.h"
#include "zar/thread.h"

namespace {

void* twice(void* arg) {
  *static_cast<int*>(arg) *= 2;
  return arg;
}
std::atomic<bool> gWaiting{false};
void* delaysLong(void*) {
  gWaiting = true;
  struct timespec t = {3600, 0};
  zarthread_delay_np(&t);
  return nullptr;
}
void* sleepsZero(void*) { return reinterpret_cast<void*>(intptr_t{zarthread_sleep_np(0)}); }

// Joins within a generous bound, so that a thread stuck on a lock fails the
// test instead of hanging it.
bool joinWithin(pthread_t t, void** result) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 30;
  return pthread_timedjoin_np(t, result, &deadline) == 0;
}

// The start record is freed on every way out: return and cancellation (the
// leak checker of the sanitizer build reports it otherwise). A thread
// cancelled inside a delay leaves the delay free for others.
TEST(ZarThread, RunsTheRoutineAndReleasesTheRecordOnEveryExit) {
  int v = 21;
  pthread_t t;
  void* result = nullptr;
  ASSERT_EQ(0, zarthread_create(&t, nullptr, twice, &v));
  ASSERT_EQ(0, pthread_join(t, &result));
  EXPECT_EQ(&v, result);
  EXPECT_EQ(42, v);
  gWaiting = false;
  ASSERT_EQ(0, zarthread_create(&t, nullptr, delaysLong, nullptr));
  while (!gWaiting) sched_yield();
  ASSERT_EQ(0, pthread_cancel(t));
  ASSERT_TRUE(joinWithin(t, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  ASSERT_EQ(0, zarthread_create(&t, nullptr, sleepsZero, nullptr));
  ASSERT_TRUE(joinWithin(t, &result)) << "the delay lock was left held";
  EXPECT_EQ(nullptr, result);
}

TEST(ZarThread, BadArgumentsAndNoMemory) {
  int v = 2;
  pthread_t t;
  struct timespec one = {1, 0};
  EXPECT_EQ(EINVAL, zarthread_create(nullptr, nullptr, twice, &v));
  EXPECT_EQ(EINVAL, zarthread_create(&t, nullptr, nullptr, &v));
  EXPECT_EQ(EINVAL, zarthread_get_expiration_np(nullptr, &one));
  EXPECT_EQ(EINVAL, zarthread_get_expiration_np(&one, nullptr));
  zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1);
  EXPECT_EQ(EAGAIN, zarthread_create(&t, nullptr, twice, &v));
  EXPECT_EQ(2, v);
}

// Bad intervals are refused; nanoseconds of a whole second or more are
// carried (an unnormalised delay would never end and time the test out).
// The expiration is now plus the interval, normalised.
TEST(ZarThread, DelayAndExpirationForEveryShapeOfInterval) {
  const struct {
    long sec, nsec;
    int result;
    bool delay;  // short enough to wait for
  } cases[] = {{0, 0, 0, true},          {0, 1000000000L, 0, true}, {0, 999999999L, 0, true},
               {5, 0, 0, false},          {0, 2500000000L, 0, false}, {1, 999999999L, 0, false},
               {-1, 0, EINVAL, true},     {0, -1, EINVAL, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.sec) + "s " + std::to_string(c.nsec) + "ns");
    struct timespec in = {c.sec, c.nsec}, out = {-5, -5};
    if (c.delay) {
      EXPECT_EQ(c.result, zarthread_delay_np(&in));
    }
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    ASSERT_EQ(c.result, zarthread_get_expiration_np(&in, &out));
    gettimeofday(&after, nullptr);
    if (c.result != 0) continue;
    EXPECT_GE(out.tv_nsec, 0);
    EXPECT_LT(out.tv_nsec, 1000000000L);
    long long got = out.tv_sec * 1000000000LL + out.tv_nsec, add = c.sec * 1000000000LL + c.nsec;
    EXPECT_GE(got, (before.tv_sec * 1000000LL + before.tv_usec) * 1000 + add);
    EXPECT_LE(got, (after.tv_sec * 1000000LL + after.tv_usec) * 1000 + add);
  }
}

}  // namespace
