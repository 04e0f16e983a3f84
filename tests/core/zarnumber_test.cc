#include <limits.h>
#include <stdint.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/util.h"

namespace {

TEST(ZarNumber, StrToLConvertsAndRejectsTrailingGarbageAndOverflow) {
  const uint32_t kBad = ZAR_S_BAD_NUMBER, kLarge = ZAR_S_NUMBER_TOO_LARGE,
                 kInvalid = ZAR_S_INVALID_INPUT;
  const struct {
    const char* text;
    int base;
    uint32_t status;
    int64_t value;  // the value stored, on failure too
  } cases[] = {
      {"12", 10, 0, 12}, {"  -42", 10, 0, -42}, {"+7", 10, 0, 7}, {"", 10, 0, 0},
      {"0x1F", 16, 0, 31}, {"0x1F", 0, 0, 31}, {"017", 0, 0, 15}, {"zz", 36, 0, 1295},
      {"12 ", 10, kBad, 12}, {"12\n", 10, kBad, 12}, {"12abc", 10, kBad, 12}, {"1.5", 10, kBad, 1},
      {"19", 8, kBad, 1}, {"abc", 10, kBad, 0}, {" ", 10, kBad, 0}, {"-", 10, kBad, 0},
      {nullptr, 10, kBad, 0}, {"9223372036854775807", 10, 0, LONG_MAX},
      {"-9223372036854775808", 10, 0, LONG_MIN},
      {"9223372036854775808", 10, kLarge, LONG_MAX},
      {"99999999999999999999", 10, kLarge, LONG_MAX},
      {"-99999999999999999999", 10, kLarge, LONG_MIN},
      {"99999999999999999999x", 10, kBad, LONG_MAX},
      {"12", 1, kInvalid, 0}, {"12", 37, kInvalid, 0}, {"12", -1, kInvalid, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("\"") + (c.text ? c.text : "(null)") + "\" base " + std::to_string(c.base));
    int64_t v = -12345;
    EXPECT_ZAR_STATUS(c.status, zar_strtol(c.text, c.base, &v));
    EXPECT_EQ(c.value, v);
  }
  EXPECT_ZAR_STATUS(kInvalid, zar_strtol("12", 10, nullptr));
}

}  // namespace
