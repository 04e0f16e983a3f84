// The per-thread message save: held back or also printed, printed later with
// the saving call's details, cleared and stopped; bad arguments; no action
// for held-back messages; the lists of ended threads and of components gone.
#include <regex>
#include <thread>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::CaptureFd;
using zar::test::splitLines;

class SvcSave : public zar::test::SvcTest {
 protected:
  void SetUp() override { zar_svc_routing("*:STDOUT:", &st_); }
  void TearDown() override { zar_svc_msgsave_stop(1); }
  unsigned long st_ = 0;
};

void printAt(int line, uint32_t attributes = svc_c_sev_error,
             zar_svc_handle handle = zarsv_client_svc_handle) {
  zar_svc_printf_withfile(handle, "save.cc", line, "%s%d", 0, attributes, 0x38C5209C, "read",
                          line);
}

TEST_F(SvcSave, HeldBackPrintedLaterAgainAndAgainThenCleared) {
  int reserved = 0;
  EXPECT_EQ(ZAR_S_SVC_BAD_MSGSAVE_ARGS, zar_svc_msgsave_start(0, 2, nullptr));
  EXPECT_EQ(ZAR_S_SVC_BAD_MSGSAVE_ARGS, zar_svc_msgsave_start(32, 0, nullptr));
  EXPECT_EQ(ZAR_S_SVC_BAD_MSGSAVE_ARGS, zar_svc_msgsave_start(0, 0, &reserved));
  CaptureFd out(1);
  auto lines = [&] { return splitLines(out.text()); };
  printAt(10);  // nothing started: written at once
  ASSERT_EQ(0u, zar_svc_msgsave_start(31, 0, nullptr));
  printAt(11);
  zar_svc__debug(zarsv_client_svc_handle, 0, 1, "debug");  // never saved
  zar_svc_msgsave_print(0);
  zar_svc_msgsave_clear(0);
  EXPECT_EQ(2u, lines().size());
  zar_svc_msgsave_print(-1);
  zar_svc_msgsave_print(-1);
  ASSERT_EQ(6u, lines().size()) << out.text();
  EXPECT_TRUE(std::regex_search(lines()[2], std::regex(" ERROR wsc core save\\.cc 11 0x")));
  EXPECT_EQ("XKJSC0156E   The read system routine failed: system error code: 11", lines()[3]);
  EXPECT_EQ(lines()[2], lines()[4]);  // the saving call's time and details, each time
  // Mode 1: written at once and saved too; starting again keeps the list.
  ASSERT_EQ(0u, zar_svc_msgsave_start(0, 1, nullptr));
  printAt(12);
  zar_svc_msgsave_print(-1);
  EXPECT_EQ(12u, lines().size());
  zar_svc_msgsave_clear(-1);
  zar_svc_msgsave_print(-1);
  zar_svc_msgsave_stop(0);
  printAt(13);  // written, not saved
  zar_svc_msgsave_print(-1);
  EXPECT_EQ(14u, lines().size());
}

TEST_F(SvcSave, HeldBackMessagesTakeNoAction) {
  int status = zar::test::runInChild([] {
    zar_svc_msgsave_start(0, 0, nullptr);
    printAt(1, svc_c_sev_fatal | svc_c_action_exit_bad);
    printAt(2, svc_c_sev_fatal | svc_c_action_abort);
    zar_svc_msgsave_print(-1);  // printing takes none either
    return 7;
  });
  EXPECT_EQ(7, zar::test::exitCode(status));
}

// A thread's list goes with it (the leak checker sees it freed); a component
// unregistered since its message was saved is skipped.
TEST_F(SvcSave, ListsOfEndedThreadsAndComponentsGone) {
  CaptureFd out(1);
  std::thread([] {
    zar_svc_msgsave_start(0, 0, nullptr);
    printAt(31);
  }).join();
  zar_svc_msgsave_start(0, 0, nullptr);
  zar_svc_subcomp table[] = {{"main", "", 0, 0}, {}};
  unsigned long st = 0;
  zar_svc_handle h = zar_svc_register(table, "gone", &st);
  printAt(32, svc_c_sev_error, h);
  zar_svc_unregister(h, &st);
  zar_svc_msgsave_print(-1);
  EXPECT_EQ("", out.text());
}

}  // namespace
