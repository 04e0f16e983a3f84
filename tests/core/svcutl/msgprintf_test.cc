// Printf functions whose format is the text of a message: streams, new
// texts, the program-name prefix, unknown numbers, limits and cancellation.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/msgprintf.h"
#include "zar/svc.h"

namespace {

using zar::test::CaptureFd;

// XKJSC0156E: "The %s system routine failed: system error code: %d".
constexpr uint32_t kMsg = 0x38C5209C;
constexpr uint32_t kUnknown = 0x12345678;

std::string take(char* s) {
  std::string r = s != nullptr ? s : "(null)";
  free(s);
  return r;
}

class MsgPrintf : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { zar_svc_set_progname("prog1", nullptr); }
  // What the message's text gives for the arguments ("open", 2).
  void SetUp() override {
    char buf[1024];
    unsigned long st = 0;
    std::string format = take(zar_msg_get_msg(kMsg, &st));
    snprintf(buf, sizeof buf, format.c_str(), "open", 2);
    msg_ = buf;
    ASSERT_NE(std::string::npos, msg_.find("open")) << msg_;
  }
  std::string msg_;
};

TEST_F(MsgPrintf, EveryFormWritesToItsOutput) {
  const int len = static_cast<int>(msg_.size());
  {
    CaptureFd err(2), out(1);
    EXPECT_EQ(len, zar_printf(kMsg, "open", 2));
    EXPECT_EQ(len, zar_pgm_printf(kMsg, "open", 2));
    zar_pgm_fprintf(stderr, kMsg, "open", 2);
    zar_pgm_fprintf_utf8(stderr, kMsg, "open", 2);
    zar_fprintf(stderr, kMsg, "open", 2);
    EXPECT_EQ(msg_ + "prog1:  " + msg_ + "\n", out.text());
    EXPECT_EQ("prog1:  " + msg_ + "\nprog1:  " + msg_ + "\n" + msg_, err.text());
  }
  EXPECT_EQ(msg_, take(zar_sprintf(kMsg, "open", 2)));
  EXPECT_EQ("prog1:  " + msg_, take(zar_pgm_sprintf(kMsg, "open", 2)));
  EXPECT_EQ(msg_, take(zar_sprintf_utf8(kMsg, "open", 2)));
  EXPECT_EQ("prog1:  " + msg_, take(zar_pgm_sprintf_utf8(kMsg, "open", 2)));
}

// An unknown number: the plain forms print a placeholder, the UTF-8 forms fail.
TEST_F(MsgPrintf, UnknownNumbersLimitsAndCancellationState) {
  CaptureFd out(1);
  EXPECT_LT(0, zar_printf(kUnknown));
  EXPECT_EQ(-1, zar_printf_utf8(kUnknown));
  EXPECT_EQ(-1, zar_pgm_printf_utf8(kUnknown));
  EXPECT_EQ("Unknown message number 0x12345678prog1:  \n", out.text());
  EXPECT_EQ("(null)", take(zar_sprintf_utf8(kUnknown)));
  EXPECT_EQ("(null)", take(zar_pgm_sprintf_utf8(kUnknown)));
  EXPECT_EQ("Unknown message number 0x12345678", take(zar_sprintf(kUnknown)));

  // The plain sprintf forms stop at 4095 bytes; the UTF-8 forms have no limit.
  std::string longArg(10000, 'r');
  std::string s = take(zar_pgm_sprintf(kMsg, longArg.c_str(), 1));
  EXPECT_EQ(4095u, s.size());
  EXPECT_EQ(0u, s.find("prog1:  "));
  EXPECT_NE(std::string::npos, take(zar_sprintf_utf8(kMsg, longArg.c_str(), 1)).find(longArg));
  for (int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
    int old, after;
    pthread_setcancelstate(state, &old);
    free(zar_sprintf(kMsg, "open", 2));
    pthread_setcancelstate(old, &after);
    EXPECT_EQ(state, after);
  }
}

}  // namespace
