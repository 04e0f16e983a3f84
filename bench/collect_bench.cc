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

#include <string>
#include <thread>

#include "zar/collect.h"
#include "zar/msginit.h"
#include "zar/svc.h"

namespace {

constexpr uint32_t kMessage = 0x38C5209C;  // XKJSC0156E   The %s system routine failed: ... %d
const char kText[] = "XKJSC0156E   The read system routine failed: system error code: 7";

// A datagram socket at path, read by a thread of its own for good.
void drain(const char* path) {
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
  std::thread([fd] {
    static char buf[1 << 17];
    for (;;) recv(fd, buf, sizeof buf, 0);
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
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    perror("collect_bench: a mount namespace of its own (run as root)");
    exit(1);
  }
  cover("/dev", {"null", "zero", "urandom"});
  cover("/run/systemd", {});
  mkdir("/run/systemd/journal", 0755);
  drain("/dev/log");
  drain("/run/systemd/journal/socket");
  setenv("SVC_NOXPGCAT", "1", 1);
  zarmsg_init("bench", 0);
  unsigned long st = 0;
  zar_svc_routing("ERROR:SYSLOG:", &st);
  zar_svc_routing("WARNING:JOURNAL:", &st);
  openlog("bench", LOG_PID | LOG_NDELAY, LOG_USER);
}

void zarSyslog(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state)
    zar_svc_printf_withfile(zarsv_client_svc_handle, "bench/collect", 1, "%s%d", 0, svc_c_sev_error,
                            kMessage, "read", 7);
  zar_svc_collector_counts c{};
  zar_svc_collector_counts_get("SYSLOG:", &c, nullptr);
  state.counters["dropped"] = static_cast<double>(c.dropped);
}

void glibcSyslog(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state) syslog(LOG_ERR, "%s", kText);
}

void spdlogSyslog(benchmark::State& state) {
  setUpOnce();
  static auto logger = spdlog::syslog_logger_mt("bench", "bench", LOG_PID);
  for (auto _ : state)
    logger->error("XKJSC0156E   The {} system routine failed: system error code: {}", "read", 7);
}

void zarJournal(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state)
    zar_svc_printf_withfile(zarsv_client_svc_handle, "bench/collect", 1, "%s%d", 0,
                            svc_c_sev_warning, kMessage, "read", 7);
}

// The same fields as a JOURNAL record.
void sdJournal(benchmark::State& state) {
  setUpOnce();
  for (auto _ : state)
    sd_journal_send("MESSAGE=XKJSC0156E   The %s system routine failed: system error code: %d",
                    "read", 7, "PRIORITY=4", "SYSLOG_IDENTIFIER=bench", "SYSLOG_PID=%d",
                    static_cast<int>(getpid()), "CODE_FILE=bench/collect", "CODE_LINE=1", "TID=%d",
                    static_cast<int>(gettid()), "MESSAGE_ID=7a61720de7c04f6e9b1c5d2a38c5209c",
                    "ZAR_STATUS=0x38C5209C", "ZAR_SEVERITY=WARNING", "ZAR_COMPONENT=wsc",
                    "ZAR_SUBCOMPONENT=core", "ZAR_THREAD=0x7f0000000000", nullptr);
}

BENCHMARK(zarSyslog)->Name("zar/syslog_unix");
BENCHMARK(glibcSyslog)->Name("glibc/syslog_unix");
BENCHMARK(spdlogSyslog)->Name("spdlog/syslog_unix");
BENCHMARK(zarJournal)->Name("zar/journal");
BENCHMARK(sdJournal)->Name("libsystemd/journal");

}  // namespace

BENCHMARK_MAIN();
