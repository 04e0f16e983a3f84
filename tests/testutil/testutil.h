// Shared test doubles and helpers: status assertions, temporary directories,
// scoped environment variables, capture of standard output and error, file
// helpers, fault-injection plans and child processes.
#ifndef ZAR_TESTS_TESTUTIL_TESTUTIL_H_
#define ZAR_TESTS_TESTUTIL_TESTUTIL_H_

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/faultinj.h"

namespace zar::test {

std::string hexStatus(uint64_t st);

#define ASSERT_ZAR_OK(st) \
  ASSERT_EQ(0u, static_cast<uint32_t>(st)) << "status " << ::zar::test::hexStatus(st)
#define EXPECT_ZAR_OK(st) \
  EXPECT_EQ(0u, static_cast<uint32_t>(st)) << "status " << ::zar::test::hexStatus(st)
#define EXPECT_ZAR_STATUS(expected, st)                                   \
  EXPECT_EQ(::zar::test::hexStatus(expected), ::zar::test::hexStatus(st))

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

 private:
  std::string path_;
};

// Sets (or with nullopt, unsets) an environment variable for its scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Redirects a file descriptor (1 or 2) into a temporary file for its scope.
// text() flushes stdio and returns what was written so far.
class CaptureFd {
 public:
  explicit CaptureFd(int fd);
  ~CaptureFd();
  std::string text();
  CaptureFd(const CaptureFd&) = delete;
  CaptureFd& operator=(const CaptureFd&) = delete;

 private:
  int fd_;
  int saved_;
  std::string path_;
};

// Arms one fault-injection plan for its scope (see base/faultinj.h).
class FaultPlan {
 public:
  FaultPlan(fault::Op op, long failAt, bool sticky = false, int err = 12 /* ENOMEM */);
  ~FaultPlan();
  long calls() const { return fault::calls(op_); }
  long failures() const { return fault::failures(op_); }
  FaultPlan(const FaultPlan&) = delete;
  FaultPlan& operator=(const FaultPlan&) = delete;

 private:
  fault::Op op_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
bool fileExists(const std::string& path);
std::vector<std::string> splitLines(const std::string& text);

// Forks a child that ends with _exit(fn()) (streams flushed on both sides),
// never returning into the test framework; returns its pid (-1 on failure).
pid_t forkChild(const std::function<int()>& fn);
// Runs fn in such a child and returns its wait status.
int runInChild(const std::function<int()>& fn);
// Exit code of a wait status, or -1 when the child did not exit normally.
int exitCode(int waitStatus);

// Directory of the source tree and of the build tree (set by the build).
std::string sourceDir();
std::string buildDir();

// Fixture of the serviceability tests: message texts from the compiled
// tables (SVC_NOXPGCAT) and the product's components registered.
class SvcTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
};
// The status zar_svc_routing gives for setting.
unsigned long svcRoute(const std::string& setting);

// What a child process left: its exit code (kBodyReturned when the body
// returned, -1 when killed by a signal) and its standard output and error.
struct Captured {
  int status;
  std::string out, err;
};
constexpr int kBodyReturned = 3;
// Runs body in a child whose standard output and error go to files in dir.
Captured runCaptured(const TempDir& dir, const std::function<void()>& body);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_TESTUTIL_H_
