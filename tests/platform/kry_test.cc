// Random bytes through the crypto toolkit interface over getrandom(2), with
// its error queue and injected failures.
#include "platform/kry.h"

#include <errno.h>
#include <string.h>

#include <thread>
#include <tuple>

#include "tests/testutil/testutil.h"

namespace {

using zar::fault::Op;
using zar::test::FaultPlan;

// An attached context with an empty error queue.
struct Ctx {
  Ctx() {
    ctx = KRY_Init(&st, nullptr);
    KRY_SetValue(ctx, &st, KRY_VALUE_NONBLOCKING, "off");
    attached = KRY_Attach(ctx, &st);
    while (KRY_ERR_get_error(ctx) != 0) {
    }
  }
  ~Ctx() { KRY_Free(ctx); }
  KRY_STATUS st{};
  KRY_CTX ctx;
  int attached;
};

// Fresh bytes; failures are queued per thread, oldest first, and described
// with the kernel's reason.
TEST(Kry, FreshBytesAndFailuresQueuedPerThread) {
  Ctx c;
  ASSERT_NE(nullptr, c.ctx);
  ASSERT_EQ(1, c.attached);
  unsigned char a[64] = {0}, b[64] = {0}, buf[16];
  ASSERT_EQ(2, KRY_RAND_bytes(c.ctx, a, sizeof a) + KRY_RAND_bytes(c.ctx, b, sizeof b));
  EXPECT_NE(0, memcmp(a, b, sizeof a));
  EXPECT_EQ(1, KRY_RAND_bytes(c.ctx, a, 0));
  EXPECT_EQ(0ul, KRY_ERR_get_error(c.ctx));
  {
    FaultPlan plan(Op::kRandom, 1, false, EAGAIN);
    EXPECT_EQ(0, KRY_RAND_bytes(c.ctx, buf, sizeof buf));
  }
  EXPECT_EQ(0, KRY_RAND_bytes(nullptr, buf, sizeof buf));
  unsigned long other = 1;
  std::thread([&] { other = KRY_ERR_get_error(c.ctx); }).join();
  EXPECT_EQ(0ul, other);
  const unsigned long code = KRY_ERR_get_error(c.ctx);
  EXPECT_EQ(KRY_ERROR_CODE(KRY_R_GETRANDOM_FAILED, EAGAIN), code);
  EXPECT_EQ(KRY_ERROR_CODE(KRY_R_BAD_ARGUMENT, EINVAL), KRY_ERR_get_error(c.ctx));
  EXPECT_EQ(0ul, KRY_ERR_get_error(c.ctx));  // taken off the queue
  char text[KRY_ERROR_STRING_LEN];
  std::string s = KRY_ERR_error_string(code, text);
  EXPECT_NE(std::string::npos, s.find("random source failed")) << s;
  EXPECT_NE(std::string::npos, s.find(strerror(EAGAIN))) << s;
  EXPECT_LT(s.size(), static_cast<size_t>(KRY_ERROR_STRING_LEN));
}

TEST(Kry, SettingsAndAttachmentAreChecked) {
  KRY_STATUS st{};
  KRY_CTX ctx = KRY_Init(&st, nullptr);
  ASSERT_NE(nullptr, ctx);
  unsigned char buf[4];
  EXPECT_EQ(0, KRY_RAND_bytes(ctx, buf, sizeof buf));  // not attached yet
  EXPECT_EQ(KRY_ERROR_CODE(KRY_R_NOT_ATTACHED, 0), KRY_ERR_get_error(ctx));
  for (auto [id, value, reason] : {std::tuple{KRY_VALUE_NONBLOCKING, "on", 0ul},
                                   {KRY_VALUE_NONBLOCKING, "off", 0ul},
                                   {KRY_VALUE_NONBLOCKING, "maybe", KRY_R_BAD_VALUE},
                                   {7, "on", KRY_R_BAD_VALUE_ID}}) {
    EXPECT_EQ(reason == 0 ? 1 : 0, KRY_SetValue(ctx, &st, id, value)) << value;
    EXPECT_EQ(reason == 0 ? 0ul : KRY_ERROR_CODE(reason, EINVAL), st.code);
    KRY_ERR_get_error(ctx);
  }
  {
    FaultPlan plan(Op::kRandom, 1, true, ENOSYS);
    EXPECT_EQ(0, KRY_Attach(ctx, &st));
    EXPECT_EQ(KRY_ERROR_CODE(KRY_R_GETRANDOM_FAILED, ENOSYS), st.code);
  }
  {
    FaultPlan plan(Op::kAlloc, 1);
    EXPECT_EQ(nullptr, KRY_Init(&st, nullptr));
    EXPECT_EQ(KRY_ERROR_CODE(KRY_R_NO_MEMORY, ENOMEM), st.code);
  }
  KRY_Free(ctx);
}

}  // namespace
