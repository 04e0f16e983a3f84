// UUIDs made in bulk: from one thread, from threads, from processes and
// across fork, never twice, and in each maker's order of time.
#include <string.h>

#include <algorithm>
#include <array>
#include <optional>

#include "tests/stress/driver.h"
#include "tests/testutil/stress.h"
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

// One maker's UUIDs: from each to its next the time rises, or the clock
// sequence changes with it (the clock went back). A rising order makes one
// maker's UUIDs unique: with keep false they are not kept.
struct Counts {
  long made = 0, failed = 0, unordered = 0, clockSteps = 0;
};
struct Maker : Counts {
  bool keep = true;
  std::vector<Bytes> all;
  std::optional<kp_uuid_t> prev;
  void make(long count) {
    for (long i = 0; i < count; ++i) {
      kp_uuid_t u;
      uint64_t st = 0;
      kp_uuid_create(&u, &st);
      if (st != 0 && ++failed) continue;
      if (prev && timeOf(u) <= timeOf(*prev))
        ++(clockSeqOf(u) == clockSeqOf(*prev) ? unordered : clockSteps);
      prev = u;
      ++made;
      if (keep) memcpy(all.emplace_back().data(), &u, sizeof(Bytes));
    }
  }
  void add(const Counts& c, const Bytes* uuids, long kept) {
    all.insert(all.end(), uuids, uuids + kept);
    made += c.made, failed += c.failed, unordered += c.unordered, clockSteps += c.clockSteps;
  }
};

// threads threads making perThread each (forking: 100 at a time until the
// forks are done), and children processes (or children of fork) making
// perChild each, through memory shared with the driver.
void uuids(Run& run, int threads, long perThread, int children, long perChild, bool forking) {
  std::vector<Maker> makers(threads);
  makers[0].keep = threads > 1 || children > 0;
  auto* counts = static_cast<Counts*>(
      sharedMemory(std::max(1L, children * long(sizeof(Counts) + perChild * sizeof(Bytes)))));
  auto* kept = reinterpret_cast<Bytes*>(counts + children);
  auto child = [&](int i) {
    Maker m;
    m.make(perChild);
    std::copy(m.all.begin(), m.all.end(), kept + i * perChild);
    counts[i] = m;
    return 0;
  };
  double start = now();
  Procs procs;
  if (forking)
    procs = forkWhileBusy(
        children, threads, [&](int t) { makers[t].make(100); }, child);
  else if (children > 0)
    procs = inProcesses(children, child);
  else
    test::runConcurrently(threads, [&](int t) { return makers[t].make(perThread), 0L; });
  double seconds = now() - start;
  Maker all;
  for (const Maker& m : makers) all.add(m, m.all.data(), m.all.size());
  for (int i = 0; i < children; ++i) {
    if (counts[i].made + counts[i].failed != perChild)
      run.fail(named("child made ", counts[i].made));
    all.add(counts[i], kept + i * perChild, counts[i].made);
  }
  std::sort(all.all.begin(), all.all.end());
  long dup = 0;
  for (size_t i = 1; i < all.all.size(); ++i) dup += all.all[i] == all.all[i - 1];
  run.figure("uuids", all.made);
  run.faults("duplicated", dup);
  run.faults("unordered", all.unordered);
  run.faults("failed", all.failed);
  procs.report(run);
  run.figure("clock_steps", all.clockSteps);
  run.figure("uuids/s", all.made / seconds);
}

Scenario oneThread("uuid-one-thread", [](Run& run) {
  uuids(run, 1, run.size("count", 10000000, 100000000), 0, 0, false);
});
Scenario processes("uuid-processes", [](Run& run) {
  int procs = run.size("processes", 8, 16);
  uuids(run, 1, 0, procs, run.size("per_process", 250000, 2500000), false);
});
Scenario threads("uuid-threads", [](Run& run) {
  int threads = run.size("threads", 4, 8);
  uuids(run, threads, run.size("per_thread", 1000000, 10000000), 0, 0, false);
});
Scenario forks("uuid-fork",
               [](Run& run) { uuids(run, 2, 0, run.size("forks", 100, 2000), 2000, true); });

}  // namespace
}  // namespace zar::stress
