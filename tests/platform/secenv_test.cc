// A set-user-ID program ignores the environment variables that name files,
// directories and routes; the same program without the bit honours them.
#include <fcntl.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "tests/testutil/testutil.h"

namespace zar::test {
namespace {

struct Outcome {
  std::set<std::string> touched;  // files of the directory opened or created
  std::string err;
};

// Runs the probe copied into dir with env, watching dir for opens.
Outcome runProbe(const std::string& dir, const std::string& probe,
                 const std::vector<std::string>& env) {
  Outcome out;
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  EXPECT_GE(inotify_add_watch(watch, dir.c_str(), IN_OPEN | IN_CREATE), 0);
  std::string errPath = dir + "/../stderr." + std::to_string(getpid());
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    std::vector<char*> envp;
    for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(probe.c_str()), nullptr};
    execve(probe.c_str(), argv, envp.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(0, exitCode(status));
  char buf[8192];
  for (ssize_t n; (n = read(watch, buf, sizeof buf)) > 0;) {
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      if (ev->len > 0) out.touched.insert(ev->name);
      p += sizeof(inotify_event) + ev->len;
    }
  }
  close(watch);
  out.err = readFile(errPath);
  unlink(errPath.c_str());
  return out;
}

TEST(SecureEnvironment, SetUserIdProgramIgnoresFileVariables) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to install a set-user-ID program";
  struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nullptr, nobody);
  TempDir tmp;
  struct statvfs vfs;
  ASSERT_EQ(0, statvfs(tmp.path().c_str(), &vfs));
  if ((vfs.f_flag & ST_NOSUID) != 0) GTEST_SKIP() << tmp.path() << " is mounted nosuid";
  // The files live in a directory the probe could write as nobody, so that
  // only the library's refusal keeps them from being made.
  std::string dir = tmp.file("d");
  ASSERT_EQ(0, mkdir(dir.c_str(), 0777));
  ASSERT_EQ(0, chmod(dir.c_str(), 0777));
  std::string probe = tmp.file("probe");
  writeFile(probe, readFile(buildDir() + "/tests/secenv_probe"));
  writeFile(dir + "/routing", "WARNING:TEXTFILE:" + dir + "/warn.log\n");
  writeFile(dir + "/zone", "TZif");
  writeFile(dir + "/nlscat", "not a catalog");
  const std::vector<std::string> env = {
      "SVC_ERROR=TEXTFILE:" + dir + "/err.log",
      "SVC_WSC_DBG=wsc:*.9:TEXTFILE:" + dir + "/dbg.log",
      "KP_SVC_ROUTING_FILE=" + dir + "/routing",
      "NLSPATH=" + dir + "/nlscat",
      "QVNLZDIR=" + dir + "/qv",
      "TZ=" + dir + "/zone",
      "KPSVC_DEBUG_MSG=1",
  };

  ASSERT_EQ(0, chmod(probe.c_str(), 0755));
  Outcome control = runProbe(dir, probe, env);
  for (const char* f : {"err.log", "warn.log", "dbg.log", "routing", "zone", "nlscat"})
    EXPECT_EQ(1u, control.touched.count(f)) << f << " unused without the bit:\n" << control.err;
  EXPECT_NE(std::string::npos, control.err.find("QVNLZDIR=" + dir + "/qv"));
  EXPECT_EQ(std::string::npos, control.err.find("libzar: privileged"));
  for (const char* f : {"err.log", "warn.log", "dbg.log"}) unlink((dir + "/" + f).c_str());

  ASSERT_EQ(0, chown(probe.c_str(), nobody->pw_uid, nobody->pw_gid));
  ASSERT_EQ(0, chmod(probe.c_str(), 04755));
  Outcome secure = runProbe(dir, probe, env);
  for (const std::string& f : secure.touched) ADD_FAILURE() << "set-user-ID probe used " << f;
  EXPECT_EQ(std::string::npos, secure.err.find(dir + "/qv")) << secure.err;
  EXPECT_NE(std::string::npos, secure.err.find("XKJSC0151E")) << "no record on stderr";
  std::vector<std::string> notices;
  for (const std::string& line : splitLines(secure.err)) {
    if (line.rfind("libzar: privileged", 0) == 0) notices.push_back(line);
  }
  ASSERT_EQ(1u, notices.size()) << secure.err;
  // NLSPATH is not among them: the C library removes it from the
  // environment of such a process before the program starts.
  for (const char* v : {"SVC_ERROR", "SVC_WSC_DBG", "KP_SVC_ROUTING_FILE", "QVNLZDIR", "TZ"})
    EXPECT_NE(std::string::npos, notices[0].find(std::string(" ") + v)) << v;
}

}  // namespace
}  // namespace zar::test
