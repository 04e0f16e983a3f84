// Fault-injection seam for the operations that the library must survive
// failing: allocation, file and stream I/O, locking, code-set conversion and
// random bytes. Every such operation in the library goes through a wrapper
// (zar::mem for memory, zar::sys for system calls) that asks check() first.
//
// In production nothing is armed and check() costs one relaxed atomic load.
// Tests arm an operation to fail its k-th call (counted from the arming), or
// every call from the k-th on, with a chosen errno; they can also just count
// calls (failAt 0) to learn how many injection points a scenario has.
//
// Thread safety: arming and disarming are meant for single-threaded test set-up;
// check() may be called from any thread.
#ifndef ZAR_BASE_FAULTINJ_H_
#define ZAR_BASE_FAULTINJ_H_

#include <atomic>

namespace zar::fault {

enum class Op : int {
  kAlloc = 0,  // malloc, calloc, realloc, strdup of the library
  kOpen,       // open(2) and fopen(3)
  kRead,       // read(2), fread, fgets
  kWrite,      // write(2), fwrite, fputs, vfprintf to a stream
  kFlush,      // fflush
  kRename,     // rename(2)
  kFcntl,      // fcntl(2) record locks
  kIconv,      // code-set conversion
  kRandom,     // random-byte source
  kCount
};

namespace internal {
extern std::atomic<int> gArmedMask;  // bit (1 << op) set while op is armed
int checkSlow(Op op) noexcept;
}  // namespace internal

// Returns 0 when the operation may go ahead, otherwise the errno value that
// the wrapper must fail with.
inline int check(Op op) noexcept {
  if ((internal::gArmedMask.load(std::memory_order_relaxed) & (1 << static_cast<int>(op))) == 0)
    return 0;
  return internal::checkSlow(op);
}

// Arms op: its failAt-th call from now (1-based) fails with err; with sticky,
// every later call fails too. failAt 0 fails nothing and only counts calls.
void arm(Op op, long failAt, bool sticky, int err) noexcept;
void disarm(Op op) noexcept;
void disarmAll() noexcept;
// Calls of op seen since it was armed.
long calls(Op op) noexcept;
// Calls of op that were made to fail since it was armed.
long failures(Op op) noexcept;

}  // namespace zar::fault

#endif  // ZAR_BASE_FAULTINJ_H_
