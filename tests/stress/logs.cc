// Log files under load: many processes appending to one file, fork while
// threads print, and rotation through generations across a restart.
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <set>

#include "tests/stress/driver.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"

namespace zar::stress {
namespace {

using zar::test::Loss;
using zar::test::RecordTally;
using Expected = std::map<std::string, std::pair<long, long>>;

std::string writerKey(int proc, int thread) {
  return named("p", proc) + named("t", thread);
}

// Prints count records numbered from first on each of threads threads;
// returns 1 when the route is refused.
int printFromThreads(Run& run, const std::string& routes, int proc, int threads, long first,
                     long count) {
  initServiceability();
  if (route(routes) != 0) return 1;
  uint64_t seed = run.rng()();
  zar::test::runConcurrently(threads, [&](int t) {
    std::mt19937_64 rng(seed + static_cast<uint64_t>(proc * 64 + t));
    for (long n = first; n < first + count; ++n)
      printRecord(writerKey(proc, t), n, recordLength(rng));
    return 0L;
  });
  return 0;
}

void appends(Run& run, const std::string& kind) {
  int procs = run.size("processes", 8, 16), threads = run.size("threads", 4, 4);
  long count = run.size("per_thread", 5000, 100000);
  std::string path = run.file("appends.log");
  double start = now();
  Procs result = inProcesses(
      procs, [&](int p) { return printFromThreads(run, kind + ":" + path, p, threads, 0, count); });
  double elapsed = now() - start;
  RecordTally tally;
  tallyFile(path, kind == "XMLFILE", &tally);
  Expected expected;
  for (int p = 0; p < procs; ++p)
    for (int t = 0; t < threads; ++t) expected[writerKey(p, t)] = {0, count};
  reportRecords(run, tally, zar::test::judge(tally, expected));
  result.report(run);
  run.figure("records/s", tally.records / elapsed);
}

Scenario text("appends-text", [](Run& run) { appends(run, "TEXTFILE"); });
Scenario utf8("appends-utf8", [](Run& run) { appends(run, "UTF8FILE"); });
Scenario xml("appends-xml", [](Run& run) { appends(run, "XMLFILE"); });

Scenario forkDuringLogging("fork", [](Run& run) {
  int forks = run.size("forks", 200, 5000);
  constexpr int kThreads = 4;
  constexpr long kChildRecords = 10;
  initServiceability();
  if (route("TEXTFILE:" + run.file("fork.%d.log")) != 0) run.fail("route refused");
  std::atomic<long> printed[kThreads] = {};
  std::vector<std::mt19937_64> rngs(kThreads);
  for (int t = 0; t < kThreads; ++t) rngs[t].seed(t);
  std::vector<pid_t> children;
  double start = now();
  Procs procs = forkWhileBusy(
      forks, kThreads,
      [&](int t) {
        printRecord(writerKey(0, t), printed[t].load(), recordLength(rngs[t]));
        printed[t].fetch_add(1);
      },
      [&](int i) {
        for (long n = 0; n < kChildRecords; ++n) printRecord(named("c", i), n, 100);
        return 0;
      },
      &children);
  double elapsed = now() - start;
  RecordTally all;
  tallyFile(run.file(named("fork.", getpid(), ".log")), false, &all);
  Expected expected;
  for (int t = 0; t < kThreads; ++t) expected[writerKey(0, t)] = {0, printed[t].load()};
  Loss loss = zar::test::judge(all, expected);
  for (int i = 0; i < forks; ++i) {
    RecordTally child;
    tallyFile(run.file(named("fork.", children[i], ".log")), false, &child);
    loss.add(zar::test::judge(child, {{named("c", i), {0, kChildRecords}}}));
    all.add(child);
  }
  reportRecords(run, all, loss);
  procs.report(run);
  run.figure("forks/s", forks / elapsed);
});

// The records of one file: the run that wrote it (0, or 1 after the
// restart), its place among that run's files, and its number of records.
struct Block {
  int run;
  long index, size;
};
using ModTimes = std::vector<std::optional<std::pair<long, long>>>;  // [1..gens]

// The files of one log as the rotation rule makes them: the current file and
// generations 1..gens. The first archive after a set-up takes the first
// missing generation, else the oldest by modification time (the lowest
// number among equally old ones); later archives go round.
struct Generations {
  long limit;
  std::vector<std::optional<Block>> files;  // [0]: the current file, then [1..gens]
  int next = 0;

  void archive(const ModTimes& mtimes) {
    int gens = files.size() - 1;
    if (!files[0]) return;
    if (next == 0) {
      for (int n = next = 1; n <= gens; ++n) {
        if (!mtimes[n]) {
          next = n;
          break;
        }
        if (*mtimes[n] < *mtimes[next]) next = n;
      }
    } else if (next > gens) {
      next = 1;
    }
    files[next++] = files[0];
    files[0].reset();
  }
  // A set-up with the files as mtimes shows them, then total records.
  void runOnce(int run, long total, const ModTimes& mtimes) {
    next = 0;
    for (long b = 0; b * limit < total; ++b) {
      archive(mtimes);
      files[0] = Block{run, b, std::min(limit, total - b * limit)};
    }
  }
};

std::string generation(const std::string& base, size_t n) {
  return n == 0 ? base : base + named(".", n);
}

ModTimes modTimes(const std::string& base, int gens) {
  ModTimes out(gens + 1);
  for (int n = 1; n <= gens; ++n) {
    struct stat st;
    if (stat(generation(base, n).c_str(), &st) == 0)
      out[n] = std::make_pair(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  }
  return out;
}

// Checks one log's files against its model (docs/reliability.md).
void checkGenerations(Run& run, const std::string& base, const Generations& model, RecordTally* all,
                      Loss* loss, long* overfull) {
  std::map<std::pair<int, long>, RecordTally> kept;  // by (run, index): in order of writing
  long expected = 0, records = 0;
  std::set<std::pair<std::string, long>> distinct;
  for (size_t n = 0; n < model.files.size(); ++n) {
    const std::optional<Block>& block = model.files[n];
    if (zar::test::fileExists(generation(base, n)) != block.has_value()) {
      run.fail(generation(base, n) + (block ? " is missing" : " exists") + " against the rule");
    } else if (block) {
      RecordTally& one = kept[{block->run, block->index}];
      tallyFile(generation(base, n), false, &one);
      *overfull += one.records > static_cast<size_t>(model.limit);
      expected += block->size;
      records += one.records;
      for (const auto& [key, seqs] : one.seqs)
        for (long s : seqs) distinct.insert({key, s});
      all->add(one);
    }
  }
  std::map<std::string, long> last;
  long gaps = 0;
  std::pair<int, long> prev{-1, 0};
  for (const auto& [at, one] : kept) {
    if (at.first != prev.first || at.second != prev.second + 1) last.clear();
    prev = at;
    for (const auto& [key, seqs] : one.seqs) {
      for (long s : seqs) {
        auto it = last.find(key);
        if (it != last.end() && s <= it->second) ++loss->unordered;
        if (it != last.end() && s > it->second) gaps += s - it->second - 1;
        last[key] = s;
      }
    }
  }
  long unique = distinct.size();
  loss->lost += std::max(expected - unique, gaps);
  loss->duplicated += records - unique;
  if (expected != unique)
    run.fail(base + named(": ", unique, " records kept, the rule keeps ") +
             std::to_string(expected));
}

Scenario rotation("rotation", [](Run& run) {
  int procs = run.size("processes", 4, 4), threads = run.size("threads", 4, 4);
  long first = run.size("per_thread", 12500, 125000);
  long second = run.size("after_restart", 1250, 12500);
  constexpr int kGens = 9;
  constexpr long kLimit = 1000;
  const std::string spec = named("TEXTFILE.", kGens) + named(".", kLimit, ":");
  double start = now();
  Procs result = inProcesses(procs, [&](int p) {
    return printFromThreads(run, spec + run.file("rot.%d.log"), p, threads, 0, first);
  });
  std::vector<std::string> bases;  // one per process, named after its id
  glob_t found;
  if (glob(run.file("rot.*.log").c_str(), 0, nullptr, &found) == 0)
    bases.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  if (bases.size() != static_cast<size_t>(procs)) run.fail(named("logs: ", bases.size()));
  // The restart: one process per log, naming the file as it stands; the rule
  // picks its first generation from the files' modification times.
  std::vector<Generations> models(
      bases.size(), Generations{kLimit, std::vector<std::optional<Block>>(kGens + 1)});
  for (size_t p = 0; p < bases.size(); ++p) {
    models[p].runOnce(0, first * threads, ModTimes(kGens + 1));
    models[p].runOnce(1, second * threads, modTimes(bases[p], kGens));
  }
  Procs again = inProcesses(bases.size(), [&](int p) {
    return printFromThreads(run, spec + bases[p], p, threads, first, second);
  });
  double elapsed = now() - start;
  RecordTally all;
  Loss loss;
  long overfull = 0;
  for (size_t p = 0; p < bases.size(); ++p)
    checkGenerations(run, bases[p], models[p], &all, &loss, &overfull);
  reportRecords(run, all, loss);
  Procs{result.crashed + again.crashed, result.hung + again.hung}.report(run);
  run.faults("overfull", overfull);
  run.figure("records/s", procs * threads * (first + second) / elapsed);
});

}  // namespace
}  // namespace zar::stress
