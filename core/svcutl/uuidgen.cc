// Time-based UUID generation and the host's node address.
//
// A UUID's timestamp counts 100-ns intervals since 1582-10-15, but the clock
// (gettimeofday) moves in whole microseconds, so several UUIDs made within
// one reading are told apart by an adjustment added to it. The adjustment
// continues from the last timestamp handed out whenever the clock has moved
// less than the UUIDs already made within it, so a timestamp is never handed
// out twice under one clock sequence; when the adjustment would pass its
// limit (0x7FFF intervals ahead of the clock) creation waits for the clock.
// A clock that goes back changes the clock sequence instead.
//
// The generator state is process-wide and guarded by one leaf lock, so any
// number of threads may create UUIDs. A child of fork gets a fresh clock
// sequence from the random-byte source (different from the parent's), so
// parent and child never make the same UUID.
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "base/zarlock.h"
#include "base/zarstatus.h"
#include "core/svcutl/uuidgen.h"
#include "platform/sysio.h"
#include "zar/status.h"
#include "zar/utc.h"
#include "zar/util.h"

namespace zar::uuid {
namespace {

constexpr uint64_t kUnixEpoch = 0x01B21DD213814000ULL;  // 1970-01-01 in 100-ns since 1582-10-15
constexpr uint16_t kMaxAdjust = 0x7FFF;

// Invariants: mu is a leaf lock (nothing else is
// taken while it is held; the random-byte source and the node-address lookup
// are consulted before taking it). timeLast + timeAdjust is the timestamp of
// the last UUID handed out under clockSeq. gotAddress only goes from false to
// true, after savedAddr is written; it is read without the lock as a hint.
struct Generator {
  zar::Mutex mu = PTHREAD_MUTEX_INITIALIZER;
  bool initDone ZAR_GUARDED_BY(mu) = false;  // the fields below are set up
  uint32_t randM ZAR_GUARDED_BY(mu) = 0;     // clock-sequence random generator
  uint32_t randIa ZAR_GUARDED_BY(mu) = 0;
  uint32_t randIb ZAR_GUARDED_BY(mu) = 0;
  uint32_t randIrand ZAR_GUARDED_BY(mu) = 0;
  uint16_t clockSeq ZAR_GUARDED_BY(mu) = 0;    // only the low 14 bits enter a UUID
  uint16_t timeAdjust ZAR_GUARDED_BY(mu) = 0;  // added to timeLast for the last UUID
  uint64_t timeLast ZAR_GUARDED_BY(mu) = 0;    // clock value used for the last UUID
  std::atomic<bool> gotAddress{false};  // savedAddr is valid
  uint8_t savedAddr[6] ZAR_GUARDED_BY(mu) = {};  // node address for the life of the process
  std::atomic<bool> forked{false};      // set in a fork child: clockSeq must be renewed
  pthread_once_t forkOnce = PTHREAD_ONCE_INIT;  // the fork handlers are registered once
};

Generator gGen;

void forkPrepare() {
  pthread_mutex_lock(&gGen.mu);
}
void forkParent() {
  pthread_mutex_unlock(&gGen.mu);
}
void forkChild() {
  gGen.forked.store(true, std::memory_order_relaxed);
  pthread_mutex_unlock(&gGen.mu);
}
void registerForkHandlers() {
  pthread_atfork(forkPrepare, forkParent, forkChild);
}

// The current time as a UUID timestamp; a clock that cannot be read ends the
// process, since no UUID could be trusted.
uint64_t getOsTime() {
  struct timeval tv;
  if (zar_gettimeofday(&tv) != 0) {
    perror("uuid__get_os_time");
    exit(-1);
  }
  return static_cast<uint64_t>(tv.tv_sec) * 10000000ULL +
         static_cast<uint64_t>(tv.tv_usec) * 10ULL + kUnixEpoch;
}

// Next number of the clock-sequence generator (mu held).
uint16_t trueRandom(Generator& g) ZAR_REQUIRES(g.mu) {
  g.randM += 7;
  g.randIa += 1907;
  g.randIb += 73939;
  if (g.randM > 9972) g.randM -= 9871;
  if (g.randIa > 99990) g.randIa -= 89989;
  if (g.randIb > 224728) g.randIb -= 96233;
  g.randIrand = g.randIrand * g.randM + g.randIa + g.randIb;
  return static_cast<uint16_t>((g.randIrand & 0x3FFF) ^ (g.randIrand >> 16));
}

void initLocked(Generator& g) ZAR_REQUIRES(g.mu) {
  g.randM = 971;
  g.randIa = 11113;
  g.randIb = 104322;
  g.randIrand = 4181;
  uint64_t t = getOsTime();
  uint16_t seed = static_cast<uint16_t>(t ^ (t >> 16) ^ (t >> 32) ^ (t >> 48));
  g.randIrand += seed + static_cast<uint32_t>(getpid());
  g.timeLast = getOsTime();
  g.clockSeq = trueRandom(g);
  g.initDone = true;
}

// In a fork child: a clock sequence other than the parent's, from the random
// bytes when they could be had (fresh), else from the generator re-seeded
// with the child's process id.
void renewClockSeqLocked(Generator& g, bool haveFresh, uint16_t fresh) ZAR_REQUIRES(g.mu) {
  uint16_t parent = g.clockSeq & 0x3FFF;
  if (!haveFresh) {
    g.randIrand += static_cast<uint32_t>(getpid());
    fresh = trueRandom(g);
  }
  uint16_t seq = fresh & 0x3FFF;
  if (seq == parent) seq = (seq + 1) & 0x3FFF;
  g.clockSeq = seq;
}

}  // namespace

uint32_t readAddressFile(const char* path, uint8_t out[6]) {
  char buf[12];
  size_t got = 0;
  {
    CancelDisabled noCancel;  // the descriptor must not leak on cancellation
    int fd = sys::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return ZAR_S_UUID_ADDR_FILE_MISSING;
    while (got < sizeof buf) {
      ssize_t n = sys::read(fd, buf + got, sizeof buf - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    close(fd);
  }
  if (got < sizeof buf) return ZAR_S_UUID_ADDR_FILE_MISSING;
  uint8_t addr[6];
  for (int i = 0; i < 12; ++i) {
    char c = buf[i];
    int v = c >= '0' && c <= '9'   ? c - '0'
            : c >= 'a' && c <= 'f' ? c - 'a' + 10
            : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                   : -1;
    if (v < 0) return ZAR_S_UUID_ADDR_FILE_BAD;
    if (i % 2 == 0)
      addr[i / 2] = static_cast<uint8_t>(v << 4);
    else
      addr[i / 2] |= static_cast<uint8_t>(v);
  }
  memcpy(out, addr, 6);
  return ZAR_S_OK;
}

uint32_t chooseNode(const uint8_t walked[6], const char* addressFile, uint8_t out[6]) {
  static const uint8_t kZero[6] = {};
  if (memcmp(walked, kZero, 6) != 0) {
    memcpy(out, walked, 6);
    return ZAR_S_OK;
  }
  uint8_t fromFile[6];
  if (addressFile != nullptr && readAddressFile(addressFile, fromFile) == ZAR_S_OK &&
      memcmp(fromFile, kZero, 6) != 0) {
    memcpy(out, fromFile, 6);
    return ZAR_S_OK;
  }
  // No hardware address: a random one, marked as not belonging to any
  // hardware by the multicast bit, so it cannot clash with a real one.
  uint8_t random[6];
  if (zar_get_random_bytes(random, sizeof random) != ZAR_S_OK) return ZAR_S_UUID_NO_ADDRESS;
  random[0] |= 0x01;
  memcpy(out, random, 6);
  return ZAR_S_OK;
}

}  // namespace zar::uuid

extern "C" {

ZAR_API void kp_get_802_addr(uint8_t* address, uint64_t* status) {
  zar::setStatus(status, ZAR_S_UUID_ADDR_FILE_MISSING);
  if (address == nullptr) return zar::setStatus(status, ZAR_S_INVALID_INPUT);
  zar::CancelDisabled noCancel;  // the socket must not leak on cancellation
  int s = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) {
    puts("Cant open socket");
    exit(1);
  }
  alignas(struct ifreq) char buf[1024];
  struct ifconf ifc;
  ifc.ifc_len = sizeof buf;
  ifc.ifc_buf = buf;
  if (ioctl(s, SIOCGIFCONF, &ifc) < 0) {
    puts("ioctl(SIOCGIFCONF) failed");
    exit(1);
  }
  uint8_t addr[6] = {};
  int count = ifc.ifc_len / static_cast<int>(sizeof(struct ifreq));
  for (int i = 0; i < count; ++i) {
    struct ifreq req;
    memset(&req, 0, sizeof req);
    memcpy(req.ifr_name, ifc.ifc_req[i].ifr_name, IFNAMSIZ);
    if (ioctl(s, SIOCGIFFLAGS, &req) < 0) {
      puts("Error ioctl(SIOCGIFFLAGS)");
      exit(1);
    }
    short flags = req.ifr_flags;
    if (ioctl(s, SIOCGIFHWADDR, &req) == 0) memcpy(addr, req.ifr_hwaddr.sa_data, 6);
    if ((flags & (IFF_LOOPBACK | IFF_POINTOPOINT)) == 0) break;
  }
  close(s);
  memcpy(address, addr, 6);
  zar::setStatus(status, ZAR_S_OK);
}

ZAR_API void kp_uuid_create(kp_uuid_t* uuid, uint64_t* status) {
  using zar::uuid::gGen;
  if (uuid == nullptr) return zar::setStatus(status, ZAR_S_INVALID_INPUT);
  pthread_once(&gGen.forkOnce, zar::uuid::registerForkHandlers);

  // Work that may block or take other locks happens before the leaf lock.
  if (!gGen.gotAddress.load(std::memory_order_acquire)) {
    uint8_t walked[6];
    kp_get_802_addr(walked, nullptr);
    uint8_t node[6];
    uint32_t rc = zar::uuid::chooseNode(walked, zar::uuid::kAddressFile, node);
    if (rc != ZAR_S_OK) return zar::setStatus(status, rc);
    zar::MutexLock lock(gGen.mu);
    if (!gGen.gotAddress.load(std::memory_order_relaxed)) {
      memcpy(gGen.savedAddr, node, 6);
      gGen.gotAddress.store(true, std::memory_order_release);
    }
  }
  uint16_t fresh = 0;
  bool haveFresh = false;
  if (gGen.forked.load(std::memory_order_relaxed))
    haveFresh = zar_get_random_bytes(&fresh, sizeof fresh) == ZAR_S_OK;

  kp_uuid_t u;
  {
    zar::MutexLock lock(gGen.mu);
    if (!gGen.initDone) zar::uuid::initLocked(gGen);
    if (gGen.forked.exchange(false, std::memory_order_relaxed)) {
      zar::uuid::renewClockSeqLocked(gGen, haveFresh, fresh);
      gGen.timeAdjust = 0;
    }
    uint64_t now = zar::uuid::getOsTime();
    for (;;) {
      if (now < gGen.timeLast) {
        // The clock went back: a new clock sequence keeps the UUIDs apart.
        if (gGen.clockSeq == 0) gGen.clockSeq = zar::uuid::trueRandom(gGen);
        gGen.clockSeq = (gGen.clockSeq + 1) & 0x3FFF;
        if (gGen.clockSeq == 0) gGen.clockSeq = 1;
        gGen.timeAdjust = 0;
        break;
      }
      uint64_t issued = gGen.timeLast + gGen.timeAdjust;
      uint64_t need = issued >= now ? issued + 1 - now : 0;
      if (need <= zar::uuid::kMaxAdjust) {
        gGen.timeAdjust = static_cast<uint16_t>(need);
        break;
      }
      now = zar::uuid::getOsTime();  // too far ahead of the clock: wait for it
    }
    gGen.timeLast = now;
    uint64_t t = now + gGen.timeAdjust;
    u.time_low = static_cast<uint32_t>(t);
    u.time_mid = static_cast<uint16_t>(t >> 32);
    u.time_hi_and_version = static_cast<uint16_t>(((t >> 48) & 0x0FFF) | 0x1000);
    u.clock_seq_low = static_cast<uint8_t>(gGen.clockSeq & 0xFF);
    u.clock_seq_hi_and_reserved = static_cast<uint8_t>(((gGen.clockSeq & 0x3F00) >> 8) | 0x80);
    memcpy(u.node, gGen.savedAddr, 6);
  }
  *uuid = u;
  zar::setStatus(status, ZAR_S_OK);
}

}  // extern "C"
