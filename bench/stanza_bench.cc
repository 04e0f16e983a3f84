// Stanza files: open and walk every entry of a file of 500 stanzas with 20
// entries each, in stream and in memory mode, against inih's ini_parse of the
// same file; and one zarStzAddEntry in the middle of a 1 MB file. Cases are
// named "zar/<case>" and "peer/<case>" so that the runner can put the pairs
// side by side.
#include <benchmark/benchmark.h>
#include <ini.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "zar/stanza.h"

namespace {

constexpr int kStanzas = 500;
constexpr int kEntries = 20;
constexpr int kWalkCount = kStanzas * kEntries;

// A directory for the generated files, removed with them at exit.
struct TempDir {
  TempDir() {
    const char* tmp = getenv("TMPDIR");
    path = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/stzbench.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) abort();
  }
  ~TempDir() {
    for (const std::string& f : files) unlink(f.c_str());
    rmdir(path.c_str());
  }
  std::string path;
  std::vector<std::string> files;
};

TempDir& tempDir() {
  static TempDir dir;
  return dir;
}

// Writes a file of stanzas with entries of the usual shape and returns its path.
std::string makeFile(const char* name, int stanzas, int entries) {
  std::string path = tempDir().path + "/" + name;
  tempDir().files.push_back(path);
  FILE* out = fopen(path.c_str(), "w");
  if (out == nullptr) abort();
  for (int s = 0; s < stanzas; ++s) {
    fprintf(out, "# settings of component %d\n[component-%d]\n", s, s);
    for (int e = 0; e < entries; ++e)
      fprintf(out, "parameter-%d = value %d of component %d\n", e, e, s);
    fputc('\n', out);
  }
  fclose(out);
  return path;
}

const std::string& walkFile() {
  static const std::string path = makeFile("walk.conf", kStanzas, kEntries);
  return path;
}

// Walks every entry; returns the number seen.
int walkAll(zarStzFile* f) {
  int n = 0;
  for (zarStzMoveFirstStanza(f); f->stanzaName != nullptr; zarStzMoveNextStanza(f)) {
    for (; f->entryName != nullptr; zarStzMoveNextEntry(f)) {
      benchmark::DoNotOptimize(f->value);
      ++n;
    }
  }
  return n;
}

void zarWalk(benchmark::State& state, uint32_t flags) {
  int n = 0;
  for (auto _ : state) {
    uint32_t st = 0;
    zarStzFile* f = zarStzFileOpen(walkFile().c_str(), flags, &st);
    n = f != nullptr ? walkAll(f) : -1;
    zarStzFileClose(f);
  }
  if (n != kWalkCount) state.SkipWithError("the walk did not see every entry");
  state.SetItemsProcessed(state.iterations() * kWalkCount);
}

void zarWalkStream(benchmark::State& state) { zarWalk(state, ZAR_STZ_READ); }
void zarWalkMemory(benchmark::State& state) { zarWalk(state, ZAR_STZ_READ | ZAR_STZ_MEMORY); }

int countHandler(void* user, const char*, const char*, const char* value) {
  benchmark::DoNotOptimize(value);
  ++*static_cast<int*>(user);
  return 1;
}

// The memory-mode peer keeps what it reads, as the tree does.
struct Kept {
  std::vector<std::string> texts;
  std::string section;
};
int keepHandler(void* user, const char* section, const char* name, const char* value) {
  auto* kept = static_cast<Kept*>(user);
  if (kept->texts.empty() || kept->section != section) {
    kept->section = section;
    kept->texts.emplace_back(section);
  }
  kept->texts.emplace_back(name);
  kept->texts.emplace_back(value);
  return 1;
}

void peerWalkStream(benchmark::State& state) {
  int n = 0;
  for (auto _ : state) {
    n = 0;
    if (ini_parse(walkFile().c_str(), countHandler, &n) != 0) n = -1;
  }
  if (n != kWalkCount) state.SkipWithError("ini_parse did not see every entry");
  state.SetItemsProcessed(state.iterations() * kWalkCount);
}

void peerWalkMemory(benchmark::State& state) {
  size_t n = 0;
  for (auto _ : state) {
    Kept kept;
    if (ini_parse(walkFile().c_str(), keepHandler, &kept) != 0) break;
    n = kept.texts.size();
  }
  if (n != static_cast<size_t>(kStanzas + 2 * kWalkCount))
    state.SkipWithError("ini_parse did not keep every entry");
  state.SetItemsProcessed(state.iterations() * kWalkCount);
}

// One entry added to the middle stanza of a 1 MB file: the rewrite moves the
// half of the file behind it out and back in. The small file (10 stanzas of 4
// entries) shows what an edit costs apart from copying: the journal and its
// fsync calls.
void zarAddEntryMiddle(benchmark::State& state, int stanzas, int entries) {
  const std::string path = makeFile(stanzas > 10 ? "edit.conf" : "small.conf", stanzas, entries);
  const std::string middle = "component-" + std::to_string(stanzas / 2);
  uint32_t st = 0;
  zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
  if (f == nullptr) {
    state.SkipWithError("open failed");
    return;
  }
  long i = 0;
  for (auto _ : state) {
    state.PauseTiming();
    zarStzMoveStanza(f, middle.c_str());
    std::string name = "added-" + std::to_string(i++);
    state.ResumeTiming();
    zarStzAddEntry(f, name.c_str(), "new value");
  }
  if (f->status != 0) state.SkipWithError("zarStzAddEntry failed");
  zarStzFileClose(f);
}

BENCHMARK(zarWalkStream)->Name("zar/stanza_walk_500x20");
BENCHMARK(peerWalkStream)->Name("peer/stanza_walk_500x20");
BENCHMARK(zarWalkMemory)->Name("zar/stanza_load_500x20");
BENCHMARK(peerWalkMemory)->Name("peer/stanza_load_500x20");
BENCHMARK_CAPTURE(zarAddEntryMiddle, large, 1000, 24)->Name("zar/stanza_add_entry_1MB");
BENCHMARK_CAPTURE(zarAddEntryMiddle, small, 10, 4)->Name("zar/stanza_add_entry_small");

}  // namespace

// Files are read in the code page of the locale of the environment (for
// example LC_ALL=C.UTF-8), as a program that calls zarmsg_init reads them.
int main(int argc, char** argv) {
  setlocale(LC_ALL, "");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
