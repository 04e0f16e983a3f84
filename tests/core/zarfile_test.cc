// The file utilities against real files and permissions: directory creation,
// line reading, tails and copies. Permission cases run as "nobody" when the
// tests run as root.
#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/file.h"
#include "zar/status.h"

namespace {

using zar::test::FaultPlan;
using zar::test::readFile;
using zar::test::TempDir;
using zar::test::writeFile;
using Results = std::array<uint32_t, 2>;

// Runs fn in a child, as the unprivileged user "nobody" when the tests run as
// root (root passes every permission check); its results come back through
// shared memory.
Results asUnprivileged(const std::function<Results()>& fn) {
  void* mem = mmap(nullptr, sizeof(Results), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
  EXPECT_NE(MAP_FAILED, mem);
  int status = zar::test::runInChild([&] {
    struct passwd* pw = getpwnam("nobody");
    if (geteuid() == 0 && (pw == nullptr || setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0))
      return 1;
    *static_cast<Results*>(mem) = fn();
    return 0;
  });
  EXPECT_EQ(0, zar::test::exitCode(status)) << "cannot drop privileges";
  Results r = *static_cast<Results*>(mem);
  munmap(mem, sizeof(Results));
  return r;
}

TEST(FileUtil, CreateDirectoryMapsEveryOutcome) {
  TempDir dir;
  ASSERT_EQ(0, mkdir(dir.file("exists").c_str(), 0755));
  writeFile(dir.file("plain"), "x");
  ASSERT_EQ(0, mkdir(dir.file("locked").c_str(), 0555));
  chmod(dir.path().c_str(), 0755);
  const struct {
    std::string path;  // relative to the temporary directory
    bool unprivileged;
    uint32_t status;
    uint32_t error;  // stored error number, 0 when none
  } cases[] = {{"new", false, ZAR_S_OK, 0},
               {"exists", false, ZAR_S_OK, 0},
               {"plain", false, ZAR_S_OK, 0},
               {"missing/new", false, ZAR_S_NOT_AVAILABLE, ENOENT},
               {"plain/new", false, ZAR_S_INVALID_INPUT, ENOTDIR},
               {"locked/new", true, ZAR_S_ACCESS_DENIED, EACCES},
               {std::string(300, 'n'), false, ZAR_S_SYSCALL_FAILED, ENAMETOOLONG}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string path = dir.file(c.path);
    auto run = [&]() -> Results {
      uint32_t err = 0;
      return {zar_create_directory(path.c_str(), &err), err};
    };
    zar::test::CaptureFd log(2);
    const Results got = c.unprivileged ? asUnprivileged(run) : run();
    EXPECT_ZAR_STATUS(c.status, got[0]);
    EXPECT_EQ(c.error, got[1]);
    // An error number without a status of its own is logged with its number.
    if (c.status == ZAR_S_SYSCALL_FAILED) {
      EXPECT_NE(std::string::npos, log.text().find("XKJSC0156E")) << log.text();
      EXPECT_NE(std::string::npos, log.text().find(std::to_string(ENAMETOOLONG))) << log.text();
    }
  }
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED,
                    zar_create_directory(dir.file(std::string(300, 'n')).c_str(), nullptr));
}

// Reads the file with content line by line from a buffer of initialSize (0:
// a null buffer), "line:size" for each line.
std::vector<std::string> readLines(const std::string& content, int32_t initialSize) {
  TempDir dir;
  writeFile(dir.file("in"), content);
  FILE* f = fopen(dir.file("in").c_str(), "r");
  int32_t size = initialSize, len = -1;
  char* buf = size > 0 ? static_cast<char*>(malloc(size)) : nullptr;
  std::vector<std::string> out;
  for (;;) {
    uint32_t st = zar_file_readline(f, &buf, &size, &len);
    if (st != 0 || len == 0) {
      out.push_back(st != 0 ? "status " + zar::test::hexStatus(st) : "end");
      EXPECT_EQ(nullptr, buf);  // freed at the end
      EXPECT_EQ(0, size);
      break;
    }
    out.push_back(std::string(buf, len) + ":" + std::to_string(size));
  }
  fclose(f);
  return out;
}

TEST(FileUtil, ReadLineReadsWholeLinesAndFreesAtTheEnd) {
  const std::string a250(250, 'a'), b150(150, 'b');
  const struct {
    std::string content;
    int32_t initialSize;
    std::vector<std::string> lines;
  } cases[] = {
      {a250 + "\n", 0, {a250 + "\n:300", "end"}},
      {"one\ntwo\nlast", 0, {"one\n:100", "two\n:100", "last:100", "end"}},
      {"\n\n", 0, {"\n:100", "\n:100", "end"}},
      {"", 0, {"end"}},
      // A caller's buffer is used as it is, and grown when too small.
      {"short\n", 64, {"short\n:64", "end"}},
      {"abcdef\n", 1, {"abcdef\n:101", "end"}},
      {b150 + "\nx\n", 20, {b150 + "\n:220", "x\n:220", "end"}},
  };
  for (const auto& c : cases) EXPECT_EQ(c.lines, readLines(c.content, c.initialSize));
}

TEST(FileUtil, ReadLineFailuresFreeTheBuffer) {
  TempDir dir;
  writeFile(dir.file("in"), std::string(500, 'c') + "\n");
  FILE* f = fopen(dir.file("in").c_str(), "r");
  ASSERT_NE(nullptr, f);
  char* buf = nullptr;
  int32_t size = 0, len = 0;
  {
    FaultPlan plan(zar::fault::Op::kAlloc, 2);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY, zar_file_readline(f, &buf, &size, &len));
  }
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0, size);
  EXPECT_EQ(0, len);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_file_readline(f, nullptr, &size, &len));
  fclose(f);
  f = fopen("/", "r");  // a directory as a stream fails to read with EISDIR
  ASSERT_NE(nullptr, f);
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_readline(f, &buf, &size, &len));
  free(buf);
  fclose(f);
}

TEST(FileUtil, TailKeepsTheLastLines) {
  const struct {
    std::string content;
    std::vector<std::string> lines;  // as many as asked for
  } cases[] = {
      {"a\nb\nc\n", {"b", "c", ""}},
      {"a\nb\nc\n", {"a", "b", "c", "", ""}},
      {"1\n2\n3\n4\n5\n", {"5", ""}},
      {"", {"", "", ""}},
      {"\n\n", {"", "", ""}},
      {"a\n\nb\n", {"a", "", "b", ""}},
      {"x\n", {""}},
      // A line longer than a buffer arrives in pieces, each losing its last character.
      {std::string(600, 'z') + "\n", {std::string(510, 'z'), std::string(89, 'z'), ""}},
  };
  TempDir dir;
  for (const auto& c : cases) {
    writeFile(dir.file("log"), c.content);
    std::vector<char*> lines(c.lines.size(), reinterpret_cast<char*>(1));
    ASSERT_ZAR_OK(zar_file_tail(dir.file("log").c_str(), static_cast<int32_t>(lines.size()),
                                lines.data()));
    std::vector<std::string> got;
    for (char* l : lines) got.push_back(l), free(l);
    EXPECT_EQ(c.lines, got) << c.content;
  }
  char* lines[3];
  EXPECT_ZAR_STATUS(ZAR_S_FILE_TAIL_OPEN, zar_file_tail(dir.file("none").c_str(), 3, lines));
  for (char* l : lines) {
    ASSERT_NE(nullptr, l);
    EXPECT_STREQ("", l);
    free(l);
  }
  {
    FaultPlan plan(zar::fault::Op::kAlloc, 2);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY, zar_file_tail(dir.file("none").c_str(), 3, lines));
  }
  EXPECT_NE(nullptr, lines[0]);
  EXPECT_EQ(nullptr, lines[1]);
  EXPECT_EQ(nullptr, lines[2]);
  free(lines[0]);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_file_tail(dir.file("none").c_str(), 0, lines));
}

TEST(FileUtil, CopyCopiesBlocksAndRefusesWhatWouldLoseData) {
  TempDir dir;
  const std::string src = dir.file("src"), dst = dir.file("dst");
  for (size_t len : {0, 1, 511, 512, 513, 1024, 5000}) {
    std::string data(len, '\0');
    for (size_t i = 0; i < len; ++i) data[i] = static_cast<char>(i * 7);
    writeFile(src, data);
    ASSERT_ZAR_OK(zar_file_copy(src.c_str(), dst.c_str()));
    EXPECT_EQ(data, readFile(dst)) << len;
  }
  writeFile(dst, "keep");
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE, zar_file_copy(dir.file("none").c_str(), dst.c_str()));
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_file_copy(dst.c_str(), dst.c_str()));
  EXPECT_EQ("keep", readFile(dst));
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE, zar_file_copy(dst.c_str(), dir.file("no/dir").c_str()));
  {
    FaultPlan plan(zar::fault::Op::kWrite, 1, /*sticky=*/true, ENOSPC);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY, zar_file_copy(src.c_str(), dir.file("dst2").c_str()));
  }
}

}  // namespace
