// Several processes and threads writing logs: no torn records, exact counts;
// rotation with per-process names; a cancelled writer leaves no lock behind.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/testutil/logcheck.h"
#include "tests/testutil/testutil.h"
#include "zar/svc.h"

namespace {

using zar::test::exitCode;
using zar::test::readFile;
using zar::test::RecordTally;
using zar::test::sysRoutineMarker;

class SvcProcs : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("SVC_NOXPGCAT", "1", 1);
    unsigned long st = 0;
    zar_svc_init(0, &st);
  }

  // Runs body(i) in n forked processes at once; true when all exit with 0.
  static bool inProcesses(int n, const std::function<void(int)>& body) {
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
      fflush(nullptr);
      pid_t pid = fork();
      if (pid == 0) {
        body(i);
        _exit(0);
      }
      pids.push_back(pid);
    }
    bool ok = true;
    for (pid_t pid : pids) {
      int status = 0;
      waitpid(pid, &status, 0);
      ok = ok && exitCode(status) == 0;
    }
    return ok;
  }

  zar::test::TempDir dir_;
};

// Message 0x38C5209C, "The %s system routine failed: system error code: %d":
// the writer's key and the record's number.
void printMarked(const std::string& writer, int seq) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "procs.cc", 1, "%s%d", 0, svc_c_sev_notice,
                          0x38C5209C, writer.c_str(), seq);
}

TEST_F(SvcProcs, FourProcessesShareOneTextFileAndOneXmlFile) {
  constexpr int kRecords = 5000;
  std::string routes =
      "NOTICE:TEXTFILE:" + dir_.file("all.log") + ";XMLFILE:" + dir_.file("all.xml");
  ASSERT_TRUE(inProcesses(4, [&](int i) {
    unsigned long st = 0;
    zar_svc_routing(routes.c_str(), &st);
    if (st != 0) _exit(3);
    for (int n = 0; n < kRecords; ++n) printMarked("w" + std::to_string(i), n);
  }));
  RecordTally text, xml;
  zar::test::tallyTextRecords(readFile(dir_.file("all.log")), sysRoutineMarker(), &text);
  zar::test::tallyXmlRecords(readFile(dir_.file("all.xml")), sysRoutineMarker(), &xml);
  for (const RecordTally* t : {&text, &xml}) {
    EXPECT_EQ("", zar::test::exactlyOnce(*t, {"w0", "w1", "w2", "w3"}, kRecords));
    EXPECT_EQ(4u * kRecords, t->records);
  }
}

TEST_F(SvcProcs, TwoProcessesRotateTheirOwnFiles) {
  constexpr int kRecords = 1250;  // 13 files of at most 100 records each
  std::string routes = "NOTICE:TEXTFILE.20.100:" + dir_.file("rot.%d.log");
  int status = zar::test::runInChild([&] {
    // Set before the forks: each child of fork gets a file of its own.
    unsigned long st = 0;
    zar_svc_routing(routes.c_str(), &st);
    bool ok = inProcesses(2, [&](int i) {
      for (int n = 0; n < kRecords; ++n) printMarked("p" + std::to_string(getpid()), n);
      zar::test::writeFile(dir_.file("pid." + std::to_string(i)), std::to_string(getpid()));
    });
    return ok && st == 0 ? 0 : 1;
  });
  ASSERT_EQ(0, exitCode(status));
  for (const char* which : {"pid.0", "pid.1"}) {
    std::string pid = readFile(dir_.file(which));
    RecordTally tally;
    std::string base = dir_.file("rot." + pid + ".log");
    size_t files = 0;
    for (int g = 0; g <= 20; ++g) {
      std::string path = g == 0 ? base : base + "." + std::to_string(g);
      if (!zar::test::fileExists(path)) continue;
      ++files;
      size_t before = tally.records;
      zar::test::tallyTextRecords(readFile(path), sysRoutineMarker(), &tally);
      EXPECT_LE(tally.records - before, 100u) << path;
    }
    EXPECT_EQ(13u, files) << pid;
    EXPECT_EQ("", zar::test::exactlyOnce(tally, {"p" + pid}, kRecords)) << pid;
  }
}

TEST_F(SvcProcs, ThreadsOfOneProcessNeverInterleave) {
  std::string routes = "NOTICE:TEXTFILE:" + dir_.file("threads.log");
  int status = zar::test::runInChild([&] {
    unsigned long st = 0;
    zar_svc_routing(routes.c_str(), &st);
    pthread_t threads[4];
    for (intptr_t i = 0; i < 4; ++i) {
      pthread_create(&threads[i], nullptr, [](void* arg) -> void* {
        std::string key = "t" + std::to_string(reinterpret_cast<intptr_t>(arg));
        for (int n = 0; n < 2000; ++n) printMarked(key, n);
        return nullptr;
      }, reinterpret_cast<void*>(i));
    }
    for (pthread_t t : threads) pthread_join(t, nullptr);
    return 0;
  });
  ASSERT_EQ(0, exitCode(status));
  RecordTally tally;
  zar::test::tallyTextRecords(readFile(dir_.file("threads.log")), sysRoutineMarker(), &tally);
  EXPECT_EQ("", zar::test::exactlyOnce(tally, {"t0", "t1", "t2", "t3"}, 2000));
}

TEST_F(SvcProcs, WriterCancelledWhileWaitingForTheFileLockReleasesTheMutex) {
#if defined(__SANITIZE_ADDRESS__)
  // The address sanitizer of this toolchain aborts when a cancelled thread
  // unwinds through instrumented frames (it reads the stale poison of the
  // frames below); the plain, debug and thread-sanitizer builds run this.
  GTEST_SKIP() << "thread cancellation is not supported under AddressSanitizer";
#endif
  std::string log = dir_.file("locked.log");
  int status = zar::test::runInChild([&] {
    unsigned long st = 0;
    zar_svc_routing(("NOTICE:TEXTFILE:" + log).c_str(), &st);
    printMarked("first", 0);  // opens the file
    // Another process holds the whole-file lock, so the next record waits.
    int ready[2];
    if (pipe(ready) != 0) return 2;
    pid_t holder = fork();
    if (holder == 0) {
      int fd = open(log.c_str(), O_WRONLY);
      struct flock fl = {};
      fl.l_type = F_WRLCK;
      fcntl(fd, F_SETLKW, &fl);
      if (write(ready[1], "x", 1) == 1) pause();
      _exit(0);
    }
    char c;
    if (read(ready[0], &c, 1) != 1) return 3;
    pthread_t writer;
    pthread_create(&writer, nullptr, [](void*) -> void* {
      printMarked("blocked", 1);
      return nullptr;
    }, nullptr);
    usleep(200000);  // let it reach the lock wait
    pthread_cancel(writer);
    void* result = nullptr;
    pthread_join(writer, &result);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    printMarked("after", 2);  // does not hang: the mutex was released
    return result == PTHREAD_CANCELED ? 0 : 4;
  });
  ASSERT_EQ(0, exitCode(status));
  EXPECT_NE(std::string::npos, readFile(log).find("The after system"));
}

}  // namespace
