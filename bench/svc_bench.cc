// Serviceability records: to DISCARD, to a TEXTFILE, and to a TEXTFILE from
// two threads and from two processes. Peers with the same text:
// - "peer": the floor, a loop that takes the same whole-file fcntl write lock,
//   writes the same preformatted record and unlocks (with a mutex between the
//   threads of one process, which fcntl locks do not separate);
// - "spdlog": spdlog's synchronous file sink, flushed after every record,
//   with a pattern that gives the same fields as the record's prefix.
//
// With --instructions CASE N the program prints N records of one case once
// and toggles callgrind's collection around them, for counting user-space
// instructions per record (scripts/svc-instructions): CASE is zar_textfile,
// zar_textfile_catalog, zar_discard, spdlog_textfile or floor_textfile.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <pthread.h>
#include <signal.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <memory>
#include <string>

#include "zar/msginit.h"
#include "zar/svc.h"

namespace {

constexpr uint32_t kMessage = 0x38C5209C;  // XKJSC0156E   The %s system routine failed: ... %d
const char kFile[] = "bench/svc";          // records show "svc"

std::string gDir;

void setUpOnce(bool catalogs) {
  static bool done = false;
  if (done) return;
  done = true;
  const char* tmp = getenv("TMPDIR");
  char tmpl[256];
  snprintf(tmpl, sizeof tmpl, "%s/svcbench.XXXXXX", tmp != nullptr && *tmp ? tmp : "/tmp");
  gDir = mkdtemp(tmpl);
  // Compiled texts unless the catalogs of the build are asked for.
  if (catalogs) {
    setenv("NLSPATH", ZAR_BENCH_NLS_DIR "/%L/%N:" ZAR_BENCH_NLS_DIR "/C/%N", 1);
  } else {
    setenv("SVC_NOXPGCAT", "1", 1);
  }
  zarmsg_init("bench", 0);
  unsigned long st = 0;
  // A generous limit keeps the file from growing without bound.
  zar_svc_routing(("ERROR:TEXTFILE.1.2000000:" + gDir + "/zar.log").c_str(), &st);
  zar_svc_routing("NOTICE:DISCARD:", &st);
}

void zarRecord(uint32_t severity) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, kFile, 1, "%s%d", 0, severity, kMessage,
                          "open", 2);
}

// ---- The floor: lock, write the preformatted record, unlock ------------------------

struct Floor {
  int fd = -1;
  std::string record;
  pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
};

Floor& floorState() {
  static Floor f;
  if (f.fd < 0) {
    setUpOnce(false);
    f.fd = open((gDir + "/floor.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    f.record =
        "2026-11-23-10:22:55.936+00:00I----- 0x38C5209C bench ERROR wsc core svc 1 "
        "0x7fa9f00b52c0 XKJSC0156E   The open system routine failed: system error code: 2\n";
  }
  return f;
}

void floorRecord(Floor& f) {
  pthread_mutex_lock(&f.mu);
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fcntl(f.fd, F_SETLKW, &fl);
  if (write(f.fd, f.record.data(), f.record.size()) < 0) abort();
  fl.l_type = F_UNLCK;
  fcntl(f.fd, F_SETLKW, &fl);
  pthread_mutex_unlock(&f.mu);
}

// ---- spdlog -------------------------------------------------------------------------

spdlog::logger& spdlogger() {
  static std::shared_ptr<spdlog::logger> logger = [] {
    setUpOnce(false);
    auto l = spdlog::basic_logger_mt("svcbench", gDir + "/spdlog.log");
    // The fields of the record's prefix: time with milliseconds and offset,
    // id, program, severity, component, sub-component, file, line, thread.
    l->set_pattern("%Y-%m-%d-%H:%M:%S.%e%z I----- 0x38C5209C bench ERROR wsc core svc 1 0x%t %v");
    l->flush_on(spdlog::level::trace);
    return l;
  }();
  return *logger;
}

void spdlogRecord() {
  spdlogger().error("XKJSC0156E   The {} system routine failed: system error code: {}", "open",
                    2);
}

// ---- A second process writing the same file meanwhile ------------------------------

class Competitor {
 public:
  explicit Competitor(void (*record)()) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      for (;;) record();
    }
  }
  ~Competitor() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

// ---- The benchmarks -------------------------------------------------------------------

void zarDiscard(benchmark::State& state) {
  setUpOnce(false);
  for (auto _ : state) zarRecord(svc_c_sev_notice);
  state.SetItemsProcessed(state.iterations());
}

void zarTextFile(benchmark::State& state) {
  setUpOnce(false);
  for (auto _ : state) zarRecord(svc_c_sev_error);
  state.SetItemsProcessed(state.iterations());
}

void floorTextFile(benchmark::State& state) {
  Floor& f = floorState();
  for (auto _ : state) floorRecord(f);
  state.SetItemsProcessed(state.iterations());
}

void spdlogTextFile(benchmark::State& state) {
  spdlogger();
  for (auto _ : state) spdlogRecord();
  state.SetItemsProcessed(state.iterations());
}

void zarTwoProcs(benchmark::State& state) {
  setUpOnce(false);
  Competitor other([] { zarRecord(svc_c_sev_error); });
  for (auto _ : state) zarRecord(svc_c_sev_error);
  state.SetItemsProcessed(state.iterations());
}

void floorTwoProcs(benchmark::State& state) {
  Floor& f = floorState();
  Competitor other([] { floorRecord(floorState()); });
  for (auto _ : state) floorRecord(f);
  state.SetItemsProcessed(state.iterations());
}

void spdlogTwoProcs(benchmark::State& state) {
  spdlogger();
  Competitor other(spdlogRecord);
  for (auto _ : state) spdlogRecord();
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(zarDiscard)->Name("zar/discard");
BENCHMARK(zarTextFile)->Name("zar/textfile");
BENCHMARK(floorTextFile)->Name("peer/textfile");
BENCHMARK(spdlogTextFile)->Name("spdlog/textfile");
BENCHMARK(zarTextFile)->Name("zar/textfile_2threads")->Threads(2);
BENCHMARK(floorTextFile)->Name("peer/textfile_2threads")->Threads(2);
BENCHMARK(spdlogTextFile)->Name("spdlog/textfile_2threads")->Threads(2);
BENCHMARK(zarTwoProcs)->Name("zar/textfile_2procs");
BENCHMARK(floorTwoProcs)->Name("peer/textfile_2procs");
BENCHMARK(spdlogTwoProcs)->Name("spdlog/textfile_2procs");

// ---- Instruction counting -----------------------------------------------------------------

int countInstructions(const char* name, long n) {
  void (*record)() = nullptr;
  std::string c = name;
  if (c == "zar_textfile" || c == "zar_textfile_catalog") {
    setUpOnce(c == "zar_textfile_catalog");
    record = [] { zarRecord(svc_c_sev_error); };
  } else if (c == "zar_discard") {
    setUpOnce(false);
    record = [] { zarRecord(svc_c_sev_notice); };
  } else if (c == "spdlog_textfile") {
    spdlogger();
    record = spdlogRecord;
  } else if (c == "floor_textfile") {
    floorState();
    record = [] { floorRecord(floorState()); };
  } else {
    fprintf(stderr, "svc_bench: unknown case %s\n", name);
    return 2;
  }
  for (int i = 0; i < 100; ++i) record();  // first use: files, caches, lazy set-up
  CALLGRIND_TOGGLE_COLLECT;
  for (long i = 0; i < n; ++i) record();
  CALLGRIND_TOGGLE_COLLECT;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int rc = 0;
  if (argc == 4 && strcmp(argv[1], "--instructions") == 0) {
    rc = countInstructions(argv[2], strtol(argv[3], nullptr, 10));
  } else {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  if (!gDir.empty()) {
    nftw(gDir.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); },
         16, FTW_DEPTH | FTW_PHYS);
  }
  return rc;
}
