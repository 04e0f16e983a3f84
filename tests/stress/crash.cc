// Stanza edits interrupted at every point: killed at each write, flush,
// fsync, truncate and link of an edit (and with a power cut there: what was
// written after the last fsync lost), then killed at random from outside.
// The next open must find the file exactly as before or after the edit, and
// no journal left.
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string.h>
#include <atomic>

#include "base/faultinj.h"
#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/stanza.h"

namespace zar::stress {
namespace {

using zar::fault::Op;
using zar::test::fileExists;
using zar::test::readFile;
using zar::test::writeFile;

constexpr int kCrashOps =
    (1 << static_cast<int>(Op::kWrite)) | (1 << static_cast<int>(Op::kFlush)) |
    (1 << static_cast<int>(Op::kFsync)) | (1 << static_cast<int>(Op::kTruncate)) |
    (1 << static_cast<int>(Op::kRename)) | (1 << static_cast<int>(Op::kUnlink));

using Edit = void (*)(zarStzFile*);
const struct {
  const char* name;
  Edit edit;
} kEdits[] = {
    {"add",
     [](zarStzFile* f) {
       zarStzMoveStanza(f, "mid");
       zarStzAddEntry(f, "added", "new");
     }},
    {"insert",
     [](zarStzFile* f) {
       zarStzMoveEntry(f, "mid", "k1");
       zarStzInsertEntry(f, "ins", "v");
     }},
    {"change",
     [](zarStzFile* f) {
       zarStzMoveEntry(f, "mid", "k1");
       zarStzChangeValue(f, "a value longer than the old one");
     }},
    {"delete entry", [](zarStzFile* f) { zarStzDeleteEntry(f, "mid", "k1"); }},
    {"delete stanza", [](zarStzFile* f) { zarStzDeleteStanza(f, "mid"); }},
    {"add stanza", [](zarStzFile* f) { zarStzAddStanzaWithComment(f, "new", "# added"); }},
};

// Three stanzas of n entries each.
std::string stanzaText(int n) {
  std::string text;
  for (const char* s : {"first", "mid", "last"}) {
    text += std::string("[") + s + "]\n";
    for (int i = 0; i < n; ++i) text += named("k", i, " = value of some length\n");
  }
  return text;
}

bool edited(const std::string& path, Edit edit) {
  uint32_t st = 0;
  zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
  if (f == nullptr) return false;
  edit(f);
  zarStzFileClose(f);
  return true;
}

// What a power cut leaves: the file as of its last fsync, the journal's name
// as of the directory's last fsync (with the content its own fsync made
// durable). Kept in files of the run directory by the editing child.
struct PowerCut {
  std::string path, journal, durableFile, durableJournal;
  ino_t ino = 0;
};
PowerCut gCut;

void keepDurable(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (fileExists(gCut.journal))
      writeFile(gCut.durableJournal, readFile(gCut.journal));
    else
      unlink(gCut.durableJournal.c_str());
  } else if (st.st_ino == gCut.ino) {
    writeFile(gCut.durableFile, readFile(gCut.path));
  }
}

Scenario stanzaCrash("stanza-crash", [](Run& run) {
  const long sizes = run.size("sizes", 2, 4);  // 2, 200, 4,000, 8,000 entries per stanza
  const int kEntries[] = {2, 4000, 200, 8000};
  std::string path = run.file("crash.conf");
  gCut = {path, path + ".zarjournal", run.file("durable.file"), run.file("durable.journal"), 0};
  long edits = 0, points = 0, torn = 0, left = 0, crashed = 0;
  for (long s = 0; s < sizes; ++s) {
    const std::string before = stanzaText(kEntries[s]);
    for (const auto& e : kEdits) {
      if (!run.wants(e.name)) continue;
      writeFile(path, before);
      if (!edited(path, e.edit)) run.fail(std::string("cannot edit: ") + e.name);
      const std::string after = readFile(path);
      ++edits;
      for (long k = 1;; ++k) {
        bool finished = false;
        for (bool power : {false, true}) {
          writeFile(path, before);
          for (const std::string& f : {gCut.journal, gCut.durableFile, gCut.durableJournal})
            unlink(f.c_str());
          struct stat st;
          stat(path.c_str(), &st);
          gCut.ino = st.st_ino;
          int status = inChild(60, [&] {
            if (power) zar::fault::setSyncHook(keepDurable);
            zar::fault::armCrash(kCrashOps, k);
            edited(path, e.edit);
            return 0;
          });
          int code = zar::test::exitCode(status);
          if (code == 0) {
            finished = true;
            break;
          }
          if (code != zar::fault::kCrashExit) {
            ++crashed;
            run.fail(named(e.name, k, " ended otherwise"));
            continue;
          }
          ++points;
          if (power) {
            writeFile(path, fileExists(gCut.durableFile) ? readFile(gCut.durableFile) : before);
            if (fileExists(gCut.durableJournal))
              writeFile(gCut.journal, readFile(gCut.durableJournal));
            else
              unlink(gCut.journal.c_str());
          }
          uint32_t st2 = 0;
          zarStzFileClose(zarStzFileOpen(path.c_str(), ZAR_STZ_READ, &st2));
          const std::string now = readFile(path);
          if (st2 != 0 || (now != before && now != after)) {
            ++torn;
            run.fail(std::string(e.name) + named(" torn at call ", k) + (power ? " (power)" : ""));
          }
          if (fileExists(gCut.journal)) ++left;
        }
        if (finished) break;
      }
    }
  }
  run.figure("edits", edits);
  run.figure("crash_points", points);
  run.faults("torn", torn);
  run.faults("journals_left", left);
  run.faults("crashed", crashed);
});

// The kill soak. The editor publishes, before each edit, its number and the
// file as it stands (in one of two slots, so that a kill while copying
// leaves the last published one whole).
constexpr size_t kSlotBytes = 1 << 20;
struct Published {
  std::atomic<long> step;
  size_t len[2];
  char text[2][kSlotBytes];
};

// Edit number n of the soak: every kind in turn, on a few stanzas.
void soakEdit(zarStzFile* f, long n) {
  const std::string s = named("s", (n / 6) % 4), key = named("e", n % 50);
  switch (n % 6) {
    case 0:
      zarStzMoveStanza(f, "count");
      zarStzAddEntry(f, "counter", (std::to_string(n) + std::string(n % 300, 'x')).c_str());
      break;
    case 1:
      zarStzAddStanzaWithComment(f, s.c_str(), ("# stanza " + s).c_str());
      break;
    case 2:
      if (zarStzMoveStanza(f, s.c_str())) zarStzInsertEntry(f, key.c_str(), "inserted");
      break;
    case 3:
      if (zarStzMoveStanza(f, s.c_str())) zarStzAddEntry(f, key.c_str(), "added");
      break;
    case 4:
      zarStzDeleteEntry(f, s.c_str(), named("e", (n + 17) % 50).c_str());
      break;
    default:
      if (n % 30 == 5) zarStzDeleteStanza(f, s.c_str());
      break;
  }
}

Scenario stanzaKill("stanza-kill", [](Run& run) {
  const long kills = run.size("kills", 1000, 10000);
  std::string path = run.file("kill.conf"), scratch = run.file("replay.conf");
  writeFile(path, "# soak\n[count]\ncounter = 0\n");
  auto* pub = static_cast<Published*>(
      mmap(nullptr, sizeof(Published), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pub->step = -1;
  long from = 0, torn = 0, left = 0, last = 0;
  for (long round = 0; round < kills; ++round) {
    pid_t pid = zar::test::forkChild([&] {
      for (long n = from;; ++n) {
        uint32_t st = 0;
        zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
        if (f == nullptr) return 1;
        std::string text = readFile(path);
        if (text.size() > kSlotBytes) return 2;
        memcpy(pub->text[n % 2], text.data(), text.size());
        pub->len[n % 2] = text.size();
        pub->step.store(n);
        soakEdit(f, n);
        zarStzFileClose(f);
      }
    });
    usleep(static_cast<useconds_t>(run.random(0, 50000)));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFSIGNALED(status)) run.fail(named("editor ended with status ", status));
    uint32_t st = 0;
    zarStzFileClose(zarStzFileOpen(path.c_str(), ZAR_STZ_READ, &st));
    if (fileExists(path + ".zarjournal")) ++left;
    const long n = pub->step.load();
    if (n < from) continue;  // killed before its first edit began
    // The file is the published one (edit n not made, or made and then the
    // next not begun) or that one with edit n replayed.
    const std::string now = readFile(path);
    const std::string published(pub->text[n % 2], pub->len[n % 2]);
    bool ok = st == 0 && now == published;
    if (!ok && st == 0) {
      writeFile(scratch, published);
      uint32_t s2 = 0;
      if (zarStzFile* f = zarStzFileOpen(scratch.c_str(), ZAR_STZ_WRITE, &s2)) {
        soakEdit(f, n);
        zarStzFileClose(f);
      }
      ok = now == readFile(scratch);
      from = n + 1;
    } else {
      from = n;
    }
    if (!ok) {
      ++torn;
      run.fail(named("torn after edit ", n));
    }
    last = n;
  }
  munmap(pub, sizeof(Published));
  run.figure("edits", last);
  run.faults("torn", torn);
  run.faults("journals_left", left);
});

}  // namespace
}  // namespace zar::stress
