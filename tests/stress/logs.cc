// Log files under load: many processes appending to one file, fork while
// threads print, and rotation through generations across a restart.
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <set>
#include <thread>

#include "tests/stress/driver.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"

namespace zar::stress {
namespace {

using zar::test::RecordTally;
using Expected = std::map<std::string, std::pair<long, long>>;

std::string writerKey(int proc, int thread) {
  return named("p", proc) + named("t", thread);
}

// Prints count records from each of threads threads of this process, their
// numbers starting at first. Returns 0, or 1 when the route could not be set.
int printFromThreads(Run& run, const std::string& routes, int proc, int threads, long first,
                     long count) {
  initServiceability();
  if (route(routes) != 0) return 1;
  uint64_t seed = run.rng()();
  zar::test::runConcurrently(threads, [&](int t) {
    std::mt19937_64 rng(seed + static_cast<uint64_t>(proc * 64 + t));
    for (long n = first; n < first + count; ++n) printRecord(writerKey(proc, t), n, recordLength(rng));
    return 0L;
  });
  return 0;
}

// Puts a tally and its judgement on the line.
void report(Run& run, const RecordTally& tally, const zar::test::Loss& loss, const Procs& procs) {
  run.figure("records", static_cast<double>(tally.records));
  run.faults("torn", static_cast<long>(tally.torn));
  run.faults("lost", loss.lost);
  run.faults("duplicated", loss.duplicated + loss.unexpected);
  run.faults("unordered", loss.unordered);
  run.faults("crashed", procs.crashed);
  run.faults("hung", procs.hung);
  for (const std::string& b : tally.bad) run.fail(b);
  if (!loss.detail.empty()) run.fail(loss.detail);
}

// Item: processes x threads appending to one file of the given kind.
void appends(Run& run, const char* kind, bool xml) {
  int procs = static_cast<int>(run.size("processes", 8, 16));
  int threads = static_cast<int>(run.size("threads", 4, 4));
  long count = run.size("per_thread", 5000, 100000);
  std::string path = run.file("appends.log");
  std::string routes = std::string(kind) + ":" + path;
  double start = now();
  Procs result = inProcesses(procs, 600, [&](int p) {
    return printFromThreads(run, routes, p, threads, 0, count);
  });
  double elapsed = now() - start;
  RecordTally tally;
  tallyFile(path, xml, &tally);
  Expected expected;
  for (int p = 0; p < procs; ++p)
    for (int t = 0; t < threads; ++t) expected[writerKey(p, t)] = {0, count};
  report(run, tally, zar::test::judge(tally, expected), result);
  run.figure("records/s", static_cast<double>(tally.records) / elapsed);
}

Scenario text("appends-text", [](Run& run) { appends(run, "TEXTFILE", false); });
Scenario utf8("appends-utf8", [](Run& run) { appends(run, "UTF8FILE", false); });
Scenario xmlFile("appends-xml", [](Run& run) { appends(run, "XMLFILE", true); });

// Item: a process whose threads print without pause forks again and again;
// each child prints its own records into its own per-process file.
Scenario forkDuringLogging("fork", [](Run& run) {
  int forks = static_cast<int>(run.size("forks", 200, 5000));
  constexpr int kThreads = 4;
  constexpr long kChildRecords = 10;
  std::string pattern = run.file("fork.%d.log");
  initServiceability();
  if (route("TEXTFILE:" + pattern) != 0) run.fail("route refused");
  std::atomic<bool> stop{false};
  std::atomic<long> printed[kThreads] = {};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      std::mt19937_64 rng(static_cast<uint64_t>(t));
      for (long n = 0; !stop.load(); ++n) {
        printRecord(writerKey(0, t), n, recordLength(rng));
        printed[t].store(n + 1);
      }
    });
  }
  Procs procs;
  std::vector<pid_t> children;
  double start = now();
  for (int i = 0; i < forks; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      for (long n = 0; n < kChildRecords; ++n) printRecord(named("c", i), n, 100);
      _exit(0);
    }
    children.push_back(pid);
    procs.count(waitUntil(pid, now() + 20));
  }
  double elapsed = now() - start;
  stop.store(true);
  for (std::thread& w : writers) w.join();

  // The parent's file: its own records, each once; each child's file: the
  // child's ten records and nothing else.
  RecordTally parent;
  tallyFile(run.file(named("fork.", getpid(), ".log")), false, &parent);
  Expected expected;
  for (int t = 0; t < kThreads; ++t) expected[writerKey(0, t)] = {0, printed[t].load()};
  zar::test::Loss loss = zar::test::judge(parent, expected);
  RecordTally all = parent;
  for (int i = 0; i < forks; ++i) {
    RecordTally child;
    tallyFile(run.file(named("fork.", children[i], ".log")), false, &child);
    zar::test::Loss one = zar::test::judge(child, {{named("c", i), {0, kChildRecords}}});
    loss.lost += one.lost;
    loss.duplicated += one.duplicated;
    loss.unexpected += one.unexpected;
    loss.unordered += one.unordered;
    if (loss.detail.size() < 2000) loss.detail += one.detail;
    all.records += child.records;
    all.torn += child.torn;
    all.bad.insert(all.bad.end(), child.bad.begin(), child.bad.end());
  }
  report(run, all, loss, procs);
  run.figure("forks/s", forks / elapsed);
});

// ---- Rotation ---------------------------------------------------------------

// Which records one file holds: the run (process start) that wrote it, its
// place among that run's files, and its number of records.
struct Block {
  int run;
  long index;
  long size;
};

using ModTimes = std::vector<std::optional<struct timespec>>;  // [1..gens]

// The files of one log as the rotation rule makes them: the current file and
// generations 1..gens. The first archive after a set-up takes the first
// missing generation, else the oldest by modification time (the lowest
// number among equally old ones); later archives go round.
struct Generations {
  long limit;
  std::optional<Block> current;
  std::vector<std::optional<Block>> slot;  // slot[1..gens]
  int next = 0;

  Generations(int gens, long l) : limit(l), slot(static_cast<size_t>(gens) + 1) {}

  void archive(const ModTimes& mtimes) {
    if (!current) return;
    int gens = static_cast<int>(slot.size()) - 1;
    if (next == 0) {
      int oldest = 0;
      for (int n = 1; n <= gens && next == 0; ++n) {
        const auto& t = mtimes[static_cast<size_t>(n)];
        const auto& o = mtimes[static_cast<size_t>(oldest)];
        if (!t)
          next = n;
        else if (oldest == 0 || t->tv_sec < o->tv_sec ||
                 (t->tv_sec == o->tv_sec && t->tv_nsec < o->tv_nsec))
          oldest = n;
      }
      if (next == 0) next = oldest;
    } else if (next > gens) {
      next = 1;
    }
    slot[static_cast<size_t>(next++)] = current;
    current.reset();
  }

  // A set-up with the files as mtimes shows them, then total records.
  void runOnce(int run, long total, const ModTimes& mtimes) {
    next = 0;
    archive(mtimes);
    for (long b = 0; b * limit < total; ++b) {
      if (b > 0) archive(mtimes);
      current = Block{run, b, std::min(limit, total - b * limit)};
    }
  }
};

ModTimes modTimes(const std::string& base, int gens) {
  ModTimes out(static_cast<size_t>(gens) + 1);
  for (int n = 1; n <= gens; ++n) {
    struct stat st;
    if (stat((base + named(".", n)).c_str(), &st) == 0)
      out[static_cast<size_t>(n)] = st.st_mtim;
  }
  return out;
}

// Checks one process's files against its model; adds to the tally and loss.
void checkGenerations(Run& run, const std::string& base, const Generations& model,
                      RecordTally* all, zar::test::Loss* loss, long* overfull) {
  std::vector<std::pair<Block, RecordTally>> kept;
  long expected = 0;
  long records = 0;
  std::set<std::pair<std::string, long>> distinct;
  for (size_t n = 0; n < model.slot.size(); ++n) {
    std::string path = n == 0 ? base : base + named(".", static_cast<long>(n));
    const std::optional<Block>& block = n == 0 ? model.current : model.slot[n];
    if (zar::test::fileExists(path) != block.has_value()) {
      run.fail(path + (block ? " is missing" : " exists") + " against the rotation rule");
      continue;
    }
    if (!block) continue;
    RecordTally one;
    tallyFile(path, false, &one);
    if (one.records > static_cast<size_t>(model.limit)) ++*overfull;
    expected += block->size;
    records += static_cast<long>(one.records);
    for (const auto& [key, seqs] : one.seqs)
      for (long s : seqs) distinct.insert({key, s});
    all->records += one.records;
    all->torn += one.torn;
    all->bad.insert(all->bad.end(), one.bad.begin(), one.bad.end());
    kept.emplace_back(*block, std::move(one));
  }
  // In the order the files were written, each writer's numbers rise, and
  // within a stretch of consecutive files of one run they leave no gap.
  std::sort(kept.begin(), kept.end(), [](const auto& a, const auto& b) {
    return std::make_pair(a.first.run, a.first.index) < std::make_pair(b.first.run, b.first.index);
  });
  std::map<std::string, long> last;
  long gaps = 0;
  for (size_t i = 0; i < kept.size(); ++i) {
    const Block& b = kept[i].first;
    if (i == 0 || kept[i - 1].first.run != b.run || kept[i - 1].first.index + 1 != b.index)
      last.clear();
    for (const auto& [key, seqs] : kept[i].second.seqs) {
      for (long s : seqs) {
        auto it = last.find(key);
        if (it != last.end() && s <= it->second) ++loss->unordered;
        if (it != last.end() && s > it->second) gaps += s - it->second - 1;
        last[key] = s;
      }
    }
  }
  loss->lost += std::max(expected - static_cast<long>(distinct.size()), gaps);
  loss->duplicated += records - static_cast<long>(distinct.size());
  if (expected != static_cast<long>(distinct.size()))
    run.fail(base + ": " + std::to_string(distinct.size()) + " records kept, rule keeps " +
             std::to_string(expected));
}

// Item: per-process files rotated through generations, then a restart that
// takes each file over and goes on numbering.
Scenario rotation("rotation", [](Run& run) {
  int procs = static_cast<int>(run.size("processes", 4, 4));
  int threads = static_cast<int>(run.size("threads", 4, 4));
  long first = run.size("per_thread", 12500, 125000);
  long second = run.size("after_restart", 1250, 12500);
  constexpr int kGens = 9;
  constexpr long kLimit = 1000;
  const std::string spec = named("TEXTFILE.", kGens) + named(".", kLimit, ":");

  // First run: each process names its file after its own process id.
  std::vector<pid_t> pids(static_cast<size_t>(procs));
  int ids[2];
  if (pipe(ids) != 0) abort();
  double start = now();
  Procs result = inProcesses(procs, 600, [&](int p) {
    pid_t self[2] = {p, getpid()};
    if (write(ids[1], self, sizeof self) != sizeof self) return 2;
    return printFromThreads(run, spec + run.file("rot.%d.log"), p, threads, 0, first);
  });
  close(ids[1]);
  pid_t got[2];
  while (read(ids[0], got, sizeof got) == sizeof got)
    if (got[0] >= 0 && got[0] < procs) pids[static_cast<size_t>(got[0])] = got[1];
  close(ids[0]);
  std::vector<Generations> models(static_cast<size_t>(procs), Generations(kGens, kLimit));
  std::vector<std::string> bases;
  for (size_t p = 0; p < pids.size(); ++p) {
    bases.push_back(run.file(named("rot.", pids[p], ".log")));
    models[p].runOnce(0, first * threads, ModTimes(kGens + 1));
  }
  // The restart: one process per file, naming the file as it stands; the
  // rule picks its first generation from the files' modification times.
  for (size_t p = 0; p < pids.size(); ++p)
    models[p].runOnce(1, second * threads, modTimes(bases[p], kGens));
  result.add(inProcesses(procs, 600, [&](int p) {
    return printFromThreads(run, spec + bases[static_cast<size_t>(p)], p, threads, first, second);
  }));
  double elapsed = now() - start;

  RecordTally all;
  zar::test::Loss loss;
  long overfull = 0;
  for (size_t p = 0; p < pids.size(); ++p) checkGenerations(run, bases[p], models[p], &all, &loss, &overfull);
  report(run, all, loss, result);
  run.faults("overfull", overfull);
  run.figure("records/s", static_cast<double>(procs * threads * (first + second)) / elapsed);
});

}  // namespace
}  // namespace zar::stress
