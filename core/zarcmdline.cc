// The command-line parser: options from the argument vector and from one
// stanza of a response file, first occurrence wins, later ones are kept as
// duplicates; marks of the names a program understood and the snapshot of
// the options nobody marked.
#include "zar/cmdline.hpp"

#include <memory>

#include "base/zarmem.h"
#include "core/svcutl/svcprod.h"
#include "zar/stanza.h"
#include "zar/status.h"
#include "zar/svc.h"

// The option tables of every parser, and of programs that walk them.
template class ZARHashTable<ZARString, ZARCmdLine::Option>;

namespace zar::cmdline {
namespace {

constexpr char kRecordName[] = "core/zarcmdline";

// Reports memory that could not be obtained for an option (message
// XKJSC0151E, with the caller's line) and gives the status to return.
unsigned noMemory(int line) {
  zar_svc_printf_withfile(zar::svc::clientHandle(), kRecordName, line, "", 0, svc_c_sev_error,
                          ZAR_S_NO_MEMORY);
  return ZAR_S_NO_MEMORY;
}

bool isOptionWord(const char* word) {
  return word != nullptr && word[0] == '-';
}

struct StzCloser {
  void operator()(zarStzFile* f) const { zarStzFileClose(f); }
};

}  // namespace
}  // namespace zar::cmdline

using zar::cmdline::isOptionWord;
using zar::cmdline::noMemory;

ZARCmdLine::Option::Option() : validated(false) {}

ZARCmdLine::Option::~Option() = default;

ZARCmdLine::ZARCmdLine() : initialized_(false), invalidComputed_(false) {
  // A table whose bucket array could not be allocated stays without buckets;
  // readyTables() tries again before the first option is added.
  options_.init(kBuckets, true);
  duplicates_.init(kBuckets, true);
  invalid_.init(kBuckets, false);
}

// Members go in reverse order of declaration: the command name, the
// invalid-options table (entries only), the duplicates, the options.
ZARCmdLine::~ZARCmdLine() = default;

bool ZARCmdLine::readyTables() {
  // A table without buckets holds nothing, so setting it up loses nothing.
  if (options_.getBucketCount() == 0 && !options_.init(kBuckets, true)) return false;
  if (duplicates_.getBucketCount() == 0 && !duplicates_.init(kBuckets, true)) return false;
  return true;
}

unsigned ZARCmdLine::add(ZARString* key, Option* option) {
  std::unique_ptr<ZARString> k(key);
  std::unique_ptr<Option> o(option);
  if (!readyTables()) return noMemory(__LINE__);
  const bool stored = options_.find(*k) != nullptr ? duplicates_.insertTail(k.get(), o.get())
                                                   : options_.insertHead(k.get(), o.get());
  if (!stored) return noMemory(__LINE__);
  k.release();
  o.release();
  return ZAR_S_OK;
}

unsigned ZARCmdLine::initialize(int argc, const char* const* argv) {
  initialized_ = true;
  if (argc <= 0 || argv == nullptr) return ZAR_S_OK;
  int i = 0;
  if (!isOptionWord(argv[0])) {
    if (argv[0] != nullptr && !cmdName_.set(argv[0])) return noMemory(__LINE__);
    i = 1;
  }
  for (; i < argc; ++i) {
    if (!isOptionWord(argv[i])) continue;  // a stray word
    std::unique_ptr<ZARString> key(zar::mem::newObject<ZARString>());
    std::unique_ptr<Option> option(zar::mem::newObject<Option>());
    if (!key || !option || !key->set(argv[i] + 1)) return noMemory(__LINE__);
    if (i < argc - 1 && argv[i + 1] != nullptr && !isOptionWord(argv[i + 1])) {
      ++i;
      if (!option->value.set(argv[i])) return noMemory(__LINE__);
    }
    const unsigned st = add(key.release(), option.release());
    if (st != ZAR_S_OK) return st;
  }
  return ZAR_S_OK;
}

unsigned ZARCmdLine::loadRspFile(const ZARStringRef& fileName, const ZARStringRef& stanzaName) {
  // Own terminated copies: the references need not be terminated, and every
  // option keeps the names.
  ZARString file;
  ZARString stanza;
  if (!file.set(fileName) || !stanza.set(stanzaName)) return noMemory(__LINE__);

  uint32_t st = 0;
  std::unique_ptr<zarStzFile, zar::cmdline::StzCloser> rsp(
      zarStzFileOpen(file.getData(), ZAR_STZ_READ, &st));
  if (!rsp || st != 0) return st != 0 ? st : ZAR_S_STZ_OPEN_FAILED;

  if (zarStzMoveStanza(rsp.get(), stanza.getData()) == 1) {
    while (rsp->entryName != nullptr) {
      std::unique_ptr<ZARString> key(zar::mem::newObject<ZARString>());
      std::unique_ptr<Option> option(zar::mem::newObject<Option>());
      if (!key || !option || !key->set(rsp->entryName) ||
          !option->value.set(rsp->value != nullptr ? rsp->value : "") ||
          !option->rspFile.set(file) || !option->stanza.set(stanza)) {
        return noMemory(__LINE__);
      }
      const unsigned added = add(key.release(), option.release());
      if (added != ZAR_S_OK) return added;
      zarStzMoveNextEntry(rsp.get());
    }
  }
  // A format or read error ends the walk (or the search for the stanza) with
  // the cursor at the end of the file; the record keeps its status.
  return rsp->status;
}

unsigned ZARCmdLine::findOption(const ZARString& name, ZARStringRef& value) const {
  const Option* o = options_.find(name);
  if (o == nullptr) return ZAR_S_NOT_AVAILABLE;
  value.set(o->value);
  return ZAR_S_OK;
}

unsigned ZARCmdLine::findOption(const ZARString& name, bool& flag) const {
  const Option* o = options_.find(name);
  if (o == nullptr) return ZAR_S_NOT_AVAILABLE;
  const ZARStringRef value(o->value);
  if (value.icompare("yes", -1) == 0) {
    flag = true;
  } else if (value.icompare("no", -1) == 0) {
    flag = false;
  } else {
    return ZAR_S_CMDLINE_BAD_OPTION;
  }
  return ZAR_S_OK;
}

void ZARCmdLine::validated(const ZARStringRef& name) const {
  ZARString key(name);
  if (key.getLen() == name.getLen()) {
    if (Option* o = options_.find(key)) o->validated = true;
    return;
  }
  // No memory for the lookup key: compare with every name instead.
  OptionIter it(options_);
  ZARString* k = nullptr;
  Option* o = nullptr;
  while (it.next(k, o)) {
    if (o != nullptr && k->compare(name) == 0) {
      o->validated = true;  // the first in the chain, as find() answers
      return;
    }
  }
}

const ZARCmdLine::OptionTable& ZARCmdLine::invalidOptions() const {
  if (invalidComputed_) return invalid_;
  if (invalid_.getBucketCount() == 0 && !invalid_.init(kBuckets, false)) {
    noMemory(__LINE__);
    return invalid_;
  }
  OptionIter it(options_);
  ZARString* k = nullptr;
  Option* o = nullptr;
  while (it.next(k, o)) {
    if (o->validated) continue;
    if (!invalid_.insertTail(k, o)) {
      // Not a snapshot to keep: empty it, and the next call tries again.
      invalid_.init(kBuckets, false);
      noMemory(__LINE__);
      return invalid_;
    }
  }
  invalidComputed_ = true;
  return invalid_;
}

int ZARCmdLine::getNumOptions() const {
  return static_cast<int>(options_.getCount());
}

unsigned ZARCmdLine::getCmdName(ZARStringRef& name) const {
  if (cmdName_.getLen() == 0) return ZAR_S_NOT_AVAILABLE;
  name.set(cmdName_);
  return ZAR_S_OK;
}
