#include "tests/testutil/testutil.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "zar/svc.h"

namespace zar::test {

std::string hexStatus(uint64_t st) {
  char buf[32];
  snprintf(buf, sizeof buf, "0x%8.8llx", static_cast<unsigned long long>(st & 0xffffffffu));
  return buf;
}

namespace {

// A template for mkdtemp or mkstemp under $TMPDIR (or /tmp).
std::string tempTemplate(const char* stem) {
  const char* base = getenv("TMPDIR");
  return std::string(base && *base ? base : "/tmp") + "/" + stem + ".XXXXXX";
}

}  // namespace

TempDir::TempDir() {
  std::string tmpl = tempTemplate("zartest");
  if (mkdtemp(tmpl.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  path_ = tmpl;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  nftw(
      path_.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
  if (const char* old = getenv(name)) old_ = old;
  if (value)
    setenv(name, value->c_str(), 1);
  else
    unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (old_)
    setenv(name_.c_str(), old_->c_str(), 1);
  else
    unsetenv(name_.c_str());
}

CaptureFd::CaptureFd(int fd) : fd_(fd) {
  fflush(nullptr);
  path_ = tempTemplate("zarcap");
  int tmp = mkstemp(path_.data());
  saved_ = dup(fd_);
  dup2(tmp, fd_);
  close(tmp);
}

CaptureFd::~CaptureFd() {
  fflush(nullptr);
  dup2(saved_, fd_);
  close(saved_);
  unlink(path_.c_str());
}

std::string CaptureFd::text() {
  fflush(nullptr);
  return readFile(path_);
}

FaultPlan::FaultPlan(fault::Op op, long failAt, bool sticky, int err) : op_(op) {
  fault::arm(op, failAt, sticky, err);
}

FaultPlan::~FaultPlan() { fault::disarm(op_); }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

pid_t forkChild(const std::function<int()>& fn) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int rc = fn();
    fflush(nullptr);
    _exit(rc);
  }
  return pid;
}

int runInChild(const std::function<int()>& fn) {
  pid_t pid = forkChild(fn);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

int exitCode(int waitStatus) { return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1; }

std::string sourceDir() { return ZAR_TEST_SOURCE_DIR; }
std::string buildDir() { return ZAR_TEST_BUILD_DIR; }

void SvcTest::SetUpTestSuite() {
  setenv("SVC_NOXPGCAT", "1", 1);
  unsigned long st = 0;
  zar_svc_init(0, &st);
}

unsigned long svcRoute(const std::string& setting) {
  unsigned long st = 1;
  zar_svc_routing(setting.c_str(), &st);
  return st;
}

Captured runCaptured(const TempDir& dir, const std::function<void()>& body) {
  int status = runInChild([&] {
    for (int fd : {1, 2}) {
      int f = open(dir.file(std::to_string(fd)).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(f, fd);
      close(f);
    }
    body();
    return kBodyReturned;
  });
  return {exitCode(status), readFile(dir.file("1")), readFile(dir.file("2"))};
}

}  // namespace zar::test

namespace {

// Sets the test environment (NAME=VALUE items separated by '|') before any test runs,
// leaving variables that the caller already set.
[[maybe_unused]] const bool gTestEnvSet = [] {
#ifdef ZAR_TEST_ENV
  std::istringstream all(ZAR_TEST_ENV);
  for (std::string line; std::getline(all, line, '|');) {
    size_t eq = line.find('=');
    if (eq != std::string::npos) setenv(line.substr(0, eq).c_str(), line.substr(eq + 1).c_str(), 0);
  }
#endif
  return true;
}();

}  // namespace

// Sanitizer settings of every test executable (the runtime reads these before
// main, so they cannot come from the environment set above).
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
// glibc's newlocale leaks the split copy of LOCPATH on every call while LOCPATH
// is set, as it is for every test; the blocks belong to the C library.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:__argz_add_sep\nleak:__argz_create_sep\n";
}
