#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/file.h"
#include "zar/status.h"

namespace {

using zar::test::readFile;
using zar::test::TempDir;
using zar::test::writeFile;

// Runs fn as the unprivileged user "nobody" in a child when the tests run as
// root (root passes every permission check), as the current user otherwise.
// Returns fn's result, or -1 when the child could not drop its privileges.
int asUnprivileged(const std::function<int()>& fn) {
  int status = zar::test::runInChild([&] {
    if (geteuid() == 0) {
      struct passwd* pw = getpwnam("nobody");
      if (pw == nullptr || setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0) return 255;
    }
    return fn();
  });
  int code = zar::test::exitCode(status);
  return code == 255 ? -1 : code;
}

// Status codes travel out of a child as an index into this list.
const uint32_t kStatuses[] = {ZAR_S_OK,
                              ZAR_S_NOT_AVAILABLE,
                              ZAR_S_NO_MEMORY,
                              ZAR_S_ACCESS_DENIED,
                              ZAR_S_INVALID_INPUT,
                              ZAR_S_SYSCALL_FAILED};
int indexOf(uint32_t st) {
  for (int i = 0; i < 6; ++i)
    if (kStatuses[i] == st) return i;
  return 99;
}

struct MkdirCase {
  std::string path;  // relative to the temporary directory
  bool unprivileged;
  uint32_t status;
  int error;  // stored error number, 0 when none
};

class CreateDirectory : public ::testing::TestWithParam<MkdirCase> {};

TEST_P(CreateDirectory, MapsEveryOutcome) {
  TempDir dir;
  ASSERT_EQ(0, mkdir(dir.file("exists").c_str(), 0755));
  writeFile(dir.file("plain"), "x");
  ASSERT_EQ(0, mkdir(dir.file("locked").c_str(), 0555));
  chmod(dir.path().c_str(), 0755);
  const MkdirCase& c = GetParam();
  std::string path = dir.file(c.path);
  auto run = [&]() {
    uint32_t err = 0;
    uint32_t st = zar_create_directory(path.c_str(), &err);
    return indexOf(st) * 10 + (err == static_cast<uint32_t>(c.error) ? 0 : 1);
  };
  int got = c.unprivileged ? asUnprivileged(run) : run();
  ASSERT_NE(-1, got) << "cannot drop privileges";
  EXPECT_EQ(indexOf(c.status) * 10, got);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CreateDirectory,
    ::testing::Values(MkdirCase{"new", false, ZAR_S_OK, 0}, MkdirCase{"exists", false, ZAR_S_OK, 0},
                      MkdirCase{"plain", false, ZAR_S_OK, 0},
                      MkdirCase{"missing/new", false, ZAR_S_NOT_AVAILABLE, ENOENT},
                      MkdirCase{"plain/new", false, ZAR_S_INVALID_INPUT, ENOTDIR},
                      MkdirCase{"locked/new", true, ZAR_S_ACCESS_DENIED, EACCES},
                      MkdirCase{std::string(300, 'n'), false, ZAR_S_SYSCALL_FAILED, ENAMETOOLONG}));

// Error numbers without a status of their own are logged with their number.
TEST(FileErrors, UnlistedErrorNumberIsLogged) {
  TempDir dir;
  std::string path = dir.file(std::string(300, 'n'));
  zar::test::CaptureFd err(2);
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_create_directory(path.c_str(), nullptr));
  std::string text = err.text();
  EXPECT_NE(std::string::npos, text.find("XKJSC0156E")) << text;
  EXPECT_NE(std::string::npos, text.find(std::to_string(ENAMETOOLONG))) << text;
}

struct ReadlineStep {
  std::string line;
  int32_t size;
};

struct ReadlineCase {
  std::string content;
  int32_t initialSize;  // 0: start with a null buffer
  std::vector<ReadlineStep> steps;
};

class ReadLine : public ::testing::TestWithParam<ReadlineCase> {};

TEST_P(ReadLine, ReadsWholeLinesAndFreesAtTheEnd) {
  TempDir dir;
  writeFile(dir.file("in"), GetParam().content);
  FILE* f = fopen(dir.file("in").c_str(), "r");
  ASSERT_NE(nullptr, f);
  int32_t size = GetParam().initialSize;
  char* buf = size > 0 ? static_cast<char*>(malloc(size)) : nullptr;
  for (const ReadlineStep& s : GetParam().steps) {
    int32_t len = -1;
    ASSERT_ZAR_OK(zar_file_readline(f, &buf, &size, &len));
    ASSERT_NE(nullptr, buf);
    EXPECT_EQ(s.line, std::string(buf, len));
    EXPECT_EQ(s.size, size);
  }
  int32_t len = -1;
  ASSERT_ZAR_OK(zar_file_readline(f, &buf, &size, &len));
  EXPECT_EQ(0, len);
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0, size);
  fclose(f);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReadLine,
    ::testing::Values(
        ReadlineCase{std::string(250, 'a') + "\n", 0, {{std::string(250, 'a') + "\n", 300}}},
        ReadlineCase{"one\ntwo\nlast", 0, {{"one\n", 100}, {"two\n", 100}, {"last", 100}}},
        ReadlineCase{"\n\n", 0, {{"\n", 100}, {"\n", 100}}}, ReadlineCase{"", 0, {}},
        // A caller's buffer is used as it is, and grown when too small.
        ReadlineCase{"short\n", 64, {{"short\n", 64}}},
        ReadlineCase{"abcdef\n", 1, {{"abcdef\n", 101}}},
        ReadlineCase{std::string(150, 'b') + "\nx\n",
                     20,
                     {{std::string(150, 'b') + "\n", 220}, {"x\n", 220}}}));

TEST(ReadLineFaults, AllocationFailureFreesTheBuffer) {
  TempDir dir;
  writeFile(dir.file("in"), std::string(500, 'c') + "\n");
  FILE* f = fopen(dir.file("in").c_str(), "r");
  ASSERT_NE(nullptr, f);
  char* buf = nullptr;
  int32_t size = 0, len = 0;
  {
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 2);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY, zar_file_readline(f, &buf, &size, &len));
  }
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0, size);
  EXPECT_EQ(0, len);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_file_readline(f, nullptr, &size, &len));
  fclose(f);
}

TEST(ReadLineFaults, ReadErrorIsMapped) {
  // A directory opened as a stream fails to read with EISDIR.
  FILE* f = fopen("/", "r");
  ASSERT_NE(nullptr, f);
  char* buf = nullptr;
  int32_t size = 0, len = 0;
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_readline(f, &buf, &size, &len));
  free(buf);
  fclose(f);
}

struct TailCase {
  std::string content;
  int32_t count;
  std::vector<std::string> lines;
};

class FileTail : public ::testing::TestWithParam<TailCase> {};

TEST_P(FileTail, KeepsTheLastLines) {
  TempDir dir;
  writeFile(dir.file("log"), GetParam().content);
  std::vector<char*> lines(GetParam().count, reinterpret_cast<char*>(1));
  ASSERT_ZAR_OK(zar_file_tail(dir.file("log").c_str(), GetParam().count, lines.data()));
  std::vector<std::string> got;
  for (char* l : lines) {
    got.push_back(l);
    free(l);
  }
  EXPECT_EQ(GetParam().lines, got);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FileTail,
    ::testing::Values(TailCase{"a\nb\nc\n", 3, {"b", "c", ""}},
                      TailCase{"a\nb\nc\n", 5, {"a", "b", "c", "", ""}},
                      TailCase{"1\n2\n3\n4\n5\n", 2, {"5", ""}}, TailCase{"", 3, {"", "", ""}},
                      TailCase{"\n\n", 3, {"", "", ""}},
                      TailCase{"a\n\nb\n", 4, {"a", "", "b", ""}}, TailCase{"x\n", 1, {""}},
                      // A line longer than a buffer arrives in pieces, each
                      // losing its last character.
                      TailCase{std::string(600, 'z') + "\n",
                               3,
                               {std::string(510, 'z'), std::string(89, 'z'), ""}}));

TEST(FileTailFaults, MissingFileAndAllocationFailure) {
  TempDir dir;
  char* lines[3];
  EXPECT_ZAR_STATUS(ZAR_S_FILE_TAIL_OPEN, zar_file_tail(dir.file("none").c_str(), 3, lines));
  for (char* l : lines) {
    ASSERT_NE(nullptr, l);
    EXPECT_STREQ("", l);
    free(l);
  }
  {
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 2);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY, zar_file_tail(dir.file("none").c_str(), 3, lines));
  }
  EXPECT_NE(nullptr, lines[0]);
  EXPECT_EQ(nullptr, lines[1]);
  EXPECT_EQ(nullptr, lines[2]);
  free(lines[0]);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_file_tail(dir.file("none").c_str(), 0, lines));
}

TEST(FileCopy, CopiesBlocksAndRefusesWhatWouldLoseData) {
  TempDir dir;
  for (size_t len : {0, 1, 511, 512, 513, 1024, 5000}) {
    std::string data(len, '\0');
    for (size_t i = 0; i < len; ++i) data[i] = static_cast<char>(i * 7);
    writeFile(dir.file("src"), data);
    ASSERT_ZAR_OK(zar_file_copy(dir.file("src").c_str(), dir.file("dst").c_str()));
    EXPECT_EQ(data, readFile(dir.file("dst"))) << len;
  }
  writeFile(dir.file("dst"), "keep");
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE,
                    zar_file_copy(dir.file("none").c_str(), dir.file("dst").c_str()));
  EXPECT_EQ("keep", readFile(dir.file("dst")));
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT,
                    zar_file_copy(dir.file("dst").c_str(), dir.file("dst").c_str()));
  EXPECT_EQ("keep", readFile(dir.file("dst")));
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE,
                    zar_file_copy(dir.file("dst").c_str(), dir.file("no/dir").c_str()));
  {
    zar::test::FaultPlan plan(zar::fault::Op::kWrite, 1, /*sticky=*/true, ENOSPC);
    EXPECT_ZAR_STATUS(ZAR_S_NO_MEMORY,
                      zar_file_copy(dir.file("src").c_str(), dir.file("dst2").c_str()));
  }
  chmod(dir.file("src").c_str(), 0);
  chmod(dir.path().c_str(), 0777);  // let nobody reach the files
  int got = asUnprivileged(
      [&] { return indexOf(zar_file_copy(dir.file("src").c_str(), dir.file("dst3").c_str())); });
  EXPECT_EQ(indexOf(ZAR_S_ACCESS_DENIED), got);
}

TEST(FileOps, ExistsRenameRemoveSymlinkAndTemporaryFiles) {
  TempDir dir;
  writeFile(dir.file("a"), "x");
  EXPECT_EQ(1, zar_file_exists(dir.file("a").c_str()));
  EXPECT_EQ(0, zar_file_exists(dir.file("b").c_str()));
  EXPECT_EQ(0, zar_file_exists(nullptr));
  ASSERT_ZAR_OK(zar_file_symlink("a", dir.file("link").c_str()));
  EXPECT_EQ("x", readFile(dir.file("link")));
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_symlink("a", dir.file("link").c_str()));
  ASSERT_ZAR_OK(zar_file_rename(dir.file("a").c_str(), dir.file("b").c_str()));
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE,
                    zar_file_rename(dir.file("a").c_str(), dir.file("c").c_str()));
  ASSERT_ZAR_OK(zar_file_remove(dir.file("b").c_str()));
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE, zar_file_remove(dir.file("b").c_str()));
  ASSERT_EQ(0, mkdir(dir.file("full").c_str(), 0755));
  writeFile(dir.file("full/x"), "x");
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_remove(dir.file("full").c_str()));

  std::string templ = dir.file("tmpXXXXXX");
  ASSERT_EQ(templ.data(), zar_mktemp(templ.data()));
  struct stat st;
  ASSERT_EQ(0, stat(templ.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  std::string bad = dir.file("tmpXXXX");
  EXPECT_EQ(nullptr, zar_mktemp(bad.data()));
  EXPECT_EQ(nullptr, zar_mktemp(nullptr));
}

TEST(FileOwnership, PropertiesAndChownAgainstRealOwners) {
  TempDir dir;
  std::string f = dir.file("owned");
  writeFile(f, "x");
  zarFileProperties p;
  ASSERT_ZAR_OK(zar_get_file_properties(f.c_str(), &p));
  EXPECT_EQ(geteuid(), p.uid);
  EXPECT_TRUE(S_ISREG(p.mode));
  p.mode = (p.mode & ~0777u) | 0640;
  ASSERT_ZAR_OK(zar_set_file_properties(f.c_str(), &p));
  ASSERT_ZAR_OK(zar_get_file_properties(f.c_str(), &p));
  EXPECT_EQ(0640u, p.mode & 0777);
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_get_file_properties(dir.file("none").c_str(), &p));
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_set_file_properties(dir.file("none").c_str(), &p));
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_chown(f.c_str(), "no-such-user-zar", "root"));
  EXPECT_ZAR_STATUS(ZAR_S_SYSCALL_FAILED, zar_file_chown(f.c_str(), "root", "no-such-group-zar"));

  struct passwd* me = getpwuid(geteuid());
  struct group* grp = getgrgid(getegid());
  ASSERT_NE(nullptr, me);
  ASSERT_NE(nullptr, grp);
  std::string user = me->pw_name, group = grp->gr_name;
  ASSERT_ZAR_OK(zar_file_chown(f.c_str(), user.c_str(), group.c_str()));
  EXPECT_ZAR_STATUS(ZAR_S_NOT_AVAILABLE,
                    zar_file_chown(dir.file("none").c_str(), user.c_str(), group.c_str()));
  // Giving a file away needs privileges (EPERM, which has no status of its
  // own), as does changing the owner through the properties.
  chmod(dir.path().c_str(), 0755);
  chmod(f.c_str(), 0666);
  int got = asUnprivileged([&] {
    zarFileProperties q = {0100644, 0, 0};
    return indexOf(zar_file_chown(f.c_str(), "root", "root")) * 10 +
           indexOf(zar_set_file_properties(f.c_str(), &q));
  });
  if (geteuid() != 0 && me->pw_uid == 0) GTEST_SKIP() << "no unprivileged user";
  EXPECT_EQ(indexOf(ZAR_S_SYSCALL_FAILED) * 11, got);
}

}  // namespace
