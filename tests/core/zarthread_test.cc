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

void* exitsEarly(void* arg) {
  pthread_exit(arg);
  return nullptr;
}

std::atomic<bool> gWaiting{false};

void* delaysLong(void*) {
  gWaiting = true;
  struct timespec t = {3600, 0};
  zarthread_delay_np(&t);
  return nullptr;
}

void* sleepsZero(void*) { return reinterpret_cast<void*>(static_cast<intptr_t>(zarthread_sleep_np(0))); }

// Joins t within a generous bound; a thread stuck on a lock fails the test
// instead of hanging it.
bool joinWithin(pthread_t t, int seconds, void** result) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  return pthread_timedjoin_np(t, result, &deadline) == 0;
}

TEST(ZarThread, CreatedThreadRunsTheRoutineWithItsArgument) {
  int v = 21;
  pthread_t t;
  ASSERT_EQ(0, zarthread_create(&t, nullptr, twice, &v));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(t, &result));
  EXPECT_EQ(&v, result);
  EXPECT_EQ(42, v);
}

// The start record is freed on every way out; the leak checker of the
// sanitizer build reports it otherwise.
TEST(ZarThread, StartRecordIsReleasedOnExitAndCancellation) {
  int v = 1;
  pthread_t t;
  ASSERT_EQ(0, zarthread_create_("tag", 7, &t, nullptr, exitsEarly, &v));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(t, &result));
  EXPECT_EQ(&v, result);

  gWaiting = false;
  ASSERT_EQ(0, zarthread_create(&t, nullptr, delaysLong, nullptr));
  while (!gWaiting) sched_yield();
  ASSERT_EQ(0, pthread_cancel(t));
  ASSERT_TRUE(joinWithin(t, 30, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
}

TEST(ZarThread, CancelledDelayLeavesTheDelayFreeForOthers) {
  gWaiting = false;
  pthread_t waiter;
  ASSERT_EQ(0, zarthread_create(&waiter, nullptr, delaysLong, nullptr));
  while (!gWaiting) sched_yield();
  ASSERT_EQ(0, pthread_cancel(waiter));
  void* result = nullptr;
  ASSERT_TRUE(joinWithin(waiter, 30, &result));
  ASSERT_EQ(PTHREAD_CANCELED, result);
  // A delay in another thread must get the internal lock and return.
  pthread_t other;
  ASSERT_EQ(0, zarthread_create(&other, nullptr, sleepsZero, nullptr));
  ASSERT_TRUE(joinWithin(other, 30, &result)) << "the delay lock was left held";
  EXPECT_EQ(nullptr, result);
}

TEST(ZarThread, CallerAttributesAndDefaults) {
  pthread_attr_t attr;
  ASSERT_EQ(0, zarthread_attr_init(&attr));
  int scope = -1, detach = -1;
  pthread_attr_getscope(&attr, &scope);
  pthread_attr_getdetachstate(&attr, &detach);
  EXPECT_EQ(PTHREAD_SCOPE_SYSTEM, scope);
  EXPECT_EQ(PTHREAD_CREATE_JOINABLE, detach);
  int v = 2;
  pthread_t t;
  ASSERT_EQ(0, zarthread_create(&t, &attr, twice, &v));
  ASSERT_EQ(0, pthread_join(t, nullptr));
  EXPECT_EQ(4, v);
  pthread_attr_destroy(&attr);

  EXPECT_EQ(EINVAL, zarthread_attr_init(nullptr));
  EXPECT_EQ(EINVAL, zarthread_create(nullptr, nullptr, twice, &v));
  EXPECT_EQ(EINVAL, zarthread_create(&t, nullptr, nullptr, &v));
}

TEST(ZarThread, CreationFailsWithEagainWhenTheRecordCannotBeAllocated) {
  zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1);
  int v = 1;
  pthread_t t;
  EXPECT_EQ(EAGAIN, zarthread_create(&t, nullptr, twice, &v));
  EXPECT_EQ(1, v);
}

struct DelayCase {
  long sec;
  long nsec;
  int result;
};

class ZarDelay : public ::testing::TestWithParam<DelayCase> {};

// Bad intervals are refused; nanoseconds of a whole second or more are
// carried (an unnormalised wait would never end and time the test out).
TEST_P(ZarDelay, ReturnsForEveryShapeOfInterval) {
  struct timespec t = {GetParam().sec, GetParam().nsec};
  EXPECT_EQ(GetParam().result, zarthread_delay_np(&t));
}

INSTANTIATE_TEST_SUITE_P(Table, ZarDelay,
                         ::testing::Values(DelayCase{0, 0, 0}, DelayCase{0, 1000000000L, 0},
                                           DelayCase{0, 999999999L, 0}, DelayCase{-1, 0, EINVAL},
                                           DelayCase{0, -1, EINVAL}));

TEST(ZarDelayNull, NullIntervalAndNegativeSleep) {
  EXPECT_EQ(EINVAL, zarthread_delay_np(nullptr));
  EXPECT_EQ(EINVAL, zarthread_sleep_np(-1));
  EXPECT_EQ(0, zarthread_sleep_np(0));
}

class ZarExpiration : public ::testing::TestWithParam<DelayCase> {};

long long usOf(const struct timeval& tv) { return tv.tv_sec * 1000000LL + tv.tv_usec; }

TEST_P(ZarExpiration, IsNowPlusTheIntervalNormalised) {
  const DelayCase& c = GetParam();
  struct timespec in = {c.sec, c.nsec};
  struct timespec out = {-5, -5};
  struct timeval before, after;
  gettimeofday(&before, nullptr);
  ASSERT_EQ(c.result, zarthread_get_expiration_np(&in, &out));
  gettimeofday(&after, nullptr);
  if (c.result != 0) return;
  EXPECT_GE(out.tv_nsec, 0);
  EXPECT_LT(out.tv_nsec, 1000000000L);
  long long gotNs = out.tv_sec * 1000000000LL + out.tv_nsec;
  long long addNs = c.sec * 1000000000LL + c.nsec;
  EXPECT_GE(gotNs, usOf(before) * 1000 + addNs);
  EXPECT_LE(gotNs, usOf(after) * 1000 + addNs);
}

INSTANTIATE_TEST_SUITE_P(Table, ZarExpiration,
                         ::testing::Values(DelayCase{0, 900000000L, 0}, DelayCase{5, 0, 0},
                                           DelayCase{0, 2500000000L, 0},
                                           DelayCase{1, 999999999L, 0}, DelayCase{-1, 0, EINVAL},
                                           DelayCase{0, -1, EINVAL}));

TEST(ZarExpirationNull, NullPointersAreInvalid) {
  struct timespec t = {1, 0};
  EXPECT_EQ(EINVAL, zarthread_get_expiration_np(nullptr, &t));
  EXPECT_EQ(EINVAL, zarthread_get_expiration_np(&t, nullptr));
}

}  // namespace
