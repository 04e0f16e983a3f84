#include "base/faultinj.h"

#include <unistd.h>

namespace zar::fault {
namespace internal {
std::atomic<int> gArmedMask{0};
}  // namespace internal

namespace {

// One plan per operation. Counters are atomic so that an armed operation may
// be reached from several threads of a stress test without a data race.
struct Plan {
  std::atomic<long> calls{0};     // calls seen since arming
  std::atomic<long> failures{0};  // calls made to fail since arming
  long failAt = 0;                // 1-based call index to fail; 0 = count only
  bool sticky = false;            // fail every call from failAt on
  int err = 0;                    // errno to report
};

Plan gPlans[static_cast<int>(Op::kCount)];

// The crash plan: the operations it counts, and the call that ends the
// process. Set up in a crash test's child before its scenario runs.
struct CrashPlan {
  std::atomic<int> mask{0};
  std::atomic<long> calls{0};
  long at = 0;
};
CrashPlan gCrash;
std::atomic<void (*)(int)> gSyncHook{nullptr};

}  // namespace

int internal::checkSlow(Op op) noexcept {
  if ((gCrash.mask.load(std::memory_order_relaxed) & (1 << static_cast<int>(op))) != 0 &&
      gCrash.calls.fetch_add(1, std::memory_order_relaxed) + 1 == gCrash.at)
    _exit(kCrashExit);
  Plan& p = gPlans[static_cast<int>(op)];
  long n = p.calls.fetch_add(1, std::memory_order_relaxed) + 1;
  if (p.failAt == 0) return 0;
  if (n == p.failAt || (p.sticky && n > p.failAt)) {
    p.failures.fetch_add(1, std::memory_order_relaxed);
    return p.err;
  }
  return 0;
}

void arm(Op op, long failAt, bool sticky, int err) noexcept {
  Plan& p = gPlans[static_cast<int>(op)];
  p.calls.store(0);
  p.failures.store(0);
  p.failAt = failAt;
  p.sticky = sticky;
  p.err = err;
  internal::gArmedMask.fetch_or(1 << static_cast<int>(op));
}

void disarm(Op op) noexcept {
  internal::gArmedMask.fetch_and(~(1 << static_cast<int>(op)));
}

void disarmAll() noexcept {
  internal::gArmedMask.store(0);
  gCrash.mask.store(0);
}

void armCrash(int opMask, long k) noexcept {
  gCrash.calls.store(0);
  gCrash.at = k;
  gCrash.mask.store(opMask);
  internal::gArmedMask.fetch_or(opMask);
}

void setSyncHook(void (*hook)(int fd)) noexcept {
  gSyncHook.store(hook);
}

void synced(int fd) noexcept {
  if (auto hook = gSyncHook.load(std::memory_order_relaxed)) hook(fd);
}

long calls(Op op) noexcept { return gPlans[static_cast<int>(op)].calls.load(); }

long failures(Op op) noexcept { return gPlans[static_cast<int>(op)].failures.load(); }

}  // namespace zar::fault
