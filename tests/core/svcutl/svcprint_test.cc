// The printing pipeline through the public interface: default routes, every
// route kind, record forms, attributes and actions, routing precedence, log
// files (rotation, generations, sharing, fork), code-set conversion and XML
// records checked with xmllint.
//
// The serviceability keeps process-wide state (filled route lists, saved
// settings), so each scenario runs in a child process of its own with its
// standard output and error captured; the test process itself only
// registers components.
#include <fcntl.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>

#include "core/svcutl/svcint.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::exitCode;
using zar::test::fileExists;
using zar::test::readFile;
using zar::test::runInChild;
using zar::test::TempDir;
using zar::test::writeFile;

constexpr uint32_t kNoMemory = 0x38C52097;    // XKJSC0151E, no arguments
constexpr uint32_t kSysFailed = 0x38C5209C;   // XKJSC0156E   The %s ... code: %d
constexpr uint32_t kParamNeeded = 0x38C5209F; // XKJSC0159E, three %s
constexpr uint32_t kTraceLevel = 0x38C5213A;  // "Trace Level: %d"

const char kTime[] = R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\dI-----)";
const char kThread[] = "0x[0-9a-f]{8,}";

class SvcPrint : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("SVC_NOXPGCAT", "1", 1);
    unsetenv("KP_SVC_ROUTING_FILE");
    for (const char* v : {"SVC_FATAL", "SVC_ERROR", "SVC_WARNING", "SVC_NOTICE",
                          "SVC_NOTICE_VERBOSE", "SVC_BRIEF"})
      unsetenv(v);
    unsigned long st = 0;
    zar_svc_init(0, &st);
  }

  struct Output {
    int status;
    std::string out;
    std::string err;
  };

  // Runs body in a child process with its standard output and error captured.
  Output inChild(const std::function<void()>& body) {
    std::string outPath = dir_.file("stdout");
    std::string errPath = dir_.file("stderr");
    int status = runInChild([&] {
      int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(o, 1);
      dup2(e, 2);
      close(o);
      close(e);
      body();
      return 0;
    });
    return {status, readFile(outPath), readFile(errPath)};
  }

  // "@" in a route string stands for the test's directory.
  std::string at(std::string text) const {
    for (size_t p; (p = text.find('@')) != std::string::npos;) text.replace(p, 1, dir_.path());
    return text;
  }
  void route(const std::string& setting) {
    unsigned long st = 1;
    zar_svc_routing(at(setting).c_str(), &st);
    EXPECT_EQ(0u, st) << setting;
  }

  TempDir dir_;
};

void printError(uint32_t attributes = svc_c_sev_error) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "core/app/server.cc", 412, "", 0, attributes,
                          kNoMemory);
}
void printSys(uint32_t attributes, const char* routine, int code, uint32_t sub = 1) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "server.cc", 7, "%s%d", sub, attributes,
                          kSysFailed, routine, code);
}

std::string textRecord(const char* sev, const char* sub, const char* file, int line,
                       const char* sep, const char* text, uint32_t msgid = kNoMemory) {
  char id[16];
  snprintf(id, sizeof id, "0x%8.8X", msgid);
  return std::string(kTime) + " " + id + R"( PID#\d+ )" + sev + " wsc " + sub + " " + file + " " +
         std::to_string(line) + " " + kThread + sep + text + "\n";
}

bool matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

// ---- Default routes -------------------------------------------------------------

struct DefaultCase {
  uint32_t attributes;
  const char* sev;  // null: written nowhere
};
class SvcDefaultRoute : public SvcPrint, public ::testing::WithParamInterface<DefaultCase> {};

TEST_P(SvcDefaultRoute, ErrorsAndWarningsReachStandardErrorNoticesNowhere) {
  Output o = inChild([] { printError(GetParam().attributes); });
  EXPECT_EQ("", o.out);
  if (GetParam().sev == nullptr) {
    EXPECT_EQ("", o.err);
  } else {
    EXPECT_TRUE(matches(o.err, textRecord(GetParam().sev, "core", "server.cc", 412, "\n",
                                          R"(XKJSC0151E   Memory could not be allocated\.)")))
        << o.err;
  }
}
INSTANTIATE_TEST_SUITE_P(Table, SvcDefaultRoute,
                         ::testing::Values(DefaultCase{svc_c_sev_fatal, "FATAL"},
                                           DefaultCase{svc_c_sev_error, "ERROR"},
                                           DefaultCase{svc_c_sev_warning, "WARNING"},
                                           DefaultCase{svc_c_sev_notice, nullptr},
                                           DefaultCase{svc_c_sev_notice_verbose, nullptr}));

// ---- Every route kind --------------------------------------------------------------

enum Where { kNowhere, kOut, kErr, kFile };
enum Form { kTwoLines, kOneLine, kXml };
struct KindCase {
  const char* routes;  // for WARNING; "@" is the test directory
  Where where;
  Form form;
  friend void PrintTo(const KindCase& c, std::ostream* os) { *os << c.routes; }
};
class SvcRouteKind : public SvcPrint, public ::testing::WithParamInterface<KindCase> {};

TEST_P(SvcRouteKind, WritesItsForm) {
  const KindCase& c = GetParam();
  Output o = inChild([&] {
    route(std::string("WARNING:") + c.routes);
    printSys(svc_c_sev_warning, "open", 2);
  });
  std::string file = fileExists(dir_.file("log")) ? readFile(dir_.file("log")) : "";
  const std::string& got = c.where == kOut ? o.out : c.where == kErr ? o.err : file;
  const char* text = "XKJSC0156E   The open system routine failed: system error code: 2";
  std::string pattern;
  if (c.form == kXml) {
    pattern = std::string(R"(<Message Id="XKJSC0156E" Severity="ERROR">\n <Time Millis="\d+">)") +
              R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}</Time>\n <Component>wsc/admin</Component>\n)" +
              R"( <LogAttribs><KeyName><!\[CDATA\[Message Number\]\]></KeyName> )" +
              R"(<Value><!\[CDATA\[0x38C5209C\]\]></Value></LogAttribs>\n)" +
              R"( <Source FileName="server.cc" Method="unknown" Line="7"></Source>\n)" +
              R"( <Process>PID#\d+</Process>\n <Thread>)" + kThread + "</Thread>\n" +
              R"( <TranslationInfo Type="XPG4" Catalog="kpwsc.cat" SetId="1" MsgKey="38c5209c">\n)" +
              R"(  <Param><!\[CDATA\[open\]\]></Param>\n  <Param><!\[CDATA\[2\]\]></Param>\n)" +
              R"( </TranslationInfo>\n <LogText><!\[CDATA\[)" + text +
              R"( \]\]></LogText>\n</Message>\n\n)";
  } else {
    pattern = textRecord("WARNING", "admin", "server.cc", 7, c.form == kTwoLines ? "\n" : " ",
                         text, kSysFailed);
  }
  if (c.where == kNowhere) {
    EXPECT_EQ("", o.err);
  } else {
    EXPECT_TRUE(matches(got, pattern)) << got;
  }
  // Nothing anywhere else.
  if (c.where != kOut) {
    EXPECT_EQ("", o.out);
  }
  if (c.where != kErr) {
    EXPECT_EQ("", o.err);
  }
  if (c.where != kFile) {
    EXPECT_EQ("", file);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SvcRouteKind,
    ::testing::Values(KindCase{"STDOUT:", kOut, kTwoLines}, KindCase{"STDERR:", kErr, kTwoLines},
                      KindCase{"TEXTFILE:@/log", kFile, kOneLine},
                      KindCase{"FILE:@/log", kFile, kOneLine},
                      KindCase{"UTF8FILE:@/log", kFile, kOneLine},
                      KindCase{"XMLFILE:@/log", kFile, kXml}, KindCase{"XMLSTDOUT:", kOut, kXml},
                      KindCase{"XMLSTDERR:", kErr, kXml}, KindCase{"DISCARD:", kNowhere, kXml},
                      // No such dynamic route type, a file that cannot be made:
                      // the fallback of zar_svc_routing, standard error.
                      KindCase{"NOSUCHROUTE:x", kErr, kTwoLines},
                      KindCase{"TEXTFILE:@/missing/log", kErr, kTwoLines}));

// ---- Attribute bits, names, texts, filter -------------------------------------------

TEST_F(SvcPrint, AttributeBitsShapeTheOutput) {
  Output brief = inChild([&] {
    route("ERROR:STDOUT:");
    printError(svc_c_sev_error | svc_c_action_brief);
  });
  EXPECT_EQ("XKJSC0151E   Memory could not be allocated.\n", brief.out);

  // nolog: only the standard-error copy; without nolog both.
  Output nolog = inChild([&] {
    route("ERROR:STDOUT:");
    printError(svc_c_sev_error | svc_c_route_nolog | svc_c_route_stderr);
  });
  EXPECT_EQ("", nolog.out);
  EXPECT_EQ(2u, zar::test::splitLines(nolog.err).size());
  Output copy = inChild([&] {
    route("ERROR:STDOUT:");
    printError(svc_c_sev_error | svc_c_route_stderr);
  });
  EXPECT_EQ(copy.out, copy.err);
  EXPECT_NE("", copy.out);
  // With SVC_BRIEF set, severity records keep their prefix.
  Output svcBrief = inChild([&] {
    setenv("SVC_BRIEF", "1", 1);
    zar::svc::gSvc.brief = 1;  // as read at set-up
    printError();
  });
  EXPECT_EQ(2u, zar::test::splitLines(svcBrief.err).size());
}

TEST_F(SvcPrint, WordsThatNameNoSeverityOrSubComponentPrintNothingAndDoNothing) {
  Output o = inChild([&] {
    route("*:STDERR:");
    printError(0x60 | svc_c_action_exit_bad);          // no such severity
    printError(0x0A | svc_c_action_exit_bad);          // no such level
    printSys(svc_c_sev_error | svc_c_action_abort, "x", 1, 3);  // wsc has 3 sub-components
    zar_svc_printf_withfile(nullptr, "f", 1, "", 0, svc_c_sev_error | svc_c_action_abort,
                            kNoMemory);
  });
  EXPECT_EQ(0, exitCode(o.status));
  EXPECT_EQ("", o.err);
}

TEST_F(SvcPrint, ProgramNameAndUnknownTexts) {
  Output o = inChild([&] {
    unsigned long st;
    zar_svc_set_progname("server", &st);
    route("ERROR:STDOUT:");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "x.c", 3, "", 2, svc_c_sev_error,
                            0xABCDEF09);
    char self[32];
    snprintf(self, sizeof self, "0x%8.8lx", static_cast<unsigned long>(pthread_self()));
    writeFile(dir_.file("thread"), self);
  });
  EXPECT_TRUE(matches(o.out, std::string(kTime) + R"( 0xABCDEF09 server ERROR wsc azn-svc x\.c 3 )" +
                                 readFile(dir_.file("thread")) +
                                 "\nUnknown message number 0xabcdef09\n"))
      << o.out;

  // When the message text cannot be had (no memory) the body names the id.
  Output noText = inChild([&] {
    route("ERROR:STDOUT:");
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
    printError();
  });
  EXPECT_TRUE(matches(noText.out, textRecord("ERROR", "core", "server.cc", 412, "\n",
                                             "Unknown message 0x38c52097")))
      << noText.out;
}

int gFilterCalls = 0;
int dropEverything(zar_svc_prolog* prolog, va_list) {
  ++gFilterCalls;
  return prolog->message_index == kNoMemory ? 0 : 1;
}

TEST_F(SvcPrint, FilterSuppressesTheRecordAndItsAction) {
  Output o = inChild([&] {
    unsigned long st;
    zar_svc_subcomp table[] = {{"main", "", 0, 0}, {}};
    zar_svc_handle h = zar_svc_register(table, "flt", &st);
    h->filter = dropEverything;
    zar_svc_printf_withfile(h, "f.c", 1, "", 0, svc_c_sev_error | svc_c_action_exit_bad,
                            kNoMemory);
    zar_svc_printf_withfile(h, "f.c", 2, "%d", 0, svc_c_sev_error, kTraceLevel, 5);
    _exit(gFilterCalls == 2 ? 7 : 8);
  });
  EXPECT_EQ(7, exitCode(o.status));
  EXPECT_NE(std::string::npos, o.err.find("flt main f.c 2"));
  EXPECT_EQ(std::string::npos, o.err.find("f.c 1"));
}

// ---- Actions --------------------------------------------------------------------------

using SvcAction = SvcPrint;
TEST_F(SvcAction, AbortAndExitComeAfterTheRecord) {
  EXPECT_EXIT(printError(svc_c_sev_error | svc_c_action_abort), ::testing::KilledBySignal(SIGABRT),
              "ERROR wsc core server.cc 412 .*\nXKJSC0151E");
  EXPECT_EXIT(printError(svc_c_sev_warning | svc_c_action_exit_bad), ::testing::ExitedWithCode(1),
              "WARNING wsc core .*\nXKJSC0151E");
  // The action is taken even when no route writes the record.
  EXPECT_EXIT(printError(svc_c_sev_notice | svc_c_action_exit_ok), ::testing::ExitedWithCode(0),
              "^$");
}

// ---- GOESTO -----------------------------------------------------------------------------

struct GoesToCase {
  const char* warning;
  const char* error;  // null: not set (filled from the default)
  const char* out;    // expected number of records: "" or "W"
  int errRecords;
  friend void PrintTo(const GoesToCase& c, std::ostream* os) { *os << c.warning; }
};
class SvcGoesTo : public SvcPrint, public ::testing::WithParamInterface<GoesToCase> {};
TEST_P(SvcGoesTo, ContinuesWithTheNamedList) {
  const GoesToCase& c = GetParam();
  Output o = inChild([&] {
    if (c.error != nullptr) route(std::string("ERROR:") + c.error);
    route(std::string("WARNING:") + c.warning);
    printError(svc_c_sev_warning);
  });
  EXPECT_EQ(std::string(c.out) == "W" ? 2u : 0u, zar::test::splitLines(o.out).size()) << o.out;
  EXPECT_EQ(static_cast<size_t>(2 * c.errRecords), zar::test::splitLines(o.err).size()) << o.err;
}
INSTANTIATE_TEST_SUITE_P(
    Table, SvcGoesTo,
    ::testing::Values(
        // ERROR's routes (its default, standard error); the STDOUT after the
        // GOESTO is not visited.
        GoesToCase{"GOESTO:ERROR;STDOUT:", nullptr, "", 1},
        GoesToCase{"GOESTO:NOSUCH;STDOUT:", nullptr, "W", 0},
        GoesToCase{"GOESTO:ERROR", "STDOUT:", "W", 0},
        // A cycle: WARNING -> ERROR -> (WARNING, skipped) then ERROR's next route.
        GoesToCase{"GOESTO:ERROR;STDOUT:", "GOESTO:WARNING;STDERR:", "", 1},
        GoesToCase{"GOESTO:WARNING;STDERR:", nullptr, "", 1},
        // A component's debug list, not settled yet: no routes, so on.
        GoesToCase{"GOESTO:wsc;STDOUT:", nullptr, "W", 0}));

// ---- Precedence -------------------------------------------------------------------------

TEST_F(SvcPrint, SavedSettingThenVariableThenRoutingFileThenDefault) {
  writeFile(dir_.file("routing"), "WARNING:TEXTFILE:" + dir_.file("from-file") + "\n");
  auto scenario = [&](bool saved, bool variable, bool file) {
    return inChild([=, this] {
      if (file) setenv("KP_SVC_ROUTING_FILE", dir_.file("routing").c_str(), 1);
      if (variable) setenv("SVC_WARNING", "STDOUT:", 1);
      if (saved) {
        route("WARNING:TEXTFILE:@/saved");
        zar_svc__shutdown();  // empties the lists; the next message fills them again
      }
      printError(svc_c_sev_warning);
    });
  };
  auto records = [&](const char* name) {
    return fileExists(dir_.file(name)) ? zar::test::splitLines(readFile(dir_.file(name))).size()
                                       : 0u;
  };
  Output o = scenario(true, true, true);
  EXPECT_EQ(1u, records("saved"));
  EXPECT_EQ("", o.out);
  o = scenario(false, true, true);
  EXPECT_EQ(2u, zar::test::splitLines(o.out).size());
  EXPECT_EQ(0u, records("from-file"));
  o = scenario(false, false, true);
  EXPECT_EQ(1u, records("from-file"));
  EXPECT_EQ("", o.err);
  o = scenario(false, false, false);
  EXPECT_EQ(2u, zar::test::splitLines(o.err).size());
}

TEST_F(SvcPrint, FilesThatCannotBeOpenedFallBackByHowTheListWasFilled) {
  // From a variable the list falls back to DISCARD, from zar_svc_routing to
  // standard error.
  Output fromVar = inChild([&] {
    setenv("SVC_WARNING", at("TEXTFILE:@/missing/x.log").c_str(), 1);
    printError(svc_c_sev_warning);
  });
  EXPECT_EQ("", fromVar.err);
  Output fromCall = inChild([&] {
    route("WARNING:TEXTFILE:@/missing/x.log");
    printError(svc_c_sev_warning);
  });
  EXPECT_EQ(2u, zar::test::splitLines(fromCall.err).size());
}

// ---- Log files ----------------------------------------------------------------------------

TEST_F(SvcPrint, FilesRotateThroughGenerationsRoundRobin) {
  std::string log = dir_.file("t.log");
  auto countIn = [](const std::string& path) {
    return fileExists(path) ? zar::test::splitLines(readFile(path)).size() : 0u;
  };
  inChild([&] {
    route("WARNING:TEXTFILE.3.2:@/t.log");
    for (int i = 0; i < 3; ++i) printSys(svc_c_sev_warning, "r", i);
  });
  EXPECT_EQ(1u, countIn(log));
  EXPECT_EQ(2u, countIn(log + ".1"));
  EXPECT_NE(std::string::npos, readFile(log).find("code: 2"));

  // Limit 1: every message is its own file; after .1 to .3 the oldest is reused.
  inChild([&] {
    route("WARNING:TEXTFILE.3.1:@/t.log");  // archives the current t.log to .2
    for (int i = 0; i < 4; ++i) printSys(svc_c_sev_warning, "r", 10 + i);
  });
  EXPECT_NE(std::string::npos, readFile(log).find("code: 13"));
  EXPECT_NE(std::string::npos, readFile(log + ".3").find("code: 10"));
  EXPECT_NE(std::string::npos, readFile(log + ".1").find("code: 11"));  // round robin
  EXPECT_NE(std::string::npos, readFile(log + ".2").find("code: 12"));
  EXPECT_FALSE(fileExists(log + ".4"));
}

TEST_F(SvcPrint, FirstArchiveTakesTheFirstFreeNumberElseTheOldest) {
  std::string log = dir_.file("g.log");
  for (const char* n : {"1", "3"}) writeFile(log + "." + n, std::string("gen") + n + "\n");
  writeFile(log, "current\n");
  inChild([&] { route("WARNING:TEXTFILE.3.100:@/g.log"); });
  EXPECT_EQ("current\n", readFile(log + ".2"));

  // All taken: the oldest by modification time (.3 here) is overwritten.
  writeFile(log, "newer\n");
  struct timespec times[2] = {{1000, 0}, {1000, 0}};
  utimensat(AT_FDCWD, (log + ".3").c_str(), times, 0);
  inChild([&] { route("WARNING:TEXTFILE.3.100:@/g.log"); });
  EXPECT_EQ("newer\n", readFile(log + ".3"));
  EXPECT_EQ("gen1\n", readFile(log + ".1"));
}

TEST_F(SvcPrint, SeveritiesNamingOneFileShareItsStream) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/shared.log");
    route("ERROR:TEXTFILE:@/shared.log;TEXTFILE:@/shared.log");
    printError(svc_c_sev_warning);
    printError(svc_c_sev_error);
    route("WARNING:DISCARD:");  // the file stays open for ERROR
    printError(svc_c_sev_error);
    zar::svc::SvcLock lock;
    auto record = static_cast<svc_file_route*>(zar::svc::gSvc.routes[1].routes[0]->target);
    _exit(record->references == 2 && record->stream != nullptr ? 0 : 9);
  });
  EXPECT_EQ(0, exitCode(o.status));
  std::vector<std::string> lines = zar::test::splitLines(readFile(dir_.file("shared.log")));
  ASSERT_EQ(5u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find(" WARNING "));
  for (size_t i = 1; i < 5; ++i) EXPECT_NE(std::string::npos, lines[i].find(" ERROR "));
}

TEST_F(SvcPrint, ModeOwnerAndCloseOnExec) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/m.log:640:nosuchuser:nosuchgroup");
    printError(svc_c_sev_warning);
    zar::svc::SvcLock lock;
    auto record = static_cast<svc_file_route*>(zar::svc::gSvc.routes[2].routes[0]->target);
    int flags = fcntl(fileno(record->stream), F_GETFD);
    _exit((flags & FD_CLOEXEC) ? 0 : 9);
  });
  EXPECT_EQ(0, exitCode(o.status));
  struct stat st;
  ASSERT_EQ(0, stat(dir_.file("m.log").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
  EXPECT_EQ(getuid(), st.st_uid);
}

TEST_F(SvcPrint, ForkedChildWritesItsOwnPerProcessTextFile) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/app.%d.log;XMLFILE:@/app.%d.xml");
    printSys(svc_c_sev_warning, "parent", 1);
    pid_t child = fork();
    if (child == 0) {
      printSys(svc_c_sev_warning, "child", 2);
      // A list opened only after the fork gets the child's id as well.
      route("ERROR:TEXTFILE:@/late.%d.log");
      printError();
      _exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    printSys(svc_c_sev_warning, "parent", 3);
    writeFile(dir_.file("child.pid"), std::to_string(child));
    writeFile(dir_.file("parent.pid"), std::to_string(getpid()));
  });
  ASSERT_EQ(0, exitCode(o.status));
  std::string parentLog = readFile(dir_.file("app." + readFile(dir_.file("parent.pid")) + ".log"));
  std::string childLog = readFile(dir_.file("app." + readFile(dir_.file("child.pid")) + ".log"));
  EXPECT_EQ(2u, zar::test::splitLines(parentLog).size());
  EXPECT_EQ(std::string::npos, parentLog.find("child"));
  EXPECT_EQ(1u, zar::test::splitLines(childLog).size());
  EXPECT_NE(std::string::npos, childLog.find("The child system"));
  EXPECT_TRUE(fileExists(dir_.file("late." + readFile(dir_.file("child.pid")) + ".log")));
  // XMLFILE keeps the inherited stream: all three records in the parent's file.
  std::string xml = readFile(dir_.file("app." + readFile(dir_.file("parent.pid")) + ".xml"));
  size_t records = 0;
  for (size_t p = 0; (p = xml.find("</Message>", p)) != std::string::npos; ++p) ++records;
  EXPECT_EQ(3u, records);
}

// ---- Code sets ------------------------------------------------------------------------------

TEST_F(SvcPrint, LocalTextIsConvertedForUtf8AndXmlRoutes) {
  Output o = inChild([&] {
    if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) _exit(77);
    route("WARNING:TEXTFILE:@/t.log;UTF8FILE:@/u.log;XMLFILE:@/x.xml");
    printSys(svc_c_sev_warning, "M\xfcller", 1);
    // The UTF-8 form: text routes get the local code set, the others UTF-8.
    zar_svc_printf_cs_withfile(zarsv_client_svc_handle, nlz_cs_new("UTF8"), "f.c", 2, "%s%d", 0,
                               svc_c_sev_warning, kSysFailed, "G\xc3\xb6the", 2);
  });
  if (exitCode(o.status) == 77) GTEST_SKIP() << "locale de_DE.ISO-8859-1 missing";
  std::string t = readFile(dir_.file("t.log"));
  std::string u = readFile(dir_.file("u.log"));
  std::string x = readFile(dir_.file("x.xml"));
  EXPECT_NE(std::string::npos, t.find("The M\xfcller system"));
  EXPECT_NE(std::string::npos, t.find("The G\xf6the system"));
  EXPECT_NE(std::string::npos, u.find("The M\xc3\xbcller system"));
  EXPECT_NE(std::string::npos, u.find("The G\xc3\xb6the system"));
  EXPECT_NE(std::string::npos, x.find("<Param><![CDATA[M\xc3\xbcller]]></Param>"));
  EXPECT_NE(std::string::npos, x.find("The G\xc3\xb6the system"));
}

// ---- XML records ------------------------------------------------------------------------------

bool xmllintAccepts(const std::string& path, std::string* out) {
  std::string cmd = "xmllint --noout " + path + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return false;
  char buf[512];
  while (fgets(buf, sizeof buf, p) != nullptr) *out += buf;
  return pclose(p) == 0;
}

std::string xpath(const std::string& path, const std::string& expr) {
  std::string cmd = "xmllint --xpath '" + expr + "' " + path + " 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[512];
  while (p != nullptr && fgets(buf, sizeof buf, p) != nullptr) out += buf;
  if (p != nullptr) pclose(p);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST_F(SvcPrint, XmlRecordsAreWellFormedAndCarryTheirParams) {
  if (system("xmllint --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "xmllint missing";
  inChild([&] {
    route("NOTICE:XMLFILE:@/r.xml");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "a/b/cfg.cc", 9, "%s%s%s", 0,
                            svc_c_sev_notice, kParamNeeded, "ssl", "/etc/kp.conf", "keyfile");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "cfg.cc", 10, "%d", 0, svc_c_sev_notice,
                            kTraceLevel, 5);
    printError(svc_c_sev_notice);
    route("NOTICE:XMLFILE:@/brief.xml");
    printError(svc_c_sev_notice | svc_c_action_brief);
  });
  // The records follow each other; wrapped in one root they make a document.
  writeFile(dir_.file("doc.xml"), "<Log>\n" + readFile(dir_.file("r.xml")) + "</Log>\n");
  std::string doc = dir_.file("doc.xml");
  std::string errors;
  ASSERT_TRUE(xmllintAccepts(doc, &errors)) << errors;
  EXPECT_EQ("3", xpath(doc, "count(/Log/Message)"));
  EXPECT_EQ("ssl|/etc/kp.conf|keyfile",
            xpath(doc, "concat(/Log/Message[1]//Param[1],\"|\",/Log/Message[1]//Param[2],\"|\","
                       "/Log/Message[1]//Param[3])"));
  EXPECT_EQ("Trace Leve|INFO|5",
            xpath(doc, "concat(/Log/Message[2]/@Id,\"|\",/Log/Message[2]/@Severity,\"|\","
                       "/Log/Message[2]//Param)"));
  EXPECT_EQ("0", xpath(doc, "count(/Log/Message[3]//Param)"));
  EXPECT_EQ("kpwsc.cat", xpath(doc, "string(/Log/Message[1]/TranslationInfo/@Catalog)"));
  // The brief record has no head but is closed.
  EXPECT_EQ("XKJSC0151E   Memory could not be allocated. ]]></LogText>\n</Message>\n\n",
            readFile(dir_.file("brief.xml")));
}

// Message texts of a table of the test's own, for the Param scan.
const zar_msg_entry kParamTexts[] = {
    {0x38C5AF01, "XKJSC9001E   %*d|%.*s|100%%|%ul|%5.2f|%c|%x|%o|%ld|%lx|%s"},
    {0x38C5AF02, "XKJSC9002W   %hd"},
    {0x38C5AF03, "XKJSC9003I   plain text"},
    {0x38C5AF04, "XKJSC9004E   %S"},
    {0x38C5AF05, "Short"},
};

TEST_F(SvcPrint, XmlParamsFollowTheConversionsOfTheText) {
  if (system("xmllint --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "xmllint missing";
  inChild([&] {
    unsigned long st = 0;
    zar_msg_define_msg_table(kParamTexts, 5, &st);
    route("NOTICE:XMLFILE:@/p.xml");
    auto print = [](uint32_t id, auto... args) {
      zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, svc_c_sev_notice, id,
                              args...);
    };
    print(0x38C5AF01u, 6, 42, 2, "abcdef", static_cast<uint64_t>(7), 1.25, 'Z', 255u, 8u, -5L,
          0xabcUL, "a\xe9" "b");  // 0xE9 is no character of the C locale's code set
    print(0x38C5AF02u, 4);
    print(0x38C5AF03u);
    const nlz_wchar_t wide[] = {'G', 0xFC, 0x00DF, 'e', 0xD83D, 0xDE00, 0};
    print(0x38C5AF04u, wide);
    print(0x38C5AF05u);
  });
  writeFile(dir_.file("doc.xml"), "<Log>\n" + readFile(dir_.file("p.xml")) + "</Log>\n");
  std::string doc = dir_.file("doc.xml");
  std::string errors;
  ASSERT_TRUE(xmllintAccepts(doc, &errors)) << errors;
  auto params = [&](int record) {
    std::string n = std::to_string(record);
    std::string out;
    int count = std::stoi(xpath(doc, "count(/Log/Message[" + n + "]//Param)"));
    for (int i = 1; i <= count; ++i)
      out += (i > 1 ? "|" : "") + xpath(doc, "string(/Log/Message[" + n + "]//Param[" +
                                                 std::to_string(i) + "])");
    return out;
  };
  // '*' takes its int, "%%" is no Param, "ul" is a 64-bit value and an 'l',
  // a byte that cannot be converted becomes '?'.
  EXPECT_EQ("    42|ab|7l| 1.25|Z|ff|10|-5|abc|a?b", params(1));
  EXPECT_EQ("(Failed to handle a data type in svcprintf.c, printPrefix())", params(2));
  EXPECT_EQ("WARN", xpath(doc, "string(/Log/Message[2]/@Severity)"));
  EXPECT_EQ("", params(3));
  EXPECT_EQ("INFO", xpath(doc, "string(/Log/Message[3]/@Severity)"));
  EXPECT_EQ("G\xc3\xbc\xc3\x9f" "e\xf0\x9f\x98\x80", params(4));
  EXPECT_EQ("Short|INFO", xpath(doc, "concat(/Log/Message[5]/@Id,\"|\",/Log/Message[5]/@Severity)"));
}

TEST_F(SvcPrint, XmlTextIsCutAt20000BytesOnACharacterBoundary) {
  std::string big(19999, 'x');
  big += "\xc3\xa9\xc3\xa9";  // the cut falls inside the first 2-byte character
  inChild([&] {
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) _exit(77);
    unsigned long st = 0;
    static const zar_msg_entry text[] = {{0x38C5AF10, "%s"}};
    zar_msg_define_msg_table(text, 1, &st);
    route("NOTICE:XMLFILE:@/big.xml");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, svc_c_sev_notice,
                            0x38C5AF10, big.c_str());
  });
  std::string xml = readFile(dir_.file("big.xml"));
  size_t open = xml.find("<LogText><![CDATA[");
  size_t close = xml.find(" ]]></LogText>");
  ASSERT_NE(std::string::npos, open);
  ASSERT_NE(std::string::npos, close);
  EXPECT_EQ(std::string(19999, 'x'), xml.substr(open + 18, close - open - 18));
}

}  // namespace
