// Fuzz target for stanza files: the input is written to a file that is then
// opened in stream and in memory mode, validated and walked. When it is
// valid, both walks must see the same stanzas and entries, and a few edits
// must keep it valid, read back as written, and undo cleanly.
#include <locale.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "zar/stanza.h"

namespace {

std::string gPath;

// The stanzas and entries a walk meets, one string per stanza.
std::vector<std::string> walk(zarStzFile* f) {
  std::vector<std::string> out;
  for (zarStzMoveFirstStanza(f); f->status == 0 && f->stanzaName; zarStzMoveNextStanza(f)) {
    std::string s = std::string(f->stanzaName) + "]";
    for (; f->status == 0 && f->entryName; zarStzMoveNextEntry(f)) {
      s += std::string(f->entryName) + '\0';
      s += f->value != nullptr ? std::string("=") + f->value : std::string("-");
      s += '\0';
    }
    out.push_back(s);
  }
  if (f->status != 0) out.push_back("!");
  return out;
}

std::string readAll() {
  std::ifstream in(gPath, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// An invariant that failed names itself before the fuzzer takes the abort.
#define check(cond)                                                      \
  do {                                                                   \
    if (!(cond)) {                                                       \
      fprintf(stderr, "stanza_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
      abort();                                                           \
    }                                                                    \
  } while (0)

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Bad lines are the normal case here: their messages go nowhere.
  setenv("SVC_ERROR", "DISCARD:", 1);
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) setlocale(LC_ALL, "");
  const char* tmp = getenv("TMPDIR");
  std::string dir = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/stzfuzz.XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) abort();
  gPath = dir + "/conf";
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(gPath).parent_path(), ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (gPath.empty()) LLVMFuzzerInitialize(nullptr, nullptr);
  FILE* out = fopen(gPath.c_str(), "wb");
  if (out == nullptr) abort();
  fwrite(data, 1, size, out);
  fclose(out);

  uint32_t st = 0;
  zarStzFile* s = zarStzFileOpen(gPath.c_str(), ZAR_STZ_READ, &st);
  check(s != nullptr && st == 0);
  const bool valid = zarStzValidate(s) == 1;
  std::vector<std::string> streamWalk = walk(s);
  zarStzFileClose(s);

  zarStzFile* m = zarStzFileOpen(gPath.c_str(), ZAR_STZ_READ | ZAR_STZ_MEMORY, &st);
  check(m != nullptr && st == 0 && m->status == 0);
  std::vector<std::string> memoryWalk = walk(m);
  check(zarStzValidate(m) == (valid ? 1 : 0));
  zarStzFileClose(m);
  if (!valid) return 0;
  check(std::vector<std::string>(memoryWalk.rbegin(), memoryWalk.rend()) == streamWalk);

  // Edits of a valid file keep it valid and read back.
  zarStzFile* w = zarStzFileOpen(gPath.c_str(), ZAR_STZ_WRITE, &st);
  check(w != nullptr);
  const bool hadFuzz = zarStzMoveStanza(w, "fuzz") == 1;
  zarStzMoveFirstStanza(w);
  if (w->stanzaName != nullptr) {
    std::string first = w->stanzaName;
    zarStzAddEntry(w, "fuzzed", "yes # comment");
    check(w->status == 0);
    check(zarStzMoveEntry(w, first.c_str(), "fuzzed") == 1 && strcmp(w->value, "yes") == 0);
  }
  const std::string before = readAll();
  zarStzAddStanzaWithComment(w, "fuzz", "# added");
  zarStzAddEntry(w, "k", "v");
  check(w->status == 0);
  check(zarStzValidate(w) == 1);
  zarStzMoveFirstStanza(w);  // validation leaves the cursor at the end
  check(zarStzMoveEntry(w, "fuzz", "k") == 1 && strcmp(w->value, "v") == 0);

  // Deleting the stanza again leaves only the comment line (and the line
  // feed that the old last line may have lacked).
  if (!hadFuzz) {
    check(zarStzDeleteStanza(w, "fuzz") == 1);
    std::string expected = before;
    if (!expected.empty() && expected.back() != '\n') expected += '\n';
    check(readAll() == expected + "# added\n");
  }
  zarStzFileClose(w);
  return 0;
}
