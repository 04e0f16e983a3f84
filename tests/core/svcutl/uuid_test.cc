#include <stdint.h>
#include <string.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/uuid.h"

namespace {

kp_uuid_t parse(const char* text) {
  kp_uuid_t u;
  uint64_t st = 1;
  kp_uuid_from_string(text, &u, &st);
  EXPECT_ZAR_OK(st) << text;
  return u;
}

const kp_uuid_t kSample = parse("01234567-89ab-11cd-af01-001b21aabbcc");
// Byte 8 at 0xE5: the unknown variant, built directly (the parser refuses it).
const kp_uuid_t kBadVariant = [] {
  kp_uuid_t u = kSample;
  u.clock_seq_hi_and_reserved = 0xE5;
  return u;
}();

std::string toString(const kp_uuid_t* u, uint64_t* st) {
  char* text = reinterpret_cast<char*>(1);
  kp_uuid_to_string(u, &text, st);
  if (text == nullptr) return "(null)";
  std::string r = text;
  kp_uuid_string_free(&text, nullptr);
  EXPECT_EQ(nullptr, text);
  return r;
}

struct ParseCase {
  const char* text;
  uint32_t status;
  const char* canonical;  // text form of the result when status is 0
};

class UuidParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(UuidParse, ParsesOrRefuses) {
  const ParseCase& c = GetParam();
  kp_uuid_t u = kSample;
  uint64_t st = 77;
  kp_uuid_from_string(c.text, &u, &st);
  EXPECT_ZAR_STATUS(c.status, st) << (c.text ? c.text : "(null)");
  if (c.status != 0) {
    EXPECT_EQ(0, memcmp(&u, &kSample, sizeof u)) << "a failed parse changed the UUID";
    return;
  }
  EXPECT_EQ(c.canonical, toString(&u, &st));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UuidParse,
    ::testing::Values(ParseCase{"01234567-89ab-11cd-af01-001b21aabbcc", 0,
                                "01234567-89ab-11cd-af01-001b21aabbcc"},
                      ParseCase{"01234567-89AB-11CD-AF01-001B21AABBCC", 0,
                                "01234567-89ab-11cd-af01-001b21aabbcc"},
                      ParseCase{"00000000-0000-0000-0000-000000000000", 0,
                                "00000000-0000-0000-0000-000000000000"},
                      ParseCase{"", 0, "00000000-0000-0000-0000-000000000000"},
                      ParseCase{nullptr, 0, "00000000-0000-0000-0000-000000000000"},
                      // Old form: bytes 6 and 7 become 0.
                      ParseCase{"0123456789ab.af.01.00.1b.21.aa.bb.cc", 0,
                                "01234567-89ab-0000-af01-001b21aabbcc"},
                      // NCS (top bit clear) and reserved-vendor (110) variants are accepted.
                      ParseCase{"01234567-89ab-11cd-7f01-001b21aabbcc", 0,
                                "01234567-89ab-11cd-7f01-001b21aabbcc"},
                      ParseCase{"01234567-89ab-11cd-c001-001b21aabbcc", 0,
                                "01234567-89ab-11cd-c001-001b21aabbcc"},
                      ParseCase{"01234567-89ab-11cd-e001-001b21aabbcc", ZAR_S_UUID_BAD_VARIANT, ""},
                      ParseCase{"01234567-89ab-11cd-ff01-001b21aabbcc", ZAR_S_UUID_BAD_VARIANT, ""},
                      ParseCase{"0123456789ab.e0.01.00.1b.21.aa.bb.cc", ZAR_S_UUID_BAD_VARIANT, ""},
                      // Wrong lengths.
                      ParseCase{"01234567-89ab-11cd-af01-001b21aabbc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"01234567-89ab-11cd-af01-001b21aabbccd", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0", ZAR_S_UUID_BAD_TEXT, ""},
                      // Right length, wrong shape.
                      ParseCase{"01234567-89ab-11cd-af01-001b21aabbcg", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0123456x-89ab-11cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"01234567-89ab+11cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"01234567-89ab-11cd-af01+001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{" 1234567-89ab-11cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"01234567-+9ab-11cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"01234567-0x9a-11cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0123456789-ab-1cd-af01-001b21aabbcc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0123456789ab.af.01.00.1b.21.aa.bb-cc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0123456789ab:af.01.00.1b.21.aa.bb.cc", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"0123456789ab.af.01.00.1b.21.aa.bb.c ", ZAR_S_UUID_BAD_TEXT, ""},
                      ParseCase{"------------------------------------", ZAR_S_UUID_BAD_TEXT, ""}));

TEST(Uuid, TextFormNullsAndFailures) {
  uint64_t st = 1;
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", toString(nullptr, &st));
  EXPECT_ZAR_OK(st);
  EXPECT_EQ("(null)", toString(&kBadVariant, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  kp_uuid_to_string(&kSample, nullptr, &st);  // no text wanted: nothing to do
  EXPECT_ZAR_OK(st);
  {
    zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1);
    EXPECT_EQ("(null)", toString(&kSample, &st));
    EXPECT_ZAR_STATUS(ZAR_S_UUID_NO_MEMORY, st);
  }
  kp_uuid_t u = kSample;
  kp_uuid_create_nil(&u, &st);
  EXPECT_EQ(1, kp_uuid_is_nil(&u, &st));
  kp_uuid_create_nil(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  kp_uuid_from_string("", nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
}

struct CompareCase {
  const char* a;  // null: a null pointer
  const char* b;
  int result;
};

class UuidCompare : public ::testing::TestWithParam<CompareCase> {};

// Fields compare as numbers, not as bytes in memory; a null UUID is nil;
// equality and nil tests agree with the comparison.
TEST_P(UuidCompare, OrdersByFieldsAsNumbers) {
  const CompareCase& c = GetParam();
  kp_uuid_t a = c.a ? parse(c.a) : kSample, b = c.b ? parse(c.b) : kSample;
  const kp_uuid_t* pa = c.a ? &a : nullptr;
  const kp_uuid_t* pb = c.b ? &b : nullptr;
  uint64_t st = 1;
  EXPECT_EQ(c.result, kp_uuid_compare(pa, pb, &st));
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(-c.result, kp_uuid_compare(pb, pa, &st));
  EXPECT_EQ(c.result == 0 ? 1 : 0, kp_uuid_equal(pa, pb, &st));
  EXPECT_EQ(kp_uuid_compare(pa, nullptr, &st) == 0 ? 1 : 0, kp_uuid_is_nil(pa, &st));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UuidCompare,
    ::testing::Values(CompareCase{nullptr, nullptr, 0},
                      CompareCase{nullptr, "00000000-0000-0000-0000-000000000000", 0},
                      CompareCase{nullptr, "01234567-89ab-11cd-af01-001b21aabbcc", -1},
                      CompareCase{"01234567-89ab-11cd-af01-001b21aabbcc",
                                  "01234567-89ab-11cd-af01-001b21aabbcc", 0},
                      CompareCase{"01234567-89ab-11cd-af01-001b21aabbcc",
                                  "01234568-0000-0000-8000-000000000000", -1},
                      CompareCase{"01234567-89ab-11cd-af01-001b21aabbcc",
                                  "01234567-89ab-11cd-af01-001b21aabbcd", -1},
                      CompareCase{"01234567-89ab-11cd-af01-001b21aabbcc",
                                  "01234567-89ab-11cd-b000-000000000000", -1},
                      // The first differing field decides: time_mid before time_hi.
                      CompareCase{"01234567-89ab-11cd-af01-001b21aabbcc",
                                  "01234567-89ac-00cd-af01-001b21aabbcc", -1},
                      // 0xa9ab is above 0x89ac as a number, though its low byte, the first
                      // in memory, is smaller.
                      CompareCase{"01234567-a9ab-11cd-af01-001b21aabbcc",
                                  "01234567-89ac-11cd-af01-001b21aabbcc", 1}));

TEST(Uuid, EveryReaderRefusesTheUnknownVariant) {
  uint64_t st = 0;
  EXPECT_EQ(-1, kp_uuid_compare(&kBadVariant, &kSample, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_equal(&kBadVariant, &kBadVariant, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_is_nil(&kBadVariant, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_hash(&kBadVariant, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
}

struct HashCase {
  const char* text;
  uint16_t hash;
};

class UuidHash : public ::testing::TestWithParam<HashCase> {};

// Worked by hand from the running sums c0, c1 over the bytes in memory
// (little-endian host): hash = ((c1 - c0) mod 255) * 256 + (-c1 mod 255).
TEST_P(UuidHash, IsTheFletcherSumOfTheBytesInMemory) {
  uint64_t st = 1;
  kp_uuid_t u = parse(GetParam().text);
  EXPECT_EQ(GetParam().hash, kp_uuid_hash(&u, &st));
  EXPECT_ZAR_OK(st);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UuidHash,
    ::testing::Values(HashCase{"00000000-0000-0000-0000-000000000000", 0},
                      HashCase{"00000000-0000-0000-0000-000000000001", 0x00FE},    // c0 1, c1 1
                      HashCase{"00000001-0000-0000-0000-000000000000", 0x0FEF},    // byte 0: c1 16
                      HashCase{"01000000-0000-0000-0000-000000000000", 0x0CF2}));  // byte 3: c1 13

}  // namespace
