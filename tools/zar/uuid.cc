// zar uuid [-n COUNT] | --parse TEXT: makes new UUIDs, or takes one apart.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tools/zar/command.h"
#include "zar/msg.h"
#include "zar/utc.h"
#include "zar/uuid.h"

namespace zar::tool {
namespace {

constexpr uint64_t kUnixEpoch = 0x01B21DD213814000ULL;

int failWith(uint64_t st) {
  char text[1024];
  int inq = 0;
  zar_error_inq_text(static_cast<unsigned long>(st), text, &inq);
  fprintf(stderr, "zar uuid: %s\n", text);
  return 1;
}

const char* variantName(uint8_t b) {
  if ((b & 0x80) == 0) return "NCS (reserved for compatibility)";
  if ((b & 0xC0) == 0x80) return "DCE";
  if ((b & 0xE0) == 0xC0) return "reserved (vendor)";
  return "unknown";
}

int parse(const char* text) {
  kp_uuid_t u;
  uint64_t st = 0;
  kp_uuid_from_string(text, &u, &st);
  if (st != 0) return failWith(st);
  char* canonical = nullptr;
  kp_uuid_to_string(&u, &canonical, &st);
  if (st != 0) return failWith(st);
  unsigned version = u.time_hi_and_version >> 12;
  unsigned clockSeq = ((u.clock_seq_hi_and_reserved & 0x3Fu) << 8) | u.clock_seq_low;
  printf("uuid:                      %s\n", canonical);
  kp_uuid_string_free(&canonical, &st);
  printf("time_low:                  0x%08x\n", u.time_low);
  printf("time_mid:                  0x%04x\n", u.time_mid);
  printf("time_hi_and_version:       0x%04x\n", u.time_hi_and_version);
  printf("clock_seq_hi_and_reserved: 0x%02x\n", u.clock_seq_hi_and_reserved);
  printf("clock_seq_low:             0x%02x\n", u.clock_seq_low);
  printf("version:                   %u%s\n", version, version == 1 ? " (time-based)" : "");
  printf("variant:                   %s\n", variantName(u.clock_seq_hi_and_reserved));
  printf("clock sequence:            %u\n", clockSeq);
  if (version == 1) {
    uint64_t t100 = (static_cast<uint64_t>(u.time_hi_and_version & 0x0FFF) << 48) |
                    (static_cast<uint64_t>(u.time_mid) << 32) | u.time_low;
    int64_t since1970 = static_cast<int64_t>(t100 - kUnixEpoch);
    struct timespec ts;
    ts.tv_sec = since1970 / 10000000;
    int64_t rest = since1970 % 10000000;
    if (rest < 0) {
      rest += 10000000;
      ts.tv_sec -= 1;
    }
    ts.tv_nsec = static_cast<long>(rest * 100);
    utc_t utc;
    char when[64];
    if (zar_utc_mkbintime(&utc, &ts, nullptr, 0) == 0 &&
        zar_utc_ascgmtime(when, sizeof when, &utc) == 0) {
      when[strcspn(when, "I")] = '\0';  // the inaccuracy part means nothing here
      printf("time (UTC):                %s\n", when);
    }
  }
  printf("node:                      %02x:%02x:%02x:%02x:%02x:%02x%s\n", u.node[0], u.node[1],
         u.node[2], u.node[3], u.node[4], u.node[5],
         (u.node[0] & 1) ? " (multicast bit: not a hardware address)" : "");
  return 0;
}

int runUuid(const Command& self, int argc, char** argv) {
  unsigned long long count = 1;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--parse") == 0) {
      if (i + 1 >= argc) return usageError(self, "--parse needs a text");
      if (argc != 3) return usageError(self, "--parse takes no other arguments");
      return parse(argv[i + 1]);
    }
    if (strcmp(argv[i], "-n") == 0) {
      if (i + 1 >= argc || !parseUnsigned(argv[i + 1], 100000000ULL, &count))
        return usageError(self, "-n needs a count from 0 to 100000000");
      ++i;
      continue;
    }
    return usageError(self, "unknown argument '%s'", argv[i]);
  }
  for (unsigned long long i = 0; i < count; ++i) {
    kp_uuid_t u;
    uint64_t st = 0;
    kp_uuid_create(&u, &st);
    if (st != 0) return failWith(st);
    char* text = nullptr;
    kp_uuid_to_string(&u, &text, &st);
    if (st != 0) return failWith(st);
    fputs(text, stdout);
    putchar('\n');
    kp_uuid_string_free(&text, &st);
  }
  if (fflush(stdout) != 0) {
    perror("zar uuid: standard output");
    return 1;
  }
  return 0;
}

}  // namespace

ZAR_TOOL_COMMAND("uuid", "[-n COUNT] | --parse TEXT",
                 "make COUNT new UUIDs (default 1), or show the fields of one", runUuid);

}  // namespace zar::tool
