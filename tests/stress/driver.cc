#include "tests/stress/driver.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "tests/testutil/testutil.h"
#include "zar/svc.h"

namespace zar::stress {
namespace {

std::map<std::string, ScenarioFn>& registry() {
  static std::map<std::string, ScenarioFn> scenarios;
  return scenarios;
}

std::string formatValue(double v) {
  char buf[64];
  if (v == static_cast<double>(static_cast<long long>(v)))
    snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
  else
    snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

constexpr uint32_t kSysFailed = 0x38C5209C;  // "The %s system routine failed: ...: %d"

}  // namespace

Scenario::Scenario(const char* name, ScenarioFn fn) { registry()[name] = fn; }

Run::Run(std::string name, bool soak, uint64_t seed, std::map<std::string, long> overrides,
         std::string only, std::string dir)
    : name_(std::move(name)), soak_(soak), rng_(seed), overrides_(std::move(overrides)),
      only_(std::move(only)), dir_(std::move(dir)) {
  figures_.emplace_back("seed", std::to_string(seed));
}

long Run::size(const char* figure, long ci, long soak) {
  auto it = overrides_.find(figure);
  long v = it != overrides_.end() ? it->second : soak_ ? soak : ci;
  figures_.emplace_back(figure, std::to_string(v));
  return v;
}

void Run::figure(const std::string& name, double value) {
  figures_.emplace_back(name, formatValue(value));
}

void Run::faults(const std::string& name, long count) {
  figures_.emplace_back(name, std::to_string(count));
  faultTotal_ += count;
}

void Run::fail(const std::string& detail) {
  ++failed_;
  fprintf(stderr, "%s: %s\n", name_.c_str(), detail.c_str());
}

bool Run::passed() const { return faultTotal_ == 0 && failed_ == 0; }

std::string Run::line() const {
  std::string out = name_ + (passed() ? " PASS" : " FAIL");
  for (const auto& [k, v] : figures_) out += " " + k + "=" + v;
  if (failed_ != 0) out += named(" failed=", failed_);
  return out;
}

std::string named(const char* prefix, long n, const char* suffix) {
  std::string s(prefix);
  s += std::to_string(n);
  s += suffix;
  return s;
}

double now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

int waitUntil(pid_t pid, double deadline) {
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0 && errno != EINTR) return 0;
    if (now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(2000);
  }
}

int inChild(double timeoutSeconds, const std::function<int()>& fn) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int rc = fn();
    fflush(nullptr);
    _exit(rc);
  }
  return waitUntil(pid, now() + timeoutSeconds);
}

Procs inProcesses(int n, double timeoutSeconds, const std::function<int(int)>& body) {
  int go[2];
  if (pipe(go) != 0) abort();
  std::vector<pid_t> pids;
  fflush(nullptr);
  for (int i = 0; i < n; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      close(go[1]);
      char c;
      while (read(go[0], &c, 1) < 0 && errno == EINTR) {
      }
      close(go[0]);
      int rc = body(i);
      fflush(nullptr);
      _exit(rc);
    }
    pids.push_back(pid);
  }
  close(go[0]);
  close(go[1]);  // releases every child at once
  Procs procs;
  double deadline = now() + timeoutSeconds;
  for (pid_t pid : pids) procs.count(waitUntil(pid, deadline));
  return procs;
}

void Procs::count(int waitStatus) {
  if (waitStatus == -1)
    ++hung;
  else if (!WIFEXITED(waitStatus) || WEXITSTATUS(waitStatus) != 0)
    ++crashed;
}

bool finishesWithin(double timeoutSeconds, const std::function<void()>& fn) {
  struct Shared {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
  };
  auto shared = std::make_shared<Shared>();
  std::thread([shared, fn] {
    fn();
    std::lock_guard<std::mutex> lock(shared->m);
    shared->done = true;
    shared->cv.notify_all();
  }).detach();
  std::unique_lock<std::mutex> lock(shared->m);
  return shared->cv.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                             [&] { return shared->done; });
}

void initServiceability() {
  unsigned long st = 0;
  zar_svc_init(0, &st);
  zar_svc_set_progname("stress", &st);
}

void printRecord(const std::string& writer, long seq, size_t length) {
  std::string body = zar::test::stressBody(writer, seq, length);
  zar_svc_printf_withfile(zarsv_client_svc_handle, "stress.cc", 1, "%s%d", 0, svc_c_sev_notice,
                          kSysFailed, body.c_str(), static_cast<int>(seq));
}

size_t recordLength(std::mt19937_64& rng) {
  auto in = [&rng](size_t lo, size_t hi) { return lo + static_cast<size_t>(rng() % (hi - lo + 1)); };
  return in(0, 99) < 3 ? in(8300, 9600) : in(20, 300);
}

unsigned long route(const std::string& routes) {
  unsigned long st = 0;
  zar_svc_routing(("NOTICE:" + routes).c_str(), &st);
  return st;
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
    std::string whole = pending.substr(0, upTo);
    pending.erase(0, upTo);
    if (xml)
      zar::test::tallyXmlRecords(whole, marker, tally);
    else
      zar::test::tallyTextRecords(whole, marker, tally);
  }
}

}  // namespace zar::stress

int main(int argc, char** argv) {
  using namespace zar::stress;
  bool soak = false;
  uint64_t seed = static_cast<uint64_t>(time(nullptr));
  std::map<std::string, long> overrides;
  std::vector<std::string> names;
  std::string dir;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--soak") {
      soak = true;
    } else if (a == "--seed" && i + 1 < argc) {
      seed = strtoull(argv[++i], nullptr, 10);
    } else if (a == "--set" && i + 1 < argc) {
      std::string kv = argv[++i];
      size_t eq = kv.find('=');
      if (eq == std::string::npos) {
        fprintf(stderr, "zar_stress: --set needs NAME=VALUE\n");
        return 2;
      }
      overrides[kv.substr(0, eq)] = strtol(kv.c_str() + eq + 1, nullptr, 10);
    } else if (a == "--case" && i + 1 < argc) {
      only = argv[++i];
    } else if (a == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else if (a == "--list") {
      for (const auto& [name, fn] : registry()) printf("%s\n", name.c_str());
      return 0;
    } else if (registry().count(a) != 0) {
      names.push_back(a);
    } else {
      fprintf(stderr, "zar_stress: unknown scenario or option %s (see --list)\n", a.c_str());
      return 2;
    }
  }
  // A child of fork that writes to a closed pipe must not end the run.
  signal(SIGPIPE, SIG_IGN);
  bool ok = true;
  for (const std::string& name : names) {
    std::unique_ptr<zar::test::TempDir> temp;
    if (dir.empty()) temp = std::make_unique<zar::test::TempDir>();
    Run run(name, soak, seed, overrides, only, dir.empty() ? temp->path() : dir);
    registry()[name](run);
    printf("%s\n", run.line().c_str());
    fflush(stdout);
    ok = ok && run.passed();
  }
  return ok ? 0 : 1;
}
