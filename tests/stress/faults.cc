// Allocation failure on every path and I/O failure of every wrapped system
// call, each injection in a fresh child of fork: a case acts once with the
// fault armed, then once more without it; the second act must succeed.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/faultinj.h"
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
// false, a lost or degraded record), or did something else.
constexpr int kOk = 0, kDocumented = 1, kWrong = 2;

// Exit codes of a case's child; anything else (a signal, a sanitizer report)
// is a crash.
enum ChildExit { kFine, kFineDocumented = 9, kWrongResult, kNotRecovered, kLeaked };

// Child results, through a page shared with the driver: the allocations of
// a case and its result without faults, or the problems of an I/O case.
struct Shared {
  long calls;
  char text[8192];
};
Shared* shared() {
  static auto* page = static_cast<Shared*>(sharedMemory(sizeof(Shared)));
  return page;
}
void keep(const std::string& text) {
  snprintf(shared()->text, sizeof shared()->text, "%s", text.c_str());
}

// Runs body in a fresh child of fork. A fault its end shows (crashed, hung,
// wrong, unrecovered, leaked) is counted and fails the line, described by
// the child's text with detailed. Returns the exit code (-1: hung).
int inCase(Run& run, std::map<std::string, long>* faults, const std::string& name, bool detailed,
           const std::function<int()>& body) {
  static const char* const kNames[] = {"wrong", "unrecovered", "leaked"};
  int status = inChild(60, body), code = status == -1 ? -1 : zar::test::exitCode(status);
  const char* f = code == -1                                 ? "hung"
                  : code == kFine || code == kFineDocumented ? nullptr
                  : code >= kWrongResult && code <= kLeaked  ? kNames[code - kWrongResult]
                                                             : "crashed";
  if (f != nullptr) {
    ++(*faults)[f];
    run.fail(name + ": " + (detailed && code == kWrongResult ? shared()->text : f));
  }
  return code;
}

bool leaks() {
#ifdef ZAR_STRESS_LEAK_CHECK
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

void captureFd(Run& run, int fd, const char* name) {
  int f = open(run.file(name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(f, fd);
  close(f);
}

// A file's records without the failures the library reports on its raw
// diagnostic path ("core/...: text"), which may share standard error.
std::string recordsOf(const std::string& path) {
  std::string text;
  for (const std::string& line : zar::test::splitLines(zar::test::readFile(path)))
    if (line.compare(0, 5, "core/") != 0) text += line + "\n";
  return text;
}

const char kStanza[] = "[count]\ncounter = 0\n\n[after]\ngamma = 3\n";
std::string edited(const std::string& from = kStanza) {
  std::string s = from;
  return s.replace(s.find("counter = 0"), 11, "counter = 7");
}

// How a print case prints: from the local code set or UTF-8, a debug
// message, through the message save, or to a route type added in the act.
enum class How { kLocal, kUtf8, kDebug, kSaved, kRouteType };

// An allocation case: a print case (routes set, @ standing for the file
// "out"), or an act of its own after prepare.
struct AllocCase {
  const char* name;
  const char* routes = nullptr;
  How how = How::kLocal;
  void (*prepare)(Run& run) = nullptr;
  int (*act)(Run& run, long attempt,
             std::string* result) = nullptr;  // attempt 0 runs with the fault armed
};

std::string routesOf(Run& run, const AllocCase& c) {
  std::string routes = c.routes;
  size_t out = routes.find('@');
  return out == std::string::npos ? routes : routes.replace(out, 1, run.file("out"));
}

void preparePrint(Run& run, const AllocCase& c) {
  std::string routes = routesOf(run, c);
  if (routes == "STDERR:") captureFd(run, 2, "out");
  if (routes == "XMLSTDOUT:") captureFd(run, 1, "out");
  initServiceability();
  unsigned long st = 0;
  if (c.how == How::kDebug)
    zar_svc_debug_routing(routes.c_str(), &st);
  else if (c.how != How::kRouteType)
    st = route(routes);
  if (routes.compare(0, 7, "GOESTO:") == 0)
    zar_svc_routing(("WARNING:TEXTFILE:" + run.file("out")).c_str(), &st);
  if (st != 0) fprintf(stderr, "route %s: status 0x%lx\n", routes.c_str(), st);
}

// Stress bodies, and the documented degraded records: "Unknown message"
// for a text that could not be had, empty where formatting failed.
int recordMarker(std::string_view text, std::string* key, long* seq) {
  int r = zar::test::stressMarker()(text, key, seq);
  if (r != 0) return r;
  if (!text.empty() && text.rfind("Unknown message 0x38c5209c", 0) != 0) return 0;
  *key = "degraded";
  *seq = 0;
  return 1;
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
    fprintf(f, "2000-01-01-00:00:00.000+00:00I----- 0x1 copy NOTICE wsc core f.cc 1 0x1 %s\n",
            text);
    fclose(f);
  }
}

// Prints a small and a large record and reads them back: both present once,
// or lost or degraded (documented); anything torn is wrong.
int printAndFind(Run& run, const AllocCase& c, long attempt) {
  if (c.how == How::kRouteType) {
    unsigned long st = 0;
    zar_svc_add_route("COPY", &run, copyOpen, copyPrint, nullptr, &st);
    if (st == 0) st = route(routesOf(run, c));
    if (st != 0) return st == 0x106521F4 ? kDocumented : kWrong;
  }
  if (c.how == How::kSaved && zar_svc_msgsave_start(0, 0, nullptr) != 0) return kDocumented;
  for (size_t len : {100, 9000}) {
    std::string body = zar::test::stressBody("k", attempt, len);
    if (c.how == How::kUtf8)
      zar_svc_printf_cs_withfile(zarsv_client_svc_handle, zarsvc_get_utf8_code_page(), "f.cc", 1,
                                 "%s%d", 0, svc_c_sev_notice, 0x38C5209C, body.c_str(), 0);
    else if (c.how == How::kDebug)
      zar_svc__debug_withfile(zarsv_client_svc_handle, "f.cc", 1, 0, 1, "%s", body.c_str());
    else
      zar_svc_printf_withfile(zarsv_client_svc_handle, "f.cc", 1, "%s%d", 0, svc_c_sev_notice,
                              0x38C5209C, body.c_str(), 0);
  }
  if (c.how == How::kSaved) {
    zar_svc_msgsave_print(-1);
    zar_svc_msgsave_stop(1);
  }
  zar::test::RecordTally tally;
  (strstr(c.routes, "XML") ? zar::test::tallyXmlRecords : zar::test::tallyTextRecords)(
      recordsOf(run.file("out")), recordMarker, &tally);
  long found = std::count(tally.seqs["k"].begin(), tally.seqs["k"].end(), attempt);
  return tally.torn != 0 || found > 2 ? kWrong : found == 2 ? kOk : kDocumented;
}

int documentedIf(bool documented) {
  return documented ? kDocumented : kWrong;
}
// A text made by the library: its result, or documented when there is none.
int take(char* text, std::string* result) {
  if (text == nullptr) return kDocumented;
  *result += text;
  free(text);
  return kOk;
}
void useCatalogs(Run&) {
  setenv("NLSPATH", (zar::test::buildDir() + "/nls/msg/%L/%N").c_str(), 1);
}
void writeStanza(Run& run) {
  zar::test::writeFile(run.file("s.conf"), kStanza);
}

const AllocCase kAllocCases[] = {
    {"route-open", nullptr, How::kLocal, [](Run&) { initServiceability(); },
     [](Run& run, long, std::string*) {
       unsigned long st =
           route("TEXTFILE.3.10:" + run.file("a.%d.log") + ";UTF8FILE:" + run.file("b.log") +
                 ";XMLFILE:" + run.file("c.log") + ";GOESTO:ERROR;NOSUCHROUTE:x;STDERR:");
       return st == 0 ? kOk : documentedIf(st == 0x106521F4);
     }},
    {"print-text", "TEXTFILE:@"},
    {"print-utf8", "UTF8FILE:@"},
    {"print-xml", "XMLFILE:@"},
    {"print-stderr", "STDERR:"},
    {"print-xmlstdout", "XMLSTDOUT:"},
    {"print-goesto", "GOESTO:WARNING;DISCARD:"},
    {"print-utf8-source", "TEXTFILE:@", How::kUtf8},
    {"print-debug", "wsc:*.9:TEXTFILE:@", How::kDebug},
    {"message-save", "TEXTFILE:@", How::kSaved},
    {"route-type", "COPY:@", How::kRouteType},
    {"catalog-lookup", nullptr, How::kLocal, useCatalogs,
     [](Run&, long, std::string* result) {
       unsigned long st = 0;
       char* local = zar_msg_get_msg(0x38C5209C, &st);
       if (local == nullptr) return documentedIf(st == 0x10652203);
       take(local, result);
       char* german = zar_msg_get_locale_cat_msg(0x38C5209C, "de_DE.UTF-8", "UTF8", 4, &st);
       // Memory short while the catalog is opened: the open's own statuses.
       return german != nullptr
                  ? take(german, result)
                  : documentedIf(st == 0x10652203 || st == 0x10652206 || st == 0x10652208);
     }},
    {"catalog-printf", nullptr, How::kLocal, useCatalogs,
     [](Run&, long, std::string* result) {
       return take(zar_sprintf(0x38C5209C, "open", 2), result);
     }},
    {"zone-load", nullptr, How::kLocal, nullptr,
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
    {"printf-heap", nullptr, How::kLocal, nullptr,
     [](Run&, long, std::string* result) {
       char* out = nullptr;
       int n =
           zar_asprintf(&out, "%12$s %11$d %10$s %9$d %8$s %7$d %6$s %5$d %4$s %3$d %2$s %1$150.3f",
                        1.5, "b", 3, "d", 5, "f", 7, "h", 9, "j", 11, "l");
       if (n < 0) return documentedIf(out == nullptr);
       *result = out;
       zar_asprintf_free(out);
       return kOk;
     }},
    {"strings", nullptr, How::kLocal, nullptr,
     [](Run&, long, std::string* result) {
       ZARString s, copy;
       for (int i = 0; i < 40; ++i)
         if (!s.append("0123456789") || !s.append('x')) return kDocumented;
       int before = s.getLen();
       // A conversion that fails (its converter short of memory) adds nothing.
       if (!copy.set(s) || !copy.append("abc", -1, ZARString::CONVERT_TO_UTF8) ||
           copy.getLen() == before)
         return kDocumented;
       *result = copy.getData();
       return kOk;
     }},
    {"stanza-edit", nullptr, How::kLocal, writeStanza,
     [](Run& run, long, std::string* result) {
       // Each edit happens whole or not at all.
       std::string path = run.file("s.conf"), one = edited(), both = one + "added = x\n";
       uint32_t st = 0;
       zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
       if (f == nullptr) return documentedIf(st == ZAR_S_NO_MEMORY);
       if (zarStzMoveEntry(f, "count", "counter") != 0) zarStzChangeValue(f, "7");
       if (f->status == 0 && zarStzMoveStanza(f, "after") != 0) zarStzAddEntry(f, "added", "x");
       uint32_t failure = f->status;
       zarStzFileClose(f);
       *result = zar::test::readFile(path);
       if (failure == 0) return *result == both ? kOk : kWrong;
       // Memory short: no memory, a rewrite that failed, or a line that could
       // not be converted (the code-set handle could not be made).
       return documentedIf((*result == kStanza || *result == one || *result == both) &&
                           (failure == ZAR_S_NO_MEMORY || failure == ZAR_S_STZ_UPDATE_FAILED ||
                            failure == ZAR_S_STZ_INTERNAL));
     }},
    {"uuid", nullptr, How::kLocal, nullptr,
     [](Run&, long, std::string*) {
       kp_uuid_t u, back;
       uint64_t st = 0;
       kp_uuid_create(&u, &st);
       if (st != 0) return documentedIf(st == ZAR_S_UUID_NO_ADDRESS || st == ZAR_S_UUID_NO_MEMORY);
       char* text = nullptr;
       kp_uuid_to_string(&u, &text, &st);
       if (text == nullptr) return documentedIf(st == ZAR_S_UUID_NO_MEMORY);
       kp_uuid_from_string(text, &back, &st);
       kp_uuid_string_free(&text, &st);
       return memcmp(&u, &back, sizeof u) == 0 ? kOk : kWrong;
     }},
    {"command-line", nullptr, How::kLocal,
     [](Run& run) {
       zar::test::writeFile(run.file("rsp.conf"),
                            "[other]\nx = 1\n[opts]\nlevel = 3\nname = server\n");
     },
     [](Run& run, long, std::string* result) {
       ZARCmdLine cmd;
       const char* argv[] = {"prog", "-a", "1", "-b", "-level", "9", "-c", "x"};
       unsigned st = cmd.initialize(8, argv);
       std::string path = run.file("rsp.conf");
       if (st == 0) st = cmd.loadRspFile(ZARStringRef(path.c_str()), ZARStringRef("opts"));
       // Memory short: no memory, or a line the stanza reader could not convert.
       if (st != 0) return documentedIf(st == ZAR_S_NO_MEMORY || st == ZAR_S_STZ_INTERNAL);
       for (const char* name : {"a", "b", "c", "level", "name"}) {
         ZARStringRef value;
         if (cmd.findOption(ZARString(name), value) != 0) return kWrong;
         *result += std::string(name) + "=" + std::string(value.getData(), value.getLen()) + ";";
       }
       *result += named("duplicates=", cmd.duplicateOptions().getCount());
       return kOk;
     }},
    {"message-init", nullptr, How::kLocal, nullptr,
     [](Run&, long attempt, std::string*) {
       // A failed start-up is reported once; a later call counts it done.
       return zarmsg_init("stress", 0) == 1 ? kOk : attempt == 1 ? kWrong : kDocumented;
     }},
};

// A case's child: its act with allocation failAt (0: count only) armed,
// then once more unarmed.
int allocCase(Run& run, const AllocCase& c, long failAt, bool sticky) {
  unlink(run.file("out").c_str());
  if (c.routes != nullptr) preparePrint(run, c);
  if (c.prepare != nullptr) c.prepare(run);
  auto act = [&](long attempt, std::string* result) {
    return c.routes != nullptr ? printAndFind(run, c, attempt) : c.act(run, attempt, result);
  };
  std::string result, again;
  zar::fault::arm(Op::kAlloc, failAt, sticky, ENOMEM);
  int first = act(0, &result);
  long calls = zar::fault::calls(Op::kAlloc);
  zar::fault::disarmAll();
  if (failAt == 0) {
    shared()->calls = calls;
    keep(result);
    return first == kOk ? kFine : kWrongResult;
  }
  auto differs = [](const std::string& r) {
    return r.compare(0, sizeof(Shared::text) - 1, shared()->text) != 0;
  };
  if (first == kWrong || (first == kOk && differs(result))) return kWrongResult;
  int next = act(1, &again);
  if (next != kOk || differs(again)) return kNotRecovered;
  if (leaks()) return kLeaked;
  return first == kDocumented ? kFineDocumented : kFine;
}

Scenario allocFaults("alloc-faults", [](Run& run) {
  shared();  // mapped before the first child, so that every child shares it
  long scenarios = 0, points = 0, documented = 0;
  std::map<std::string, long> faults;
  for (const AllocCase& c : kAllocCases) {
    if (!run.wants(c.name) || ++scenarios == 0) continue;
    if (inCase(run, &faults, std::string(c.name) + " without faults", false,
               [&] { return allocCase(run, c, 0, false); }) != kFine)
      continue;
    long calls = shared()->calls;
    points += calls;
    for (bool sticky : {false, true})
      for (long k = 1; k <= calls; ++k)
        documented +=
            inCase(run, &faults, c.name + named(": allocation ", k, sticky ? " on" : ""), false,
                   [&] { return allocCase(run, c, k, sticky); }) == kFineDocumented;
    fprintf(stderr, "alloc-faults: %s: %ld allocations\n", c.name, calls);
  }
  run.figure("scenarios", scenarios);
  run.figure("injection_points", points);
  run.figure("failed_as_documented", documented);
  for (const char* f : {"crashed", "leaked", "hung", "wrong", "unrecovered"})
    run.faults(f, faults[f]);
#ifndef ZAR_STRESS_LEAK_CHECK
  run.fail("built without the leak sanitizer: leaks not checked");
#endif
});

// Prints 30 records (one write each) before the fault ("a"), while it lasts
// ("f", from begin to end) and after ("b"); returns what the log, its
// generations and standard error lost (but in the phases of mayLose), tore
// (but a record of "f" that a file size limit cut short) or doubled.
std::string phases(Run& run, const std::string& routes, const std::function<void()>& begin,
                   const std::function<void()>& end, const std::string& mayLose) {
  constexpr long kPhase = 30;
  std::mt19937_64 rng(1);  // fixed lengths: the file size limit cuts a body, which names its phase
  initServiceability();
  route(routes);
  for (const char* key : {"a", "f", "b"}) {
    if (*key == 'f') begin();
    for (long n = 0; n < kPhase; ++n) printRecord(key, n, 20 + rng() % 281);
    if (*key == 'f') end();
  }
  zar::test::RecordTally tally;
  tallyFile(run.file("io.log"), false, &tally);
  for (int g = 1; g <= 9; ++g) tallyFile(run.file(named("io.log.", g)), false, &tally);
  zar::test::tallyTextRecords(recordsOf(run.file("err")), zar::test::stressMarker(), &tally);
  zar::test::Loss loss =
      zar::test::judge(tally, {{"a", {0, kPhase}}, {"f", {0, kPhase}}, {"b", {0, kPhase}}});
  long lost = 0, torn = tally.torn;
  for (const char* key : {"a", "f", "b"}) {
    const auto& seqs = tally.seqs[key];
    for (long n = 0; mayLose.find(key) == std::string::npos && n < kPhase; ++n)
      lost += std::find(seqs.begin(), seqs.end(), n) == seqs.end();
  }
  std::string example, problems;
  for (const std::string& b : tally.bad) {
    if (b.find(" @f:") != std::string::npos)
      --torn;
    else
      example = b;
  }
  if (torn != 0) problems += named("torn ", torn, " ") + example;
  if (loss.duplicated + loss.unexpected != 0)
    problems += named(" duplicated ", loss.duplicated + loss.unexpected);
  if (lost != 0) problems += named(" lost ", lost);
  return problems;
}

// A stanza edit whose rewrite fails: status 0x38C520AD and the file as it
// was (a failed read of the saved copy may leave it edited), and the next
// edit works.
std::string stanzaRewrite(Run& run, Op op, long failAt, bool sticky, int err) {
  std::string path = run.file("s.conf"), problems;
  zar::test::writeFile(path, kStanza);
  uint32_t st = 0;
  zarStzFile* f = zarStzFileOpen(path.c_str(), ZAR_STZ_WRITE, &st);
  if (f == nullptr || zarStzMoveEntry(f, "count", "counter") == 0) return "no record";
  zar::fault::arm(op, failAt, sticky, err);
  zarStzChangeValue(f, "7");
  uint32_t first = f->status;
  zar::fault::disarmAll();
  std::string now = zar::test::readFile(path);
  if (first == 0 ? now != edited()
                 : !(now == kStanza && first == ZAR_S_STZ_UPDATE_FAILED) &&
                       !(first == ZAR_S_STZ_READ_FAILED && (now == kStanza || now == edited())))
    problems = "status " + std::to_string(first) + ", file:\n" + now;
  if (zarStzMoveEntry(f, "count", "counter") != 0) zarStzChangeValue(f, "7");
  if (f->status != 0 || zar::test::readFile(path) != edited()) problems += " next edit failed";
  zarStzFileClose(f);
  return problems;
}

// Wrapped calls failed under a rotated log, and in a stanza rewrite.
struct IoCase {
  const char* name;
  Op op;
  const char* mayLose;  // null: a stanza edit
};
const IoCase kIoCases[] = {
    {"write", Op::kWrite, "f"},     // a failed write loses that record
    {"fflush", Op::kFlush, ""},     // the bytes stay buffered and go out later
    {"fcntl", Op::kFcntl, ""},      // output goes on without the file lock
    {"open", Op::kOpen, ""},        // the route writes to standard error instead
    {"rename", Op::kRename, "af"},  // the file is started afresh without its archive
    {"stanza rewrite, temporary file", Op::kOpen, nullptr},
    {"stanza rewrite, write", Op::kWrite, nullptr},
    {"stanza rewrite, read", Op::kRead, nullptr},
    {"stanza rewrite, fsync", Op::kFsync, nullptr},
    {"stanza rewrite, truncate", Op::kTruncate, nullptr},
};

Scenario ioFaults("io-faults", [](Run& run) {
  shared();
  long cases = 0;
  std::map<std::string, long> faults;
  auto runCase = [&](const std::string& name, const std::function<std::string()>& body) {
    if (!run.wants(name) || ++cases == 0) return;
    inCase(run, &faults, name, true, [&] {
      for (int g = 0; g <= 9; ++g) unlink(run.file(named("io.log.", g)).c_str());
      for (const char* f : {"io.log", "err"}) unlink(run.file(f).c_str());
      captureFd(run, 2, "err");
      std::string problems = body();
      keep(problems);
      return problems.empty() ? kFine : kWrongResult;
    });
  };
  const std::string rotated = "TEXTFILE.9.20:" + run.file("io.log");
  for (const IoCase& io : kIoCases) {
    for (int k = 0; k < 12; ++k) {  // EIO, ENOSPC, EINTR x at the first or second call x once, on
      int err = k < 4 ? EIO : k < 8 ? ENOSPC : EINTR;
      long failAt = 1 + k / 2 % 2;
      bool sticky = k % 2 != 0;
      // An interrupted call is retried (a storm of signals is not modelled);
      // undoing a failed stanza rewrite reads the journal back and
      // truncates, so reads and truncations fail once only.
      if (sticky && (err == EINTR || io.op == Op::kRead || io.op == Op::kTruncate)) continue;
      runCase(
          std::string(io.name) + " " + strerror(err) + named(" at ", failAt, sticky ? " on" : ""),
          [&] {
            if (io.mayLose == nullptr) return stanzaRewrite(run, io.op, failAt, sticky, err);
            auto end = [&] {
              zar::fault::disarmAll();
              if (io.op == Op::kOpen) route(rotated);  // a route that fell back is set again
            };
            return phases(
                run, rotated, [&] { zar::fault::arm(io.op, failAt, sticky, err); }, end,
                io.mayLose);
          });
    }
  }
  runCase("/dev/full", [&] {
    return phases(
        run, rotated, [] { route("TEXTFILE:/dev/full"); }, [&] { route(rotated); }, "f");
  });
  runCase("file size limit", [&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    auto limit = [&] {
      struct stat st;
      stat(run.file("io.log").c_str(), &st);
      struct rlimit small = {static_cast<rlim_t>(st.st_size) + 2000, old.rlim_max};
      setrlimit(RLIMIT_FSIZE, &small);
    };
    auto unlimit = [&] { setrlimit(RLIMIT_FSIZE, &old); };
    return phases(run, "TEXTFILE:" + run.file("io.log"), limit, unlimit, "f");
  });
  run.figure("cases", cases);
  for (const char* f : {"crashed", "hung", "wrong"}) run.faults(f, faults[f]);
});

}  // namespace
}  // namespace zar::stress
