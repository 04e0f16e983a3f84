// A stanza file shared by processes: writers increment a counter under the
// write lock while readers parse the file and probers try the lock without
// waiting.
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
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
  std::atomic<long> writersLeft;
  std::atomic<long> increments, failedIncrements;
  std::atomic<long> reads, badReads;
  std::atomic<long> probes, blocked, badProbes;
};

// Walks the whole file; false unless it holds exactly the stanzas and
// entries of kFile, with a counter of at least *counter (then updated). A
// move past the end leaves the name null; memory mode walks the stanzas from
// the last.
bool readsWhole(zarStzFile* f, bool memory, long* counter) {
  std::vector<std::string> stanzas;
  zarStzMoveFirstStanza(f);
  for (; f->stanzaName != nullptr && stanzas.size() < 10; zarStzMoveNextStanza(f)) {
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
    stanzas.push_back(seen);
  }
  if (memory) std::reverse(stanzas.begin(), stanzas.end());
  std::string all;
  for (const std::string& one : stanzas) all += one;
  return f->status == 0 &&
         all == "[before]alpha=1;beta=two words;[count]counter=N;other=kept;[after]gamma=3;";
}

// Item: writer processes increment, reader processes parse, one prober
// process asks for the locks without waiting.
Scenario stanzaFile("stanza", [](Run& run) {
  int writers = static_cast<int>(run.size("writers", 4, 8));
  long increments = run.size("per_writer", 2000, 20000);
  constexpr int kReaders = 4;
  std::string path = run.file("counters.conf");
  zar::test::writeFile(path, kFile);
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (shared) Shared{};
  shared->writersLeft = writers;
  double start = now();
  Procs procs = inProcesses(writers + kReaders + 1, 900, [&](int i) {
    uint32_t st = 0;
    if (i < writers) {
      for (long n = 0; n < increments; ++n) {
        zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
        bool ok = f != nullptr && zarStzMoveEntry(f, "count", "counter") != 0 && f->value != nullptr;
        if (ok) {
          std::string next = std::to_string(strtol(f->value, nullptr, 10) + 1);
          zarStzChangeValue(f, next.c_str());
          ok = f->status == 0;
        }
        zarStzFileClose(f);
        (ok ? shared->increments : shared->failedIncrements).fetch_add(1);
      }
      shared->writersLeft.fetch_sub(1);
    } else if (i < writers + kReaders) {
      long counter = 0;
      for (long n = 0; shared->writersLeft.load() > 0; ++n) {
        // Every other read loads the file into memory.
        bool memory = n % 2 != 0;
        zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_READ | (memory ? ZAR_STZ_MEMORY : 0u), &st);
        bool ok = f != nullptr && readsWhole(f, memory, &counter);
        zarStzFileClose(f);
        shared->reads.fetch_add(1);
        if (!ok) shared->badReads.fetch_add(1);
      }
    } else {
      for (long n = 0; shared->writersLeft.load() > 0; ++n) {
        uint32_t flags = (n % 2 != 0 ? ZAR_STZ_READ : ZAR_STZ_WRITE) | ZAR_STZ_NOWAIT;
        zarStzFile* f = zarStzFileOpen(path.c_str(), flags, &st);
        zarStzFileClose(f);
        shared->probes.fetch_add(1);
        if (f == nullptr && st == ZAR_S_STZ_WOULD_BLOCK) shared->blocked.fetch_add(1);
        else if (f == nullptr || st != 0) shared->badProbes.fetch_add(1);
      }
    }
    return 0;
  });
  double seconds = now() - start;
  // Only the counter's line changed, and it holds every increment.
  std::string expected = kFile;
  expected.replace(expected.find("counter = 0"), 11, "counter = " + std::to_string(writers * increments));
  long changed = zar::test::readFile(path) != expected;
  if (changed != 0) run.fail("final file:\n" + zar::test::readFile(path));
  run.figure("increments", static_cast<double>(shared->increments.load()));
  run.faults("failed_increments", shared->failedIncrements.load());
  run.faults("file_wrong", changed);
  run.figure("reads", static_cast<double>(shared->reads.load()));
  run.faults("bad_reads", shared->badReads.load());
  run.figure("probes", static_cast<double>(shared->probes.load()));
  run.figure("would_block", static_cast<double>(shared->blocked.load()));
  run.faults("bad_probes", shared->badProbes.load());
  run.faults("crashed", procs.crashed);
  run.faults("hung", procs.hung);
  run.figure("increments/s", static_cast<double>(shared->increments.load()) / seconds);
  munmap(shared, sizeof(Shared));
});

}  // namespace
}  // namespace zar::stress
