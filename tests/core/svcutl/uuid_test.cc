// UUID texts, comparison, nil and hash through the public API.
#include <string.h>

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/uuid.h"

namespace {

const char kS[] = "01234567-89ab-11cd-af01-001b21aabbcc";
const char kNil[] = "00000000-0000-0000-0000-000000000000";

kp_uuid_t parse(const char* text) {
  kp_uuid_t u;
  uint64_t st = 1;
  kp_uuid_from_string(text, &u, &st);
  EXPECT_ZAR_OK(st) << text;
  return u;
}
const kp_uuid_t kSample = parse(kS);

std::string toString(const kp_uuid_t* u, uint64_t* st) {
  char* text = reinterpret_cast<char*>(1);
  kp_uuid_to_string(u, &text, st);
  if (text == nullptr) return "(null)";
  std::string r = text;
  kp_uuid_string_free(&text, nullptr);
  EXPECT_EQ(nullptr, text);
  return r;
}

TEST(Uuid, ParsesOrRefusesEveryShape) {
  const uint32_t kT = ZAR_S_UUID_BAD_TEXT, kV = ZAR_S_UUID_BAD_VARIANT;

  const struct {
    const char* text;
    uint32_t status;
    const char* canonical = nullptr;  // text form of the result; null: the text itself
  } cases[] = {
      {kS, 0}, {"01234567-89AB-11CD-AF01-001B21AABBCC", 0, kS}, {kNil, 0}, {"", 0, kNil},
      {nullptr, 0, kNil},
      // Old form: bytes 6 and 7 become 0.
      {"0123456789ab.af.01.00.1b.21.aa.bb.cc", 0, "01234567-89ab-0000-af01-001b21aabbcc"},
      // NCS (top bit clear) and reserved-vendor (110) variants are accepted.
      {"01234567-89ab-11cd-7f01-001b21aabbcc", 0}, {"01234567-89ab-11cd-c001-001b21aabbcc", 0},
      {"01234567-89ab-11cd-e001-001b21aabbcc", kV}, {"01234567-89ab-11cd-ff01-001b21aabbcc", kV},
      {"0123456789ab.e0.01.00.1b.21.aa.bb.cc", kV}, {"01234567-89ab-11cd-af01-001b21aabbc", kT},
      {"0", kT}, {"01234567-89ab-11cd-af01-001b21aabbccd", kT},
      {"01234567-89ab-11cd-af01-001b21aabbcg", kT}, {"0123456x-89ab-11cd-af01-001b21aabbcc", kT},
      {" 1234567-89ab-11cd-af01-001b21aabbcc", kT}, {"01234567-+9ab-11cd-af01-001b21aabbcc", kT},
      {"01234567-0x9a-11cd-af01-001b21aabbcc", kT}, {"0123456789-ab-1cd-af01-001b21aabbcc", kT},
      {"0123456789ab.af.01.00.1b.21.aa.bb.c ", kT}, {"------------------------------------", kT}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(null)");
    kp_uuid_t u = kSample;
    uint64_t st = 77;
    kp_uuid_from_string(c.text, &u, &st);
    EXPECT_ZAR_STATUS(c.status, st);
    if (c.status == 0) {
      EXPECT_EQ(c.canonical ? c.canonical : c.text, toString(&u, &st));
    }
  }
}

TEST(Uuid, NullsAndTheUnknownVariant) {
  uint64_t st = 1;
  EXPECT_EQ(kNil, toString(nullptr, &st));
  kp_uuid_create_nil(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  // Byte 8 at 0xE5 (built directly; the parser refuses it): every reader refuses.
  kp_uuid_t bad = kSample;
  bad.clock_seq_hi_and_reserved = 0xE5;
  uint64_t sts[5] = {0, 0, 0, 0, 0};
  EXPECT_EQ("(null)", toString(&bad, &sts[0]));
  EXPECT_EQ(-1, kp_uuid_compare(&bad, &kSample, &sts[1]));
  EXPECT_EQ(0, kp_uuid_equal(&bad, &bad, &sts[2]));
  EXPECT_EQ(0, kp_uuid_is_nil(&bad, &sts[3]));
  EXPECT_EQ(0, kp_uuid_hash(&bad, &sts[4]));
  for (uint64_t one : sts) EXPECT_ZAR_STATUS(ZAR_S_UUID_BAD_VARIANT, one);
}

// Fields compare as numbers, not as bytes in memory; a null UUID is nil;
// equality and nil tests agree with the comparison.
TEST(Uuid, OrdersByFieldsAsNumbers) {
  const struct {
    const char *a, *b;  // null: a null pointer
    int result;
  } cases[] = {{nullptr, nullptr, 0}, {nullptr, kNil, 0}, {nullptr, kS, -1}, {kS, kS, 0},
               {kS, "01234568-0000-0000-8000-000000000000", -1},
               {kS, "01234567-89ab-11cd-af01-001b21aabbcd", -1},
               {kS, "01234567-89ab-11cd-b000-000000000000", -1},
               // The first differing field decides: time_mid before time_hi.
               {kS, "01234567-89ac-00cd-af01-001b21aabbcc", -1},
               // 0xa9ab is above 0x89ac as a number, though its low byte, the
               // first in memory, is smaller.
               {"01234567-a9ab-11cd-af01-001b21aabbcc", "01234567-89ac-11cd-af01-001b21aabbcc", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a ? c.a : "null") + " " + (c.b ? c.b : "null"));
    kp_uuid_t a = c.a ? parse(c.a) : kSample, b = c.b ? parse(c.b) : kSample;
    const kp_uuid_t *pa = c.a ? &a : nullptr, *pb = c.b ? &b : nullptr;
    uint64_t st = 1;
    EXPECT_EQ(c.result, kp_uuid_compare(pa, pb, &st));
    EXPECT_ZAR_OK(st);
    EXPECT_EQ(-c.result, kp_uuid_compare(pb, pa, &st));
    EXPECT_EQ(c.result == 0 ? 1 : 0, kp_uuid_equal(pa, pb, &st));
    EXPECT_EQ(kp_uuid_compare(pa, nullptr, &st) == 0 ? 1 : 0, kp_uuid_is_nil(pa, &st));
  }
}

// Worked by hand from the running sums c0, c1 over the bytes in memory
// (little-endian host): hash = ((c1 - c0) mod 255) * 256 + (-c1 mod 255).
TEST(Uuid, HashIsTheFletcherSumOfTheBytesInMemory) {
  const std::pair<const char*, uint16_t> cases[] = {
      {kNil, 0}, {"00000000-0000-0000-0000-000000000001", 0x00FE},  // c0 1, c1 1
      {"00000001-0000-0000-0000-000000000000", 0x0FEF},             // byte 0: c1 16
      {"01000000-0000-0000-0000-000000000000", 0x0CF2}};            // byte 3: c1 13
  for (const auto& [text, hash] : cases) {
    uint64_t st = 1;
    kp_uuid_t u = parse(text);
    EXPECT_EQ(hash, kp_uuid_hash(&u, &st)) << text;
    EXPECT_ZAR_OK(st);
  }
}

}  // namespace
