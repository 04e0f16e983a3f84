#include "tests/stress/driver.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "tests/testutil/testutil.h"
#include "zar/svc.h"

namespace zar::stress {
namespace {

std::map<std::string, std::function<void(Run&)>>& registry() {
  static std::map<std::string, std::function<void(Run&)>> scenarios;
  return scenarios;
}

// Waits for pid until deadline (a now() value), killing it then; returns the
// wait status, or -1 when it was killed.
int waitUntil(pid_t pid, double deadline) {
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno != EINTR)) return r == pid ? status : 0;
    if (now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(2000);
  }
}

}  // namespace

Scenario::Scenario(const char* name, std::function<void(Run&)> fn) {
  registry()[name] = std::move(fn);
}

Run::Run(std::string name, bool soak, uint64_t seed, std::map<std::string, long> sets,
         std::string only, std::string dir)
    : name_(std::move(name)),
      soak_(soak),
      rng_(seed),
      sets_(std::move(sets)),
      only_(std::move(only)),
      dir_(std::move(dir)) {
  figures_.emplace_back("seed", std::to_string(seed));
}

long Run::size(const char* name, long ci, long soak) {
  long v = sets_.count(name) != 0 ? sets_[name] : soak_ ? soak : ci;
  figures_.emplace_back(name, std::to_string(v));
  return v;
}

void Run::figure(const std::string& name, double value) {
  char buf[64];
  if (value == static_cast<double>(static_cast<long long>(value)))
    snprintf(buf, sizeof buf, "%lld", static_cast<long long>(value));
  else
    snprintf(buf, sizeof buf, "%.1f", value);
  figures_.emplace_back(name, buf);
}

void Run::faults(const std::string& name, long count) {
  figures_.emplace_back(name, std::to_string(count));
  faultTotal_ += count;
}

void Run::fail(const std::string& detail) {
  ++failed_;
  fprintf(stderr, "%s: %s\n", name_.c_str(), detail.c_str());
}

std::string Run::line() const {
  std::string out = name_ + (passed() ? " PASS" : " FAIL");
  for (const auto& [k, v] : figures_) out += " " + k + "=" + v;
  return failed_ != 0 ? out + named(" failed=", failed_) : out;
}

std::string named(const char* prefix, long n, const char* suffix) {
  return prefix + std::to_string(n) + suffix;
}

double now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void* sharedMemory(size_t bytes) {
  void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (m == MAP_FAILED) abort();
  return m;
}

void Procs::count(int waitStatus) {
  hung += waitStatus == -1;
  crashed += waitStatus != -1 && (!WIFEXITED(waitStatus) || WEXITSTATUS(waitStatus) != 0);
}

int inChild(double timeoutSeconds, const std::function<int()>& fn) {
  return waitUntil(test::forkChild(fn), now() + timeoutSeconds);
}

Procs inProcesses(int n, const std::function<int(int)>& body, double timeoutSeconds) {
  int go[2];
  if (pipe(go) != 0) abort();
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    pids.push_back(test::forkChild([&] {
      close(go[1]);
      char c;
      while (read(go[0], &c, 1) < 0 && errno == EINTR) {
      }
      return body(i);
    }));
  }
  close(go[0]);
  close(go[1]);  // releases every child at once
  Procs procs;
  double deadline = now() + timeoutSeconds;
  for (pid_t pid : pids) procs.count(waitUntil(pid, deadline));
  return procs;
}

Procs forkWhileBusy(int n, int threads, const std::function<void(int)>& step,
                    const std::function<int(int)>& child, std::vector<pid_t>* pids) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> busy;
  for (int t = 0; t < threads; ++t)
    busy.emplace_back([&, t] {
      while (!stop.load()) step(t);
    });
  Procs procs;
  for (int i = 0; i < n; ++i) {
    pid_t pid = fork();  // no stdio in the child: a busy thread may have held a stream's lock
    if (pid == 0) _exit(child(i));
    if (pids != nullptr) pids->push_back(pid);
    procs.count(waitUntil(pid, now() + 20));
  }
  stop.store(true);
  for (std::thread& b : busy) b.join();
  return procs;
}

bool finishesWithin(double timeoutSeconds, const std::function<void()>& fn) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread([done, fn] {
    fn();
    done->store(true);
  }).detach();
  for (double end = now() + timeoutSeconds; !done->load() && now() < end;) usleep(1000);
  return done->load();
}

void initServiceability() {
  unsigned long st = 0;
  zar_svc_init(0, &st);
  zar_svc_set_progname("stress", &st);
}

void printRecord(const std::string& writer, long seq, size_t length) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "stress.cc", 1, "%s%d", 0, svc_c_sev_notice,
                          0x38C5209C, zar::test::stressBody(writer, seq, length).c_str(),
                          static_cast<int>(seq));
}

size_t recordLength(std::mt19937_64& rng) {
  auto in = [&rng](size_t lo, size_t hi) { return lo + rng() % (hi - lo + 1); };
  return in(0, 99) < 3 ? in(8300, 9600) : in(20, 300);
}

unsigned long route(const std::string& routes) {
  unsigned long st = 0;
  zar_svc_routing(("NOTICE:" + routes).c_str(), &st);
  return st;
}

void reportRecords(Run& run, const zar::test::RecordTally& tally, const zar::test::Loss& loss) {
  run.figure("records", tally.records);
  run.faults("torn", tally.torn);
  run.faults("lost", loss.lost);
  run.faults("duplicated", loss.duplicated + loss.unexpected);
  run.faults("unordered", loss.unordered);
  for (const std::string& b : tally.bad) run.fail(b);
  if (!loss.detail.empty()) run.fail(loss.detail);
}

void tallyFile(const std::string& path, bool xml, zar::test::RecordTally* tally,
               const zar::test::Marker& marker) {
  std::ifstream in(path, std::ios::binary);
  const std::string end = xml ? "</Message>\n\n" : "\n";
  std::string pending;
  std::vector<char> chunk(16 << 20);
  while (in) {
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    pending.append(chunk.data(), static_cast<size_t>(in.gcount()));
    size_t cut = pending.rfind(end);
    if (in && cut == std::string::npos) continue;
    size_t upTo = !in ? pending.size() : cut + end.size();
    (xml ? zar::test::tallyXmlRecords : zar::test::tallyTextRecords)(pending.substr(0, upTo),
                                                                     marker, tally);
    pending.erase(0, upTo);
  }
}

}  // namespace zar::stress

int main(int argc, char** argv) {
  using namespace zar::stress;
  bool soak = false;
  uint64_t seed = time(nullptr);
  std::map<std::string, long> sets;
  std::vector<std::string> names;
  std::string dir, only;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i], value = i + 1 < argc ? argv[i + 1] : "";
    size_t eq = value.find('=');
    if (a == "--list") {
      for (const auto& entry : registry()) printf("%s\n", entry.first.c_str());
      return 0;
    } else if (a == "--soak" || registry().count(a) != 0) {
      a == "--soak" ? void(soak = true) : names.push_back(a);
    } else if (a == "--seed" && ++i < argc) {
      seed = strtoull(value.c_str(), nullptr, 10);
    } else if (a == "--set" && eq != std::string::npos && ++i < argc) {
      sets[value.substr(0, eq)] = strtol(value.c_str() + eq + 1, nullptr, 10);
    } else if ((a == "--case" || a == "--dir") && ++i < argc) {
      (a == "--case" ? only : dir) = value;
    } else {
      fprintf(stderr, "zar_stress: unknown scenario or option %s (see --list)\n", a.c_str());
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);  // a child that writes to a closed pipe must not end the run
  bool ok = true;
  for (const std::string& name : names) {
    std::unique_ptr<zar::test::TempDir> temp;
    if (dir.empty()) temp = std::make_unique<zar::test::TempDir>();
    Run run(name, soak, seed, sets, only, dir.empty() ? temp->path() : dir);
    registry()[name](run);
    printf("%s\n", run.line().c_str());
    fflush(stdout);
    ok = ok && run.passed();
  }
  return ok ? 0 : 1;
}
