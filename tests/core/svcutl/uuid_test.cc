#include <stdint.h>
#include <string.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/uuid.h"

namespace {

kp_uuid_t make(uint32_t tl, uint16_t tm, uint16_t th, uint8_t hi, uint8_t lo,
               std::initializer_list<uint8_t> node) {
  kp_uuid_t u;
  u.time_low = tl;
  u.time_mid = tm;
  u.time_hi_and_version = th;
  u.clock_seq_hi_and_reserved = hi;
  u.clock_seq_low = lo;
  std::copy(node.begin(), node.end(), u.node);
  return u;
}

const kp_uuid_t kSample = make(0x01234567, 0x89ab, 0x11cd, 0x80 | 0x2f, 0x01, {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcc});

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
    ::testing::Values(
        ParseCase{"01234567-89ab-11cd-af01-001b21aabbcc", 0, "01234567-89ab-11cd-af01-001b21aabbcc"},
        ParseCase{"01234567-89AB-11CD-AF01-001B21AABBCC", 0, "01234567-89ab-11cd-af01-001b21aabbcc"},
        ParseCase{"00000000-0000-0000-0000-000000000000", 0, "00000000-0000-0000-0000-000000000000"},
        ParseCase{"", 0, "00000000-0000-0000-0000-000000000000"},
        ParseCase{nullptr, 0, "00000000-0000-0000-0000-000000000000"},
        // Old form: bytes 6 and 7 become 0.
        ParseCase{"0123456789ab.af.01.00.1b.21.aa.bb.cc", 0, "01234567-89ab-0000-af01-001b21aabbcc"},
        // NCS (top bit clear) and reserved-vendor (110) variants are accepted.
        ParseCase{"01234567-89ab-11cd-7f01-001b21aabbcc", 0, "01234567-89ab-11cd-7f01-001b21aabbcc"},
        ParseCase{"01234567-89ab-11cd-c001-001b21aabbcc", 0, "01234567-89ab-11cd-c001-001b21aabbcc"},
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

TEST(Uuid, TextFormIsLowerCaseFixedWidth) {
  uint64_t st = 1;
  EXPECT_EQ("01234567-89ab-11cd-af01-001b21aabbcc", toString(&kSample, &st));
  ASSERT_ZAR_OK(st);
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", toString(&uuid_g_nil_uuid, &st));
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", toString(nullptr, &st));
  kp_uuid_t bad = kSample;
  bad.clock_seq_hi_and_reserved = 0xE0;
  EXPECT_EQ("(null)", toString(&bad, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  kp_uuid_to_string(&kSample, nullptr, &st);  // no text wanted: nothing to do
  EXPECT_ZAR_OK(st);
}

TEST(Uuid, TextFormAllocationFailureIsReported) {
  zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1);
  uint64_t st = 0;
  EXPECT_EQ("(null)", toString(&kSample, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_NO_MEMORY, st);
}

struct CompareCase {
  const kp_uuid_t* a;
  const kp_uuid_t* b;
  int result;
};

const kp_uuid_t kHigherTimeLow = make(0x01234568, 0, 0, 0x80, 0, {0, 0, 0, 0, 0, 0});
const kp_uuid_t kHigherNode = make(0x01234567, 0x89ab, 0x11cd, 0xaf, 0x01, {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcd});
const kp_uuid_t kHigherSeqHi = make(0x01234567, 0x89ab, 0x11cd, 0xb0, 0x00, {0, 0, 0, 0, 0, 0});
// Differs only in time_mid, whose bytes in memory put it below kSample when
// compared bytewise on a little-endian host but above it as a number.
const kp_uuid_t kMidAbove = make(0x01234567, 0x89ac, 0x00cd, 0xaf, 0x01, {0, 0x1b, 0x21, 0xaa, 0xbb, 0xcc});

class UuidCompare : public ::testing::TestWithParam<CompareCase> {};

TEST_P(UuidCompare, OrdersByFieldsAsNumbers) {
  uint64_t st = 1;
  EXPECT_EQ(GetParam().result, kp_uuid_compare(GetParam().a, GetParam().b, &st));
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(-GetParam().result, kp_uuid_compare(GetParam().b, GetParam().a, &st));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UuidCompare,
    ::testing::Values(CompareCase{nullptr, nullptr, 0}, CompareCase{nullptr, &uuid_g_nil_uuid, 0},
                      CompareCase{nullptr, &kSample, -1}, CompareCase{&kSample, &kSample, 0},
                      CompareCase{&kSample, &kHigherTimeLow, -1},
                      CompareCase{&kSample, &kHigherNode, -1},
                      CompareCase{&kSample, &kHigherSeqHi, -1},
                      CompareCase{&kSample, &kMidAbove, -1}));

TEST(Uuid, EveryReaderRefusesTheUnknownVariant) {
  kp_uuid_t bad = kSample;
  bad.clock_seq_hi_and_reserved = 0xE5;
  uint64_t st = 0;
  EXPECT_EQ(-1, kp_uuid_compare(&bad, &kSample, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_equal(&bad, &bad, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_is_nil(&bad, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
  st = 0;
  EXPECT_EQ(0, kp_uuid_hash(&bad, &st));
  EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, st);
}

TEST(Uuid, EqualityNilAndNullArguments) {
  uint64_t st = 1;
  kp_uuid_t copy = kSample;
  EXPECT_EQ(1, kp_uuid_equal(&copy, &kSample, &st));
  EXPECT_ZAR_OK(st);
  copy.node[5] ^= 1;
  EXPECT_EQ(0, kp_uuid_equal(&copy, &kSample, &st));
  EXPECT_EQ(1, kp_uuid_equal(nullptr, &uuid_g_nil_uuid, &st));
  EXPECT_EQ(1, kp_uuid_is_nil(&uuid_g_nil_uuid, &st));
  EXPECT_EQ(1, kp_uuid_is_nil(nullptr, &st));
  EXPECT_EQ(0, kp_uuid_is_nil(&kSample, &st));
  kp_uuid_t u = kSample;
  kp_uuid_create_nil(&u, &st);
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(1, kp_uuid_is_nil(&u, nullptr));
  kp_uuid_create_nil(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  kp_uuid_from_string("", nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  kp_uuid_string_free(nullptr, &st);
  EXPECT_ZAR_OK(st);
}

struct HashCase {
  const char* text;
  uint16_t hash;
};

class UuidHash : public ::testing::TestWithParam<HashCase> {};

// Expected values worked by hand from the byte sums (little-endian host):
// bytes 00..00 01 give c0 = 1, c1 = 1: x = (-1 mod 255) = 254, y = 0.
TEST_P(UuidHash, IsTheFletcherSumOfTheBytesInMemory) {
  kp_uuid_t u;
  uint64_t st = 1;
  kp_uuid_from_string(GetParam().text, &u, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(GetParam().hash, kp_uuid_hash(&u, &st));
  EXPECT_ZAR_OK(st);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UuidHash,
    ::testing::Values(HashCase{"00000000-0000-0000-0000-000000000000", 0},
                      HashCase{"00000000-0000-0000-0000-000000000001", 0x00FE},
                      // Byte 0 in memory is the low byte of time_low: c0 = 1,
                      // c1 = 16: x = 239, y = 15.
                      HashCase{"00000001-0000-0000-0000-000000000000", 0x0FEF},
                      // The same value in the high byte of time_low lies at
                      // byte 3: c1 = 13, x = 242, y = 12.
                      HashCase{"01000000-0000-0000-0000-000000000000", 0x0CF2}));

}  // namespace
