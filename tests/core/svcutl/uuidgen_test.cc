// UUID generation: version, variant and time order of one thread's UUIDs, and
// the node address. Uniqueness across threads, processes and fork is the
// reliability suite's (uuid-threads, uuid-processes, uuid-fork).
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "core/svcutl/uuidgen.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/uuid.h"

namespace {

using zar::test::TempDir;

uint64_t timestampOf(const kp_uuid_t& u) {
  return (static_cast<uint64_t>(u.time_hi_and_version & 0x0FFF) << 48) |
         (static_cast<uint64_t>(u.time_mid) << 32) | u.time_low;
}

TEST(UuidCreate, VersionVariantAndIncreasingTimestampsUnderOneClockSequence) {
  kp_uuid_t first, prev, next;
  uint64_t st = 1;
  kp_uuid_create(&first, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(0x1000, first.time_hi_and_version & 0xF000);
  EXPECT_EQ(0x80, first.clock_seq_hi_and_reserved & 0xC0);
  EXPECT_EQ(0, kp_uuid_is_nil(&first, nullptr));
  prev = first;
  for (int i = 0; i < 1000; ++i, prev = next) {
    kp_uuid_create(&next, &st);
    ASSERT_GT(timestampOf(next), timestampOf(prev));
    ASSERT_EQ(0, memcmp(&first.clock_seq_hi_and_reserved, &next.clock_seq_hi_and_reserved, 8));
  }
  // The timestamp is the time of day: within a minute of now.
  uint64_t now = static_cast<uint64_t>(time(nullptr)) * 10000000ULL + 0x01B21DD213814000ULL;
  EXPECT_LT(std::max(now, timestampOf(prev)) - std::min(now, timestampOf(prev)), 600000000ULL);
  kp_uuid_create(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
}

std::string hexAddress(const uint8_t* a) {
  char buf[18];
  snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
  return buf;
}

TEST(UuidNode, InterfaceWalkAndAddressFileOfTwelveHexDigits) {
  uint8_t got[6];
  uint64_t st = 1;
  kp_get_802_addr(got, &st);
  EXPECT_ZAR_OK(st);
  kp_get_802_addr(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  const uint32_t kMissing = ZAR_S_UUID_ADDR_FILE_MISSING, kBad = ZAR_S_UUID_ADDR_FILE_BAD;
  const std::tuple<const char*, uint32_t, const char*> cases[] = {
      // content (null: no file), status, address
      {"0016D3cca427\n", 0, "00:16:d3:cc:a4:27"}, {"0016d3cca427trailing", 0, "00:16:d3:cc:a4:27"},
      {nullptr, kMissing, ""}, {"0016d3cca4", kMissing, ""}, {"", kMissing, ""},
      {"00:16:d3:cc:a4:27", kBad, ""}, {"0016d3cca42g", kBad, ""}, {" 016d3cca427", kBad, ""}};
  TempDir dir;
  const std::string path = dir.file("ieee_802_addr");
  for (const auto& [content, status, address] : cases) {
    unlink(path.c_str());
    if (content != nullptr) zar::test::writeFile(path, content);
    EXPECT_ZAR_STATUS(status, zar::uuid::readAddressFile(path.c_str(), got)) << (content ?: "-");
    if (status == 0) {
      EXPECT_EQ(address, hexAddress(got));
    }
  }
}

TEST(UuidNode, SourcesAreTriedInOrder) {
  TempDir dir;
  const std::string file = dir.file("addr"), missing = dir.file("missing");
  const uint8_t walked[6] = {0x00, 0x16, 0xd3, 0x01, 0x02, 0x03}, zero[6] = {};
  uint8_t out[6], again[6];
  zar::test::writeFile(file, "020000000001");
  ASSERT_ZAR_OK(zar::uuid::chooseNode(walked, file.c_str(), out));
  EXPECT_EQ("00:16:d3:01:02:03", hexAddress(out));
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, file.c_str(), out));
  EXPECT_EQ("02:00:00:00:00:01", hexAddress(out));
  // No file, or a file of zeros: random bytes with the multicast bit, new each draw.
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, missing.c_str(), out));
  zar::test::writeFile(file, "000000000000");
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, file.c_str(), again));
  EXPECT_EQ(1, out[0] & again[0] & 1);
  EXPECT_NE(hexAddress(out), hexAddress(again));
  // Without random bytes there is no node at all.
  zar::test::FaultPlan plan(zar::fault::Op::kRandom, 1, /*sticky=*/true, 5 /* EIO */);
  EXPECT_ZAR_STATUS(ZAR_S_UUID_NO_ADDRESS, zar::uuid::chooseNode(zero, missing.c_str(), out));
}

}  // namespace
