// Fuzz target for the command-line parser with response files. The input is
// a mode byte, then the argument words (split at ASCII white space) up to the
// first NUL byte, then the text of a response file. The stanza loaded is the
// value of the word after "-stanza" (else "s"); mode bit 0 loads the file
// before the command line, bit 1 marks every second name.
//
// Checked against a plain model: the first occurrence of each name wins and
// later ones are duplicates in arrival order, with their sources; the
// status of the load is the status the stanza walk ended with; yes/no reads
// agree with the value; the snapshot of unmarked options holds exactly the
// unmarked names, in bucket order, and does not change afterwards.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "zar/cmdline.hpp"
#include "zar/stanza.h"

namespace {

std::string gDir, gPath;

#define check(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "cmdline_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
      abort();                                                                 \
    }                                                                          \
  } while (0)

struct Occurrence {
  std::string name;
  std::string value;
  bool fromFile;
};

// The occurrences of an argument vector, in order.
std::vector<Occurrence> modelArgv(const std::vector<const char*>& argv) {
  std::vector<Occurrence> out;
  size_t i = (!argv.empty() && argv[0][0] != '-') ? 1 : 0;
  for (; i < argv.size(); ++i) {
    if (argv[i][0] != '-') continue;
    Occurrence o{argv[i] + 1, "", false};
    if (i + 1 < argv.size() && argv[i + 1][0] != '-') o.value = argv[++i];
    out.push_back(o);
  }
  return out;
}

// The entries of the stanza as the stanza API walks them, and the status the
// walk ended with.
std::vector<Occurrence> modelFile(const std::string& stanza, uint32_t* status) {
  std::vector<Occurrence> out;
  uint32_t st = 0;
  zarStzFile* f = zarStzFileOpen(gPath.c_str(), ZAR_STZ_READ, &st);
  check(f != nullptr && st == 0);
  if (zarStzMoveStanza(f, stanza.c_str()) == 1) {
    for (; f->entryName != nullptr; zarStzMoveNextEntry(f))
      out.push_back({f->entryName, f->value != nullptr ? f->value : "", true});
  }
  *status = f->status;
  zarStzFileClose(f);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("SVC_ERROR", "DISCARD:", 1);  // bad lines are the normal case here
  const char* tmp = getenv("TMPDIR");
  gDir = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/cmdfuzz.XXXXXX";
  if (mkdtemp(gDir.data()) == nullptr) abort();
  gPath = gDir + "/rsp";
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(gDir, ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (gPath.empty()) LLVMFuzzerInitialize(nullptr, nullptr);
  if (size == 0) return 0;
  const unsigned mode = data[0];
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t nul = rest.find('\0');
  const std::string words = rest.substr(0, nul);
  const std::string text = nul == std::string::npos ? "" : rest.substr(nul + 1);

  std::vector<std::string> storage;
  const char* const kBlank = " \t\n\r\v\f";
  for (size_t p = 0; (p = words.find_first_not_of(kBlank, p)) != std::string::npos;) {
    const size_t e = words.find_first_of(kBlank, p);
    storage.push_back(words.substr(p, e - p));
    p = e;
  }
  std::vector<const char*> argv;
  std::string stanza = "s";
  for (size_t i = 0; i < storage.size(); ++i) {
    argv.push_back(storage[i].c_str());
    if (storage[i] == "-stanza" && i + 1 < storage.size()) stanza = storage[i + 1];
  }
  FILE* out = fopen(gPath.c_str(), "wb");
  if (out == nullptr) abort();
  fwrite(text.data(), 1, text.size(), out);
  fclose(out);

  uint32_t fileStatus = 0;
  std::vector<Occurrence> fileOcc = modelFile(stanza, &fileStatus);
  std::vector<Occurrence> argvOcc = modelArgv(argv);
  std::vector<Occurrence> all = (mode & 1) ? fileOcc : argvOcc;
  const std::vector<Occurrence>& second = (mode & 1) ? argvOcc : fileOcc;
  all.insert(all.end(), second.begin(), second.end());

  ZARCmdLine cl;
  if (mode & 1) check(cl.loadRspFile(gPath.c_str(), stanza.c_str()) == fileStatus);
  check(cl.initialize(static_cast<int>(argv.size()), argv.data()) == 0);
  if (!(mode & 1)) check(cl.loadRspFile(gPath.c_str(), stanza.c_str()) == fileStatus);

  // First occurrences and duplicates.
  std::map<std::string, const Occurrence*> first;
  std::vector<std::pair<std::string, std::string>> dups;
  for (const Occurrence& o : all) {
    if (!first.emplace(o.name, &o).second)
      dups.emplace_back(o.name, o.value + (o.fromFile ? "@" : ""));
  }
  check(cl.getNumOptions() == static_cast<int>(first.size()));
  ZARStringRef ref;
  check((cl.getCmdName(ref) == 0) == (!argv.empty() && argv[0][0] != '-'));
  int i = 0;
  for (const auto& [name, o] : first) {
    check(cl.findOption(name.c_str(), ref) == 0 && o->value == ref.getData());
    bool flag = false;
    const unsigned st = cl.findOption(name.c_str(), flag);
    const bool yes = strcasecmp(o->value.c_str(), "yes") == 0;
    const bool no = strcasecmp(o->value.c_str(), "no") == 0;
    check(st == ((yes || no) ? 0u : ZAR_S_CMDLINE_BAD_OPTION) && (!(yes || no) || flag == yes));
    if ((mode & 2) && (i++ % 2 == 0))
      cl.validated(ZARStringRef(name.data(), static_cast<int>(name.size())));
  }
  // Duplicates: per name, in arrival order, with their source.
  std::map<std::string, std::vector<std::string>> want, got;
  for (const auto& [name, v] : dups) want[name].push_back(v);
  ZARCmdLine::OptionIter it(cl.duplicateOptions());
  ZARString* k = nullptr;
  ZARCmdLine::Option* o = nullptr;
  while (it.next(k, o)) {
    check(o->rspFile.getLen() == 0 ||
          (o->rspFile.compare(gPath.c_str()) == 0 && o->stanza.compare(stanza.c_str()) == 0));
    got[k->getData()].push_back(std::string(o->value.getData()) +
                                (o->rspFile.getLen() > 0 ? "@" : ""));
  }
  check(got == want);

  // The snapshot: unmarked names only, buckets ascending, frozen.
  const ZARCmdLine::OptionTable& invalid = cl.invalidOptions();
  const unsigned count = invalid.getCount();
  check(count == first.size() - ((mode & 2) ? (first.size() + 1) / 2 : 0));
  ZARCmdLine::OptionIter walk(invalid);
  unsigned lastBucket = 0;
  while (walk.next(k, o)) {
    const unsigned b = ZARCmdLine::OptionTable::bucketOf(k->hash(), ZARCmdLine::kBuckets);
    check(!o->validated && b >= lastBucket);
    lastBucket = b;
  }
  for (const auto& [name, occ] : first) cl.validated(name.c_str());
  check(cl.invalidOptions().getCount() == count);
  return 0;
}
