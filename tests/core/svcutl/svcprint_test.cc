// The printing pipeline through the public interface: default routes, every
// route kind and record form, actions, GOESTO, notices of bad settings, log
// files (rotation, sharing, planted links), conversions and the Params of XML
// records (their well-formedness is log.sh's, with xmllint). Many writers, fork, cancellation and injected faults
// are the reliability suite's (docs/reliability.md).
//
// The serviceability keeps process-wide state, so each scenario runs in a
// child process with its standard output and error captured.
#include <fcntl.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using namespace zar::test;

constexpr uint32_t kNoMemory = 0x38C52097;   // XKJSC0151E, no arguments
constexpr uint32_t kSysFailed = 0x38C5209C;  // XKJSC0156E   The %s ... code: %d
constexpr uint32_t kError = svc_c_sev_error, kWarning = svc_c_sev_warning;
constexpr uint32_t kNotice = svc_c_sev_notice, kExitBad = svc_c_action_exit_bad;
constexpr int kEnded = kBodyReturned;
const char kTime[] = R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\dI-----)";
const char kThread[] = "0x[0-9a-f]{8,}";
const char kSysText[] = "XKJSC0156E   The open system routine failed: system error code: 2";

class SvcPrint : public SvcTest {
 protected:
  static void SetUpTestSuite() {
    for (const char* v : {"KP_SVC_ROUTING_FILE", "SVC_FATAL", "SVC_ERROR", "SVC_WARNING",
                          "SVC_NOTICE", "SVC_NOTICE_VERBOSE"})
      unsetenv(v);
    setenv("SVC_BRIEF", "1", 1);  // debug records lose their prefix, severity records keep it
    SvcTest::SetUpTestSuite();
  }
  Captured inChild(const std::function<void()>& body) { return runCaptured(dir_, body); }
  // "@" in a text stands for the test's directory.
  std::string at(std::string text) const {
    for (size_t p; (p = text.find('@')) != std::string::npos;) text.replace(p, 1, dir_.path());
    return text;
  }
  void route(const std::string& setting) {
    if (svcRoute(at(setting)) != 0) _exit(90);  // inside a child: the parent sees the status
  }
  std::string file(const std::string& name) const { return readFile(dir_.file(name)); }
  size_t records(const std::string& name) const { return splitLines(file(name)).size(); }
  TempDir dir_;
};

void printError(uint32_t attributes = kError) {
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

// Where a record is, as three characters for standard output, standard error
// and the file "@/log": '-' nowhere, '2' on two lines, '1' on one line, 'x' as XML.
struct RecordCase {
  std::vector<std::string> settings;  // routing settings made in order
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
  Captured o = inChild([&] {
    for (const std::string& s : c.settings) route(s);
    printSys(c.attributes, "open", 2, c.sub);
  });
  EXPECT_EQ(c.exit, o.status);
  const std::string got[] = {o.out, o.err, file("log")};
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(matches(got[i], recordPattern(c.where[i], c.attributes, c.sub))) << i << got[i];
}

// Defaults: fatal records and warnings reach standard error. No such route
// type and a file that cannot be made fall back to standard error; nolog
// drops the routes. Abort and exit come after the record, also when no route
// writes it; no severity, no such level or sub-component: nothing and no
// action. A GOESTO replaces the rest of the list; a list already walked is
// skipped and the current one goes on.
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

// Each bad setting from the environment or the routing file says so in one
// line on standard error, however many records follow; its records go nowhere
// (errLines: the other lines on standard error). Good settings say nothing.
TEST_F(SvcPrint, SettingsThatRouteNothingSaySoOnce) {
  const struct {
    const char *variable, *value;  // "@" is the test directory
    const char* notice;            // a part of the one line; null: no line
  } kCases[] = {
      {"SVC_ERROR", "TEXTFILE.5:@/x",
       "SVC_ERROR: route setting \"TEXTFILE.5:@/x\" cannot be parsed at position 1; ERROR "
       "messages now go nowhere"},
      {"SVC_ERROR", "TEXTFILE:@/none/x.log",
       "log file @/none/x.log cannot be opened (No such file or directory); its messages now go "
       "nowhere"},
      {"KP_SVC_ROUTING_FILE", "@/routing", "@/routing line 2: route setting \"STDERR\" cannot"},
      {"KP_SVC_ROUTING_FILE", "@/none", "KP_SVC_ROUTING_FILE: cannot read @/none"},
      {"SVC_WSC_DBG", "xyz:*.9:STDOUT:", "has another component's name at position 1"},
      {"SVC_WSC_DBG", "wsc:*.1:STDOUT",
       "has routes that cannot be parsed at position 9; debug messages of wsc now go nowhere"},
      {"SVC_WSC_DBG", "wsc:*.1:STDOUT:", nullptr},
  };
  writeFile(dir_.file("routing"), "# severities\nERROR:STDERR\nwsc:*.1:STDOUT:\n");
  for (const auto& c : kCases) {
    Captured o = inChild([&] {
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

// A sticky directory that everyone may write, as /tmp: links there made by
// another user (nobody) are refused for log files and generations, the route
// falling back; a link of the process's own user is followed.
TEST_F(SvcPrint, LinksPlantedInASharedDirectoryAreNotFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make links owned by another user";
  std::string shared = dir_.file("shared");
  ASSERT_EQ(0, mkdir(shared.c_str(), 0777));
  ASSERT_EQ(0, chmod(shared.c_str(), 01777));
  const struct {
    const char *link, *routes, *onStderr;  // onStderr null: the link is followed
  } kCases[] = {
      {"t.log", "TEXTFILE:@/shared/t.log", "symbolic link that another user made"},
      {"g.log.1", "TEXTFILE.1.1:@/shared/g.log", "generation @/shared/g.log.1 is a symbolic"},
      {"o.log", "TEXTFILE:@/shared/o.log", nullptr},
  };
  for (const auto& c : kCases) {
    writeFile(dir_.file("victim"), "");
    writeFile(shared + "/g.log", "old\n");
    std::string link = shared + "/" + c.link;
    unlink(link.c_str());
    ASSERT_EQ(0, symlink(dir_.file("victim").c_str(), link.c_str()));
    if (c.onStderr) {
      ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
    }
    Captured o = inChild([&] {
      route(std::string("ERROR:") + c.routes);
      printError();
    });
    struct stat st;
    EXPECT_EQ(0, lstat(link.c_str(), &st)) << "the link is gone: " << c.link;
    EXPECT_EQ(c.onStderr ? 0u : 1u, records("victim")) << c.link;
    EXPECT_EQ(c.onStderr != nullptr, has(o.err, c.onStderr ? at(c.onStderr) : "libzar")) << o.err;
  }
}

// Set-up archives an existing file to the first free number; with limit 1
// every record is a file of its own, then the oldest goes. Negative
// generations: moved away once, never rotated; generations 0: truncated at
// each limit. Limits, and the oldest by time, are the reliability suite's.
TEST_F(SvcPrint, FilesRotateThroughGenerations) {
  auto codes = [&](std::vector<std::string> names) {  // codes per file, "-": no file
    std::string all;
    for (const std::string& name : names) {
      all += fileExists(dir_.file(name)) ? "|" : "|-";
      for (const std::string& line : splitLines(file(name)))
        all += line.substr(line.rfind(' ') + 1) + ",";
    }
    return all;
  };
  writeFile(dir_.file("t.log"), "old\n");
  writeFile(dir_.file("t.log.1"), "older\n");
  writeFile(dir_.file("n.log"), "kept\n");
  inChild([&] {
    route("WARNING:TEXTFILE.3.1:@/t.log;TEXTFILE.-1.1:@/n.log;TEXTFILE.0.2:@/z.log");
    for (int i = 10; i < 14; ++i) printSys(kWarning, "r", i);
  });
  EXPECT_EQ("|13,|11,|12,|10,|-", codes({"t.log", "t.log.1", "t.log.2", "t.log.3", "t.log.4"}));
  EXPECT_EQ("kept\n", file("n.log.1"));
  EXPECT_EQ("|10,11,12,13,|12,13,|-", codes({"n.log", "z.log", "z.log.1"}));
}

// A record cut by a failed write leaves the next on a line of its own.
TEST_F(SvcPrint, ARecordCutByAFailedWriteLeavesTheNextOnALineOfItsOwn) {
  std::string log = dir_.file("limited.log");
  inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    route("WARNING:TEXTFILE:" + log);
    printSys(kWarning, "before", 1);
    struct rlimit old, small;
    getrlimit(RLIMIT_FSIZE, &old);
    small = {static_cast<rlim_t>(readFile(log).size()) + 40, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    printSys(kWarning, "cut", 2);  // 40 bytes of it reach the file
    setrlimit(RLIMIT_FSIZE, &old);
    printSys(kWarning, "after", 3);
  });
  std::vector<std::string> lines = splitLines(readFile(log));
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(40u, lines[1].size());
  EXPECT_TRUE(matches(lines[2], std::string(kTime) + R"( 0x38C5209C PID#\d+ WARNING wsc admin )" +
                                    "server.cc 7 " + kThread + " XKJSC0156E   The after system " +
                                    "routine failed: system error code: 3"))
      << lines[2];
}

// Severities naming one file share its stream, which is not inherited by
// programs the process runs and stays open while one severity still uses it.
// Mode and owner come from the first route naming the file; a mode of 01000
// or more and an unknown user are ignored.
TEST_F(SvcPrint, SeveritiesNamingOneFileShareItsStream) {
  Captured o = inChild([&] {
    route("WARNING:TEXTFILE:@/shared.log:640:nosuchuser");
    route("ERROR:TEXTFILE:@/shared.log;TEXTFILE:@/shared.log");
    route("NOTICE:TEXTFILE:@/mode.log:1000");
    printError(kWarning);
    printError(kError);
    route("WARNING:DISCARD:");
    printError(kError);
    printError(kNotice);
    int open = 0;
    for (int fd = 3; fd < 64; ++fd) {
      char path[64], target[512] = "";
      snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
      if (readlink(path, target, sizeof target - 1) > 0 && has(target, "shared.log"))
        open += (fcntl(fd, F_GETFD) & FD_CLOEXEC) ? 1 : 100;
    }
    _exit(open);
  });
  EXPECT_EQ(1, o.status);  // one descriptor, close-on-exec
  std::vector<std::string> lines = splitLines(file("shared.log"));
  ASSERT_EQ(5u, lines.size());
  for (size_t i = 0; i < 5; ++i) EXPECT_TRUE(has(lines[i], i == 0 ? " WARNING " : " ERROR "));
  struct stat st;
  ASSERT_EQ(0, stat(dir_.file("shared.log").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
  EXPECT_EQ(getuid(), st.st_uid);
  ASSERT_EQ(0, stat(dir_.file("mode.log").c_str(), &st));
  EXPECT_EQ(0u, st.st_mode & 01000);
  EXPECT_NE(0u, st.st_mode & 0200);
}

TEST_F(SvcPrint, LocalTextIsConvertedForUtf8AndXmlRoutes) {
  Captured o = inChild([&] {
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
  EXPECT_TRUE(has(x, "<Param><![CDATA[M\xc3\xbcller]]></Param>") &&
              has(x, "The G\xc3\xb6the system"))
      << x;
}

// Message texts of a table of the test's own, for the Param scan.
const zar_msg_entry kParamTexts[] = {
    {0x38C5AF01, "XKJSC9001E   %*d|%.*s|100%%|%ul|%5.2f|%c|%x|%o|%ld|%lx|%s"},
    {0x38C5AF02, "XKJSC9002W   %hd"}, {0x38C5AF03, "XKJSC9003I   plain text"},
    {0x38C5AF04, "XKJSC9004E   %S"},  {0x38C5AF05, "Short"}, {0x38C5AF06, "%s"},
};

TEST_F(SvcPrint, XmlRecordsHaveAParamPerConversion) {
  // 20000 bytes cut inside a 2-byte character: the text stops before it.
  std::string big = std::string(19999, 'x') + "\xc3\xa9\xc3\xa9";
  Captured o = inChild([&] {
    if (setlocale(LC_ALL, "C.UTF-8") == nullptr) _exit(77);
    unsigned long st = 0;
    zar_msg_define_msg_table(kParamTexts, 6, &st);
    route("NOTICE:XMLFILE:@/p.xml");
    auto print = [](uint32_t id, auto... args) {
      zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, kNotice, id, args...);
    };
    print(0x38C5AF01u, 6, 42, 2, "abcdef", static_cast<uint64_t>(7), 1.25, 'Z', 255u, 8u, -5L,
          0xabcUL, "a\xe9" "b");  // a lone 0xE9 is no UTF-8 character
    print(0x38C5AF02u, 4);
    print(0x38C5AF03u);
    const uint16_t wide[] = {'G', 0xFC, 0x00DF, 'e', 0xD83D, 0xDE00, 0};
    print(0x38C5AF04u, wide);
    print(0x38C5AF05u);
    print(0x38C5AF06u, big.c_str());
  });
  if (o.status == 77) GTEST_SKIP() << "no C.UTF-8 locale";
  std::string xml = file("p.xml");
  // Each record's Id, Severity and Params: '*' takes its int, "%%" is no
  // Param, "ul" is a 64-bit value and an 'l', a byte that cannot be converted
  // becomes '?'; a text that is no identifier gives INFO.
  std::vector<std::string> got;
  const std::regex field(
      R"re(<Message Id="([^"]*)" Severity="(\w+)">|<Param><!\[CDATA\[(.*?)\]\]>)re");
  for (std::sregex_iterator it(xml.begin(), xml.end(), field), end; it != end; ++it) {
    if ((*it)[1].matched) got.push_back((*it)[1].str() + "|" + (*it)[2].str());
    else got.back() += "|" + (*it)[3].str();
  }
  ASSERT_EQ(6u, got.size());
  got.pop_back();
  EXPECT_EQ((std::vector<std::string>{
                "XKJSC9001E|ERROR|    42|ab|7l| 1.25|Z|ff|10|-5|abc|a?b",
                "XKJSC9002W|WARN|(Failed to handle a data type in svcprintf.c, printPrefix())",
                "XKJSC9003I|INFO", "XKJSC9004E|ERROR|G\xc3\xbc\xc3\x9f" "e\xf0\x9f\x98\x80",
                "Short|INFO"}),
            got);
  EXPECT_TRUE(has(xml, "<LogText><![CDATA[" + std::string(19999, 'x') + " ]]></LogText>"));
}

// A record reuses nothing of the record before it: texts of one length with
// other conversions, and the time text of a second that is over (the time
// text of each XML record agrees with its Millis, within a second and across
// the next one).
TEST_F(SvcPrint, RecordsTakeNothingStaleFromTheRecordBefore) {
  static const zar_msg_entry texts[] = {{0x38C5AF11, "Got %s."}, {0x38C5AF12, "Got %d."}};
  Captured o = inChild([&] {
    unsigned long st = 0;
    zar_msg_define_msg_table(texts, 2, &st);
    route("NOTICE:TEXTFILE:@/t.log;XMLFILE:@/t.xml");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, kNotice, texts[0].code, "ab");
    zar_svc_printf_withfile(zarsv_client_svc_handle, "p.c", 1, "", 0, kNotice, texts[1].code, 42);
    usleep(20000);  // other tens of milliseconds, mostly within the same second
    printError(kNotice);
    for (time_t now = time(nullptr); time(nullptr) == now;) usleep(1000);  // the next second
    printError(kNotice);
  });
  ASSERT_EQ(kEnded, o.status) << o.err;
  std::string log = file("t.log"), xml = file("t.xml");
  EXPECT_TRUE(has(log, " Got ab.\n") && has(log, " Got 42.\n")) << log;
  const std::regex stamp(R"re(<Time Millis="(\d+)">[-\d]+:\d\d:(\d\d)\.(\d{3})</Time>)re");
  int n = 0;
  for (std::sregex_iterator it(xml.begin(), xml.end(), stamp), end; it != end; ++it, ++n) {
    long long millis = std::stoll((*it)[1].str());
    EXPECT_EQ(millis / 1000 % 60, std::stoi((*it)[2].str())) << (*it)[0];
    EXPECT_EQ(millis % 1000, std::stoi((*it)[3].str())) << (*it)[0];
  }
  EXPECT_EQ(4, n);
}

}  // namespace
