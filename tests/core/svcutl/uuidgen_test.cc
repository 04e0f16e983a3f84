#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/svcutl/uuidgen.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/uuid.h"

namespace {

using zar::test::TempDir;

uint64_t timestampOf(const kp_uuid_t& u) {
  return (static_cast<uint64_t>(u.time_hi_and_version & 0x0FFF) << 48) |
         (static_cast<uint64_t>(u.time_mid) << 32) | u.time_low;
}
unsigned clockSeqOf(const kp_uuid_t& u) {
  return ((u.clock_seq_hi_and_reserved & 0x3Fu) << 8) | u.clock_seq_low;
}
// The 16 bytes as one comparable key.
std::string key(const kp_uuid_t& u) {
  return std::string(reinterpret_cast<const char*>(&u), 16);
}

kp_uuid_t create() {
  kp_uuid_t u;
  uint64_t st = 1;
  kp_uuid_create(&u, &st);
  EXPECT_ZAR_OK(st);
  return u;
}

TEST(UuidCreate, VersionVariantAndIncreasingTimestampsUnderOneClockSequence) {
  kp_uuid_t first = create();
  EXPECT_EQ(0x1000, first.time_hi_and_version & 0xF000);
  EXPECT_EQ(0x80, first.clock_seq_hi_and_reserved & 0xC0);
  EXPECT_EQ(0, kp_uuid_is_nil(&first, nullptr));
  kp_uuid_t prev = first;
  for (int i = 0; i < 1000; ++i) {
    kp_uuid_t next = create();
    ASSERT_GT(timestampOf(next), timestampOf(prev));
    ASSERT_EQ(clockSeqOf(first), clockSeqOf(next));
    ASSERT_EQ(0, memcmp(first.node, next.node, 6));
    prev = next;
  }
  // The timestamp is the time of day: within a minute of now.
  uint64_t now = static_cast<uint64_t>(time(nullptr)) * 10000000ULL + 0x01B21DD213814000ULL;
  EXPECT_LT(std::max(now, timestampOf(prev)) - std::min(now, timestampOf(prev)), 600000000ULL);

  uint64_t st = 0;
  kp_uuid_create(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
}

TEST(UuidCreate, AMillionFromTwoThreadsAreAllDistinct) {
  constexpr int kPerThread = 500000;
  std::vector<std::string> made[2];
  zar::test::runConcurrently(2, [&](int t) -> long {
    made[t].reserve(kPerThread);
    for (int i = 0; i < kPerThread; ++i) {
      kp_uuid_t u;
      kp_uuid_create(&u, nullptr);
      made[t].push_back(key(u));
    }
    return 0;
  });
  made[0].insert(made[0].end(), made[1].begin(), made[1].end());
  std::sort(made[0].begin(), made[0].end());
  EXPECT_EQ(made[0].end(), std::adjacent_find(made[0].begin(), made[0].end())) << "duplicate UUID";
}

// A thread keeps making UUIDs while the main thread forks; the child makes
// UUIDs at the same moment as the parent. None may be made twice.
TEST(UuidCreate, ForkWhileCreatingGivesNoDuplicate) {
  constexpr int kCount = 100000;
  create();  // the generator is set up before the fork
  std::vector<std::string> parent;
  parent.reserve(3 * kCount);
  std::atomic<bool> stop{false};
  std::atomic<size_t> made{0};
  std::thread maker([&] {
    while (!stop) {
      kp_uuid_t u;
      kp_uuid_create(&u, nullptr);
      parent.push_back(key(u));
      made.fetch_add(1);
    }
  });
  while (made.load() < 1000) std::this_thread::yield();
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    for (int i = 0; i < kCount; ++i) {
      kp_uuid_t u;
      uint64_t st = 1;
      kp_uuid_create(&u, &st);
      if (st != 0 || write(fds[1], &u, sizeof u) != sizeof u) _exit(1);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string bytes;
  char chunk[4096];
  for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;) bytes.append(chunk, n);
  std::vector<std::string> child;
  for (size_t i = 0; i + 16 <= bytes.size(); i += 16) child.push_back(bytes.substr(i, 16));
  close(fds[0]);
  stop = true;
  maker.join();
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(0, zar::test::exitCode(status));
  ASSERT_EQ(static_cast<size_t>(kCount), child.size());
  std::sort(parent.begin(), parent.end());
  std::sort(child.begin(), child.end());
  std::vector<std::string> both;
  std::set_intersection(parent.begin(), parent.end(), child.begin(), child.end(),
                        std::back_inserter(both));
  EXPECT_TRUE(both.empty()) << both.size() << " UUIDs made by both parent and child";
}

std::string hexAddress(const uint8_t* a) {
  char buf[18];
  snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
  return buf;
}

TEST(UuidNode, InterfaceWalkAndAddressFileOfTwelveHexDigits) {
  uint8_t addr[6];
  uint64_t st = 1;
  kp_get_802_addr(addr, &st);
  EXPECT_ZAR_OK(st);
  kp_get_802_addr(nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_INVALID_INPUT, st);
  const uint32_t kMissing = ZAR_S_UUID_ADDR_FILE_MISSING, kBad = ZAR_S_UUID_ADDR_FILE_BAD;
  const struct {
    const char* content;  // null: no file
    uint32_t status;
    const char* address;  // when status is 0
  } cases[] = {{"0016D3cca427\n", 0, "00:16:d3:cc:a4:27"},
               {"0016d3cca427trailing", 0, "00:16:d3:cc:a4:27"},
               {nullptr, kMissing, ""},     {"0016d3cca4", kMissing, ""},
               {"", kMissing, ""},          {"00:16:d3:cc:a4:27", kBad, ""},
               {"0016d3cca42g", kBad, ""},  {" 016d3cca427", kBad, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content ? c.content : "(no file)");
    TempDir dir;
    const std::string path = dir.file("ieee_802_addr");
    if (c.content != nullptr) zar::test::writeFile(path, c.content);
    uint8_t got[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_ZAR_STATUS(c.status, zar::uuid::readAddressFile(path.c_str(), got));
    if (c.status == 0) {
      EXPECT_EQ(c.address, hexAddress(got));
    }
  }
}

TEST(UuidNode, SourcesAreTriedInOrder) {
  TempDir dir;
  std::string file = dir.file("addr");
  const uint8_t walked[6] = {0x00, 0x16, 0xd3, 0x01, 0x02, 0x03};
  const uint8_t zero[6] = {};
  uint8_t out[6];
  zar::test::writeFile(file, "020000000001");
  ASSERT_ZAR_OK(zar::uuid::chooseNode(walked, file.c_str(), out));
  EXPECT_EQ("00:16:d3:01:02:03", hexAddress(out));
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, file.c_str(), out));
  EXPECT_EQ("02:00:00:00:00:01", hexAddress(out));
  // No file: random bytes with the multicast bit, different each draw.
  uint8_t again[6];
  std::string missing = dir.file("missing");
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, missing.c_str(), out));
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, missing.c_str(), again));
  EXPECT_EQ(1, out[0] & 1);
  EXPECT_EQ(1, again[0] & 1);
  EXPECT_NE(hexAddress(out), hexAddress(again));
  // A file of zeros is no address either.
  zar::test::writeFile(file, "000000000000");
  ASSERT_ZAR_OK(zar::uuid::chooseNode(zero, file.c_str(), out));
  EXPECT_EQ(1, out[0] & 1);
  // Without random bytes there is no node at all.
  zar::test::FaultPlan plan(zar::fault::Op::kRandom, 1, /*sticky=*/true, 5 /* EIO */);
  EXPECT_ZAR_STATUS(ZAR_S_UUID_NO_ADDRESS, zar::uuid::chooseNode(zero, missing.c_str(), out));
}

}  // namespace
