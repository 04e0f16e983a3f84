// A stanza file shared by processes: writers increment a counter under the
// write lock while readers parse the file and a prober tries the locks
// without waiting.
#include <stdlib.h>
#include <sys/mman.h>

#include <atomic>

#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/stanza.h"
#include "zar/status.h"

namespace zar::stress {
namespace {

const char kFile[] =
    "# counters of the reliability suite\n"
    "[before]\n"
    "alpha = 1\n"
    "beta = two words  # and a comment\n"
    "\n"
    "[count]\n"
    "counter = 0\n"
    "other = kept\n"
    "\n"
    "# the last stanza\n"
    "[after]\n"
    "gamma = 3\n";

// Counts shared by the processes of the run.
struct Shared {
  std::atomic<long> writersLeft, increments, failedIncrements, reads, badReads, probes, blocked,
      badProbes;
};

// Walks the whole file; false unless it holds exactly the stanzas and
// entries of kFile, with a counter of at least *counter (then updated). A
// move past the end leaves the name null; memory mode walks the stanzas from
// the last.
bool readsWhole(zarStzFile* f, bool memory, long* counter) {
  std::string all;
  int stanzas = 0;
  for (zarStzMoveFirstStanza(f); f->stanzaName != nullptr && ++stanzas < 10;
       zarStzMoveNextStanza(f)) {
    std::string seen = std::string("[") + f->stanzaName + "]";
    zarStzMoveFirstEntry(f);
    for (int k = 0; f->entryName != nullptr && k < 10; ++k, zarStzMoveNextEntry(f)) {
      std::string value = f->value != nullptr ? f->value : "";
      if (std::string(f->entryName) == "counter") {
        char* end = nullptr;
        long n = strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || n < *counter) return false;
        *counter = n;
        value = "N";
      }
      seen += std::string(f->entryName) + "=" + value + ";";
    }
    all = memory ? seen + all : all + seen;
  }
  return f->status == 0 &&
         all == "[before]alpha=1;beta=two words;[count]counter=N;other=kept;[after]gamma=3;";
}

Scenario stanzaFile("stanza", [](Run& run) {
  int writers = run.size("writers", 4, 8);
  long increments = run.size("per_writer", 60, 20000);
  constexpr int kReaders = 4;
  std::string path = run.file("counters.conf");
  zar::test::writeFile(path, kFile);
  auto* shared =
      new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Shared{};
  shared->writersLeft = writers;
  double start = now();
  Procs procs = inProcesses(
      writers + kReaders + 1,
      [&](int i) {
        uint32_t st = 0;
        if (i < writers) {  // read-modify-write increments
          for (long n = 0; n < increments; ++n) {
            zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
            bool ok =
                f != nullptr && zarStzMoveEntry(f, "count", "counter") != 0 && f->value != nullptr;
            if (ok) {
              zarStzChangeValue(f, std::to_string(strtol(f->value, nullptr, 10) + 1).c_str());
              ok = f->status == 0;
            }
            zarStzFileClose(f);
            (ok ? shared->increments : shared->failedIncrements).fetch_add(1);
          }
          shared->writersLeft.fetch_sub(1);
        } else if (i < writers + kReaders) {  // whole reads, every other one in memory mode
          long counter = 0;
          for (long n = 0; shared->writersLeft.load() > 0; ++n) {
            zarStzFile* f = zarStzFileOpen(path.c_str(),
                                           ZAR_STZ_READ | (n % 2 != 0 ? ZAR_STZ_MEMORY : 0u), &st);
            bool ok = f != nullptr && readsWhole(f, n % 2 != 0, &counter);
            zarStzFileClose(f);
            shared->reads.fetch_add(1);
            if (!ok) shared->badReads.fetch_add(1);
          }
        } else {  // both locks probed without waiting
          for (long n = 0; shared->writersLeft.load() > 0; ++n) {
            zarStzFile* f = zarStzFileOpen(
                path.c_str(), (n % 2 != 0 ? ZAR_STZ_READ : ZAR_STZ_WRITE) | ZAR_STZ_NOWAIT, &st);
            zarStzFileClose(f);
            shared->probes.fetch_add(1);
            if (f == nullptr && st == ZAR_S_STZ_WOULD_BLOCK)
              shared->blocked.fetch_add(1);
            else if (f == nullptr || st != 0)
              shared->badProbes.fetch_add(1);
          }
        }
        return 0;
      },
      900);
  double seconds = now() - start;
  // Only the counter's line changed, and it holds every increment.
  std::string expected = kFile, found = zar::test::readFile(path);
  expected.replace(expected.find("counter = 0"), 11, named("counter = ", writers * increments));
  if (found != expected) run.fail("final file:\n" + found);
  run.figure("increments", shared->increments.load());
  run.faults("failed_increments", shared->failedIncrements.load());
  run.faults("file_wrong", found != expected);
  run.figure("reads", shared->reads.load());
  run.faults("bad_reads", shared->badReads.load());
  run.figure("probes", shared->probes.load());
  run.figure("would_block", shared->blocked.load());
  run.faults("bad_probes", shared->badProbes.load());
  procs.report(run);
  run.figure("increments/s", shared->increments.load() / seconds);
  munmap(shared, sizeof(Shared));
});

}  // namespace
}  // namespace zar::stress
