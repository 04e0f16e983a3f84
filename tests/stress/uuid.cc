// UUIDs made in bulk: from one thread, from threads, from processes and
// across fork, never twice, and in each maker's order of time.
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>

#include "tests/stress/driver.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/uuid.h"

namespace zar::stress {
namespace {

using Bytes = std::array<unsigned char, 16>;

uint64_t timeOf(const kp_uuid_t& u) {
  return (static_cast<uint64_t>(u.time_hi_and_version & 0x0FFF) << 48) |
         (static_cast<uint64_t>(u.time_mid) << 32) | u.time_low;
}

unsigned clockSeqOf(const kp_uuid_t& u) {
  return (static_cast<unsigned>(u.clock_seq_hi_and_reserved & 0x3F) << 8) | u.clock_seq_low;
}

// What the UUIDs of one maker or of several showed: from each UUID of a
// maker to its next the time rises, or the clock sequence changes with it
// (the clock went back).
struct Counts {
  long made = 0, failed = 0, unordered = 0, clockSteps = 0;
};

struct Collector : Counts {
  bool keep = true;  // keep the UUIDs to look for duplicates
  std::vector<Bytes> all;
  std::optional<kp_uuid_t> prev;

  void make(long count) {
    for (long i = 0; i < count; ++i) {
      kp_uuid_t u;
      uint64_t st = 0;
      kp_uuid_create(&u, &st);
      if (st != 0) {
        ++failed;
        continue;
      }
      if (prev && timeOf(u) <= timeOf(*prev))
        ++(clockSeqOf(u) == clockSeqOf(*prev) ? unordered : clockSteps);
      prev = u;
      ++made;
      if (keep) memcpy(all.emplace_back().data(), &u, sizeof(Bytes));
    }
  }
  // Another maker's counts and its first c.made UUIDs.
  void add(const Counts& c, const Bytes* uuids) {
    all.insert(all.end(), uuids, uuids + c.made);
    made += c.made, failed += c.failed, unordered += c.unordered, clockSteps += c.clockSteps;
  }
  void report(Run& run, const Procs& procs, double seconds) {
    std::sort(all.begin(), all.end());
    long dup = 0;
    for (size_t i = 1; i < all.size(); ++i) dup += all[i] == all[i - 1];
    run.figure("uuids", made);
    run.faults("duplicated", dup);
    run.faults("unordered", unordered);
    run.faults("failed", failed);
    procs.report(run);
    run.figure("clock_steps", clockSteps);
    run.figure("uuids/s", made / seconds);
  }
};

// Memory that n children of fork fill with their counts and count UUIDs.
struct Shared {
  Counts* counts;
  Bytes* uuids;
  long count;
  Shared(long n, long count) : count(count) {
    void* m = mmap(nullptr, n * (sizeof(Counts) + count * sizeof(Bytes)), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    counts = static_cast<Counts*>(m);
    uuids = reinterpret_cast<Bytes*>(counts + n);
  }
  int make(long i) {  // in the child
    Collector c;
    c.make(count);
    std::copy(c.all.begin(), c.all.end(), uuids + i * count);
    counts[i] = c;
    return 0;
  }
  void addTo(Collector* all, long i) const { all->add(counts[i], uuids + i * count); }
};

// A rising order makes one maker's UUIDs unique: they need not be kept.
Scenario oneThread("uuid-one-thread", [](Run& run) {
  long count = run.size("count", 10000000, 100000000);
  Collector c;
  c.keep = false;
  double start = now();
  c.make(count);
  c.report(run, Procs(), now() - start);
});

Scenario processes("uuid-processes", [](Run& run) {
  int procs = run.size("processes", 8, 16);
  Shared shared(procs, run.size("per_process", 250000, 2500000));
  double start = now();
  Procs result = inProcesses(procs, [&](int p) { return shared.make(p); });
  double seconds = now() - start;
  Collector all;
  for (int p = 0; p < procs; ++p) shared.addTo(&all, p);
  if (all.made != procs * shared.count - all.failed) run.fail(named("UUIDs kept: ", all.made));
  all.report(run, result, seconds);
});

Scenario threads("uuid-threads", [](Run& run) {
  int threads = run.size("threads", 4, 8);
  long count = run.size("per_thread", 1000000, 10000000);
  std::vector<Collector> makers(threads);
  double start = now();
  zar::test::runConcurrently(threads, [&](int t) {
    makers[t].all.reserve(count);
    makers[t].make(count);
    return 0L;
  });
  double seconds = now() - start;
  Collector all;
  for (const Collector& c : makers) all.add(c, c.all.data());
  all.report(run, Procs(), seconds);
});

Scenario forks("uuid-fork", [](Run& run) {
  int forks = run.size("forks", 100, 2000);
  constexpr int kThreads = 2;
  std::vector<Collector> makers(kThreads);
  Shared shared(forks, 2000);
  double start = now();
  Procs procs = forkWhileBusy(
      forks, kThreads, [&](int t) { makers[t].make(100); }, [&](int i) { return shared.make(i); });
  double seconds = now() - start;
  Collector all;
  for (const Collector& c : makers) all.add(c, c.all.data());
  for (int i = 0; i < forks; ++i) shared.addTo(&all, i);
  all.report(run, procs, seconds);
});

}  // namespace
}  // namespace zar::stress
