// Fuzz target for the log record reader: the input (after a first byte that
// picks a chunk size) is split as text records and as XML records, once in
// one piece and once fed in chunks with next() called in between. Both must
// find the same records, each inside the input and parsing again to the
// same fields; nothing may crash, hang or read outside the buffer.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/logread/svclogread.h"

namespace {

using zar::logread::Form;
using zar::logread::Record;
using zar::logread::Splitter;

#define check(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "logread_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
      abort();                                                                 \
    }                                                                          \
  } while (0)

// What must not depend on how the bytes arrived.
std::string key(const Record& r) {
  return std::to_string(r.lineNo) + "|" + std::to_string(r.timeMs) + "|" + std::to_string(r.rank) +
         "|" + std::to_string(r.status) + "|" + std::string(r.text);
}

std::vector<std::string> split(Form form, std::string_view in, size_t chunk) {
  Splitter s(form);
  std::vector<std::string> out;
  Record r;
  auto drain = [&] {
    while (s.next(&r)) {
      check(r.raw.size() > 0 && r.raw.size() <= in.size());
      check(r.text.data() >= r.raw.data() &&
            r.text.data() + r.text.size() <= r.raw.data() + r.raw.size());
      Record again;
      again.lineNo = r.lineNo;
      again.form = form;
      bool ok = form == Form::kXml ? zar::logread::parseXml(r.raw, &again)
                                   : zar::logread::parseText(r.raw, &again);
      check(ok && key(again) == key(r));
      out.push_back(key(r));
    }
    s.takeProblems();
  };
  for (size_t at = 0; at < in.size(); at += chunk) {
    s.append(in.data() + at, std::min(chunk, in.size() - at));
    drain();
  }
  s.finish();
  drain();
  check(s.pending() == 0);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t chunk = 1 + data[0] % 97;
  std::string_view in(reinterpret_cast<const char*>(data) + 1, size - 1);
  zar::logread::detectForm(in);
  for (Form form : {Form::kText, Form::kXml})
    check(split(form, in, in.size() + 1) == split(form, in, chunk));
  size_t used = 0;
  zar::logread::parseTimeText(in, false, &used);
  check(used <= in.size());
  return 0;
}
