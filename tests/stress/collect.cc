// Records to real collectors under load: rsyslogd (local socket, UDP, TCP)
// and systemd-journald in a journal namespace of the run's own, each started
// here and stopped by its pid. Every record printed arrives exactly once, in
// order per writer, or is counted as dropped by the library (UDP: or by the
// collector's kernel socket, read from /proc/net/udp); a TCP collector
// restarted in the middle of a run gets the records queued meanwhile; fork
// and cancellation while printing leave every destination usable.
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/collect.h"
#include "zar/svc.h"

namespace zar::stress {
namespace {

pid_t spawn(const std::vector<std::string>& args, const std::string& out) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(fd, 1), dup2(fd, 2);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

void stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  pid = -1;
}

int freePort(int type) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

bool waitUntil(const std::function<bool()>& ready) {
  for (int i = 0; i < 200; ++i, usleep(50000))
    if (ready()) return true;
  return false;
}

bool tcpListening(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

// rsyslogd writing the text of every record it receives, one a line.
struct Rsyslog {
  Run& run;
  std::string dir = run.file("rsyslog");
  int udp = freePort(SOCK_DGRAM), tcp = freePort(SOCK_STREAM);
  pid_t pid = -1;
  explicit Rsyslog(Run& r) : run(r) {
    mkdir(dir.c_str(), 0755);
    mkdir((dir + "/work").c_str(), 0755);
    std::ofstream(dir + "/rsyslog.conf")
        << "global(workDirectory=\"" << dir << "/work\")\n"
        << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
        << "input(type=\"imuxsock\" Socket=\"" << dir << "/log.sock\" UseSpecialParser=\"off\""
        << " RateLimit.Interval=\"0\")\n"
        << "module(load=\"imudp\")\ninput(type=\"imudp\" address=\"127.0.0.1\" port=\"" << udp
        << "\" rcvbufSize=\"32m\")\n"
        << "module(load=\"imtcp\")\ninput(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << tcp
        << "\")\n"
        << "template(name=\"m\" type=\"string\" string=\"%inputname% %msg%\\n\")\n"
        << "action(type=\"omfile\" file=\"" << dir << "/records\" template=\"m\")\n";
    start();
  }
  ~Rsyslog() { stop(pid); }
  void start() {
    unlink((dir + "/log.sock").c_str());
    pid = spawn({"/usr/sbin/rsyslogd", "-n", "-f", dir + "/rsyslog.conf", "-i", dir + "/pid"},
                dir + "/out");
    if (!waitUntil(
            [this] { return access((dir + "/log.sock").c_str(), F_OK) == 0 && tcpListening(tcp); }))
      run.fail("rsyslogd did not start: " + zar::test::readFile(dir + "/out"));
  }
  // The kernel's drop count of the UDP input socket (/proc/net/udp: the
  // local address is the second field, the drops the last).
  long udpDrops() const {
    std::ifstream in("/proc/net/udp");
    std::string line, sl, local;
    char port[8];
    snprintf(port, sizeof port, ":%04X", udp);
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      fields >> sl >> local;
      if (local.size() < 5 || local.compare(local.size() - 5, 5, port) != 0) continue;
      std::string last;
      for (std::string f; fields >> f;) last = f;
      return std::stol(last);
    }
    return 0;
  }
  std::string records() { return zar::test::readFile(dir + "/records"); }
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
    std::string id = zar::test::readFile("/etc/machine-id");
    id.erase(id.find_last_not_of("\n") + 1);
    system(("rm -rf /run/systemd/journal." + ns + " /var/log/journal/" + id + "." + ns).c_str());
  }
  std::string socket() const { return "/run/systemd/journal." + ns + "/socket"; }
  std::string records() {
    std::string text;
    FILE* p = popen(
        ("journalctl --namespace=" + ns + " -o cat --no-pager ZAR_COMPONENT=wsc").c_str(), "r");
    char buf[65536];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
    pclose(p);
    return text;
  }
};

void printOne(int proc, int thread, long seq) {
  char w[48];
  snprintf(w, sizeof w, "cw.%d.%d", proc, thread);
  zar_svc_printf_withfile(zarsv_client_svc_handle, "collect", 1, "%s%d", 0, svc_c_sev_notice,
                          0x38C5209C, w, static_cast<int>(seq));
}

// What one process's destination counted, written for the run to add up.
void saveCounts(Run& run, const std::string& route, int proc) {
  zar_svc_collector_flush(30000);
  zar_svc_collector_counts c{};
  unsigned long st = 0;
  zar_svc_collector_counts_get(route.c_str(), &c, &st);
  std::ofstream(run.file(named("counts.", proc))) << c.sent << ' ' << c.dropped << ' ' << c.queued;
}

struct Tally {
  long records = 0, duplicated = 0, reordered = 0, foreign = 0;
  std::map<std::pair<int, int>, std::vector<long>> seen;
};

// Reads every "The cw.P.T system routine failed: system error code: SEQ" of
// the lines that begin with input (all lines when it is empty).
Tally tally(const std::string& text, const std::string& input = "") {
  Tally t;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, input.size(), input) != 0) continue;
    size_t at = line.find("The cw.");
    int p, th;
    long seq;
    if (at == std::string::npos ||
        sscanf(line.c_str() + at, "The cw.%d.%d system routine failed: system error code: %ld", &p,
               &th, &seq) != 3) {
      t.foreign += line.find("cw.") != std::string::npos;
      continue;
    }
    std::vector<long>& s = t.seen[{p, th}];
    if (!s.empty() && seq <= s.back()) (seq == s.back() ? t.duplicated : t.reordered)++;
    s.push_back(seq);
    ++t.records;
  }
  return t;
}

// Sums what the processes counted and judges: records printed = arrived +
// dropped (+ UDP kernel drops); nothing twice, nothing out of order. With
// collectorStopped, records that a stopping collector had received into its
// socket but not read are a figure, not a fault: plain TCP syslog has no
// acknowledgement that would let a sender count them.
void judge(Run& run, const std::string& text, int procs, long printed, long kernelDrops,
           double seconds, bool collectorStopped = false) {
  long sent = 0, dropped = 0, queued = 0;
  for (int p = 0; p < procs; ++p) {
    long s = 0, d = 0, q = 0;
    std::ifstream(run.file(named("counts.", p))) >> s >> d >> q;
    sent += s, dropped += d, queued += q;
  }
  Tally t = tally(text);
  run.figure("records", printed);
  run.figure("arrived", t.records);
  run.figure("dropped", dropped);
  if (kernelDrops >= 0) run.figure("kernel_dropped", kernelDrops);
  run.figure("records/s", printed / seconds);
  long unaccounted = printed - t.records - dropped - std::max(kernelDrops, 0L);
  if (collectorStopped && unaccounted > 0) {
    run.figure("lost_at_stop", unaccounted);
    unaccounted = 0;
  }
  run.faults("unaccounted", unaccounted);
  run.faults("duplicated", t.duplicated);
  run.faults("reordered", t.reordered);
  run.faults("torn", t.foreign);
  run.faults("left_queued", queued);
  run.faults("arrived_unsent", std::max(0L, t.records - sent));
}

void loadScenario(Run& run, const std::string& transport) {
  std::unique_ptr<Rsyslog> rs;
  std::unique_ptr<Journald> jd;
  std::string where;
  if (transport == "journal") {
    jd = std::make_unique<Journald>(run);
    where = "JOURNAL:unix," + jd->socket();
  } else {
    rs = std::make_unique<Rsyslog>(run);
    where = transport == "unix"  ? "SYSLOG:unix," + rs->dir + "/log.sock"
            : transport == "udp" ? "SYSLOG:udp,127.0.0.1," + std::to_string(rs->udp)
                                 : "SYSLOG:tcp,127.0.0.1," + std::to_string(rs->tcp);
  }
  if (!run.passed()) return;
  int procs = run.size("processes", 4, 8), threads = run.size("threads", 4, 8);
  long per = run.size("per_thread", 5000, 50000);
  // A queue that holds a process's burst: the collectors' pace decides.
  setenv("SVC_COLLECTOR_QUEUE", std::to_string(run.size("queue", 25000, 250000)).c_str(), 1);
  initServiceability();
  if (route(where) != 0) run.fail("routing " + where);
  double t0 = now();
  Procs result = inProcesses(procs, [&](int p) {
    std::vector<std::thread> ts;
    for (int th = 0; th < threads; ++th)
      ts.emplace_back([p, th, per] {
        for (long i = 0; i < per; ++i) printOne(p, th, i);
      });
    for (auto& t : ts) t.join();
    saveCounts(run, where, p);
    return 0;
  });
  double seconds = now() - t0;
  result.report(run);
  long printed = static_cast<long>(procs) * threads * per;
  std::string text;
  long kernel = rs && transport == "udp" ? rs->udpDrops() : -1;
  // Everything the processes sent is at the collector once it has read it.
  long sent = 0;
  for (int p = 0; p < procs; ++p) {
    long s = 0;
    std::ifstream(run.file(named("counts.", p))) >> s;
    sent += s;
  }
  waitUntil([&] {
    return tally(text = rs ? rs->records() : jd->records()).records >= sent - std::max(kernel, 0L);
  });
  judge(run, text, procs, printed, kernel, seconds);
}

Scenario unixLoad("collect-unix", [](Run& run) { loadScenario(run, "unix"); });
Scenario udpLoad("collect-udp", [](Run& run) { loadScenario(run, "udp"); });
Scenario tcpLoad("collect-tcp", [](Run& run) { loadScenario(run, "tcp"); });
Scenario journalLoad("collect-journal", [](Run& run) { loadScenario(run, "journal"); });

// The TCP collector stops for a second in the middle of the run and comes
// back: prints never wait for it (the longest print is measured), what was
// queued arrives after it returns, and losses are exactly the records the
// queue could not hold.
Scenario restart("collect-tcp-restart", [](Run& run) {
  Rsyslog rs(run);
  if (!run.passed()) return;
  int threads = run.size("threads", 4, 8);
  long per = run.size("per_thread", 5000, 50000);
  long queue = run.size("queue", 2000, 20000);
  setenv("SVC_COLLECTOR_QUEUE", std::to_string(queue).c_str(), 1);
  std::string where = "SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp);
  initServiceability();
  if (route(where) != 0) run.fail("routing " + where);
  double t0 = now();
  pid_t child = zar::test::forkChild([&] {
    std::atomic<long> slowest{0};  // microseconds
    std::vector<std::thread> ts;
    for (int th = 0; th < threads; ++th)
      ts.emplace_back([&, th] {
        for (long i = 0; i < per; ++i) {
          double a = now();
          printOne(0, th, i);
          long us = static_cast<long>((now() - a) * 1e6);
          for (long s = slowest.load(); us > s && !slowest.compare_exchange_weak(s, us);) {
          }
          if (i % 2 == 0) usleep(1000);  // a run of a few seconds
        }
      });
    for (auto& t : ts) t.join();
    saveCounts(run, where, 0);
    std::ofstream(run.file("slowest")) << slowest.load();
    return 0;
  });
  usleep(800000);
  stop(rs.pid);
  usleep(1000000);
  rs.start();
  int status = 0;
  waitpid(child, &status, 0);
  if (zar::test::exitCode(status) != 0) run.faults("crashed", 1);
  double seconds = now() - t0;
  std::string text;
  waitUntil([&] { return tally(text = rs.records()).records > 0 && now() - t0 > seconds + 1; });
  long slowest = 0;
  std::ifstream(run.file("slowest")) >> slowest;
  run.figure("max_print_ms", slowest / 1000.0);
  judge(run, text, 1, threads * per, -1, seconds, true);
});

// Children forked one after another while threads print to all four
// transports at once: every child writes through connections of its own,
// the parent's go on, and each collector gets every record once, in order,
// or the library counted it as dropped.
Scenario forks("collect-fork", [](Run& run) {
  Rsyslog rs(run);
  Journald jd(run);
  if (!run.passed()) return;
  const std::string routes[] = {
      "SYSLOG:unix," + rs.dir + "/log.sock", "SYSLOG:udp,127.0.0.1," + std::to_string(rs.udp),
      "SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp), "JOURNAL:unix," + jd.socket()};
  const char* inputs[] = {"imuxsock ", "imudp ", "imtcp ", ""};
  int n = run.size("forks", 20, 200), threads = 2;
  long perChild = run.size("per_child", 200, 1000);
  initServiceability();
  if (route(routes[0] + ";" + routes[1] + ";" + routes[2] + ";" + routes[3]) != 0)
    run.fail("routing");
  auto save = [&](int proc) {
    zar_svc_collector_flush(30000);
    std::ofstream out(run.file(named("fork-counts.", proc)));
    for (const std::string& r : routes) {
      zar_svc_collector_counts c{};
      unsigned long st = 0;
      zar_svc_collector_counts_get(r.c_str(), &c, &st);
      out << c.dropped + c.queued << ' ';
    }
  };
  std::vector<long> seq(threads, 0);
  double t0 = now();
  Procs procs = forkWhileBusy(
      n, threads,
      [&](int t) {
        printOne(1000, t, seq[t]++);
        usleep(500);  // a steady stream, not a flood that only the queue limit stops
      },
      [&](int i) {
        for (long k = 0; k < perChild; ++k) printOne(i, 0, k);
        save(i);
        return 0;
      });
  save(n);
  procs.report(run);
  long dropped[4] = {};
  for (int p = 0; p <= n; ++p) {
    std::ifstream in(run.file(named("fork-counts.", p)));
    for (long& d : dropped) {
      long v = 0;
      in >> v;
      d += v;
    }
  }
  long printed = n * perChild + seq[0] + seq[1];
  std::string syslogText, journalText;
  waitUntil([&] {
    syslogText = rs.records(), journalText = jd.records();
    for (int k = 0; k < 4; ++k)
      if (tally(k < 3 ? syslogText : journalText, inputs[k]).records + dropped[k] < printed)
        return false;
    return true;
  });
  run.figure("records", printed);
  run.figure("seconds", now() - t0);
  const char* names[] = {"unix", "udp", "tcp", "journal"};
  for (int k = 0; k < 4; ++k) {
    Tally t = tally(k < 3 ? syslogText : journalText, inputs[k]);
    run.figure(std::string("dropped_") + names[k], dropped[k]);
    run.faults(std::string("unaccounted_") + names[k], printed - t.records - dropped[k]);
    run.faults(std::string("misordered_") + names[k], t.duplicated + t.reordered + t.foreign);
  }
});

struct Canceled {
  int id;
  std::atomic<long> printed{0};
};

void* printUntilCancelled(void* arg) {
  auto w = static_cast<Canceled*>(arg);
  for (long i = 0;; ++i) {
    printOne(2000, w->id, i);
    w->printed.store(i + 1);
  }
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
  std::string where = "SYSLOG:tcp,127.0.0.1," + std::to_string(rs.tcp);
  if (route(where) != 0) run.fail("routing " + where);
  long cancelled = 0, hung = 0;
  for (int r = 0; r < rounds; ++r) {
    if (r == rounds / 3) stop(rs.pid);
    if (r == 2 * rounds / 3) rs.start();
    std::vector<std::unique_ptr<Canceled>> ws;
    std::vector<pthread_t> ids(threads);
    for (int t = 0; t < threads; ++t) {
      ws.push_back(std::make_unique<Canceled>());
      ws[t]->id = r * threads + t;
      pthread_create(&ids[t], nullptr, printUntilCancelled, ws[t].get());
    }
    usleep(static_cast<useconds_t>(run.random(1000, 20000)));
    for (pthread_t id : ids) pthread_cancel(id), pthread_join(id, nullptr), ++cancelled;
    if (!finishesWithin(10, [r] { printOne(9999, 0, r); })) ++hung;
  }
  bool flushed = finishesWithin(60, [] { zar_svc_collector_flush(30000); });
  std::string text;
  waitUntil([&] {
    return tally(text = rs.records()).seen[{9999, 0}].size() >= size_t(rounds / 3);
  });
  Tally t = tally(text);
  run.figure("cancelled", cancelled);
  run.figure("arrived", t.records);
  run.faults("hung", hung + !flushed);
  run.faults("torn", t.foreign);
  run.faults("duplicated", t.duplicated + t.reordered);
});

}  // namespace
}  // namespace zar::stress
