// Stanza files with real files and processes: the line format in both modes,
// open flags, moves and edits. The lock held by another process: the stanza
// script test. Allocation and I/O failures: alloc-faults and io-faults;
// many processes sharing one file: the stanza scenario.
#include "zar/stanza.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "core/zarstanza.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace zar {
namespace {

using test::CaptureFd;
using test::readFile;
using test::TempDir;
using test::writeFile;

struct Closer {
  void operator()(zarStzFile* f) const { zarStzFileClose(f); }
};
using Stz = std::unique_ptr<zarStzFile, Closer>;

Stz openStz(const std::string& path, uint32_t flags, uint32_t* status = nullptr) {
  uint32_t st = 0xFFFFFFFF;
  Stz f(zarStzFileOpen(path.c_str(), flags, &st));
  EXPECT_EQ(f == nullptr, st != 0) << "a record comes with status 0, and only then";
  if (status != nullptr) *status = st;
  return f;
}

// The whole file as the cursor sees it: a line per stanza, "[name]|entry=value|entry".
std::string walk(zarStzFile* f) {
  std::string out;
  for (zarStzMoveFirstStanza(f); f->status == 0 && f->stanzaName; zarStzMoveNextStanza(f)) {
    out += "[" + std::string(f->stanzaName) + "]";
    for (; f->status == 0 && f->entryName; zarStzMoveNextEntry(f))
      out += "|" + std::string(f->entryName) + (f->value ? "=" + std::string(f->value) : "");
    out += "\n";
  }
  if (f->status != 0) out += "!" + test::hexStatus(f->status);
  return out;
}

// Where the cursor stands: "stanza/entry", "-" for none.
std::string at(const zarStzFile* f) {
  return std::string(f->stanzaName ? f->stanzaName : "-") + "/" + (f->entryName ? f->entryName : "-");
}

class StanzaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    unsigned long st = 0;
    zar_svc_init(0, &st);  // the client component logs the messages
  }
  std::string file(const std::string& text) {
    writeFile(path_, text);
    return path_;
  }
  TempDir dir_;
  std::string path_ = dir_.file("conf");
};

// Both modes see the same entries: memory mode holds the stanzas in reverse
// order, keeps those before a bad line and still opens. Validation (which
// re-reads the file in memory mode) gives a bad line's status, and the line
// is logged.
TEST_F(StanzaTest, LinesReadTheSameInBothModes) {
  const std::string x2043(2043, 'x'), v2043(2043, 'v');  // with "k = ", one 2047-byte piece
  const uint32_t kBad = ZAR_S_STZ_BAD_FORMAT, kInternal = ZAR_S_STZ_INTERNAL;
  const std::string bad = "!" + test::hexStatus(kBad);
  const struct {
    std::string text, walk;  // walk in file order; "!status" where a stanza move failed
    uint32_t status = 0;
    const char* message = nullptr;
  } cases[] = {
      {"[ a ]\nk = v\n", "[ a ]|k=v\n"}, {"[]\nk=v\n", "[]|k=v\n"},
      {"[a] trailing ] x\nk=v\n", "[a]|k=v\n"}, {"[s]\nkey=\nkey2 = # note\n", "[s]|key|key2\n"},
      {"[s]\nk = a # note\nk2 = a#b\n", "[s]|k=a|k2=a\n"}, {"[s]\nk = b = c\n", "[s]|k=b = c\n"},
      {"[s]\n  key  =  a b  \n", "[s]|key=a b\n"}, {"[s]\nmy k#1 = v\n", "[s]|my k#1=v\n"},
      {"  [s]\n\t# c\n   k = v\n\n[t]\n", "[s]|k=v\n[t]\n"}, {"x = 1\n[s]\nk=v\n", "[s]|k=v\n"},
      {"", ""}, {"k = v\n", ""}, {"[s]\nk = v", "[s]|k=v\n"}, {"[s]\r\nk = v\r\n", "[s]|k=v\n"},
      {"[s]\nk=1\nk=2\n[s]\n", "[s]|k=1|k=2\n[s]\n"},
      {"[s]\nk = " + x2043 + "y = z\n", "[s]|k=" + x2043 + "|y=z\n"},
      {"[s]\n[a\n", "[s]\n" + bad, kBad, "XKJSC0164E"},
      {"[s]\n=x\n", bad, kBad, "XKJSC0166E"},
      {"[s]\nk=1\n[t]\nkey\n", "[s]|k=1\n" + bad, kBad, "XKJSC0166E"},
      {"x\n[s]\n", "[s]\n", kBad, "XKJSC0166E"},
      {"[s]\nk = " + x2043 + std::string(957, 'x') + "\n", "[s]|k=" + x2043 + "\n", kBad, "XKJSC0166E"},
      {"[s]\nk = " + v2043 + std::string(7957, 'v') + "\n", "[s]|k=" + v2043 + "\n", kBad, "XKJSC0166E"},
      // The tests run in the C locale: bytes above 127 are not characters.
      {"[s]\nk = \xff\xfe\x80\n", "!" + test::hexStatus(kInternal), kInternal, "XKJSC0163E"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    CaptureFd err(2);
    Stz s = openStz(file(c.text), ZAR_STZ_READ);
    ASSERT_TRUE(s);
    EXPECT_EQ(c.walk, walk(s.get()));
    EXPECT_EQ(c.status == 0 ? 1 : 0, zarStzValidate(s.get()));
    EXPECT_ZAR_STATUS(c.status, s->status);
    EXPECT_TRUE(c.status == 0 || s->stanzaName == nullptr);
    Stz m = openStz(path_, ZAR_STZ_READ | ZAR_STZ_MEMORY);
    ASSERT_TRUE(m);
    EXPECT_EQ(nullptr, m->stream);
    EXPECT_ZAR_OK(m->status);
    std::string reversed;
    for (const std::string& l : test::splitLines(c.walk))
      if (l[0] != '!') reversed = l + "\n" + reversed;
    EXPECT_EQ(reversed, walk(m.get()));
    EXPECT_EQ(c.status == 0 ? 1 : 0, zarStzValidate(m.get()));
    EXPECT_ZAR_STATUS(c.status, m->status);
    const std::string log = err.text();
    EXPECT_EQ(c.message == nullptr, log.empty()) << log;
    EXPECT_TRUE(!c.message || (log.find(c.message) != log.npos && log.find("zarstanza") != log.npos)) << log;
  }
}

TEST_F(StanzaTest, BadFlagsPathsAndFilesThatAreNotRegularFailWithoutHanging) {
  file("[s]\n");
  uint32_t st = 0;
  for (uint32_t flags : {0u, 16u, 8u, ZAR_STZ_WRITE | ZAR_STZ_MEMORY, ZAR_STZ_READ | ZAR_STZ_WRITE,
                         ZAR_STZ_NOWAIT, ZAR_STZ_READ | 32u}) {
    EXPECT_FALSE(openStz(path_, flags, &st)) << flags;
    EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, st);
  }
  EXPECT_EQ(nullptr, zarStzFileOpen(nullptr, ZAR_STZ_READ, &st));
  EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, st);
  ASSERT_EQ(0, mkfifo(dir_.file("fifo").c_str(), 0600));
  ASSERT_EQ(0, symlink(dir_.file("nowhere").c_str(), dir_.file("dangling").c_str()));
  for (const char* name : {"missing", ".", "fifo", "dangling"}) {
    for (uint32_t flags : {ZAR_STZ_READ, ZAR_STZ_WRITE, ZAR_STZ_READ | ZAR_STZ_MEMORY}) {
      CaptureFd err(2);
      EXPECT_FALSE(openStz(dir_.file(name), flags, &st));
      EXPECT_ZAR_STATUS(ZAR_S_STZ_OPEN_FAILED, st) << name;
      EXPECT_NE(std::string::npos, err.text().find("XKJSC0162E")) << name;
    }
  }
}

TEST_F(StanzaTest, MovesByNameAndSizeInBothModes) {
  file("[a]\nx = 1\ny = 2\nx = 3\n[b]\n");
  for (uint32_t flags : {ZAR_STZ_READ, ZAR_STZ_READ | ZAR_STZ_MEMORY}) {
    Stz f = openStz(path_, flags);
    ASSERT_EQ(1, zarStzMoveEntry(f.get(), "a", "y"));
    EXPECT_EQ("a/y", at(f.get()));
    zarStzMoveNextEntry(f.get());
    EXPECT_EQ(3u, zarStzStanzaSize(f.get()));
    EXPECT_STREQ("1", f->value);  // back on the first entry of that name
    EXPECT_EQ(0, zarStzMoveEntryInStanza(f.get(), "nope") + zarStzMoveStanza(f.get(), "c"));
    EXPECT_ZAR_OK(f->status);
    EXPECT_EQ(0, zarStzMoveStanza(f.get(), nullptr));
    EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, f->status);
    EXPECT_EQ(1, zarStzMoveStanza(f.get(), "b"));
    EXPECT_EQ(0u, zarStzStanzaSize(f.get()));
  }
  // Memory mode: the last [a] of the file comes first; past a stanza's last
  // entry the next entry move starts from the top; with no current stanza,
  // the first-entry move takes the first stanza.
  Stz m = openStz(file("[a]\nx = 1\ny = 2\n[b]\n[a]\nz = 3\n"), ZAR_STZ_READ | ZAR_STZ_MEMORY);
  ASSERT_TRUE(m);
  std::string seen = at(m.get());
  zarStzMoveStanza(m.get(), "a");
  for (int i = 0; i < 2; ++i) zarStzMoveNextEntry(m.get()), seen += " " + at(m.get());
  for (int i = 0; i < 3; ++i) zarStzMoveNextStanza(m.get());
  seen += " " + at(m.get());
  zarStzMoveFirstEntry(m.get());
  EXPECT_EQ("a/z a/- a/z -/- a/z", seen + " " + at(m.get()));
}

const std::string kTwo = "[a]\nx = 1\n\n# b next\n[b]\ny = 2\n";

// Every write of an edit that a signal interrupts is made again.
TEST_F(StanzaTest, InterruptedWritesAreRetried) {
  for (long failAt : {1, 2}) {
    Stz f = openStz(file(kTwo), ZAR_STZ_WRITE);
    test::FaultPlan eintr(fault::Op::kWrite, failAt, false, EINTR);
    EXPECT_EQ(1, zarStzDeleteStanza(f.get(), "a"));
    EXPECT_ZAR_OK(f->status);
    EXPECT_EQ(1, eintr.failures());
    f.reset();
    EXPECT_EQ("[b]\ny = 2\n", readFile(path_));
  }
}

// A replacement reaching past the end (the file shrank under the cursor)
// changes nothing.
TEST_F(StanzaTest, ReplacementPastTheEndChangesNothing) {
  std::string path = file("[s]\nk = v\n");
  FILE* s = fopen(path.c_str(), "r+");
  ASSERT_NE(nullptr, s);
  EXPECT_EQ(0, stanza::zar_zReplaceText(s, path.c_str(), 4, 11, "x", 1));
  EXPECT_EQ(1, stanza::zar_zReplaceText(s, path.c_str(), 4, 9, "k = w", 5));
  fclose(s);
  EXPECT_EQ("[s]\nk = w\n", readFile(path_));
}

// Memory mode opens with the whole tree or fails for want of memory.
TEST_F(StanzaTest, MemoryModeLoadsWholeOrNotAtAll) {
  file(kTwo);
  for (long failAt = 1; failAt <= 12; ++failAt) {
    uint32_t st = 0;
    test::FaultPlan plan(fault::Op::kAlloc, failAt);
    Stz m(zarStzFileOpen(path_.c_str(), ZAR_STZ_READ | ZAR_STZ_MEMORY, &st));
    EXPECT_EQ(m ? "[b]|y=2\n[a]|x=1\n" : test::hexStatus(ZAR_S_NO_MEMORY),
              m ? walk(m.get()) : test::hexStatus(st)) << failAt;
  }
}

void addEntry(zarStzFile* f, const char* s, const char* k, const char* v) {
  zarStzMoveStanza(f, s);
  zarStzAddEntry(f, k, v);
}

TEST_F(StanzaTest, EditsGiveTheFileTextAndStatus) {
  using F = zarStzFile*;
  const struct {
    std::string before;
    std::function<void(zarStzFile*)> edit;
    std::string after;
    uint32_t status = 0;
    uint32_t flags = ZAR_STZ_WRITE;
  } cases[] = {
      {"[s]\nk = 1\nk = 2\n", [](F f) { addEntry(f, "s", "k", "9"); }, "[s]\nk = 9\nk = 2\n"},
      // A last line without a line feed gets one before anything is appended.
      {"[s]\nk = 1", [](F f) { addEntry(f, "s", "n", nullptr); }, "[s]\nk = 1\nn = \n"},
      {"[a]\nx = 1",
       [](F f) { zarStzAddStanzaWithComment(f, "b", "# front"); zarStzAddEntry(f, "k", "v"); },
       "[a]\nx = 1\n# front\n[b]\nk = v\n"},
      {"[s]\na=1\nb=2\n", [](F f) { zarStzMoveEntry(f, "s", "b"); zarStzInsertEntry(f, "c", "3"); },
       "[s]\na=1\nc = 3\nb=2\n"},
      {"[e]\n[f]\n", [](F f) { zarStzMoveStanza(f, "e"); zarStzInsertEntry(f, "k", "v"); },
       "[e]\nk = v\n[f]\n"},
      {"[s]\nkey = old   # note\n", [](F f) { zarStzChangeValue(f, "new"); }, "[s]\nkey = new\n"},
      {"[s]\nkey = old\n", [](F f) { zarStzChangeValue(f, nullptr); }, "[s]\nkey = \n"},
      {kTwo, [](F f) { zarStzDeleteStanza(f, "a"); }, "[b]\ny = 2\n"},  // takes the comments
      {kTwo, [](F f) { EXPECT_EQ(0, zarStzDeleteEntry(f, "b", "q")); }, kTwo, ZAR_S_STZ_BAD_FORMAT},
      {kTwo, [](F f) { zarStzMoveNextEntry(f); EXPECT_EQ(0, zarStzDeleteCurrentEntry(f)); }, kTwo,
       ZAR_S_STZ_BAD_ARGUMENT},
      // The cursor still names the deleted entry; an edit of it must not
      // overwrite the header that took its line.
      {"[s]\nk = 1\n[t]\n",
       [](F f) {
         zarStzDeleteEntry(f, "s", "k");
         EXPECT_STREQ("k", f->entryName);
         EXPECT_STREQ("1", f->value);
         zarStzAddEntry(f, "k", "2");
       },
       "[s]\n[t]\n", ZAR_S_STZ_READ_FAILED},
      {kTwo, [](F f) { zarStzDeleteStanza(f, "a"); addEntry(f, "b", "z", "3"); }, "[b]\ny = 2\nz = 3\n"},
      {kTwo, [](F f) { EXPECT_EQ(1, zarStzDeleteStanza(f, "none")); }, kTwo},  // nothing to remove
      {kTwo, [](F f) { zarStzAddEntry(f, "k", "v"); }, kTwo, ZAR_S_STZ_READ_ONLY, ZAR_STZ_READ},
      {kTwo, [](F f) { zarStzDeleteStanza(f, "a"); }, kTwo, ZAR_S_STZ_NOT_OPEN,
       ZAR_STZ_READ | ZAR_STZ_MEMORY}};
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE("row " + std::to_string(row++));
    Stz f = openStz(file(c.before), c.flags);
    ASSERT_TRUE(f);
    c.edit(f.get());
    EXPECT_ZAR_STATUS(c.status, f->status);
    f.reset();
    EXPECT_EQ(c.after, readFile(path_));
  }
}

// Names, values and comments that would not read back as written change nothing.
TEST_F(StanzaTest, BadArgumentsAreRejectedAndNothingWritten) {
  const std::string huge(10000, 'v'), line2048(2043, 'v');  // "k = " + 2043 + "\n": 2048 bytes
  const struct {
    const char* stanza;  // null: an entry edit
    const char* entry;
    const char* value;
    const char* comment;
  } cases[] = {{nullptr, "a=b", "v", nullptr},   {nullptr, "#k", "v", nullptr},
               {nullptr, "[k", "v", nullptr},    {nullptr, " k", "v", nullptr},
               {nullptr, "k ", "v", nullptr},    {nullptr, "", "v", nullptr},
               {nullptr, nullptr, "v", nullptr}, {nullptr, "k", "two\nlines", nullptr},
               {nullptr, "k", huge.c_str(), nullptr}, {nullptr, "k", line2048.c_str(), nullptr},
               {nullptr, "k", "\xff", nullptr},
               {"x]y", nullptr, nullptr, nullptr},    {"two\nlines", nullptr, nullptr, nullptr},
               {"c", nullptr, nullptr, "no hash"},
               {huge.c_str(), nullptr, nullptr, nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stanza ? c.stanza : c.entry ? c.entry : "(null)");
    Stz f = openStz(file(kTwo), ZAR_STZ_WRITE);
    ASSERT_TRUE(f);
    if (c.stanza == nullptr) {
      zarStzAddEntry(f.get(), c.entry, c.value);
      EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, f->status);
      zarStzMoveFirstStanza(f.get());
      zarStzInsertEntry(f.get(), c.entry, c.value);
    } else {
      zarStzAddStanzaWithComment(f.get(), c.stanza, c.comment);
    }
    EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, f->status);
    f.reset();
    EXPECT_EQ(kTwo, readFile(path_));
  }
  Stz f = openStz(file(kTwo), ZAR_STZ_WRITE);
  zarStzAddStanzaWithComment(f.get(), nullptr, nullptr);
  EXPECT_ZAR_STATUS(ZAR_S_STZ_BAD_ARGUMENT, f->status);
}

// An edit whose write, sync, truncation or link fails leaves the old text and
// says so, or finishes; the next open completes or drops what it left, and
// no journal stays behind.
TEST_F(StanzaTest, FailedEditsLeaveTheOldTextOrTheNew) {
  const std::string after = "[b]\ny = 2\n";
  auto names = [&] {
    std::string all;
    for (const auto& e : std::filesystem::directory_iterator(dir_.path()))
      all += e.path().filename().string() + " ";
    return all;
  };
  using fault::Op;
  for (Op op : {Op::kWrite, Op::kFsync, Op::kTruncate, Op::kUnlink}) {
    for (long failAt = 0; failAt <= 4; ++failAt) {
      SCOPED_TRACE(std::to_string(static_cast<int>(op)) + " at " + std::to_string(failAt));
      Stz f = openStz(file(kTwo), ZAR_STZ_WRITE);
      ASSERT_TRUE(f);
      long failed;
      bool ok;
      {
        test::FaultPlan plan(op, failAt, false, EIO);
        ok = zarStzDeleteStanza(f.get(), "a") == 1 && f->status == 0;
        failed = plan.failures();
      }
      f.reset();
      EXPECT_EQ(ok ? after : kTwo, readFile(path_));
      EXPECT_EQ(failed == 0 ? "conf " : "", failed == 0 ? names() : "");
      EXPECT_TRUE(openStz(path_, ZAR_STZ_READ));
      EXPECT_EQ(ok ? after : kTwo, readFile(path_));
      EXPECT_EQ("conf ", names());
    }
  }
}

}  // namespace
}  // namespace zar
