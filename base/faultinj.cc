#include "base/faultinj.h"

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

}  // namespace

int internal::checkSlow(Op op) noexcept {
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

void disarmAll() noexcept { internal::gArmedMask.store(0); }

long calls(Op op) noexcept { return gPlans[static_cast<int>(op)].calls.load(); }

long failures(Op op) noexcept { return gPlans[static_cast<int>(op)].failures.load(); }

}  // namespace zar::fault
