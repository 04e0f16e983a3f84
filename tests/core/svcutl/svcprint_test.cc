// The printing pipeline through the public interface: default routes, every
// route kind and record form, attributes and actions, GOESTO, routing
// precedence, log files (rotation, generations, sharing), conversions and XML
// records checked with xmllint. Many writers, fork and injected faults are
// the reliability suite's (docs/reliability.md).
//
// The serviceability keeps process-wide state (filled route lists, saved
// settings), so each scenario runs in a child process of its own with its
// standard output and error captured; the test process only registers.
#include <fcntl.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>

#include "core/svcutl/svcint.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace {

using namespace zar::test;

constexpr uint32_t kNoMemory = 0x38C52097;     // XKJSC0151E, no arguments
constexpr uint32_t kSysFailed = 0x38C5209C;    // XKJSC0156E   The %s ... code: %d
constexpr uint32_t kTraceLevel = 0x38C5213A;   // "Trace Level: %d"

constexpr uint32_t kError = svc_c_sev_error, kWarning = svc_c_sev_warning;

const char kTime[] = R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\dI-----)";
const char kThread[] = "0x[0-9a-f]{8,}";
constexpr int kEnded = 3;  // exit code of a child whose body returned
const char kSysText[] = "XKJSC0156E   The open system routine failed: system error code: 2";

class SvcPrint : public SvcTest {
 protected:
  static void SetUpTestSuite() {
    for (const char* v : {"KP_SVC_ROUTING_FILE", "SVC_FATAL", "SVC_ERROR", "SVC_WARNING",
                          "SVC_NOTICE", "SVC_NOTICE_VERBOSE", "SVC_BRIEF"})
      unsetenv(v);
    SvcTest::SetUpTestSuite();
  }


  struct Output {
    int status;  // the child's exit code, kEnded when the body returned
    std::string out, err;
  };
  // Runs body in a child process with its standard output and error captured.
  Output inChild(const std::function<void()>& body) {
    int status = runInChild([&] {
      for (int fd : {1, 2}) {
        int f = open(dir_.file(std::to_string(fd)).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(f, fd);
        close(f);
      }
      body();
      return kEnded;
    });
    return {exitCode(status), file("1"), file("2")};
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
  std::string file(const std::string& name) const { return readFile(dir_.file(name)); }
  size_t records(const std::string& name) const { return splitLines(file(name)).size(); }

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
bool matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}
bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// ---- Where each record goes, in what form, and the action after it ------------------------------

// Where a record is, as three characters for standard output, standard
// error and the file "@/log": '-' nowhere, '2' on two lines, '1' on one line,
// 'x' as XML.
struct RecordCase {
  std::vector<std::string> settings;  // routing settings made in order; "@" is the test directory
  uint32_t attributes;
  const char* where;
  uint32_t sub = 1;
  int exit = kEnded;  // -1: killed by a signal
  friend void PrintTo(const RecordCase& c, std::ostream* os) {
    for (const std::string& s : c.settings) *os << s << " ";
    *os << std::hex << c.attributes;
  }
};
class SvcRecord : public SvcPrint, public ::testing::WithParamInterface<RecordCase> {};

// The record of printSys(attributes, "open", 2, sub) in a form, as a pattern.
std::string recordPattern(char form, uint32_t attributes, uint32_t sub) {
  const char* subName[] = {"core", "admin"};
  if (form == '-') return "";
  if (form != 'x') {
    return std::string(kTime) + R"( 0x38C5209C PID#\d+ )" + zar_svc_inq_sev_name(attributes) +
           " wsc " + subName[sub] + " server.cc 7 " + kThread + (form == '2' ? "\n" : " ") +
           kSysText + "\n";
  }
  return std::string(R"(<Message Id="XKJSC0156E" Severity="ERROR">\n <Time Millis="\d+">)") +
         R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}</Time>\n <Component>wsc/)" + subName[sub] +
         R"(</Component>\n <LogAttribs><KeyName><!\[CDATA\[Message Number\]\]></KeyName> )" +
         R"(<Value><!\[CDATA\[0x38C5209C\]\]></Value></LogAttribs>\n)" +
         R"( <Source FileName="server.cc" Method="unknown" Line="7"></Source>\n)" +
         R"( <Process>PID#\d+</Process>\n <Thread>)" + kThread + "</Thread>\n" +
         R"( <TranslationInfo Type="XPG4" Catalog="kpwsc.cat" SetId="1" MsgKey="38c5209c">\n)" +
         R"(  <Param><!\[CDATA\[open\]\]></Param>\n  <Param><!\[CDATA\[2\]\]></Param>\n)" +
         R"( </TranslationInfo>\n <LogText><!\[CDATA\[)" + kSysText +
         R"( \]\]></LogText>\n</Message>\n\n)";
}

TEST_P(SvcRecord, WrittenInItsFormWhereRoutedAndNowhereElse) {
  const RecordCase& c = GetParam();
  Output o = inChild([&] {
    for (const std::string& s : c.settings) route(s);
    printSys(c.attributes, "open", 2, c.sub);
  });
  EXPECT_EQ(c.exit, o.status);
  const std::string got[] = {o.out, o.err, file("log")};
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(matches(got[i], recordPattern(c.where[i], c.attributes, c.sub))) << i << got[i];
}

// With nothing configured fatal records and warnings reach standard error
// (errors, notices, brief records and the route_stderr copy are log.sh's).
// No such route type and a file that cannot be made take zar_svc_routing's
// fallback, standard error; nolog drops the routes. Abort and exit come
// after the record, also when no route writes it; no severity, no such
// level, no such sub-component: nothing, and no action. A GOESTO replaces
// the rest of the list (STDOUT after it is not visited); a list already
// walked is skipped and the current one goes on; a component's debug list
// that is not settled has no routes.
constexpr uint32_t kNotice = svc_c_sev_notice, kExitBad = svc_c_action_exit_bad;
using R = RecordCase;
INSTANTIATE_TEST_SUITE_P(
    Table, SvcRecord,
    ::testing::Values(
        R{{}, svc_c_sev_fatal, "-2-"}, R{{}, kWarning, "-2-"},
        R{{}, svc_c_sev_notice_verbose, "---"},
        R{{}, kError | svc_c_action_abort, "-2-", 1, -1}, R{{}, kWarning | kExitBad, "-2-", 1, 1},
        R{{}, kNotice | svc_c_action_exit_ok, "---", 1, 0}, R{{"WARNING:STDOUT:"}, kWarning, "2--"},
        R{{"NOTICE:STDERR:"}, kNotice, "-2-"}, R{{"WARNING:TEXTFILE:@/log"}, kWarning, "--1"},
        R{{"WARNING:FILE:@/log"}, kWarning, "--1"}, R{{"WARNING:UTF8FILE:@/log"}, kWarning, "--1"},
        R{{"WARNING:XMLFILE:@/log"}, kWarning, "--x"}, R{{"WARNING:XMLSTDOUT:"}, kWarning, "x--"},
        R{{"WARNING:XMLSTDERR:"}, kWarning, "-x-"}, R{{"ERROR:DISCARD:"}, kError, "---"},
        R{{"WARNING:NOSUCHROUTE:x"}, kWarning, "-2-"},
        R{{"WARNING:TEXTFILE:@/missing/log"}, kWarning, "-2-"},
        R{{"ERROR:STDOUT:"}, kError | svc_c_route_nolog | svc_c_route_stderr, "-2-"},
        R{{"*:STDOUT:"}, 0x60 | kExitBad, "---"}, R{{"*:STDOUT:"}, 0x0A | kExitBad, "---"},
        R{{"*:STDOUT:"}, kError | svc_c_action_abort, "---", 3},
        R{{"WARNING:GOESTO:ERROR;STDOUT:"}, kWarning, "-2-"},
        R{{"WARNING:GOESTO:NOSUCH;STDOUT:"}, kWarning, "2--"},
        R{{"ERROR:STDOUT:", "WARNING:GOESTO:ERROR"}, kWarning, "2--"},
        R{{"ERROR:GOESTO:WARNING;STDERR:", "WARNING:GOESTO:ERROR;STDOUT:"}, kWarning, "-2-"},
        R{{"WARNING:GOESTO:WARNING;STDERR:"}, kWarning, "-2-"},
        R{{"WARNING:GOESTO:wsc;STDOUT:"}, kWarning, "2--"}));

int dropNoMemory(zar_svc_prolog* prolog, va_list) {
  return prolog->message_index == kNoMemory ? 0 : 1;
}

// A component's filter drops a record and its action. A null handle prints
// nothing and takes no action; an unknown number, or a text that cannot be
// had (no memory), gives a body that names the number.
TEST_F(SvcPrint, ProgramNameFiltersUnknownTextsAndNullHandles) {
  Output o = inChild([&] {
    unsigned long st;
    zar_svc_set_progname("server", &st);
    zar::svc::gSvc.brief = 1;  // SVC_BRIEF: severity records keep their prefix
    route("ERROR:STDOUT:");
    zar_svc_subcomp table[] = {{"main", "", 0, 0}, {}};
    zar_svc_handle h = zar_svc_register(table, "flt", &st);
    h->filter = dropNoMemory;
    zar_svc_printf_withfile(h, "f.c", 1, "", 0, kError | svc_c_action_exit_bad, kNoMemory);
    zar_svc_printf_withfile(h, "f.c", 2, "%d", 0, kError, kTraceLevel, 5);
    zar_svc_printf_withfile(zarsv_client_svc_handle, "x.c", 3, "", 2, kError, 0xABCDEF09);
    zar_svc_printf_withfile(nullptr, "f", 1, "", 0, kError | svc_c_action_abort, kNoMemory);
    char self[32];
    snprintf(self, sizeof self, "0x%8.8lx", static_cast<unsigned long>(pthread_self()));
    writeFile(dir_.file("thread"), self);
    FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
    printError();
  });
  EXPECT_EQ(kEnded, o.status);
  const std::string head = std::string(kTime) + " 0x";
  EXPECT_TRUE(matches(o.out, head + "38C5213A server ERROR flt main f\\.c 2 " + file("thread") +
                                 "\nTrace Level: 5\n" + head +
                                 R"(ABCDEF09 server ERROR wsc azn-svc x\.c 3 )" + file("thread") +
                                 "\nUnknown message number 0xabcdef09\n" + head +
                                 "38C52097 server ERROR wsc core server.cc 412 " + kThread +
                                 "\nUnknown message 0x38c52097\n"))
      << o.out;
}

// Variable over routing file over default is log.sh's (zar log); a saved
// setting comes before all of them once the lists are emptied, and a file
// from a variable that cannot be opened writes nowhere.
TEST_F(SvcPrint, SavedSettingComesFirstAndAVariablesBadFileWritesNowhere) {
  writeFile(dir_.file("routing"), "WARNING:TEXTFILE:" + dir_.file("from-file") + "\n");
  for (bool saved : {true, false}) {
    unlink(dir_.file("saved").c_str());
    Output o = inChild([&] {
      setenv("KP_SVC_ROUTING_FILE", dir_.file("routing").c_str(), 1);
      setenv("SVC_WARNING", at(saved ? "STDOUT:" : "TEXTFILE:@/missing/x.log").c_str(), 1);
      if (saved) {
        route("WARNING:TEXTFILE:@/saved");
        zar_svc__shutdown();  // empties the lists; the next message fills them again
      }
      printError(kWarning);
    });
    EXPECT_EQ(saved ? 1u : 0u, records("saved"));
    EXPECT_EQ("", o.out + file("from-file"));
    EXPECT_EQ(saved ? ""
                    : "libzar: log file " + at("@/missing/x.log") +
                          " cannot be opened (No such file or directory); its messages now "
                          "go nowhere\n",
              o.err);
  }
}

TEST_F(SvcPrint, SettingsThatRouteNothingSaySoOnce) {
  // Each setting from the environment or the routing file that loses a
  // severity's or a component's records says so in one line on standard
  // error, however many records follow; good settings say nothing.
  const struct {
    const char* variable;
    const char* value;   // "@" is the test directory
    const char* notice;  // a part of the one line; null: no line
  } kCases[] = {
      {"SVC_ERROR", "TEXTFILE.5:@/x",
       "SVC_ERROR: route setting \"TEXTFILE.5:@/x\" cannot be "
       "parsed at position 1; ERROR messages now go nowhere"},
      {"SVC_ERROR", "STDOUT:;FILE", "at position 9; ERROR messages go only to the 1 route(s)"},
      {"SVC_ERROR", "TEXTFILE:@/none/x.log", "@/none/x.log cannot be opened"},
      {"KP_SVC_ROUTING_FILE", "@/routing", "@/routing line 2: route setting \"STDERR\" cannot"},
      {"KP_SVC_ROUTING_FILE", "@/none", "KP_SVC_ROUTING_FILE: cannot read @/none"},
      {"SVC_WSC_DBG", "xyz:*.9:STDOUT:", "has another component's name at position 1"},
      {"SVC_WSC_DBG", "wsc:*.x:STDOUT:", "has a level list that cannot be applied at position 5"},
      {"SVC_WSC_DBG", "wsc:*.1:STDOUT",
       "has routes that cannot be parsed at position 9; debug "
       "messages of wsc now go nowhere"},
      {"SVC_WSC_DBG", "wsc:*.1", "has no ':' after its level list at position 5"},
      {"SVC_ERROR", "TEXTFILE:@/ok.log;STDOUT:", nullptr},
      {"SVC_WSC_DBG", "wsc:*.1:STDOUT:", nullptr},
  };
  writeFile(dir_.file("routing"), "# severities\nERROR:STDERR\nwsc:*.1:STDOUT:\n");
  for (const auto& c : kCases) {
    Output o = inChild([&] {
      setenv(c.variable, at(c.value).c_str(), 1);
      for (int i = 0; i < 2; ++i) {
        printError();
        zar_svc__debug(zarsv_client_svc_handle, 0, 1, "trace");
      }
    });
    std::vector<std::string> notices;
    for (const std::string& line : splitLines(o.err))
      if (line.rfind("libzar: ", 0) == 0) notices.push_back(line);
    ASSERT_EQ(c.notice != nullptr ? 1u : 0u, notices.size()) << c.value << "\n" << o.err;
    if (c.notice != nullptr) {
      EXPECT_TRUE(has(notices[0], at(c.notice))) << notices[0];
    }
  }
}

TEST_F(SvcPrint, LinksPlantedInASharedDirectoryAreNotFollowed) {
  // A sticky directory that everyone may write, as /tmp; links there made
  // by another user (nobody) are refused for log files and generations, the
  // route falling back; a link of the process's own user is followed.
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make links owned by another user";
  std::string shared = dir_.file("shared");
  ASSERT_EQ(0, mkdir(shared.c_str(), 0777));
  ASSERT_EQ(0, chmod(shared.c_str(), 01777));
  const struct {
    const char* link;    // made in the shared directory, to @/victim
    bool planted;        // owned by nobody, else by the process's user
    const char* routes;  // for ERROR; "@" is the test directory
    const char* onStderr;
  } kCases[] = {
      {"t.log", true, "TEXTFILE:@/shared/t.log", "symbolic link that another user made"},
      {"g.log.1", true, "TEXTFILE.1.1:@/shared/g.log", "generation @/shared/g.log.1 is a symbolic"},
      {"o.log", false, "TEXTFILE:@/shared/o.log", nullptr},
  };
  for (const auto& c : kCases) {
    writeFile(dir_.file("victim"), "");
    writeFile(shared + "/g.log", "old\n");
    std::string link = shared + "/" + c.link;
    unlink(link.c_str());
    ASSERT_EQ(0, symlink(dir_.file("victim").c_str(), link.c_str()));
    if (c.planted) {
      ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
    }
    Output o = inChild([&] {
      route(std::string("ERROR:") + c.routes);
      printError();
    });
    struct stat st;
    EXPECT_EQ(0, lstat(link.c_str(), &st)) << "the link is gone: " << c.link;
    EXPECT_EQ(c.planted ? 0u : 1u, records("victim")) << c.link;
    EXPECT_EQ(c.onStderr != nullptr, has(o.err, c.onStderr ? at(c.onStderr) : "libzar")) << o.err;
  }
}

// ---- Log files ---------------------------------------------------------------------------------

TEST_F(SvcPrint, FilesRotateThroughGenerations) {
  auto warnings = [&](const char* routes, int from, int n) {
    inChild([&] {
      route(std::string("WARNING:") + routes);
      for (int i = from; i < from + n; ++i) printSys(kWarning, "r", i);
    });
  };
  // The codes of the records in each file ("-": no file).
  auto codes = [&](std::vector<std::string> names) {
    std::string all;
    for (const std::string& name : names) {
      all += fileExists(dir_.file(name)) ? "|" : "|-";
      for (const std::string& line : splitLines(file(name)))
        all += line.substr(line.rfind(' ') + 1) + ",";
    }
    return all;
  };
  // Set-up archives the existing file to the first free number (.2); with
  // limit 1 every message is a file of its own, then the oldest goes. A
  // limit, and the oldest by modification time when every number is taken
  // at set-up, are the reliability suite's rotation.
  writeFile(dir_.file("t.log"), "old\n");
  writeFile(dir_.file("t.log.1"), "older\n");
  warnings("TEXTFILE.3.1:@/t.log", 10, 4);
  EXPECT_EQ("|13,|11,|12,|10,|-", codes({"t.log", "t.log.1", "t.log.2", "t.log.3", "t.log.4"}));
  // Negative generations: the file is moved away once, then never rotated;
  // generations 0: truncated at each limit, nothing kept.
  writeFile(dir_.file("n.log"), "kept\n");
  warnings("TEXTFILE.-1.1:@/n.log;TEXTFILE.0.2:@/z.log", 0, 3);
  EXPECT_EQ("kept\n", file("n.log.1"));
  EXPECT_EQ("|0,1,2,|2,|-", codes({"n.log", "z.log", "z.log.1"}));
}

TEST_F(SvcPrint, ARecordCutByAFailedWriteLeavesTheNextOnALineOfItsOwn) {
  std::string log = dir_.file("limited.log");
  inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    route("WARNING:TEXTFILE:" + log);
    printSys(svc_c_sev_warning, "before", 1);
    struct rlimit old, small;
    getrlimit(RLIMIT_FSIZE, &old);
    small = {static_cast<rlim_t>(readFile(log).size()) + 40, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    printSys(svc_c_sev_warning, "cut", 2);  // 40 bytes of it reach the file
    setrlimit(RLIMIT_FSIZE, &old);
    printSys(svc_c_sev_warning, "after", 3);
  });
  std::vector<std::string> lines = splitLines(readFile(log));
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(40u, lines[1].size());
  EXPECT_TRUE(matches(lines[2], std::string(kTime) + R"( 0x38C5209C PID#\d+ WARNING wsc admin )" +
                                    "server.cc 7 " + kThread +
                                    " XKJSC0156E   The after system routine failed: "
                                    "system error code: 3"))
      << lines[2];
}

TEST_F(SvcPrint, SeveritiesNamingOneFileShareItsStream) {
  Output o = inChild([&] {
    route("WARNING:TEXTFILE:@/shared.log:640:nosuchuser");
    route("ERROR:TEXTFILE:@/shared.log;TEXTFILE:@/shared.log");
    printError(kWarning);
    printError(kError);
    route("WARNING:DISCARD:");  // the file stays open for ERROR
    printError(kError);
    zar::svc::SvcLock lock;
    svc_file_route* record = zar::svc::gSvc.routes[1].routes[0]->file;
    // One record, still open, and not inherited by programs the process runs.
    int flags = fcntl(fileno(record->stream), F_GETFD);
    _exit(record->references == 2 && (flags & FD_CLOEXEC) ? 0 : 9);
  });
  EXPECT_EQ(0, o.status);
  std::vector<std::string> lines = splitLines(file("shared.log"));
  ASSERT_EQ(5u, lines.size());
  for (size_t i = 0; i < 5; ++i) EXPECT_TRUE(has(lines[i], i == 0 ? " WARNING " : " ERROR "));
  struct stat st;
  ASSERT_EQ(0, stat(dir_.file("shared.log").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);  // set up by the first route naming it
  EXPECT_EQ(getuid(), st.st_uid);       // an unknown user leaves the owner
}

// ---- Code sets and XML records -----------------------------------------------------------------

TEST_F(SvcPrint, LocalTextIsConvertedForUtf8AndXmlRoutes) {
  Output o = inChild([&] {
    if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr) _exit(77);
    route("WARNING:TEXTFILE:@/t.log;UTF8FILE:@/u.log;XMLFILE:@/x.xml");
    printSys(kWarning, "M\xfcller", 1);
    // The UTF-8 form: text routes get the local code set, the others UTF-8.
    zar_svc_printf_cs_withfile(zarsv_client_svc_handle, zarsvc_get_utf8_code_page(), "f.c", 2,
                               "%s%d", 0, kWarning, kSysFailed, "G\xc3\xb6the", 2);
  });
  if (o.status == 77) GTEST_SKIP() << "locale de_DE.ISO-8859-1 missing";
  std::string t = file("t.log"), u = file("u.log"), x = file("x.xml");
  EXPECT_TRUE(has(t, "The M\xfcller system") && has(t, "The G\xf6the system")) << t;
  EXPECT_TRUE(has(u, "The M\xc3\xbcller system") && has(u, "The G\xc3\xb6the system")) << u;
  EXPECT_TRUE(has(x, "<Param><![CDATA[M\xc3\xbcller]]></Param>")) << x;
  EXPECT_TRUE(has(x, "The G\xc3\xb6the system")) << x;
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
    print(0x38C5AF06u, big.c_str());
    route("NOTICE:XMLFILE:@/brief.xml");
    printError(svc_c_sev_notice | svc_c_action_brief);
  });
  if (o.status == 77) GTEST_SKIP() << "no C.UTF-8 locale";
  // The records follow each other; wrapped in one root they make a document.
  std::string xml = file("p.xml");
  writeFile(dir_.file("doc.xml"), "<Log>\n" + xml + "</Log>\n");
  const std::string lint = "xmllint --noout " + dir_.file("doc.xml") + " 2>" + dir_.file("lint");
  ASSERT_EQ(0, system(lint.c_str())) << file("lint");
  // Each record's Id, Severity and Params: '*' takes its int, "%%" is no
  // Param, "ul" is a 64-bit value and an 'l', a byte that cannot be
  // converted becomes '?'; a text that is no identifier gives INFO.
  std::vector<std::string> got;
  const std::regex field(
      R"re(<Message Id="([^"]*)" Severity="(\w+)">|<Param><!\[CDATA\[(.*?)\]\]>)re");

  for (std::sregex_iterator it(xml.begin(), xml.end(), field), end; it != end; ++it) {
    if ((*it)[1].matched) got.push_back((*it)[1].str() + "|" + (*it)[2].str());
    else got.back() += "|" + (*it)[3].str();
  }
  ASSERT_EQ(6u, got.size());
  EXPECT_EQ((std::vector<std::string>{
                "XKJSC9001E|ERROR|    42|ab|7l| 1.25|Z|ff|10|-5|abc|a?b",
                "XKJSC9002W|WARN|(Failed to handle a data type in svcprintf.c, printPrefix())",
                "XKJSC9003I|INFO", "XKJSC9004E|ERROR|G\xc3\xbc\xc3\x9f" "e\xf0\x9f\x98\x80",
                "Short|INFO"}),
            std::vector<std::string>(got.begin(), got.end() - 1));
  EXPECT_TRUE(has(xml, "<LogText><![CDATA[" + std::string(19999, 'x') + " ]]></LogText>"));
  // A brief record has no head but is closed.
  EXPECT_EQ("XKJSC0151E   Memory could not be allocated. ]]></LogText>\n</Message>\n\n",
            file("brief.xml"));
}

TEST_F(SvcPrint, WriterCancelledWhileWaitingForTheFileLockReleasesTheMutex) {
#if defined(__SANITIZE_ADDRESS__)  // its runtime aborts when a cancelled thread unwinds
  GTEST_SKIP() << "thread cancellation is not supported under AddressSanitizer";
#endif
  // The test process holds the whole-file lock, so the child's record waits.
  int fd = open(dir_.file("locked.log").c_str(), O_WRONLY | O_CREAT, 0600);
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(fd, F_SETLK, &fl));
  Output o = inChild([&] {
    route("NOTICE:TEXTFILE:@/locked.log");
    route("WARNING:TEXTFILE:@/after.log");
    pthread_t writer;
    pthread_create(&writer, nullptr, [](void*) -> void* {
      printSys(svc_c_sev_notice, "blocked", 1);
      return nullptr;
    }, nullptr);
    usleep(200000);  // let it reach the lock wait
    pthread_cancel(writer);
    void* result = nullptr;
    pthread_join(writer, &result);
    printSys(kWarning, "after", 2);  // does not hang: the mutex was released
    _exit(result == PTHREAD_CANCELED ? 0 : 4);
  });
  close(fd);
  ASSERT_EQ(0, o.status);
  EXPECT_EQ("", file("locked.log"));
  EXPECT_TRUE(has(file("after.log"), "The after system"));
}

}  // namespace
