#include <errno.h>
#include <string.h>

#include <set>
#include <string>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/util.h"

namespace {

TEST(RandomBytes, FillsTheBufferWithFreshBytesAndRejectsBadArguments) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    unsigned char buf[16] = {};
    ASSERT_ZAR_OK(zar_get_random_bytes(buf, sizeof buf));
    seen.insert(std::string(reinterpret_cast<char*>(buf), sizeof buf));
  }
  EXPECT_EQ(100u, seen.size());
  std::string big(1 << 16, '\0');
  ASSERT_ZAR_OK(zar_get_random_bytes(big.data(), static_cast<uint32_t>(big.size())));
  EXPECT_NE(std::string(1 << 16, '\0'), big);
  unsigned char buf[4] = {1, 2, 3, 4};  // a zero count or a null buffer touches nothing
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_get_random_bytes(buf, 0));
  EXPECT_EQ(0, memcmp(buf, "\1\2\3\4", 4));
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_get_random_bytes(nullptr, 4));
}

// A failing source is a toolkit failure, logged as an error message with the
// toolkit's description.
TEST(RandomBytes, SourceFailureIsReportedAndLogged) {
  unsigned char buf[16];
  ASSERT_ZAR_OK(zar_get_random_bytes(buf, sizeof buf));  // the context exists
  zar::test::CaptureFd err(2);
  {
    zar::test::FaultPlan plan(zar::fault::Op::kRandom, 1, /*sticky=*/true, EIO);
    EXPECT_ZAR_STATUS(ZAR_S_KRY_FAILURE, zar_get_random_bytes(buf, sizeof buf));
  }
  std::string text = err.text();
  EXPECT_NE(std::string::npos, text.find("KRY_RAND_bytes")) << text;
  EXPECT_NE(std::string::npos, text.find("XKJSC0179E")) << text;
}

}  // namespace
