#include <limits.h>
#include <stdint.h>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/util.h"

namespace {

struct NumberCase {
  const char* text;
  int base;
  uint32_t status;
  int64_t value;
};

class StrToL : public ::testing::TestWithParam<NumberCase> {};

TEST_P(StrToL, ConvertsAndChecks) {
  const NumberCase& c = GetParam();
  int64_t v = -12345;
  EXPECT_ZAR_STATUS(c.status, zar_strtol(c.text, c.base, &v))
      << '"' << (c.text ? c.text : "(null)") << '"';
  EXPECT_EQ(c.value, v);
}

INSTANTIATE_TEST_SUITE_P(
    Table, StrToL,
    ::testing::Values(
        NumberCase{"12", 10, 0, 12}, NumberCase{"  -42", 10, 0, -42}, NumberCase{"+7", 10, 0, 7},
        NumberCase{"", 10, 0, 0}, NumberCase{"0x1F", 16, 0, 31}, NumberCase{"0x1F", 0, 0, 31},
        NumberCase{"017", 0, 0, 15}, NumberCase{"zz", 36, 0, 1295},
        NumberCase{"12 ", 10, ZAR_S_BAD_NUMBER, 12}, NumberCase{"12\n", 10, ZAR_S_BAD_NUMBER, 12},
        NumberCase{"12abc", 10, ZAR_S_BAD_NUMBER, 12}, NumberCase{"1.5", 10, ZAR_S_BAD_NUMBER, 1},
        NumberCase{"19", 8, ZAR_S_BAD_NUMBER, 1}, NumberCase{"abc", 10, ZAR_S_BAD_NUMBER, 0},
        NumberCase{" ", 10, ZAR_S_BAD_NUMBER, 0}, NumberCase{"-", 10, ZAR_S_BAD_NUMBER, 0},
        NumberCase{nullptr, 10, ZAR_S_BAD_NUMBER, 0},
        NumberCase{"9223372036854775807", 10, 0, LONG_MAX},
        NumberCase{"-9223372036854775808", 10, 0, LONG_MIN},
        NumberCase{"9223372036854775808", 10, ZAR_S_NUMBER_TOO_LARGE, LONG_MAX},
        NumberCase{"99999999999999999999", 10, ZAR_S_NUMBER_TOO_LARGE, LONG_MAX},
        NumberCase{"-99999999999999999999", 10, ZAR_S_NUMBER_TOO_LARGE, LONG_MIN},
        NumberCase{"99999999999999999999x", 10, ZAR_S_BAD_NUMBER, LONG_MAX},
        NumberCase{"12", 1, ZAR_S_INVALID_INPUT, 0}, NumberCase{"12", 37, ZAR_S_INVALID_INPUT, 0},
        NumberCase{"12", -1, ZAR_S_INVALID_INPUT, 0}));

TEST(StrToLNull, NullValuePointerIsInvalidInput) {
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, zar_strtol("12", 10, nullptr));
}

}  // namespace
