// The per-thread message save: held back or also printed, printed later with
// the saving call's details, cleared and stopped; bad arguments; no action
// for held-back messages; XML routes and route types; the list of a thread
// that ends, and of a component that is gone.
#include <regex>
#include <string>
#include <thread>

#include "tests/testutil/caproute.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::CaptureFd;
using zar::test::splitLines;

constexpr uint32_t kSysFailed = 0x38C5209C;  // "XKJSC0156E   The %s system routine failed: ..."

class SvcSave : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("SVC_NOXPGCAT", "1", 1);
    unsigned long st = 0;
    zar_svc_init(0, &st);
  }
  void TearDown() override { zar_svc_msgsave_stop(1); }
};

void printAt(int line, uint32_t attributes = svc_c_sev_error,
             zar_svc_handle handle = zarsv_client_svc_handle) {
  zar_svc_printf_withfile(handle, "save.cc", line, "%s%d", 0, attributes, kSysFailed, "read",
                          line);
}
void route(const char* setting) {
  unsigned long st = 1;
  zar_svc_routing(setting, &st);
  ASSERT_ZAR_OK(st);
}

TEST_F(SvcSave, HeldBackPrintedLaterAgainAndAgainThenCleared) {
  route("ERROR:STDOUT:");
  CaptureFd out(1);
  ASSERT_EQ(0u, zar_svc_msgsave_start(0, 0, nullptr));
  printAt(11);
  zar_svc__debug(zarsv_client_svc_handle, 0, 1, "debug");  // never saved; no debug routes
  zar_svc_msgsave_print(0);
  zar_svc_msgsave_clear(0);
  EXPECT_EQ("", out.text());
  zar_svc_msgsave_print(-1);
  zar_svc_msgsave_print(-1);
  auto lines = splitLines(out.text());
  ASSERT_EQ(4u, lines.size()) << out.text();
  EXPECT_TRUE(std::regex_search(lines[0], std::regex(" ERROR wsc core save\\.cc 11 0x")));
  EXPECT_EQ("XKJSC0156E   The read system routine failed: system error code: 11", lines[1]);
  EXPECT_EQ(lines[0], lines[2]);  // the saving call's time and details

  // Mode 1: written at once and saved as well; restarting keeps the list.
  ASSERT_EQ(0u, zar_svc_msgsave_start(0, 1, nullptr));
  printAt(12);
  EXPECT_EQ(6u, splitLines(out.text()).size());
  zar_svc_msgsave_print(-1);
  EXPECT_EQ(10u, splitLines(out.text()).size());
  zar_svc_msgsave_clear(-1);
  zar_svc_msgsave_print(-1);
  zar_svc_msgsave_stop(0);
  printAt(13);  // not saved any more
  zar_svc_msgsave_print(-1);
  EXPECT_EQ(12u, splitLines(out.text()).size());
}

TEST_F(SvcSave, BadArgumentsChangeNothing) {
  int reserved = 0;
  struct Case {
    uint32_t selector, mode;
    void* reserved;
    unsigned long status;
  };
  for (const Case& c : {Case{0, 2, nullptr, ZAR_S_SVC_BAD_MSGSAVE_ARGS},
                        Case{32, 0, nullptr, ZAR_S_SVC_BAD_MSGSAVE_ARGS},
                        Case{0, 0, &reserved, ZAR_S_SVC_BAD_MSGSAVE_ARGS},
                        Case{31, 1, nullptr, 0}}) {
    EXPECT_ZAR_STATUS(c.status, zar_svc_msgsave_start(c.selector, c.mode, c.reserved));
  }
}

TEST_F(SvcSave, HeldBackMessageTakesNoAction) {
  int status = zar::test::runInChild([] {
    zar_svc_msgsave_start(0, 0, nullptr);
    printAt(1, svc_c_sev_fatal | svc_c_action_exit_bad);
    printAt(2, svc_c_sev_fatal | svc_c_action_abort);
    zar_svc_msgsave_print(-1);  // printing takes no action either
    return 7;
  });
  EXPECT_EQ(7, zar::test::exitCode(status));
}

TEST_F(SvcSave, XmlRoutesAndRouteTypesGetTheSavedText) {
  zar::test::CaptureRoute cap("CAPS");
  route("WARNING:XMLSTDOUT:;CAPS:w");
  CaptureFd out(1);
  zar_svc_msgsave_start(3, 0, nullptr);
  printAt(21, svc_c_sev_warning);
  zar_svc_msgsave_print(-1);
  std::string xml = out.text();
  EXPECT_NE(std::string::npos, xml.find("<Message Id=\"XKJSC0156E\" Severity=\"ERROR\">")) << xml;
  EXPECT_EQ(std::string::npos, xml.find("<Param>"));
  EXPECT_NE(std::string::npos, xml.find("<![CDATA[XKJSC0156E   The read system routine failed: "
                                        "system error code: 21 ]]></LogText>\n</Message>\n"));
  ASSERT_EQ(1u, cap.records().size());
  EXPECT_EQ("%s", cap.records()[0].format);
  EXPECT_EQ(21, cap.records()[0].line);
}

TEST_F(SvcSave, ListsOfEndedThreadsAndGoneComponents) {
  route("ERROR:STDOUT:");
  CaptureFd out(1);
  // The thread's list goes with it (the leak checker sees it freed) and is
  // no other thread's.
  std::thread([] {
    zar_svc_msgsave_start(0, 0, nullptr);
    printAt(31);
  }).join();
  zar_svc_msgsave_start(0, 0, nullptr);
  zar_svc_msgsave_print(-1);
  EXPECT_EQ("", out.text());
  // A component unregistered since its message was saved: skipped.
  zar_svc_subcomp table[] = {{"main", "", 0, 0}, {}};
  unsigned long st = 0;
  zar_svc_handle h = zar_svc_register(table, "gone", &st);
  printAt(32, svc_c_sev_error, h);
  zar_svc_unregister(h, &st);
  zar_svc_msgsave_print(-1);
  EXPECT_EQ("", out.text());
}

}  // namespace
