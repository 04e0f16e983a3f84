// Allocation failure on every path and I/O failure of every wrapped system
// call: each case runs in a child of fork, so that every injection point
// starts from a fresh process. A case acts once with the fault armed, then
// once more without it; the second act must succeed.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "platform/faultinj.h"
#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/cmdline.hpp"
#include "zar/msg.h"
#include "zar/msginit.h"
#include "zar/msgprintf.h"
#include "zar/printf.h"
#include "zar/stanza.h"
#include "zar/status.h"
#include "zar/string.hpp"
#include "zar/svc.h"
#include "zar/utc.h"
#include "zar/uuid.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZAR_STRESS_LEAK_CHECK 1
extern "C" int __lsan_do_recoverable_leak_check();
#endif

namespace zar::stress {
namespace {

using zar::fault::Op;

// What one act did: succeeded, failed the documented way (a status, -1,
// false, a lost or degraded message), or did something else.
constexpr int kOk = 0, kDocumented = 1, kWrong = 2;
// Documented when what was produced is the start of the full result (a load
// that a failure ended early keeps what came before), else wrong.
constexpr int kPartial = 3;

// An act: attempt 0 runs with the fault armed, attempt 1 without. result
// receives what was produced, compared between runs when the act succeeds.
using Act = int (*)(Run& run, long attempt, std::string* result);

// Child results, through a page shared with the driver.
struct Shared {
  long calls;
  char reference[8192];
};
Shared* shared() {
  static Shared* page = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return page;
}

// Exit codes of a child; anything else (a signal, a sanitizer report) is a
// crash.
enum ChildExit : int {
  kFine = 0,
  kFineDocumented = 9,  // the armed act failed as documented, the rest was fine
  kWrongResult = 10,
  kNotRecovered = 11,
  kLeaked = 12
};

bool leaks() {
#ifdef ZAR_STRESS_LEAK_CHECK
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

// ---- The records a print case finds ----------------------------------------------

// Stress bodies, and the documented degraded records: the "Unknown message"
// body of a text that could not be had, or an empty body where formatting
// or conversion failed.
int recordMarker(std::string_view text, std::string* key, long* seq) {
  int r = zar::test::stressMarker()(text, key, seq);
  if (r != 0) return r;
  if (!text.empty() && text.rfind("Unknown message 0x38c5209c", 0) != 0) return 0;
  *key = "degraded";
  *seq = 0;
  return 1;
}

// How a print case prints: a severity message in the local code set or in
// UTF-8, a debug message, or a severity message held back by the thread's
// message save and then printed from it.
enum class How { kLocal, kUtf8, kDebug, kSaved };

// Prints a small and a large record and reads them back from path: both
// present once, or lost or degraded (documented); anything torn is wrong.
int printAndFind(Run& run, long attempt, bool xml, How how = How::kLocal) {
  if (how == How::kSaved && zar_svc_msgsave_start(0, 0, nullptr) != 0) return kDocumented;
  for (size_t len : {100, 9000}) {
    std::string body = zar::test::stressBody("k", attempt, len);
    if (how == How::kUtf8) {
      zar_svc_printf_cs_withfile(zarsv_client_svc_handle, zarsvc_get_utf8_code_page(), "f.cc", 1,
                                 "%s%d", 0, svc_c_sev_notice, 0x38C5209C, body.c_str(), 0);
    } else if (how == How::kDebug) {
      zar_svc__debug_withfile(zarsv_client_svc_handle, "f.cc", 1, 0, 1, "%s", body.c_str());
    } else {
      zar_svc_printf_withfile(zarsv_client_svc_handle, "f.cc", 1, "%s%d", 0, svc_c_sev_notice,
                              0x38C5209C, body.c_str(), 0);
    }
  }
  if (how == How::kSaved) {
    zar_svc_msgsave_print(-1);
    zar_svc_msgsave_stop(1);
  }
  // Failures the library reports on its raw diagnostic path ("core/...:
  // text") may share standard error with the records.
  std::string text;
  for (const std::string& line : zar::test::splitLines(zar::test::readFile(run.file("out"))))
    if (line.compare(0, 5, "core/") != 0) text += line + "\n";
  zar::test::RecordTally tally;
  if (xml)
    zar::test::tallyXmlRecords(text, recordMarker, &tally);
  else
    zar::test::tallyTextRecords(text, recordMarker, &tally);
  if (tally.torn != 0) return kWrong;
  const auto& seqs = tally.seqs["k"];
  long found = std::count(seqs.begin(), seqs.end(), attempt);
  if (found > 2) return kWrong;
  return found == 2 ? kOk : kDocumented;
}

void routeTo(const std::string& routes) {
  initServiceability();
  unsigned long st = route(routes);
  if (st != 0) fprintf(stderr, "route %s: status 0x%lx\n", routes.c_str(), st);
}

// Sends file descriptor fd into the file name of the case's directory.
void captureFd(Run& run, int fd, const char* name = "out") {
  int f = open(run.file(name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(f, fd);
  close(f);
}

// A route type whose routes append each record's text, on a line, to the
// file named by their WHERE field.
void copyOpen(const char*, const char* where, void*, void** data, int32_t* opened) {
  *data = const_cast<char*>(where);  // the route keeps its own copy of WHERE
  *opened = 1;
}
void copyPrint(void*, void* data, zar_svc_prolog* prolog, va_list args) {
  char text[16384];
  vsnprintf(text, sizeof text, prolog->format, args);
  if (FILE* f = fopen(static_cast<const char*>(data), "a")) {
    fprintf(f, "2000-01-01-00:00:00.000+00:00I----- 0x1 copy NOTICE wsc core f.cc 1 0x1 %s\n", text);
    fclose(f);
  }
}

const char kStanza[] = "[count]\ncounter = 0\n\n[after]\ngamma = 3\n";

struct AllocCase {
  const char* name;
  void (*prepare)(Run& run);
  Act act;
};

const AllocCase kAllocCases[] = {
    {"route-open", [](Run&) { initServiceability(); },
     [](Run& run, long, std::string*) {
       unsigned long st = route("TEXTFILE.3.10:" + run.file("a.%d.log") + ";UTF8FILE:" +
                                run.file("b.log") + ";XMLFILE:" + run.file("c.log") +
                                ";GOESTO:ERROR;NOSUCHROUTE:x;STDERR:");
       return st == 0 ? kOk : st == 0x106521F4 ? kDocumented : kWrong;
     }},
    {"print-text", [](Run& run) { routeTo("TEXTFILE:" + run.file("out")); },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false); }},
    {"print-utf8", [](Run& run) { routeTo("UTF8FILE:" + run.file("out")); },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false); }},
    {"print-xml", [](Run& run) { routeTo("XMLFILE:" + run.file("out")); },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, true); }},
    {"print-stderr",
     [](Run& run) {
       captureFd(run, 2);
       routeTo("STDERR:");
     },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false); }},
    {"print-xmlstdout",
     [](Run& run) {
       captureFd(run, 1);
       routeTo("XMLSTDOUT:");
     },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, true); }},
    {"print-goesto",
     [](Run& run) {
       routeTo("GOESTO:WARNING;DISCARD:");
       unsigned long st = 0;
       zar_svc_routing(("WARNING:TEXTFILE:" + run.file("out")).c_str(), &st);
     },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false); }},
    {"print-utf8-source", [](Run& run) { routeTo("TEXTFILE:" + run.file("out")); },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false, How::kUtf8); }},
    {"print-debug",
     [](Run& run) {
       initServiceability();
       unsigned long st = 0;
       zar_svc_debug_routing(("wsc:*.9:TEXTFILE:" + run.file("out")).c_str(), &st);
     },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false, How::kDebug); }},
    {"message-save", [](Run& run) { routeTo("TEXTFILE:" + run.file("out")); },
     [](Run& run, long attempt, std::string*) { return printAndFind(run, attempt, false, How::kSaved); }},
    {"route-type", [](Run&) { initServiceability(); },
     [](Run& run, long attempt, std::string*) {
       // A route type that copies each record into the file "out".
       unsigned long st = 0;
       zar_svc_add_route("COPY", &run, copyOpen, copyPrint, nullptr, &st);
       if (st != 0) return st == 0x106521F4 ? kDocumented : kWrong;
       st = route("COPY:" + run.file("out"));
       if (st != 0) return st == 0x106521F4 ? kDocumented : kWrong;
       return printAndFind(run, attempt, false);
     }},
    {"catalog-lookup",
     [](Run&) { setenv("NLSPATH", (zar::test::buildDir() + "/nls/msg/%L/%N").c_str(), 1); },
     [](Run&, long, std::string* result) {
       unsigned long st = 0;
       char* local = zar_msg_get_msg(0x38C5209C, &st);
       if (local == nullptr) return st == 0x10652203 ? kDocumented : kWrong;
       *result = local;
       free(local);
       char* german = zar_msg_get_locale_cat_msg(0x38C5209C, "de_DE.UTF-8", "UTF8", 4, &st);
       // Memory short while the catalog is opened: the open's own statuses.
       if (german == nullptr)
         return st == 0x10652203 || st == 0x10652206 || st == 0x10652208 ? kDocumented : kWrong;
       *result += german;
       free(german);
       return kOk;
     }},
    {"catalog-printf",
     [](Run&) { setenv("NLSPATH", (zar::test::buildDir() + "/nls/msg/%L/%N").c_str(), 1); },
     [](Run&, long, std::string* result) {
       char* text = zar_sprintf(0x38C5209C, "open", 2);
       if (text == nullptr) return kDocumented;
       *result = text;
       free(text);
       return kOk;
     }},
    {"zone-load", nullptr,
     [](Run&, long, std::string* result) {
       utc_t t;
       struct timespec when = {1719835200, 0}, inacc = {0, 0};  // 2024-07-01 12:00 UTC
       zar_utc_mkbintime(&t, &when, &inacc, 0);
       for (const char* tz : {"America/Sao_Paulo", "EST5EDT,M3.2.0,M11.1.0", "Europe/Berlin"}) {
         setenv("TZ", tz, 1);
         char name[16] = {};
         long tdf = 0;
         int isdst = 0;
         if (zar_utc_localzone(name, sizeof name - 1, &tdf, &isdst, &t) != 0) return kWrong;
         *result += named(name, tdf, isdst ? "+" : "-");
       }
       return kOk;
     }},
    {"printf-heap", nullptr,
     [](Run&, long, std::string* result) {
       char* out = nullptr;
       int n = zar_asprintf(&out, "%12$s %11$d %10$s %9$d %8$s %7$d %6$s %5$d %4$s %3$d %2$s %1$150.3f",
                            1.5, "b", 3, "d", 5, "f", 7, "h", 9, "j", 11, "l");
       if (n < 0) return out == nullptr ? kDocumented : kWrong;
       *result = out;
       zar_asprintf_free(out);
       return kOk;
     }},
    {"strings", nullptr,
     [](Run&, long, std::string* result) {
       ZARString s;
       for (int i = 0; i < 40; ++i)
         if (!s.append("0123456789") || !s.append('x')) return kDocumented;
       ZARString copy;
       if (!copy.set(s)) return kDocumented;
       int before = copy.getLen();
       if (!copy.append("abc", -1, ZARString::CONVERT_TO_UTF8)) return kDocumented;
       // A conversion that fails (its converter short of memory) adds nothing.
       if (copy.getLen() == before) return kDocumented;
       *result = copy.getData();
       return kOk;
     }},
    {"stanza-edit", [](Run& run) { zar::test::writeFile(run.file("s.conf"), kStanza); },
     [](Run& run, long, std::string* result) {
       // Each edit happens whole or not at all.
       std::string path = run.file("s.conf"), one = kStanza;
       one.replace(one.find("counter = 0"), 11, "counter = 7");
       std::string both = one + "added = x\n";
       uint32_t st = 0;
       zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
       if (f == nullptr) return st == ZAR_S_NO_MEMORY ? kDocumented : kWrong;
       bool ok = zarStzMoveEntry(f, "count", "counter") != 0;
       if (ok) zarStzChangeValue(f, "7");
       ok = ok && f->status == 0 && zarStzMoveStanza(f, "after") != 0;
       if (ok) zarStzAddEntry(f, "added", "x");
       ok = ok && f->status == 0;
       uint32_t failure = f->status;
       zarStzFileClose(f);
       *result = zar::test::readFile(path);
       if (ok) return *result == both ? kOk : kWrong;
       bool whole = *result == kStanza || *result == one || *result == both;
       // Memory short: no memory, a rewrite that failed, or a line that could
       // not be converted (the code-set handle could not be made).
       bool documented = failure == ZAR_S_NO_MEMORY || failure == ZAR_S_STZ_UPDATE_FAILED ||
                         failure == ZAR_S_STZ_INTERNAL;
       return whole && documented ? kDocumented : kWrong;
     }},
    {"stanza-memory", [](Run& run) { zar::test::writeFile(run.file("s.conf"), kStanza); },
     [](Run& run, long, std::string* result) {
       uint32_t st = 0;
       zarStzFile* f = zarStzFileOpen(run.file("s.conf").c_str(), ZAR_STZ_READ | ZAR_STZ_MEMORY, &st);
       if (f == nullptr) return st == ZAR_S_NO_MEMORY ? kDocumented : kWrong;
       for (zarStzMoveFirstStanza(f); f->stanzaName != nullptr; zarStzMoveNextStanza(f))
         for (zarStzMoveFirstEntry(f); f->entryName != nullptr; zarStzMoveNextEntry(f))
           *result += std::string(f->stanzaName) + "." + f->entryName + "=" + (f->value ? f->value : "") + ";";
       zarStzFileClose(f);
       // A load that a failure ended keeps what came before it (and logs it).
       return kPartial;
     }},
    {"uuid", nullptr,
     [](Run&, long, std::string*) {
       kp_uuid_t u, back;
       uint64_t st = 0;
       kp_uuid_create(&u, &st);
       if (st != 0) return st == ZAR_S_UUID_NO_ADDRESS || st == ZAR_S_UUID_NO_MEMORY ? kDocumented : kWrong;
       char* text = nullptr;
       kp_uuid_to_string(&u, &text, &st);
       if (text == nullptr) return st == ZAR_S_UUID_NO_MEMORY ? kDocumented : kWrong;
       kp_uuid_from_string(text, &back, &st);
       kp_uuid_string_free(&text, &st);
       return memcmp(&u, &back, sizeof u) == 0 ? kOk : kWrong;
     }},
    {"command-line",
     [](Run& run) { zar::test::writeFile(run.file("rsp.conf"), "[other]\nx = 1\n[opts]\nlevel = 3\nname = server\n"); },
     [](Run& run, long, std::string* result) {
       ZARCmdLine cmd;
       const char* argv[] = {"prog", "-a", "1", "-b", "-level", "9", "-c", "x"};
       unsigned st = cmd.initialize(8, argv);
       std::string path = run.file("rsp.conf");
       if (st == 0) st = cmd.loadRspFile(ZARStringRef(path.c_str()), ZARStringRef("opts"));
       // Memory short: no memory, or a line the stanza reader could not convert.
       if (st != 0) return st == ZAR_S_NO_MEMORY || st == ZAR_S_STZ_INTERNAL ? kDocumented : kWrong;
       for (const char* name : {"a", "b", "c", "level", "name"}) {
         ZARStringRef value;
         if (cmd.findOption(ZARString(name), value) != 0) return kWrong;
         *result += std::string(name) + "=" + std::string(value.getData(), value.getLen()) + ";";
       }
       *result += named("duplicates=", static_cast<long>(cmd.duplicateOptions().getCount()));
       return kOk;
     }},
    {"message-init", nullptr,
     [](Run&, long attempt, std::string*) {
       int ok = zarmsg_init("stress", 0);
       // A failed start-up is reported once; a later call counts it done.
       if (attempt == 1) return ok == 1 ? kOk : kWrong;
       return ok == 1 ? kOk : kDocumented;
     }},
};

// Runs act in a fresh child with allocation failAt (0: count only) armed,
// then once more unarmed. Returns the child's exit status.
int allocChild(Run& run, const AllocCase& c, long failAt, bool sticky) {
  return inChild(60, [&] {
    unlink(run.file("out").c_str());
    if (c.prepare != nullptr) c.prepare(run);
    std::string result;
    zar::fault::arm(Op::kAlloc, failAt, sticky, ENOMEM);
    int first = c.act(run, 0, &result);
    long calls = zar::fault::calls(Op::kAlloc);
    zar::fault::disarmAll();
    if (failAt == 0) {
      shared()->calls = calls;
      snprintf(shared()->reference, sizeof shared()->reference, "%s", result.c_str());
      return first == kOk || first == kPartial ? kFine : kWrongResult;
    }
    auto differs = [](const std::string& r) {
      return r.compare(0, sizeof(Shared::reference) - 1, shared()->reference) != 0;
    };
    if (first == kPartial)
      first = strncmp(shared()->reference, result.c_str(), result.size()) == 0 ? kDocumented : kWrong;
    if (first == kWrong || (first == kOk && differs(result))) return kWrongResult;
    std::string again;
    int next = c.act(run, 1, &again);
    if ((next != kOk && next != kPartial) || differs(again)) return kNotRecovered;
    if (leaks()) return kLeaked;
    return first == kDocumented ? kFineDocumented : kFine;
  });
}

// Item: every allocation of every case failed once, and from there on.
Scenario allocFaults("alloc-faults", [](Run& run) {
  shared();  // mapped before the first child, so that every child shares it
  long scenarios = 0, points = 0, documented = 0, crashed = 0, hung = 0, wrong = 0, unrecovered = 0, leaked = 0;
  for (const AllocCase& c : kAllocCases) {
    if (!run.wants(c.name)) continue;
    ++scenarios;
    int status = allocChild(run, c, 0, false);
    if (zar::test::exitCode(status) != kFine) {
      run.fail(std::string(c.name) + ": does not succeed without faults");
      continue;
    }
    long calls = shared()->calls;
    points += calls;
    for (bool sticky : {false, true}) {
      for (long k = 1; k <= calls; ++k) {
        int status = allocChild(run, c, k, sticky);
        int code = status == -1 ? -2 : zar::test::exitCode(status);
        documented += code == kFineDocumented;
        const char* what = code == kFine || code == kFineDocumented ? nullptr
                           : code == -2            ? (++hung, "hung")
                           : code == kWrongResult  ? (++wrong, "wrong result")
                           : code == kNotRecovered ? (++unrecovered, "next call failed")
                           : code == kLeaked       ? (++leaked, "leaked")
                                                   : (++crashed, "crashed");
        if (what != nullptr)
          run.fail(std::string(c.name) + named(": allocation ", k) + (sticky ? " on" : "") + ": " + what);
      }
    }
    fprintf(stderr, "alloc-faults: %s: %ld allocations\n", c.name, calls);
  }
  run.figure("scenarios", static_cast<double>(scenarios));
  run.figure("injection_points", static_cast<double>(points));
  run.figure("failed_as_documented", static_cast<double>(documented));
  run.faults("crashed", crashed);
  run.faults("leaked", leaked);
  run.faults("hung", hung);
  run.faults("wrong", wrong);
  run.faults("unrecovered", unrecovered);
#ifndef ZAR_STRESS_LEAK_CHECK
  run.fail("built without the leak sanitizer: leaks not checked");
#endif
});

// ---- I/O failures -----------------------------------------------------------------

// Records of one I/O case: 30 before the fault ("a"), 30 while it lasts
// ("f"), 30 after it cleared ("b"), each 20 to 300 bytes (one write each).
constexpr long kPhase = 30;

void printPhase(const char* key, std::mt19937_64& rng) {
  for (long n = 0; n < kPhase; ++n) printRecord(key, n, 20 + rng() % 281);
}

// Reads the log, its generations and the captured standard error; counts
// what each phase lost and whatever is torn or doubled. mayLose names the
// phases whose records the fault may cost.
std::string judgePhases(Run& run, const std::string& mayLose) {
  zar::test::RecordTally tally;
  tallyFile(run.file("io.log"), false, &tally);
  for (int g = 1; g <= 9; ++g) tallyFile(run.file(named("io.log.", g)), false, &tally);
  std::string err;
  for (const std::string& line : zar::test::splitLines(zar::test::readFile(run.file("err"))))
    if (line.compare(0, 5, "core/") != 0) err += line + "\n";
  zar::test::tallyTextRecords(err, zar::test::stressMarker(), &tally);
  zar::test::Loss loss = zar::test::judge(tally, {{"a", {0, kPhase}}, {"f", {0, kPhase}}, {"b", {0, kPhase}}});
  long lostHere = 0;
  for (const char* key : {"a", "f", "b"}) {
    if (mayLose.find(key) != std::string::npos) continue;
    const auto& seqs = tally.seqs[key];
    for (long n = 0; n < kPhase; ++n) lostHere += std::find(seqs.begin(), seqs.end(), n) == seqs.end();
  }
  // A record that the fault itself cut short (a file size limit stops a
  // write midway) is the fault's; any other torn record is not.
  long torn = static_cast<long>(tally.torn);
  std::string example;
  for (const std::string& b : tally.bad) {
    if (b.find(" @f:") != std::string::npos) --torn;
    else example = b;
  }
  std::string problems;
  if (torn != 0) problems += named("torn ", torn, " ") + example;
  if (loss.duplicated + loss.unexpected != 0) problems += named(" duplicated ", loss.duplicated + loss.unexpected);
  if (lostHere != 0) problems += named(" lost ", lostHere);
  return problems;
}

struct IoOp {
  const char* name;
  Op op;
  const char* mayLose;  // phases whose records the fault may cost
};

const IoOp kIoOps[] = {
    {"write", Op::kWrite, "f"},    // a failed write loses that record
    {"fflush", Op::kFlush, ""},    // the bytes stay buffered and go out later
    {"fcntl", Op::kFcntl, ""},     // output goes on without the file lock
    {"open", Op::kOpen, ""},       // the route writes to standard error instead
    {"rename", Op::kRename, "af"}, // the file is started afresh without its archive
};

// Item: each wrapped call failing with EIO, ENOSPC or EINTR, once or from
// its first or second call on, under a rotated file; then /dev/full and a
// file size limit. Records written once the fault is gone must all be fine.
Scenario ioFaults("io-faults", [](Run& run) {
  long cases = 0, crashed = 0, hung = 0, wrong = 0;
  auto runCase = [&](const std::string& name, const std::function<std::string()>& body) {
    if (!run.wants(name)) return;
    ++cases;
    int status = inChild(60, [&] {
      for (const char* f : {"io.log", "err"}) unlink(run.file(f).c_str());
      for (int g = 1; g <= 9; ++g) unlink(run.file(named("io.log.", g)).c_str());
      captureFd(run, 2, "err");
      std::string problems = body();
      if (!problems.empty()) zar::test::writeFile(run.file("problems"), problems);
      return problems.empty() ? 0 : kWrongResult;
    });
    int code = status == -1 ? -2 : zar::test::exitCode(status);
    if (code == 0) return;
    if (code == -2) ++hung;
    else if (code == kWrongResult) ++wrong;
    else ++crashed;
    run.fail(name + (code == -2 ? ": hung" : code == kWrongResult ? ": " + zar::test::readFile(run.file("problems")) : ": crashed"));
  };
  const std::string rotated = "TEXTFILE.9.20:" + run.file("io.log");
  for (const IoOp& io : kIoOps) {
    for (int err : {EIO, ENOSPC, EINTR}) {
      for (long failAt : {1, 2}) {
        for (bool sticky : {false, true}) {
          if (sticky && err == EINTR) continue;  // an interrupted call is retried; a signal storm is not modelled
          runCase(std::string(io.name) + " " + strerror(err) + named(" at ", failAt) + (sticky ? " on" : ""), [&] {
            std::mt19937_64 rng(static_cast<uint64_t>(failAt));
            initServiceability();
            route(rotated);
            printPhase("a", rng);
            zar::fault::arm(io.op, failAt, sticky, err);
            printPhase("f", rng);
            zar::fault::disarmAll();
            if (io.op == Op::kOpen) route(rotated);  // a route that fell back is set again
            printPhase("b", rng);
            return judgePhases(run, io.mayLose);
          });
        }
      }
    }
  }
  // The rewrite of a stanza edit: its temporary file cannot be made, or its
  // writes or reads fail. The file stays as it was, and the next edit works.
  // Reads fail once only: undoing a failed rewrite reads the saved copy back.
  for (Op op : {Op::kOpen, Op::kWrite, Op::kRead}) {
    for (int err : {EIO, ENOSPC, EINTR}) {
      for (long failAt : {1, 2}) {
        bool sticky = err != EINTR && op != Op::kRead;
        const char* opName = op == Op::kOpen ? "temporary file" : op == Op::kWrite ? "write" : "read";
        runCase(std::string("stanza rewrite, ") + opName + " " + strerror(err) + named(" at ", failAt) +
                    (sticky ? " on" : ""), [&] {
          std::string path = run.file("s.conf"), edited = kStanza;
          edited.replace(edited.find("counter = 0"), 11, "counter = 7");
          zar::test::writeFile(path, kStanza);
          uint32_t st = 0;
          zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
          if (f == nullptr || zarStzMoveEntry(f, "count", "counter") == 0) return std::string("no record");
          zar::fault::arm(op, failAt, sticky, err);
          zarStzChangeValue(f, "7");
          uint32_t first = f->status;
          zar::fault::disarmAll();
          std::string now = zar::test::readFile(path), problems;
          bool fine = first == 0 ? now == edited
                                 : (now == kStanza && first == ZAR_S_STZ_UPDATE_FAILED) ||
                                       (first == ZAR_S_STZ_READ_FAILED && (now == kStanza || now == edited));
          if (!fine) problems = named("status 0x", static_cast<long>(first)) + ", file:\n" + now;
          if (zarStzMoveEntry(f, "count", "counter") != 0) zarStzChangeValue(f, "7");
          if (f->status != 0 || zar::test::readFile(path) != edited) problems += " next edit failed";
          zarStzFileClose(f);
          return problems;
        });
      }
    }
  }
  runCase("/dev/full", [&] {
    std::mt19937_64 rng(1);
    initServiceability();
    route(rotated);
    printPhase("a", rng);
    route("TEXTFILE:/dev/full");
    printPhase("f", rng);
    route(rotated);
    printPhase("b", rng);
    return judgePhases(run, "f");
  });
  runCase("file size limit", [&] {
    std::mt19937_64 rng(1);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    initServiceability();
    route("TEXTFILE:" + run.file("io.log"));
    printPhase("a", rng);
    struct stat st;
    stat(run.file("io.log").c_str(), &st);
    struct rlimit small = {static_cast<rlim_t>(st.st_size) + 2000, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    printPhase("f", rng);
    setrlimit(RLIMIT_FSIZE, &old);
    printPhase("b", rng);
    return judgePhases(run, "f");
  });
  run.figure("cases", static_cast<double>(cases));
  run.faults("crashed", crashed);
  run.faults("hung", hung);
  run.faults("wrong", wrong);
});

}  // namespace
}  // namespace zar::stress
