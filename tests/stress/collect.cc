// Records to real collectors under load: rsyslogd (local socket, UDP, TCP)
// and systemd-journald in a journal namespace of the run's own, each started
// here and stopped by its pid. Every record printed arrives exactly once, in
// order per writer, or is counted as dropped by the library (UDP: or by the
// collector's kernel socket, read from /proc/net/udp); children forked while
// the parent prints use connections of their own; a TCP collector restarted
// in the middle of a run gets the records queued meanwhile; cancellation
// while printing leaves every destination usable.
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/stress/driver.h"
#include "tests/testutil/logcheck.h"
#include "tests/testutil/testutil.h"
#include "zar/collect.h"
#include "zar/svc.h"

namespace zar::stress {
namespace {

using Expected = std::map<std::string, std::pair<long, long>>;

pid_t spawn(const std::vector<std::string>& args, const std::string& out) {
  return test::forkChild([&] {
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, 1), dup2(fd, 2);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    return 127;
  });
}

void stop(pid_t& pid) {
  if (pid > 0) kill(pid, SIGTERM), waitpid(pid, nullptr, 0);
  pid = -1;
}

bool waitUntil(const std::function<bool()>& ready) {
  for (int i = 0; i < 200; ++i, usleep(50000))
    if (ready()) return true;
  return false;
}

// The fields of the lines of /proc/net/FILE whose field at is "0100007F:port"
// (the loopback address in the kernel's notation).
std::vector<std::vector<std::string>> sockets(const char* file, size_t at, int port) {
  char want[24];
  snprintf(want, sizeof want, "0100007F:%04X", port);
  std::vector<std::vector<std::string>> found;
  for (const std::string& line :
       test::splitLines(test::readFile(std::string("/proc/net/") + file))) {
    std::istringstream words(line);
    std::vector<std::string> f;
    for (std::string w; words >> w;) f.push_back(w);
    if (f.size() > at && f[at] == want) found.push_back(f);
  }
  return found;
}

// rsyslogd writing the input and the text of every record it receives, one
// a line.
struct Rsyslog {
  Run& run;
  std::string dir = run.file("rsyslog");
  int udp = 0, tcp = 0;
  pid_t pid = -1;
  explicit Rsyslog(Run& r) : run(r) {
    for (int* port : {&udp, &tcp}) {  // free loopback ports, as the kernel hands them out
      int fd = socket(AF_INET, port == &udp ? SOCK_DGRAM : SOCK_STREAM, 0);
      sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
      socklen_t len = sizeof a;
      bind(fd, reinterpret_cast<sockaddr*>(&a), len);
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
      close(fd), *port = ntohs(a.sin_port);
    }
    mkdir(dir.c_str(), 0755), mkdir((dir + "/work").c_str(), 0755);
    std::ofstream(dir + "/rsyslog.conf")
        << "global(workDirectory=\"" << dir << "/work\")\n"
        << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
        << "input(type=\"imuxsock\" Socket=\"" << dir << "/log.sock\" UseSpecialParser=\"off\""
        << " RateLimit.Interval=\"0\")\n"
        << "module(load=\"imudp\")\ninput(type=\"imudp\" address=\"127.0.0.1\" port=\"" << udp
        << "\" rcvbufSize=\"32m\")\n"
        << "module(load=\"imtcp\")\ninput(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << tcp
        << "\")\ntemplate(name=\"m\" type=\"string\" string=\"%inputname% %msg%\\n\")\n"
        << "action(type=\"omfile\" file=\"" << dir << "/records\" template=\"m\")\n";
    start();
  }
  ~Rsyslog() { stop(pid); }
  void start() {
    unlink((dir + "/log.sock").c_str());
    pid = spawn({"/usr/sbin/rsyslogd", "-n", "-f", dir + "/rsyslog.conf", "-i", dir + "/pid"},
                dir + "/out");
    if (!waitUntil([this] {
          bool listening = false;  // state 0A
          for (const auto& f : sockets("tcp", 1, tcp)) listening = listening || f[3] == "0A";
          return listening && access((dir + "/log.sock").c_str(), F_OK) == 0;
        }))
      run.fail("rsyslogd did not start: " + test::readFile(dir + "/out"));
  }
  // The kernel's drop count of the UDP input socket (the last field).
  long udpDrops() const {
    auto s = sockets("udp", 1, udp);
    return s.empty() ? 0 : std::stol(s[0].back());
  }
  // Bytes the kernel holds on the TCP input's connections: received but not
  // read by rsyslogd, and sent but not yet acknowledged by the sender's side.
  long tcpHeld() const {
    long held = 0;
    for (size_t at : {1, 2})
      for (const auto& f : sockets("tcp", at, tcp))
        if (f[3] == "01") held += std::stol(f[4].substr(at == 1 ? 9 : 0, 8), nullptr, 16);
    return held;
  }
  std::string records() { return test::readFile(dir + "/records"); }
};

// systemd-journald in a namespace of its own, without rate limits.
struct Journald {
  Run& run;
  std::string ns = named("zarstress", getpid());
  std::string conf = "/etc/systemd/journald@" + ns + ".conf";
  pid_t pid = -1;
  explicit Journald(Run& r) : run(r) {
    std::ofstream(conf) << "[Journal]\nRateLimitIntervalSec=0\n";
    pid = spawn({"/lib/systemd/systemd-journald", ns}, run.file("journald.out"));
    if (!waitUntil([this] { return access(socket().c_str(), F_OK) == 0; }))
      run.fail("journald did not start");
  }
  ~Journald() {
    stop(pid);
    unlink(conf.c_str());
    std::string id = test::readFile("/etc/machine-id");
    id.erase(id.find_last_not_of("\n") + 1);
    system(("rm -rf /run/systemd/journal." + ns + " /var/log/journal/" + id + "." + ns).c_str());
  }
  std::string socket() const { return "/run/systemd/journal." + ns + "/socket"; }
  std::string records() {
    std::string out = run.file("journal.txt");
    system(
        ("journalctl -o cat --no-pager ZAR_COMPONENT=wsc --namespace=" + ns + " >" + out).c_str());
    return test::readFile(out);
  }
};

std::string writer(int proc, int thread) {
  return named("cw.", proc, named(".", thread).c_str());
}
void printOne(int proc, int thread, long seq) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "collect", 1, "%s%d", 0, svc_c_sev_notice,
                          0x38C5209C, writer(proc, thread).c_str(), static_cast<int>(seq));
}

// Each writer's records of the lines that begin with input (all lines when
// it is empty); a line with a damaged record counts as torn.
test::RecordTally tally(const std::string& text, const std::string& input) {
  test::RecordTally t;
  std::string key;
  long seq = 0;
  for (const std::string& line : test::splitLines(text)) {
    if (line.compare(0, input.size(), input) != 0) continue;
    if (test::sysRoutineMarker()(line, &key, &seq) == 1)
      t.seqs[key].push_back(seq), ++t.records;
    else
      t.torn += line.find("cw.") != std::string::npos;
  }
  return t;
}

// What the processes' destinations counted, after a flush: sent, dropped
// and queued of each route, added up in memory shared with the run.
using Counts = std::array<long, 3>;
Counts* sharedCounts(size_t routes) {
  return static_cast<Counts*>(sharedMemory(routes * sizeof(Counts)));
}
void addCounts(const std::vector<std::string>& routes, Counts* sum) {
  zar_svc_collector_flush(30000);
  for (size_t r = 0; r < routes.size(); ++r) {
    zar_svc_collector_counts c{};
    zar_svc_collector_counts_get(routes[r].c_str(), &c, nullptr);
    __atomic_add_fetch(&sum[r][0], c.sent, __ATOMIC_SEQ_CST);
    __atomic_add_fetch(&sum[r][1], c.dropped, __ATOMIC_SEQ_CST);
    __atomic_add_fetch(&sum[r][2], c.queued, __ATOMIC_SEQ_CST);
  }
}

// The records that arrived through one transport against those printed and
// counted: printed = arrived + dropped (+ UDP kernel drops), nothing twice,
// nothing out of order. Records a stopping TCP collector had received into
// its socket but never read are known to no sender: heldBound (-1: none)
// allows that many beyond the counts.
void judgeTransport(Run& run, const std::string& name, const std::string& text,
                    const std::string& input, const Expected& expected, const Counts& counts,
                    long kernelDrops, long heldBound = -1) {
  test::RecordTally t = tally(text, input);
  test::Loss loss = test::judge(t, expected);
  long unaccounted = loss.lost - counts[1] - kernelDrops;
  run.figure("arrived_" + name, static_cast<double>(t.records));
  run.figure("dropped_" + name, counts[1] + kernelDrops);
  if (heldBound >= 0) {
    run.figure("lost_at_stop", unaccounted);
    run.figure("lost_at_stop_bound", heldBound);
    unaccounted = std::max(0L, unaccounted - heldBound);
  } else {  // what the processes counted as sent is what arrived
    run.faults("miscounted_" + name,
               std::labs(counts[0] - kernelDrops - static_cast<long>(t.records)));
  }
  run.faults("unaccounted_" + name, unaccounted);
  run.faults("misordered_" + name, loss.duplicated + loss.unordered + loss.unexpected + t.torn);
  run.faults("left_queued_" + name, counts[2]);
}

// Waits until every transport's collector has as many records as were sent
// to it (less those the kernel dropped).
void awaitArrival(const std::function<std::string(size_t)>& text, const char* const* inputs,
                  const std::vector<long>& due) {
  waitUntil([&] {
    for (size_t k = 0; k < due.size(); ++k)
      if (static_cast<long>(tally(text(k), inputs[k]).records) < due[k]) return false;
    return true;
  });
}

const char* const kInputs[] = {"imuxsock ", "imudp ", "imtcp ", ""};
const char* const kNames[] = {"unix", "udp", "tcp", "journal"};

// Processes x threads x records to all four transports at once, while two
// threads of the parent print a steady stream: every child is forked while
// records go out and must use connections of its own.
Scenario load("collect-load", [](Run& run) {
  Rsyslog rs(run);
  Journald jd(run);
  if (!run.passed()) return;
  const std::vector<std::string> routes = {
      "SYSLOG:unix," + rs.dir + "/log.sock", "SYSLOG:udp,127.0.0.1," + std::to_string(rs.udp),
      "SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp), "JOURNAL:unix," + jd.socket()};
  int procs = run.size("processes", 4, 8), threads = run.size("threads", 4, 8);
  long per = run.size("per_thread", 5000, 50000);
  // A queue that holds a process's burst: the collectors' pace decides.
  setenv("SVC_COLLECTOR_QUEUE", std::to_string(run.size("queue", 25000, 250000)).c_str(), 1);
  initServiceability();
  if (route(routes[0] + ";" + routes[1] + ";" + routes[2] + ";" + routes[3]) != 0)
    run.fail("routing");
  std::atomic<bool> done{false};
  std::atomic<long> parentSeq[2] = {0, 0};
  std::vector<std::thread> parent;
  for (int t = 0; t < 2; ++t)
    parent.emplace_back([&, t] {
      for (; !done.load(); usleep(2000)) printOne(procs, t, parentSeq[t]++);
    });
  while (parentSeq[0].load() < 10 || parentSeq[1].load() < 10) usleep(1000);  // links open
  Counts* counts = sharedCounts(routes.size());
  double t0 = now();
  Procs result = inProcesses(procs, [&](int p) {
    std::vector<std::thread> ts;
    for (int th = 0; th < threads; ++th)
      ts.emplace_back([p, th, per] {
        for (long i = 0; i < per; ++i) printOne(p, th, i);
      });
    for (auto& t : ts) t.join();
    addCounts(routes, counts);
    return 0;
  });
  done = true;
  for (auto& t : parent) t.join();
  addCounts(routes, counts);
  result.report(run);
  run.figure("records/s", 4.0 * procs * threads * per / (now() - t0));
  Expected expected;
  for (int p = 0; p < procs; ++p)
    for (int th = 0; th < threads; ++th) expected[writer(p, th)] = {0, per};
  for (int t = 0; t < 2; ++t) expected[writer(procs, t)] = {0, parentSeq[t].load()};
  long kernel = rs.udpDrops();
  std::vector<long> due;
  for (size_t k = 0; k < 4; ++k) due.push_back(counts[k][0] - (k == 1 ? kernel : 0));
  auto text = [&](size_t k) { return k < 3 ? rs.records() : jd.records(); };
  awaitArrival(text, kInputs, due);
  std::string syslogText = rs.records(), journalText = jd.records();
  for (size_t k = 0; k < 4; ++k)
    judgeTransport(run, kNames[k], k < 3 ? syslogText : journalText, kInputs[k], expected,
                   counts[k], k == 1 ? kernel : 0);
});

// The TCP collector stops in the middle of the run and comes back a second
// later: prints never wait for it (the longest print is measured), what was
// queued arrives after it returns, and losses beyond the counted drops are
// at most the records in the bytes the kernel held for the stopping
// collector, measured while it and the writers are paused.
Scenario restart("collect-tcp-restart", [](Run& run) {
  Rsyslog rs(run);
  if (!run.passed()) return;
  int threads = run.size("threads", 4, 8);
  long per = run.size("per_thread", 5000, 50000);
  setenv("SVC_COLLECTOR_QUEUE", std::to_string(run.size("queue", 2000, 20000)).c_str(), 1);
  const std::vector<std::string> routes = {"SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp)};
  initServiceability();
  if (route(routes[0]) != 0) run.fail("routing");
  // Shared with the child: [0] writers pause, [1] writers paused, [2] the
  // longest print in microseconds.
  auto shared = static_cast<std::atomic<long>*>(sharedMemory(3 * sizeof(std::atomic<long>)));
  Counts* counts = sharedCounts(1);
  double t0 = now();
  pid_t child = test::forkChild([&] {
    std::vector<std::thread> ts;
    for (int th = 0; th < threads; ++th)
      ts.emplace_back([&, th] {
        for (long i = 0; i < per; ++i) {
          if (shared[0].load()) {
            shared[1].fetch_add(1);
            while (shared[0].load()) usleep(1000);
            shared[1].fetch_sub(1);
          }
          double a = now();
          printOne(0, th, i);
          long us = static_cast<long>((now() - a) * 1e6);
          for (long s = shared[2].load(); us > s && !shared[2].compare_exchange_weak(s, us);) {
          }
          if (i % 2 == 0) usleep(1000);  // a run of a few seconds
        }
      });
    for (auto& t : ts) t.join();
    addCounts(routes, counts);
    return 0;
  });
  usleep(800000);
  kill(rs.pid, SIGSTOP);  // received, acknowledged by the kernel, never read
  usleep(200000);
  shared[0] = 1;
  waitUntil([&] { return shared[1].load() == threads; });
  long held = rs.tcpHeld();
  kill(rs.pid, SIGTERM), kill(rs.pid, SIGCONT), stop(rs.pid);
  shared[0] = 0;
  usleep(1000000);
  rs.start();
  int status = 0;
  waitpid(child, &status, 0);
  if (test::exitCode(status) != 0) run.faults("crashed", 1);
  run.figure("max_print_ms", shared[2].load() / 1000.0);
  // Each record here has 240 bytes or more (header and structured data alone
  // some 170), so the held bytes carry at most held / 240 of them.
  long heldRecords = held / 240 + 1;
  awaitArrival([&](size_t) { return rs.records(); }, kInputs + 2, {counts[0][0] - heldRecords});
  Expected expected;
  for (int th = 0; th < threads; ++th) expected[writer(0, th)] = {0, per};
  judgeTransport(run, "tcp", rs.records(), kInputs[2], expected, counts[0], 0, heldRecords);
  run.figure("seconds", now() - t0);
});

struct Canceled {
  int id;
};

void* printUntilCancelled(void* arg) {
  for (long i = 0;; ++i) printOne(2000, static_cast<Canceled*>(arg)->id, i);
  return nullptr;
}

// Threads cancelled at random points while they send to a TCP collector
// that comes and goes: afterwards printing and flushing still work (no lock
// left held) and no record reached the collector torn or twice.
Scenario cancels("collect-cancel", [](Run& run) {
  Rsyslog rs(run);
  if (!run.passed()) return;
  int rounds = run.size("rounds", 40, 400), threads = 3;
  initServiceability();
  if (route("SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp)) != 0) run.fail("routing");
  long hung = 0;
  for (int r = 0; r < rounds; ++r) {
    if (r == rounds / 3) stop(rs.pid);
    if (r == 2 * rounds / 3) rs.start();
    std::vector<Canceled> ws(threads);
    std::vector<pthread_t> ids(threads);
    for (int t = 0; t < threads; ++t)
      ws[t].id = r * threads + t, pthread_create(&ids[t], nullptr, printUntilCancelled, &ws[t]);
    usleep(static_cast<useconds_t>(run.random(1000, 20000)));
    for (pthread_t id : ids) pthread_cancel(id), pthread_join(id, nullptr);
    if (!finishesWithin(10, [r] { printOne(9999, 0, r); })) ++hung;
  }
  bool flushed = finishesWithin(60, [] { zar_svc_collector_flush(30000); });
  waitUntil([&] { return tally(rs.records(), "").seqs["cw.9999.0"].size() >= size_t(rounds / 3); });
  test::RecordTally t = tally(rs.records(), "");
  long misordered = 0;
  for (auto& [key, seqs] : t.seqs)
    for (size_t i = 1; i < seqs.size(); ++i) misordered += seqs[i] <= seqs[i - 1];
  run.figure("cancelled", rounds * threads);
  run.figure("arrived", static_cast<double>(t.records));
  run.faults("hung", hung + !flushed);
  run.faults("torn", static_cast<long>(t.torn));
  run.faults("duplicated", misordered);
});

}  // namespace
}  // namespace zar::stress
