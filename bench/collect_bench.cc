// Records to log collectors, side by side with the peers that send the same
// text to the same socket:
// - syslog_unix: a SYSLOG record to the local datagram socket /dev/log against
//   glibc syslog(3) and spdlog's syslog sink (which calls syslog(3));
// - journal: a JOURNAL record against sd_journal_send of libsystemd with the
//   same fields.
// The sockets are the real paths, /dev/log and /run/systemd/journal/socket,
// in a mount namespace of the benchmark's own (tmpfs over /dev and
// /run/systemd, the device nodes it needs bound back), so neither the
// machine's collectors nor its journal see a record; a thread drains each
// socket. Needs root (for the namespace).
// The writer lets the draining thread catch up every few records (sleeping,
// outside its own CPU time), so the collector is never behind: a collector
// that falls behind makes syslog(3) and sd_journal_send wait and makes the
// library queue or drop, which would compare different things. The figure of
// record is the writer's CPU time per record (the pipeline, the record's
// form and the kernel's send); the wall time adds the reader's wake-ups.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "zar/collect.h"
#include "zar/msginit.h"
#include "zar/svc.h"

namespace {

constexpr uint32_t kMessage = 0x38C5209C;  // XKJSC0156E   The %s system routine failed: ... %d
const char kText[] = "XKJSC0156E   The read system routine failed: system error code: 7";

// Records read from a socket, and a writer waiting for them.
struct Reader {
  std::mutex mu;
  std::condition_variable caughtUp;
  uint64_t got = 0;      // mu: records read, over all runs
  uint64_t printed = 0;  // the writer's own: records printed, over all runs
};
Reader gSyslogReader;
Reader gJournalReader;

// Every few records, waits (asleep) until the reader has had every record
// printed so far; a record the library dropped never comes, so after a
// while the writer goes on from what has come.
void keepUp(Reader& r) {
  static constexpr uint64_t kBurst = 8;  // fewer than the socket's queue holds
  if (++r.printed % kBurst != 0) return;
  std::unique_lock<std::mutex> l(r.mu);
  if (!r.caughtUp.wait_for(l, std::chrono::milliseconds(50), [&] { return r.got >= r.printed; }))
    r.printed = r.got;
}

// A datagram socket at path, read by a thread of its own for good.
void drain(const char* path, Reader* reader) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  snprintf(a.sun_path, sizeof a.sun_path, "%s", path);
  unlink(path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    perror(path);
    exit(1);
  }
  int big = 8 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
  std::thread([fd, reader] {
    static char buf[1 << 17];
    for (;;) {
      if (recv(fd, buf, sizeof buf, 0) < 0) continue;
      std::lock_guard<std::mutex> l(reader->mu);
      ++reader->got;
      reader->caughtUp.notify_one();
    }
  }).detach();
}

// tmpfs over dir in this mount namespace, with the entries of keep (device
// nodes) bound back from the original.
void cover(const char* dir, std::initializer_list<const char*> keep) {
  std::string old = std::string("/tmp/collectbench.") + std::to_string(getpid());
  mkdir(old.c_str(), 0700);
  mount(dir, old.c_str(), nullptr, MS_BIND, nullptr);
  if (mount("tmpfs", dir, "tmpfs", 0, "mode=755") != 0) {
    perror("mount tmpfs");
    exit(1);
  }
  for (const char* k : keep) {
    std::string to = std::string(dir) + "/" + k;
    close(open(to.c_str(), O_CREAT | O_WRONLY, 0666));
    mount((old + "/" + k).c_str(), to.c_str(), nullptr, MS_BIND, nullptr);
  }
  umount2(old.c_str(), MNT_DETACH);
  rmdir(old.c_str());
}

void setUpOnce() {
  static bool done = false;
  if (done) return;
  done = true;
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    perror("collect_bench: a mount namespace of its own (run as root)");
    exit(1);
  }
  // The datagram queue of a machine that runs systemd (which sets 512), not
  // the kernel's default of 10, in the benchmark's own network namespace.
  if (FILE* q = fopen("/proc/sys/net/unix/max_dgram_qlen", "w")) {
    fputs("512\n", q);
    fclose(q);
  }
  cover("/dev", {"null", "zero", "urandom"});
  cover("/run/systemd", {});
  mkdir("/run/systemd/journal", 0755);
  drain("/dev/log", &gSyslogReader);
  drain("/run/systemd/journal/socket", &gJournalReader);
  setenv("SVC_NOXPGCAT", "1", 1);
  zarmsg_init("bench", 0);
  unsigned long st = 0;
  zar_svc_routing("ERROR:SYSLOG:", &st);
  zar_svc_routing("WARNING:JOURNAL:", &st);
  openlog("bench", LOG_PID | LOG_NDELAY, LOG_USER);
}

void zarSyslog(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state) {
    zar_svc_printf_withfile(zarsv_client_svc_handle, "bench/collect", 1, "%s%d", 0, svc_c_sev_error,
                            kMessage, "read", 7);
    keepUp(gSyslogReader);
  }
  zar_svc_collector_counts c{};
  zar_svc_collector_counts_get("SYSLOG:", &c, nullptr);
  state.counters["dropped"] = static_cast<double>(c.dropped);
  state.counters["sent"] = static_cast<double>(c.sent);
  state.counters["queued"] = static_cast<double>(c.queued);
}

void glibcSyslog(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state) {
    syslog(LOG_ERR, "%s", kText);
    keepUp(gSyslogReader);
  }
}

void spdlogSyslog(benchmark::State& state) {
  setUpOnce();
  static auto logger = spdlog::syslog_logger_mt("bench", "bench", LOG_PID);
  for (auto _ : state) {
    logger->error("XKJSC0156E   The {} system routine failed: system error code: {}", "read", 7);
    keepUp(gSyslogReader);
  }
}

void zarJournal(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state) {
    zar_svc_printf_withfile(zarsv_client_svc_handle, "bench/collect", 1, "%s%d", 0,
                            svc_c_sev_warning, kMessage, "read", 7);
    keepUp(gJournalReader);
  }
}

// The same fields as a JOURNAL record.
void sdJournal(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state) {
    sd_journal_send("MESSAGE=XKJSC0156E   The %s system routine failed: system error code: %d",
                    "read", 7, "PRIORITY=4", "SYSLOG_IDENTIFIER=bench", "SYSLOG_PID=%d",
                    static_cast<int>(getpid()), "CODE_FILE=bench/collect", "CODE_LINE=1", "TID=%d",
                    static_cast<int>(gettid()), "MESSAGE_ID=7a61720de7c04f6e9b1c5d2a38c5209c",
                    "ZAR_STATUS=0x38C5209C", "ZAR_SEVERITY=WARNING", "ZAR_COMPONENT=wsc",
                    "ZAR_SUBCOMPONENT=core", "ZAR_THREAD=0x7f0000000000", nullptr);
    keepUp(gJournalReader);
  }
}

BENCHMARK(zarSyslog)->Name("zar/syslog_unix");
BENCHMARK(glibcSyslog)->Name("glibc/syslog_unix");
BENCHMARK(spdlogSyslog)->Name("spdlog/syslog_unix");
BENCHMARK(zarJournal)->Name("zar/journal");
BENCHMARK(sdJournal)->Name("libsystemd/journal");

}  // namespace

BENCHMARK_MAIN();
