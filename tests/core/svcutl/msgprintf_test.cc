#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/msgprintf.h"
#include "zar/svc.h"

namespace {

using zar::test::CaptureFd;

// XKJSC0156E: "The %s system routine failed: system error code: %d".
constexpr uint32_t kMsg = 0x38C5209C;
constexpr uint32_t kUnknown = 0x12345678;

class MsgPrintf : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { zar_svc_set_progname("prog1", nullptr); }
  // What the message's text gives for the arguments ("open", 2).
  static std::string expected() {
    unsigned long st = 0;
    char* text = zar_msg_get_msg(kMsg, &st);
    char buf[1024];
    snprintf(buf, sizeof buf, text, "open", 2);
    free(text);
    return buf;
  }
};

std::string take(char* s) {
  if (s == nullptr) return "(null)";
  std::string r = s;
  free(s);
  return r;
}

TEST_F(MsgPrintf, PrintingFormsWriteToTheirStream) {
  std::string msg = expected();
  ASSERT_NE(std::string::npos, msg.find("open")) << msg;
  {
    CaptureFd out(1);
    EXPECT_EQ(static_cast<int>(msg.size()), zar_printf(kMsg, "open", 2));
    EXPECT_EQ(static_cast<int>(msg.size()), zar_pgm_printf(kMsg, "open", 2));
    EXPECT_EQ(msg + "prog1:  " + msg + "\n", out.text());
  }
  {
    CaptureFd err(2);
    CaptureFd out(1);
    zar_pgm_fprintf(stderr, kMsg, "open", 2);
    zar_pgm_fprintf_utf8(stderr, kMsg, "open", 2);
    zar_fprintf(stderr, kMsg, "open", 2);
    EXPECT_EQ("", out.text());
    EXPECT_EQ("prog1:  " + msg + "\nprog1:  " + msg + "\n" + msg, err.text());
  }
}

TEST_F(MsgPrintf, SprintfFormsReturnNewTexts) {
  std::string msg = expected();
  EXPECT_EQ(msg, take(zar_sprintf(kMsg, "open", 2)));
  EXPECT_EQ("prog1:  " + msg, take(zar_pgm_sprintf(kMsg, "open", 2)));
  EXPECT_EQ(msg, take(zar_sprintf_utf8(kMsg, "open", 2)));
  EXPECT_EQ("prog1:  " + msg, take(zar_pgm_sprintf_utf8(kMsg, "open", 2)));
}

TEST_F(MsgPrintf, UnknownNumberPlainPrintsPlaceholderUtf8Fails) {
  CaptureFd out(1);
  EXPECT_LT(0, zar_printf(kUnknown));
  EXPECT_EQ(-1, zar_printf_utf8(kUnknown));
  EXPECT_EQ(-1, zar_pgm_printf_utf8(kUnknown));
  EXPECT_EQ("Unknown message number 0x12345678prog1:  \n", out.text());
  EXPECT_EQ("(null)", take(zar_sprintf_utf8(kUnknown)));
  EXPECT_EQ("(null)", take(zar_pgm_sprintf_utf8(kUnknown)));
  EXPECT_EQ("Unknown message number 0x12345678", take(zar_sprintf(kUnknown)));
}

// The plain sprintf forms stop at 4095 bytes however long the arguments.
TEST_F(MsgPrintf, PlainSprintfIsCutAtItsLimit) {
  std::string longArg(10000, 'r');
  std::string s = take(zar_pgm_sprintf(kMsg, longArg.c_str(), 1));
  EXPECT_EQ(4095u, s.size());
  EXPECT_EQ(0u, s.find("prog1:  "));
  // The UTF-8 forms have no such limit.
  EXPECT_NE(std::string::npos, take(zar_sprintf_utf8(kMsg, longArg.c_str(), 1)).find(longArg));
}

TEST_F(MsgPrintf, AllocationFailureGivesNoText) {
  for (long k = 1; k <= 3; ++k) {
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, k);
    char* s = zar_pgm_sprintf(kMsg, "open", 2);
    if (s != nullptr) {
      EXPECT_EQ("prog1:  " + expected(), take(s));
    }
  }
}

TEST_F(MsgPrintf, CancellationStateIsRestored) {
  for (int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
    int old;
    pthread_setcancelstate(state, &old);
    free(zar_sprintf(kMsg, "open", 2));
    int after;
    pthread_setcancelstate(old, &after);
    EXPECT_EQ(state, after);
  }
}

}  // namespace
