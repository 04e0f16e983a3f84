// Stanza files under stress: a file shared by processes (writers increment a
// counter under the write lock while readers parse the file and a prober
// tries the locks without waiting); edits ended at every write, flush,
// fsync, truncate, link and unlink (also as a power cut: what was written
// after the last fsync lost); and edits killed at random from outside. After
// an interrupted edit the next open finds the file exactly as before or
// after the edit, and no journal left.
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "base/faultinj.h"
#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/stanza.h"
#include "zar/status.h"

namespace zar::stress {
namespace {

using zar::fault::Op;
using zar::test::fileExists;
using zar::test::readFile;
using zar::test::writeFile;

const char kFile[] =
    "# counters of the reliability suite\n[before]\nalpha = 1\n"
    "beta = two words  # and a comment\n\n[count]\ncounter = 0\nother = kept\n\n"
    "# the last stanza\n[after]\ngamma = 3\n";

// Counts shared by the processes of the run.
struct Counters {
  std::atomic<long> writersLeft, increments, failedIncrements, reads, badReads, probes, blocked,
      badProbes;
};

// Walks the whole file; false unless it holds exactly the stanzas and
// entries of kFile, with a counter of at least *counter (then updated). A
// move past the end leaves the name null; memory mode walks the stanzas from
// the last.
bool readsWhole(zarStzFile* f, bool memory, long* counter) {
  std::string all;
  int stanzas = 0;
  for (zarStzMoveFirstStanza(f); f->stanzaName != nullptr && ++stanzas < 10;
       zarStzMoveNextStanza(f)) {
    std::string seen = std::string("[") + f->stanzaName + "]";
    zarStzMoveFirstEntry(f);
    for (int k = 0; f->entryName != nullptr && k < 10; ++k, zarStzMoveNextEntry(f)) {
      std::string value = f->value != nullptr ? f->value : "";
      if (std::string(f->entryName) == "counter") {
        char* end = nullptr;
        long n = strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || n < *counter) return false;
        *counter = n;
        value = "N";
      }
      seen += std::string(f->entryName) + "=" + value + ";";
    }
    all = memory ? seen + all : all + seen;
  }
  return f->status == 0 &&
         all == "[before]alpha=1;beta=two words;[count]counter=N;other=kept;[after]gamma=3;";
}

Scenario stanzaFile("stanza", [](Run& run) {
  int writers = run.size("writers", 4, 8);
  long increments = run.size("per_writer", 60, 20000);
  constexpr int kReaders = 4;
  std::string path = run.file("counters.conf");
  writeFile(path, kFile);
  auto* shared = new (sharedMemory(sizeof(Counters))) Counters{};
  shared->writersLeft = writers;
  double start = now();
  Procs procs = inProcesses(
      writers + kReaders + 1,
      [&](int i) {
        uint32_t st = 0;
        long counter = 0;  // a reader's last one: it never goes back
        for (long n = 0; i < writers ? n < increments : shared->writersLeft.load() > 0; ++n) {
          if (i < writers) {  // read-modify-write increments
            zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
            bool ok =
                f != nullptr && zarStzMoveEntry(f, "count", "counter") != 0 && f->value != nullptr;
            if (ok) {
              zarStzChangeValue(f, std::to_string(strtol(f->value, nullptr, 10) + 1).c_str());
              ok = f->status == 0;
            }
            zarStzFileClose(f);
            (ok ? shared->increments : shared->failedIncrements).fetch_add(1);
          } else if (i < writers + kReaders) {  // whole reads, every other one in memory mode
            zarStzFile* f = zarStzFileOpen(path.c_str(),
                                           ZAR_STZ_READ | (n % 2 != 0 ? ZAR_STZ_MEMORY : 0u), &st);
            bool ok = f != nullptr && readsWhole(f, n % 2 != 0, &counter);
            zarStzFileClose(f);
            shared->reads.fetch_add(1);
            shared->badReads.fetch_add(!ok);
          } else {  // both locks probed without waiting
            zarStzFile* f = zarStzFileOpen(
                path.c_str(), (n % 2 != 0 ? ZAR_STZ_READ : ZAR_STZ_WRITE) | ZAR_STZ_NOWAIT, &st);
            zarStzFileClose(f);
            shared->probes.fetch_add(1);
            bool blocked = f == nullptr && st == ZAR_S_STZ_WOULD_BLOCK;
            shared->blocked.fetch_add(blocked);
            shared->badProbes.fetch_add(!blocked && (f == nullptr || st != 0));
          }
        }
        if (i < writers) shared->writersLeft.fetch_sub(1);
        return 0;
      },
      900);
  double seconds = now() - start;
  // Only the counter's line changed, and it holds every increment.
  std::string expected = kFile, found = readFile(path);
  expected.replace(expected.find("counter = 0"), 11, named("counter = ", writers * increments));
  if (found != expected) run.fail("final file:\n" + found);
  run.figure("increments", shared->increments.load());
  run.faults("failed_increments", shared->failedIncrements.load());
  run.faults("file_wrong", found != expected);
  run.figure("reads", shared->reads.load());
  run.faults("bad_reads", shared->badReads.load());
  run.figure("probes", shared->probes.load());
  run.figure("would_block", shared->blocked.load());
  run.faults("bad_probes", shared->badProbes.load());
  procs.report(run);
  run.figure("increments/s", shared->increments.load() / seconds);
});

constexpr int kCrashOps =
    (1 << static_cast<int>(Op::kWrite)) | (1 << static_cast<int>(Op::kFlush)) |
    (1 << static_cast<int>(Op::kFsync)) | (1 << static_cast<int>(Op::kTruncate)) |
    (1 << static_cast<int>(Op::kRename)) | (1 << static_cast<int>(Op::kUnlink));

using Edit = std::function<void(zarStzFile*)>;
const struct {
  const char* name;
  Edit edit;
} kEdits[] = {
    {"add", [](zarStzFile* f) { zarStzMoveStanza(f, "mid"), zarStzAddEntry(f, "added", "new"); }},
    {"insert",
     [](zarStzFile* f) { zarStzMoveEntry(f, "mid", "k1"), zarStzInsertEntry(f, "ins", "v"); }},
    {"change",
     [](zarStzFile* f) {
       zarStzMoveEntry(f, "mid", "k1");
       zarStzChangeValue(f, "a value longer than the old one");
     }},
    {"delete entry", [](zarStzFile* f) { zarStzDeleteEntry(f, "mid", "k1"); }},
    {"delete stanza", [](zarStzFile* f) { zarStzDeleteStanza(f, "mid"); }},
    {"add stanza", [](zarStzFile* f) { zarStzAddStanzaWithComment(f, "new", "# added"); }},
};

bool edited(const std::string& path, const Edit& edit) {
  uint32_t st = 0;
  zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
  if (f != nullptr) edit(f), zarStzFileClose(f);
  return f != nullptr;
}

// What a power cut leaves: the file as of its last fsync, the journal's name
// as of the directory's last fsync (with the content its own fsync made
// durable). Kept in files of the run directory by the editing child.
struct PowerCut {
  std::string path, journal, durableFile, durableJournal;
  ino_t ino = 0;
} gCut;

// Copies from to to, or removes to when from does not exist.
void keepAs(const std::string& from, const std::string& to) {
  if (fileExists(from))
    writeFile(to, readFile(from));
  else
    unlink(to.c_str());
}

void keepDurable(int fd) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) keepAs(gCut.journal, gCut.durableJournal);
  if (fstat(fd, &st) == 0 && st.st_ino == gCut.ino) keepAs(gCut.path, gCut.durableFile);
}

Scenario stanzaCrash("stanza-crash", [](Run& run) {
  const long sizes = run.size("sizes", 2, 4);  // 2, 4,000, 200, 8,000 entries per stanza
  const int kEntries[] = {2, 4000, 200, 8000};
  std::string path = run.file("crash.conf");
  gCut = {path, path + ".zarjournal", run.file("durable.file"), run.file("durable.journal"), 0};
  long edits = 0, points = 0, torn = 0, left = 0, crashed = 0;
  for (long s = 0; s < sizes; ++s) {
    std::string before;
    for (const char* name : {"first", "mid", "last"}) {
      before += std::string("[") + name + "]\n";
      for (int i = 0; i < kEntries[s]; ++i) before += named("k", i, " = value of some length\n");
    }
    for (const auto& e : kEdits) {
      if (!run.wants(e.name)) continue;
      writeFile(path, before);
      if (!edited(path, e.edit)) run.fail(std::string("cannot edit: ") + e.name);
      const std::string after = readFile(path);
      ++edits;
      for (long k = 1, finished = 0; !finished; ++k) {
        for (bool power : {false, true}) {
          writeFile(path, before);
          for (const std::string& f : {gCut.journal, gCut.durableFile, gCut.durableJournal})
            unlink(f.c_str());
          struct stat st;
          stat(path.c_str(), &st);
          gCut.ino = st.st_ino;
          int code = zar::test::exitCode(inChild(60, [&] {
            if (power) zar::fault::setSyncHook(keepDurable);
            zar::fault::armCrash(kCrashOps, k);
            edited(path, e.edit);
            return 0;
          }));
          if ((finished = code == 0)) break;
          if (code != zar::fault::kCrashExit) {
            ++crashed;
            run.fail(named(e.name, k, " ended otherwise"));
            continue;
          }
          ++points;
          if (power) {
            writeFile(path, fileExists(gCut.durableFile) ? readFile(gCut.durableFile) : before);
            keepAs(gCut.durableJournal, gCut.journal);
          }
          uint32_t st2 = 0;  // the open finishes an interrupted edit
          zarStzFileClose(zarStzFileOpen(path.c_str(), ZAR_STZ_READ, &st2));
          const std::string now = readFile(path);
          if ((st2 != 0 || (now != before && now != after)) && ++torn)
            run.fail(std::string(e.name) + named(" torn at call ", k) + (power ? " (power)" : ""));
          left += fileExists(gCut.journal);
        }
      }
    }
  }
  run.figure("edits", edits);
  run.figure("crash_points", points);
  run.faults("torn", torn);
  run.faults("journals_left", left);
  run.faults("crashed", crashed);
});

// Edit number n of the kill soak: every kind in turn, on a few stanzas.
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
  }
}

// The kill soak. The editor publishes, before each edit, its number and the
// file as it stands (in one of two slots, so that a kill while copying
// leaves the last published one whole).
constexpr size_t kSlotBytes = 1 << 20;
struct Published {
  std::atomic<long> step;
  size_t len[2];
  char text[2][kSlotBytes];
};

Scenario stanzaKill("stanza-kill", [](Run& run) {
  const long kills = run.size("kills", 1000, 10000);
  std::string path = run.file("kill.conf"), scratch = run.file("replay.conf");
  writeFile(path, "# soak\n[count]\ncounter = 0\n");
  auto* pub = static_cast<Published*>(sharedMemory(sizeof(Published)));
  pub->step = -1;
  long from = 0, torn = 0, left = 0, last = 0;
  for (long round = 0; round < kills; ++round) {
    pid_t pid = zar::test::forkChild([&] {
      for (long n = from;; ++n) {
        uint32_t st = 0;
        zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
        std::string text = readFile(path);
        if (f == nullptr || text.size() > kSlotBytes) return 1;
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
    left += fileExists(path + ".zarjournal");
    const long n = pub->step.load();
    if (n < from) continue;  // killed before its first edit began
    // The file is the published one (edit n not made, or made and then the
    // next not begun) or that one with edit n replayed.
    const std::string now = readFile(path), published(pub->text[n % 2], pub->len[n % 2]);
    bool ok = st == 0 && now == published;
    from = !ok && st == 0 ? n + 1 : n;
    if (!ok && st == 0) {
      writeFile(scratch, published);
      edited(scratch, [n](zarStzFile* f) { soakEdit(f, n); });
      ok = now == readFile(scratch);
    }
    if (!ok && ++torn) run.fail(named("torn after edit ", n));
    last = n;
  }
  run.figure("edits", last);
  run.faults("torn", torn);
  run.faults("journals_left", left);
});

}  // namespace
}  // namespace zar::stress
