// The reliability driver: named scenarios that stress one subsystem each and
// report one summary line of figures. A figure that counts faults (torn,
// lost, duplicated, crashed, leaked, hung, ...) must be 0 for the line to
// pass. scripts/reliability runs every scenario in its own process:
//
//   zar_stress [--soak] [--seed N] [--set NAME=VALUE]... [--case TEXT]
//              [--dir DIR] SCENARIO...
//
// Sizes default to the CI sizes; --soak selects the soak sizes and --set
// overrides one size by name (the names are those the line prints). --case
// runs only the cases of a scenario whose name contains TEXT; --dir works in
// DIR (kept afterwards) instead of a temporary directory.
#ifndef ZAR_TESTS_STRESS_DRIVER_H_
#define ZAR_TESTS_STRESS_DRIVER_H_

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/testutil/logcheck.h"

namespace zar::stress {

class Run;
using ScenarioFn = void (*)(Run& run);

// Registers a scenario under its name at start-up.
struct Scenario {
  Scenario(const char* name, ScenarioFn fn);
};

// One scenario's run: its sizes, its random source, its working directory
// and the figures of its summary line.
class Run {
 public:
  Run(std::string name, bool soak, uint64_t seed, std::map<std::string, long> overrides,
      std::string only, std::string dir);

  const std::string& name() const { return name_; }
  bool soak() const { return soak_; }
  // Whether the case of this name is to run (--case).
  bool wants(const std::string& caseName) const {
    return caseName.find(only_) != std::string::npos;
  }
  const std::string& dir() const { return dir_; }
  std::string file(const std::string& base) const { return dir_ + "/" + base; }
  std::mt19937_64& rng() { return rng_; }
  long random(long lo, long hi) {  // uniform in [lo, hi]
    return std::uniform_int_distribution<long>(lo, hi)(rng_);
  }

  // A size: its CI or soak value, or the override given by --set; printed.
  long size(const char* figure, long ci, long soak);
  // A measurement, printed as it is.
  void figure(const std::string& name, double value);
  // A count of faults; the line fails unless it is 0.
  void faults(const std::string& name, long count);
  // A failed check that no count covers: printed on standard error, counted
  // in the figure "failed".
  void fail(const std::string& detail);

  bool passed() const;
  std::string line() const;

 private:
  std::string name_;
  bool soak_;
  std::mt19937_64 rng_;
  std::map<std::string, long> overrides_;
  std::string only_;
  std::string dir_;
  std::vector<std::pair<std::string, std::string>> figures_;
  long faultTotal_ = 0;
  long failed_ = 0;
};

// prefix, the decimal n and suffix ("rot.", 4711, ".log").
std::string named(const char* prefix, long n, const char* suffix = "");

// Seconds on the monotonic clock.
double now();

// Children of fork and what became of them.
struct Procs {
  long crashed = 0;  // ended by a signal or with a non-zero status
  long hung = 0;     // still running at the deadline, then killed
  void add(const Procs& o) {
    crashed += o.crashed;
    hung += o.hung;
  }
  // Counts one child by its wait status (-1: killed for hanging).
  void count(int waitStatus);
};

// Waits for pid until deadline (a now() value), killing it when it passes.
// Returns the wait status, or -1 when the child was killed for hanging.
int waitUntil(pid_t pid, double deadline);

// Runs fn in a forked child that exits with fn's result; returns the wait
// status, or -1 when the child was killed after timeoutSeconds.
int inChild(double timeoutSeconds, const std::function<int()>& fn);

// Runs body(i) for i in [0, n) in n forked processes, released together once
// all exist; each child exits with body's result. The parent waits for them
// for at most timeoutSeconds.
Procs inProcesses(int n, double timeoutSeconds, const std::function<int(int)>& body);

// Runs fn on a thread of its own and waits at most timeoutSeconds for it;
// false when it has not returned by then (the thread is left behind).
bool finishesWithin(double timeoutSeconds, const std::function<void()>& fn);

// The stress record writer: the serviceability set up with the product's
// components, and one record of message 0x38C5209C whose %s is a stress body
// (tests/testutil/logcheck.h) and whose %d is the sequence number.
void initServiceability();
void printRecord(const std::string& writer, long seq, size_t length);
// A body length: a few percent above 8 KiB, the rest 20 to 300 bytes.
size_t recordLength(std::mt19937_64& rng);
// Sets a route and returns its status ("NOTICE:" is put in front).
unsigned long route(const std::string& routes);

// Reads a log file (text or XML records) in pieces and tallies its records
// with a marker (the stress marker by default); a missing file tallies nothing.
void tallyFile(const std::string& path, bool xml, zar::test::RecordTally* tally,
               const zar::test::Marker& marker = zar::test::stressMarker());

}  // namespace zar::stress

#endif  // ZAR_TESTS_STRESS_DRIVER_H_
