// The reliability driver (docs/reliability.md): named scenarios, each
// printing one summary line of figures; a figure that counts faults must be 0
// for the line to pass.
#ifndef ZAR_TESTS_STRESS_DRIVER_H_
#define ZAR_TESTS_STRESS_DRIVER_H_

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/testutil/logcheck.h"

namespace zar::stress {

class Run;

// Registers a scenario under its name at start-up.
struct Scenario {
  Scenario(const char* name, std::function<void(Run&)> fn);
};

// One scenario's run: its sizes, random source, directory and figures.
class Run {
 public:
  Run(std::string name, bool soak, uint64_t seed, std::map<std::string, long> sets,
      std::string only, std::string dir);
  // Whether the case of this name is to run (--case).
  bool wants(const std::string& c) const { return c.find(only_) != std::string::npos; }
  std::string file(const std::string& base) const { return dir_ + "/" + base; }
  std::mt19937_64& rng() { return rng_; }
  long random(long lo, long hi) { return std::uniform_int_distribution<long>(lo, hi)(rng_); }
  // A size: its CI or soak value, or the one given by --set; printed.
  long size(const char* name, long ci, long soak);
  void figure(const std::string& name, double value);  // a measurement
  void faults(const std::string& name, long count);    // must be 0
  // A failed check that no count covers: printed on standard error, counted
  // in the figure "failed".
  void fail(const std::string& detail);
  bool passed() const { return faultTotal_ == 0 && failed_ == 0; }
  std::string line() const;

 private:
  std::string name_;
  bool soak_;
  std::mt19937_64 rng_;
  std::map<std::string, long> sets_;
  std::string only_, dir_;
  std::vector<std::pair<std::string, std::string>> figures_;
  long faultTotal_ = 0, failed_ = 0;
};

// prefix, the decimal n and suffix ("rot.", 4711, ".log").
std::string named(const char* prefix, long n, const char* suffix = "");
double now();  // seconds on the monotonic clock
// Zeroed memory shared with the children of fork made after this call.
void* sharedMemory(size_t bytes);

// Children of fork that died (a signal or a non-zero status) or hung
// (killed at their deadline).
struct Procs {
  long crashed = 0, hung = 0;
  void count(int waitStatus);  // -1: killed for hanging
  void report(Run& run) const { run.faults("crashed", crashed), run.faults("hung", hung); }
};

// Runs fn in a forked child that exits with fn's result; returns the wait
// status, or -1 when the child was killed after timeoutSeconds.
int inChild(double timeoutSeconds, const std::function<int()>& fn);
// Runs body(i) for i in [0, n) in n forked processes released together once
// all exist, each exiting with body's result.
Procs inProcesses(int n, const std::function<int(int)>& body, double timeoutSeconds = 600);
// Forks n children one after the other (each exiting with child(i), each
// given 20 s) while step(t) runs over and over on threads threads; pids
// receives the children's ids.
Procs forkWhileBusy(int n, int threads, const std::function<void(int)>& step,
                    const std::function<int(int)>& child, std::vector<pid_t>* pids = nullptr);
// Runs fn on a thread of its own; false when it has not returned within
// timeoutSeconds (the thread is left behind).
bool finishesWithin(double timeoutSeconds, const std::function<void()>& fn);

// The serviceability set up with the product's components.
void initServiceability();
// One record of message 0x38C5209C whose %s is a stress body and whose %d
// the sequence number.
void printRecord(const std::string& writer, long seq, size_t length);
// A body length: 3 % 8,300 to 9,600 bytes, the rest 20 to 300.
size_t recordLength(std::mt19937_64& rng);
// Sets the routes of NOTICE; returns the status.
unsigned long route(const std::string& routes);
// The figures of records tallied against those expected: records, and the
// faults torn, lost, duplicated and unordered, the first ones described.
void reportRecords(Run& run, const zar::test::RecordTally& tally, const zar::test::Loss& loss);
// Tallies the records of a log file read in pieces (nothing when missing).
void tallyFile(const std::string& path, bool xml, zar::test::RecordTally* tally,
               const zar::test::Marker& marker = zar::test::stressMarker());

}  // namespace zar::stress

#endif  // ZAR_TESTS_STRESS_DRIVER_H_
