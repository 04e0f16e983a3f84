// The printing pipeline through the public interface: default routes, every
// route kind and record form, attributes and actions, routing precedence,
// log files (rotation, generations, sharing, fork), conversions, XML records
// checked with xmllint, and failures.
//
// The serviceability keeps process-wide state (filled route lists, saved
// settings), so each scenario runs in a child process of its own with its
// standard output and error captured; the test process only registers.
#include <fcntl.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

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
using zar::test::splitLines;
using zar::test::writeFile;

constexpr uint32_t kNoMemory = 0x38C52097;     // XKJSC0151E, no arguments
constexpr uint32_t kSysFailed = 0x38C5209C;    // XKJSC0156E   The %s ... code: %d
constexpr uint32_t kParamNeeded = 0x38C5209F;  // XKJSC0159E, three %s
constexpr uint32_t kTraceLevel = 0x38C5213A;   // "Trace Level: %d"

const char kTime[] = R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\dI-----)";
const char kThread[] = "0x[0-9a-f]{8,}";
const char kSysText[] = "XKJSC0156E   The open system routine failed: system error code: 2";

class SvcPrint : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("SVC_NOXPGCAT", "1", 1);
    for (const char* v : {"KP_SVC_ROUTING_FILE", "SVC_FATAL", "SVC_ERROR", "SVC_WARNING",
                          "SVC_NOTICE", "SVC_NOTICE_VERBOSE", "SVC_BRIEF"})
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
    std::string outPath = dir_.file("stdout"), errPath = dir_.file("stderr");
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
    if (st != 0) _exit(90);  // inside a child: the parent sees the exit status
  }
  std::string file(const char* name) const {
    return fileExists(dir_.file(name)) ? readFile(dir_.file(name)) : "";
  }
  size_t records(const char* name) const { return splitLines(file(name)).size(); }

  zar::test::TempDir dir_;
};

void printError(uint32_t attributes = svc_c_sev_error) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "core/app/server.cc", 412, "", 0, attributes,
                          kNoMemory);
}
void printSys(uint32_t attributes, const char* routine, int code, uint32_t sub = 1) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "server.cc", 7, "%s%d", sub, attributes,
                          kSysFailed, routine, code);
}

bool matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

// ---- Default routes and every route kind ---------------------------------------------------

enum Where { kNowhere, kOut, kErr, kFile };
enum Form { kTwoLines, kOneLine, kXml };
struct KindCase {
  uint32_t severity;
  const char* routes;  // null: none set, the default; "@" is the test directory
  Where where;
  Form form;
  friend void PrintTo(const KindCase& c, std::ostream* os) {
    *os << (c.routes ? c.routes : "default") << " " << c.severity;
  }
};
class SvcRouteKind : public SvcPrint, public ::testing::WithParamInterface<KindCase> {};

TEST_P(SvcRouteKind, WritesItsFormThereAndNowhereElse) {
  const KindCase& c = GetParam();
  const char* sev = zar_svc_inq_sev_name(c.severity);
  Output o = inChild([&] {
    if (c.routes != nullptr) route(std::string(sev) + ":" + c.routes);
    printSys(c.severity, "open", 2);
  });
  ASSERT_EQ(0, exitCode(o.status));
  std::string log = file("log");
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
              R"( </TranslationInfo>\n <LogText><!\[CDATA\[)" + kSysText +
              R"( \]\]></LogText>\n</Message>\n\n)";
  } else {
    pattern = std::string(kTime) + R"( 0x38C5209C PID#\d+ )" + sev + " wsc admin server.cc 7 " +
              kThread + (c.form == kTwoLines ? "\n" : " ") + kSysText + "\n";
  }
  const std::string* got[] = {nullptr, &o.out, &o.err, &log};
  for (int w = kOut; w <= kFile; ++w) {
    if (w == c.where) {
      EXPECT_TRUE(matches(*got[w], pattern)) << *got[w];
    } else {
      EXPECT_EQ("", *got[w]) << w;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SvcRouteKind,
    ::testing::Values(
        // With nothing configured errors and warnings reach standard error,
        // notices nothing.
        KindCase{svc_c_sev_fatal, nullptr, kErr, kTwoLines},
        KindCase{svc_c_sev_error, nullptr, kErr, kTwoLines},
        KindCase{svc_c_sev_warning, nullptr, kErr, kTwoLines},
        KindCase{svc_c_sev_notice, nullptr, kNowhere, kTwoLines},
        KindCase{svc_c_sev_notice_verbose, nullptr, kNowhere, kTwoLines},
        KindCase{svc_c_sev_warning, "STDOUT:", kOut, kTwoLines},
        KindCase{svc_c_sev_notice, "STDERR:", kErr, kTwoLines},
        KindCase{svc_c_sev_warning, "TEXTFILE:@/log", kFile, kOneLine},
        KindCase{svc_c_sev_warning, "FILE:@/log", kFile, kOneLine},
        KindCase{svc_c_sev_warning, "UTF8FILE:@/log", kFile, kOneLine},
        KindCase{svc_c_sev_warning, "XMLFILE:@/log", kFile, kXml},
        KindCase{svc_c_sev_warning, "XMLSTDOUT:", kOut, kXml},
        KindCase{svc_c_sev_warning, "XMLSTDERR:", kErr, kXml},
        KindCase{svc_c_sev_error, "DISCARD:", kNowhere, kXml},
        // No such route type, a file that cannot be made: zar_svc_routing's
        // fallback, standard error.
        KindCase{svc_c_sev_warning, "NOSUCHROUTE:x", kErr, kTwoLines},
        KindCase{svc_c_sev_warning, "TEXTFILE:@/missing/log", kErr, kTwoLines}));

// ---- Attribute bits, names, texts, filter ----------------------------------------------------

struct AttrCase {
  uint32_t attributes;
  uint32_t sub;
  size_t outLines;  // ERROR and WARNING are routed to standard output
  size_t errLines;
  friend void PrintTo(const AttrCase& c, std::ostream* os) { *os << std::hex << c.attributes; }
};
class SvcAttributes : public SvcPrint, public ::testing::WithParamInterface<AttrCase> {};

TEST_P(SvcAttributes, BitsShapeTheOutput) {
  const AttrCase& c = GetParam();
  Output o = inChild([&] {
    route("ERROR:STDOUT:");
    route("WARNING:STDOUT:");
    printSys(c.attributes, "open", 2, c.sub);
  });
  EXPECT_EQ(0, exitCode(o.status));
  EXPECT_EQ(c.outLines, splitLines(o.out).size()) << o.out;
  EXPECT_EQ(c.errLines, splitLines(o.err).size()) << o.err;
  if (c.attributes & svc_c_action_brief) {
    EXPECT_EQ(std::string(kSysText) + "\n", o.out);
  }
  if (c.errLines == 2 && c.outLines == 2) {
    EXPECT_EQ(o.out, o.err);
  }
}
INSTANTIATE_TEST_SUITE_P(
    Table, SvcAttributes,
    ::testing::Values(
        AttrCase{svc_c_sev_error | svc_c_action_brief, 0, 1, 0},
        AttrCase{svc_c_sev_error | svc_c_route_stderr, 0, 2, 2},
        AttrCase{svc_c_sev_error | svc_c_route_nolog | svc_c_route_stderr, 0, 0, 2},
        // No severity, no such level, no such sub-component: nothing at all.
        AttrCase{0x60 | svc_c_action_exit_bad, 0, 0, 0},
        AttrCase{0x0A | svc_c_action_exit_bad, 0, 0, 0},
        AttrCase{svc_c_sev_error | svc_c_action_abort, 3, 0, 0}));

TEST_F(SvcPrint, ProgramNameUnknownTextsAndNullHandles) {
  Output o = inChild([&] {
    unsigned long st;
    zar_svc_set_progname("server", &st);
    zar::svc::gSvc.brief = 1;  // SVC_BRIEF: severity records keep their prefix
    route("ERROR:STDOUT:");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "x.c", 3, "", 2, svc_c_sev_error,
                            0xABCDEF09);
    zar_svc_printf_withfile(nullptr, "f", 1, "", 0, svc_c_sev_error | svc_c_action_abort,
                            kNoMemory);
    char self[32];
    snprintf(self, sizeof self, "0x%8.8lx", static_cast<unsigned long>(pthread_self()));
    writeFile(dir_.file("thread"), self);
    // When the text cannot be had (no memory) the body names the id.
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
    printError();
  });
  EXPECT_TRUE(matches(o.out, std::string(kTime) + R"( 0xABCDEF09 server ERROR wsc azn-svc x\.c 3 )" +
                                 file("thread") + "\nUnknown message number 0xabcdef09\n" +
                                 kTime + " 0x38C52097 server ERROR wsc core server.cc 412 " +
                                 kThread + "\nUnknown message 0x38c52097\n"))
      << o.out;
}

int gFilterCalls = 0;
int dropNoMemory(zar_svc_prolog* prolog, va_list) {
  ++gFilterCalls;
  return prolog->message_index == kNoMemory ? 0 : 1;
}

TEST_F(SvcPrint, FilterSuppressesTheRecordAndItsAction) {
  Output o = inChild([&] {
    unsigned long st;
    zar_svc_subcomp table[] = {{"main", "", 0, 0}, {}};
    zar_svc_handle h = zar_svc_register(table, "flt", &st);
    h->filter = dropNoMemory;
    zar_svc_printf_withfile(h, "f.c", 1, "", 0, svc_c_sev_error | svc_c_action_exit_bad,
                            kNoMemory);
    zar_svc_printf_withfile(h, "f.c", 2, "%d", 0, svc_c_sev_error, kTraceLevel, 5);
    _exit(gFilterCalls == 2 ? 7 : 8);
  });
  EXPECT_EQ(7, exitCode(o.status));
  EXPECT_NE(std::string::npos, o.err.find("flt main f.c 2"));
  EXPECT_EQ(std::string::npos, o.err.find("f.c 1"));
}

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

// ---- GOESTO and precedence -------------------------------------------------------------------

struct GoesToCase {
  const char* warning;
  const char* error;  // null: not set (the default, standard error)
  size_t outLines;
  size_t errLines;
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
  EXPECT_EQ(c.outLines, splitLines(o.out).size()) << o.out;
  EXPECT_EQ(c.errLines, splitLines(o.err).size()) << o.err;
}
INSTANTIATE_TEST_SUITE_P(
    Table, SvcGoesTo,
    ::testing::Values(
        // ERROR's routes replace the rest of the list: STDOUT is not visited.
        GoesToCase{"GOESTO:ERROR;STDOUT:", nullptr, 0, 2},
        GoesToCase{"GOESTO:NOSUCH;STDOUT:", nullptr, 2, 0},
        GoesToCase{"GOESTO:ERROR", "STDOUT:", 2, 0},
        // Cycles: a list already walked is skipped, the current one goes on.
        GoesToCase{"GOESTO:ERROR;STDOUT:", "GOESTO:WARNING;STDERR:", 0, 2},
        GoesToCase{"GOESTO:WARNING;STDERR:", nullptr, 0, 2},
        // A component's debug list that is not settled has no routes.
        GoesToCase{"GOESTO:wsc;STDOUT:", nullptr, 2, 0}));

TEST_F(SvcPrint, SavedSettingThenVariableThenRoutingFileThenDefault) {
  writeFile(dir_.file("routing"), "WARNING:TEXTFILE:" + dir_.file("from-file") + "\n");
  auto scenario = [&](bool saved, const char* variable, bool routingFile) {
    return inChild([=, this] {
      if (routingFile) setenv("KP_SVC_ROUTING_FILE", dir_.file("routing").c_str(), 1);
      if (variable != nullptr) setenv("SVC_WARNING", at(variable).c_str(), 1);
      if (saved) {
        route("WARNING:TEXTFILE:@/saved");
        zar_svc__shutdown();  // empties the lists; the next message fills them again
      }
      printError(svc_c_sev_warning);
    });
  };
  Output o = scenario(true, "STDOUT:", true);
  EXPECT_EQ(1u, records("saved"));
  EXPECT_EQ("", o.out);
  o = scenario(false, "STDOUT:", true);
  EXPECT_EQ(2u, splitLines(o.out).size());
  EXPECT_EQ(0u, records("from-file"));
  o = scenario(false, nullptr, true);
  EXPECT_EQ(1u, records("from-file"));
  EXPECT_EQ("", o.err);
  o = scenario(false, nullptr, false);
  EXPECT_EQ(2u, splitLines(o.err).size());
  // A file that cannot be opened: from a variable the list writes nothing.
  o = scenario(false, "TEXTFILE:@/missing/x.log", false);
  EXPECT_EQ("", o.err);
}

// ---- Log files ---------------------------------------------------------------------------------

TEST_F(SvcPrint, FilesRotateThroughGenerations) {
  std::string log = dir_.file("t.log");
  auto has = [&](const std::string& path, const char* text) {
    return readFile(path).find(text) != std::string::npos;
  };
  inChild([&] {
    route("WARNING:TEXTFILE.3.2:@/t.log");
    for (int i = 0; i < 3; ++i) printSys(svc_c_sev_warning, "r", i);
  });
  // The third message starts the next file.
  EXPECT_EQ(1u, records("t.log"));
  EXPECT_EQ(2u, splitLines(readFile(log + ".1")).size());
  EXPECT_TRUE(has(log, "code: 2"));

  // Set-up archives the existing file to the first free number (.2); with
  // limit 1 every message is a file of its own, round robin over .1 to .3.
  inChild([&] {
    route("WARNING:TEXTFILE.3.1:@/t.log");
    for (int i = 0; i < 4; ++i) printSys(svc_c_sev_warning, "r", 10 + i);
  });
  EXPECT_TRUE(has(log, "code: 13"));
  EXPECT_TRUE(has(log + ".3", "code: 10"));
  EXPECT_TRUE(has(log + ".1", "code: 11"));
  EXPECT_TRUE(has(log + ".2", "code: 12"));
  EXPECT_FALSE(fileExists(log + ".4"));

  // All numbers taken at set-up: the oldest by modification time goes.
  writeFile(log, "newer\n");
  struct timespec old[2] = {{1000, 0}, {1000, 0}};
  utimensat(AT_FDCWD, (log + ".2").c_str(), old, 0);
  inChild([&] { route("WARNING:TEXTFILE.3.100:@/t.log"); });
  EXPECT_EQ("newer\n", readFile(log + ".2"));
  EXPECT_TRUE(has(log + ".1", "code: 11"));

  // Negative generations: the file is moved away once, then never rotated;
  // generations 0: truncated at each limit, nothing kept.
  writeFile(dir_.file("n.log"), "kept\n");
  inChild([&] {
    route("WARNING:TEXTFILE.-1.1:@/n.log;TEXTFILE.0.2:@/z.log");
    for (int i = 0; i < 3; ++i) printSys(svc_c_sev_warning, "r", i);
  });
  EXPECT_EQ("kept\n", file("n.log.1"));
  EXPECT_EQ(3u, records("n.log"));
  EXPECT_EQ(1u, records("z.log"));
  EXPECT_FALSE(fileExists(dir_.file("z.log.1")));
}

TEST_F(SvcPrint, SeveritiesNamingOneFileShareItsStream) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/shared.log:640:nosuchuser");
    route("ERROR:TEXTFILE:@/shared.log;TEXTFILE:@/shared.log");
    printError(svc_c_sev_warning);
    printError(svc_c_sev_error);
    route("WARNING:DISCARD:");  // the file stays open for ERROR
    printError(svc_c_sev_error);
    zar::svc::SvcLock lock;
    auto record = static_cast<svc_file_route*>(zar::svc::gSvc.routes[1].routes[0]->target);
    // One record, still open, and not inherited by programs the process runs.
    int flags = fcntl(fileno(record->stream), F_GETFD);
    _exit(record->references == 2 && (flags & FD_CLOEXEC) ? 0 : 9);
  });
  EXPECT_EQ(0, exitCode(o.status));
  std::vector<std::string> lines = splitLines(file("shared.log"));
  ASSERT_EQ(5u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find(" WARNING "));
  for (size_t i = 1; i < 5; ++i) EXPECT_NE(std::string::npos, lines[i].find(" ERROR "));
  struct stat st;
  ASSERT_EQ(0, stat(dir_.file("shared.log").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);  // set up by the first route naming it
  EXPECT_EQ(getuid(), st.st_uid);       // an unknown user leaves the owner
}

TEST_F(SvcPrint, ForkedChildWritesItsOwnPerProcessTextFile) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/app.%ld.log;XMLFILE:@/app.%d.xml");
    printSys(svc_c_sev_warning, "parent", 1);
    pid_t child = fork();
    if (child == 0) {
      printSys(svc_c_sev_warning, "child", 2);
      route("ERROR:TEXTFILE:@/late%%.%08d.log");  // opened after the fork: the child's id
      printError();
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    printSys(svc_c_sev_warning, "parent", 3);
    writeFile(dir_.file("child"), std::to_string(child));
    writeFile(dir_.file("parent"), std::to_string(getpid()));
  });
  ASSERT_EQ(0, exitCode(o.status));
  std::string parent = file("parent"), child = file("child");
  std::string parentLog = readFile(dir_.file("app." + parent + ".log"));
  std::string childLog = readFile(dir_.file("app." + child + ".log"));
  EXPECT_EQ(2u, splitLines(parentLog).size());
  EXPECT_EQ(std::string::npos, parentLog.find("child"));
  EXPECT_EQ(1u, splitLines(childLog).size());
  EXPECT_NE(std::string::npos, childLog.find("The child system"));
  char late[32];
  snprintf(late, sizeof late, "late%%.%08d.log", std::stoi(child));
  EXPECT_TRUE(fileExists(dir_.file(late)));
  // XMLFILE keeps the inherited stream: all three records in one file.
  std::string xml = readFile(dir_.file("app." + parent + ".xml"));
  size_t n = 0;
  for (size_t p = 0; (p = xml.find("</Message>", p)) != std::string::npos; ++p) ++n;
  EXPECT_EQ(3u, n);
}

// ---- Code sets and XML records -----------------------------------------------------------------

TEST_F(SvcPrint, LocalTextIsConvertedForUtf8AndXmlRoutes) {
  Output o = inChild([&] {
    if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) _exit(77);
    route("WARNING:TEXTFILE:@/t.log;UTF8FILE:@/u.log;XMLFILE:@/x.xml");
    printSys(svc_c_sev_warning, "M\xfcller", 1);
    // The UTF-8 form: text routes get the local code set, the others UTF-8.
    zar_svc_printf_cs_withfile(zarsv_client_svc_handle, zarsvc_get_utf8_code_page(), "f.c", 2,
                               "%s%d", 0, svc_c_sev_warning, kSysFailed, "G\xc3\xb6the", 2);
  });
  if (exitCode(o.status) == 77) GTEST_SKIP() << "locale de_DE.ISO-8859-1 missing";
  std::string t = file("t.log"), u = file("u.log"), x = file("x.xml");
  EXPECT_NE(std::string::npos, t.find("The M\xfcller system"));
  EXPECT_NE(std::string::npos, t.find("The G\xf6the system"));
  EXPECT_NE(std::string::npos, u.find("The M\xc3\xbcller system"));
  EXPECT_NE(std::string::npos, u.find("The G\xc3\xb6the system"));
  EXPECT_NE(std::string::npos, x.find("<Param><![CDATA[M\xc3\xbcller]]></Param>"));
  EXPECT_NE(std::string::npos, x.find("The G\xc3\xb6the system"));
}

std::string run(const std::string& cmd, int* status = nullptr) {
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[512];
  while (p != nullptr && fgets(buf, sizeof buf, p) != nullptr) out += buf;
  int rc = p != nullptr ? pclose(p) : -1;
  if (status != nullptr) *status = rc;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// Message texts of a table of the test's own, for the Param scan.
const zar_msg_entry kParamTexts[] = {
    {0x38C5AF01, "XKJSC9001E   %*d|%.*s|100%%|%ul|%5.2f|%c|%x|%o|%ld|%lx|%s"},
    {0x38C5AF02, "XKJSC9002W   %hd"},
    {0x38C5AF03, "XKJSC9003I   plain text"},
    {0x38C5AF04, "XKJSC9004E   %S"},
    {0x38C5AF05, "Short"},
    {0x38C5AF06, "%s"},
};

TEST_F(SvcPrint, XmlRecordsAreWellFormedWithAParamPerConversion) {
  if (system("xmllint --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "xmllint missing";
  // 20000 bytes cut inside a 2-byte character: the text stops before it.
  std::string big = std::string(19999, 'x') + "\xc3\xa9\xc3\xa9";
  Output o = inChild([&] {
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) _exit(77);
    unsigned long st = 0;
    zar_msg_define_msg_table(kParamTexts, 6, &st);
    route("NOTICE:XMLFILE:@/p.xml");
    auto print = [](uint32_t id, auto... args) {
      zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, svc_c_sev_notice, id,
                              args...);
    };
    print(0x38C5AF01u, 6, 42, 2, "abcdef", static_cast<uint64_t>(7), 1.25, 'Z', 255u, 8u, -5L,
          0xabcUL, "a\xe9" "b");  // a lone 0xE9 is no UTF-8 character
    print(0x38C5AF02u, 4);
    print(0x38C5AF03u);
    const nlz_wchar_t wide[] = {'G', 0xFC, 0x00DF, 'e', 0xD83D, 0xDE00, 0};
    print(0x38C5AF04u, wide);
    print(0x38C5AF05u);
    print(kParamNeeded, "ssl", "/etc/kp.conf", "keyfile");
    print(0x38C5AF06u, big.c_str());
    route("NOTICE:XMLFILE:@/brief.xml");
    printError(svc_c_sev_notice | svc_c_action_brief);
  });
  if (exitCode(o.status) == 77) GTEST_SKIP() << "no C.UTF-8 locale";
  // The records follow each other; wrapped in one root they make a document.
  std::string doc = dir_.file("doc.xml");
  writeFile(doc, "<Log>\n" + file("p.xml") + "</Log>\n");
  int status = 0;
  std::string errors = run("xmllint --noout " + doc + " 2>&1", &status);
  ASSERT_EQ(0, status) << errors;
  auto xpath = [&](const std::string& expr) {
    return run("xmllint --xpath '" + expr + "' " + doc + " 2>/dev/null");
  };
  auto params = [&](int record) {
    std::string n = std::to_string(record), out;
    int count = std::stoi(xpath("count(/Log/Message[" + n + "]//Param)"));
    for (int i = 1; i <= count; ++i)
      out += (i > 1 ? "|" : "") +
             xpath("string(/Log/Message[" + n + "]//Param[" + std::to_string(i) + "])");
    return out;
  };
  // '*' takes its int, "%%" is no Param, "ul" is a 64-bit value and an 'l',
  // a byte that cannot be converted becomes '?'.
  EXPECT_EQ("    42|ab|7l| 1.25|Z|ff|10|-5|abc|a?b", params(1));
  EXPECT_EQ("(Failed to handle a data type in svcprintf.c, printPrefix())", params(2));
  EXPECT_EQ("WARN|INFO|ERROR", xpath("concat(/Log/Message[2]/@Severity,\"|\","
                                     "/Log/Message[3]/@Severity,\"|\",/Log/Message[4]/@Severity)"));
  EXPECT_EQ("", params(3));
  EXPECT_EQ("G\xc3\xbc\xc3\x9f" "e\xf0\x9f\x98\x80", params(4));
  EXPECT_EQ("Short|INFO", xpath("concat(/Log/Message[5]/@Id,\"|\",/Log/Message[5]/@Severity)"));
  EXPECT_EQ("ssl|/etc/kp.conf|keyfile", params(6));
  EXPECT_EQ("kpwsc.cat", xpath("string(/Log/Message[6]/TranslationInfo/@Catalog)"));
  EXPECT_EQ(std::string(19999, 'x') + " ", xpath("string(/Log/Message[7]/LogText)"));
  // A brief record has no head but is closed.
  EXPECT_EQ("XKJSC0151E   Memory could not be allocated. ]]></LogText>\n</Message>\n\n",
            file("brief.xml"));
}

// ---- Failures of the system and of memory --------------------------------------------------------

struct FaultCase {
  zar::fault::Op op;
  bool inFile;  // the record still reaches the file
  bool onErr;   // the record reaches standard error (the route's fallback)
  friend void PrintTo(const FaultCase& c, std::ostream* os) { *os << static_cast<int>(c.op); }
};
class SvcFault : public SvcPrint, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(SvcFault, AFailingCallLosesAtMostTheRecord) {
  const FaultCase& c = GetParam();
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/f.log");
    {
      zar::test::FaultPlan plan(c.op, 1, true, EIO);
      printSys(svc_c_sev_warning, "first", 1);
    }
    printSys(svc_c_sev_warning, "second", 2);  // everything works again
  });
  EXPECT_EQ(0, exitCode(o.status));
  std::string log = file("f.log");
  EXPECT_EQ(c.inFile, log.find("The first") != std::string::npos) << log;
  EXPECT_EQ(c.onErr, o.err.find("The first") != std::string::npos) << o.err;
  // A file that could not be opened is given up: later records follow.
  EXPECT_NE(std::string::npos, (c.onErr ? o.err : log).find("The second"));
}
INSTANTIATE_TEST_SUITE_P(
    Table, SvcFault,
    ::testing::Values(FaultCase{zar::fault::Op::kFcntl, true, false},  // unlocked, still written
                      FaultCase{zar::fault::Op::kWrite, false, false},  // lost
                      FaultCase{zar::fault::Op::kOpen, false, true}));  // the fallback

TEST_F(SvcPrint, EveryAllocationFailureLeavesAWorkingLibraryAndNoLeak) {
  Output o = inChild([&] {
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) _exit(77);
    // Fail the k-th allocation of routing and printing to every file kind,
    // for every k, until a run needs no more allocations than were failed.
    for (long k = 1;; ++k) {
      zar::test::FaultPlan plan(zar::fault::Op::kAlloc, k);
      unsigned long st = 0;
      zar_svc_routing(at("NOTICE:TEXTFILE:@/a.log;UTF8FILE:@/b.log;XMLFILE:@/c.xml;STDOUT:").c_str(),
                      &st);
      if (st != 0 && st != ZAR_S_SVC_NO_MEMORY) _exit(3);
      zar_svc_printf_withfile(zarsv_client_svc_handle, "f.c", 1, "%s%s%s", 0, svc_c_sev_notice,
                              kParamNeeded, "ssl", "cfg", "key");
      if (plan.failures() == 0) {
        writeFile(dir_.file("points"), std::to_string(k - 1));
        break;
      }
    }
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) _exit(5);
#endif
  });
  if (exitCode(o.status) == 77) GTEST_SKIP() << "no C.UTF-8 locale";
  EXPECT_EQ(0, exitCode(o.status)) << o.err;
  EXPECT_GT(std::stol("0" + file("points")), 10);
  // The last run failed nothing: its record is complete everywhere.
  EXPECT_NE(std::string::npos, o.out.find("The ssl stanza of cfg"));
  EXPECT_NE(std::string::npos, file("c.xml").find("</Message>"));
}

}  // namespace
