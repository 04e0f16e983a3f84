// UUIDs: the nil UUID, the text forms, comparison and hashing. Generation
// lives in uuidgen.cc.
#include <stdint.h>
#include <string.h>

#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/uuidgen.h"
#include "zar/status.h"
#include "zar/uuid.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

extern "C" ZAR_API const kp_uuid_t uuid_g_nil_uuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 0}};

namespace zar::uuid {

static_assert(sizeof(kp_uuid_t) == 16, "a UUID is 16 bytes");

bool variantOk(const kp_uuid_t& u) {
  return (u.clock_seq_hi_and_reserved & 0xE0) != 0xE0;
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads exactly digits hexadecimal digits at *p into *out and advances *p.
bool readHex(const char** p, int digits, uint32_t* out) {
  uint32_t v = 0;
  for (int i = 0; i < digits; ++i) {
    int d = hexValue((*p)[i]);
    if (d < 0) return false;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  *p += digits;
  *out = v;
  return true;
}

bool expect(const char** p, char c) {
  if (**p != c) return false;
  ++*p;
  return true;
}

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx"
bool parseCurrent(const char* p, kp_uuid_t* u) {
  uint32_t tl, tm, th, hi, lo;
  if (!readHex(&p, 8, &tl) || !expect(&p, '-') || !readHex(&p, 4, &tm) || !expect(&p, '-') ||
      !readHex(&p, 4, &th) || !expect(&p, '-') || !readHex(&p, 2, &hi) || !readHex(&p, 2, &lo) ||
      !expect(&p, '-'))
    return false;
  for (uint8_t& b : u->node) {
    uint32_t v;
    if (!readHex(&p, 2, &v)) return false;
    b = static_cast<uint8_t>(v);
  }
  u->time_low = tl;
  u->time_mid = static_cast<uint16_t>(tm);
  u->time_hi_and_version = static_cast<uint16_t>(th);
  u->clock_seq_hi_and_reserved = static_cast<uint8_t>(hi);
  u->clock_seq_low = static_cast<uint8_t>(lo);
  return true;
}

// "xxxxxxxxxxxx.xx.xx.xx.xx.xx.xx.xx.xx": time_low, time_mid, then bytes 8
// to 15; bytes 6 and 7 are 0.
bool parseOld(const char* p, kp_uuid_t* u) {
  uint32_t tl, tm;
  if (!readHex(&p, 8, &tl) || !readHex(&p, 4, &tm)) return false;
  uint8_t tail[8];
  for (uint8_t& b : tail) {
    uint32_t v;
    if (!expect(&p, '.') || !readHex(&p, 2, &v)) return false;
    b = static_cast<uint8_t>(v);
  }
  u->time_low = tl;
  u->time_mid = static_cast<uint16_t>(tm);
  u->time_hi_and_version = 0;
  memcpy(&u->clock_seq_hi_and_reserved, tail, 8);
  return true;
}

int sign(uint32_t a, uint32_t b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

}  // namespace

#if defined(__SSE2__)

// The 16 bytes in text order (each field most significant byte first) become
// 32 digits at once: the high and low nibbles are split, interleaved and
// turned into characters in two vector registers, and the dashes go in as the
// digits are stored.
void format(const kp_uuid_t& u, char out[KP_UUID_STRING_LEN + 1]) {
  uint64_t tail;  // clock_seq_hi_and_reserved, clock_seq_low and node, in text order already
  memcpy(&tail, &u.clock_seq_hi_and_reserved, 8);
  const uint64_t head = __builtin_bswap32(u.time_low) |
                        uint64_t{__builtin_bswap16(u.time_mid)} << 32 |
                        uint64_t{__builtin_bswap16(u.time_hi_and_version)} << 48;
  const __m128i v = _mm_set_epi64x(static_cast<long long>(tail), static_cast<long long>(head));
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(v, 4), nibble);
  const __m128i low = _mm_and_si128(v, nibble);
  auto digits = [](__m128i d) {
    const __m128i letter = _mm_cmpgt_epi8(d, _mm_set1_epi8(9));
    const __m128i offset =
        _mm_add_epi8(_mm_set1_epi8('0'), _mm_and_si128(letter, _mm_set1_epi8('a' - '0' - 10)));
    return _mm_add_epi8(d, offset);
  };
  char hex[32];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(hex), digits(_mm_unpacklo_epi8(high, low)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(hex + 16), digits(_mm_unpackhi_epi8(high, low)));
  memcpy(out, hex, 8);
  out[8] = '-';
  memcpy(out + 9, hex + 8, 4);
  out[13] = '-';
  memcpy(out + 14, hex + 12, 4);
  out[18] = '-';
  memcpy(out + 19, hex + 16, 4);
  out[23] = '-';
  memcpy(out + 24, hex + 20, 12);
  out[36] = '\0';
}

#else

namespace {

constexpr char kHex[] = "0123456789abcdef";

// The two hex digits of every byte value, so that a byte takes one lookup.
constexpr auto kHexPairs = [] {
  struct Pairs {
    char at[256][2];
  } t{};
  for (int b = 0; b < 256; ++b) t.at[b][0] = kHex[b >> 4], t.at[b][1] = kHex[b & 0xF];
  return t;
}();

// Writes the bytes of v, most significant first, as 2 * bytes hex digits.
void putHex(char** p, uint32_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i, v >>= 8) memcpy(*p + 2 * i, kHexPairs.at[v & 0xFF], 2);
  *p += 2 * bytes;
}

}  // namespace

void format(const kp_uuid_t& u, char out[KP_UUID_STRING_LEN + 1]) {
  char* p = out;
  putHex(&p, u.time_low, 4);
  *p++ = '-';
  putHex(&p, u.time_mid, 2);
  *p++ = '-';
  putHex(&p, u.time_hi_and_version, 2);
  *p++ = '-';
  putHex(&p, u.clock_seq_hi_and_reserved, 1);
  putHex(&p, u.clock_seq_low, 1);
  *p++ = '-';
  for (uint8_t b : u.node) putHex(&p, b, 1);
  *p = '\0';
}

#endif

}  // namespace zar::uuid

using zar::setStatus;
using zar::uuid::variantOk;

extern "C" {

ZAR_API void kp_uuid_create_nil(kp_uuid_t* uuid, uint64_t* status) {
  if (uuid == nullptr) return setStatus(status, ZAR_S_INVALID_INPUT);
  *uuid = uuid_g_nil_uuid;
  setStatus(status, ZAR_S_OK);
}

ZAR_API void kp_uuid_to_string(const kp_uuid_t* uuid, char** text, uint64_t* status) {
  if (text == nullptr) return setStatus(status, ZAR_S_OK);
  *text = nullptr;
  const kp_uuid_t& u = uuid != nullptr ? *uuid : uuid_g_nil_uuid;
  if (!variantOk(u)) return setStatus(status, ZAR_S_UUID_BAD_VARIANT);
  char* s = static_cast<char*>(zar::mem::alloc(KP_UUID_STRING_LEN + 1));
  if (s == nullptr) return setStatus(status, ZAR_S_UUID_NO_MEMORY);
  zar::uuid::format(u, s);
  *text = s;
  setStatus(status, ZAR_S_OK);
}

ZAR_API void kp_uuid_from_string(const char* text, kp_uuid_t* uuid, uint64_t* status) {
  if (uuid == nullptr) return setStatus(status, ZAR_S_INVALID_INPUT);
  if (text == nullptr || *text == '\0') {
    *uuid = uuid_g_nil_uuid;
    return setStatus(status, ZAR_S_OK);
  }
  if (strnlen(text, KP_UUID_STRING_LEN + 1) != KP_UUID_STRING_LEN)
    return setStatus(status, ZAR_S_UUID_BAD_TEXT);
  kp_uuid_t u;
  bool ok = text[8] == '-' ? zar::uuid::parseCurrent(text, &u) : zar::uuid::parseOld(text, &u);
  if (!ok) return setStatus(status, ZAR_S_UUID_BAD_TEXT);
  if (!variantOk(u)) return setStatus(status, ZAR_S_UUID_BAD_VARIANT);
  *uuid = u;
  setStatus(status, ZAR_S_OK);
}

ZAR_API void kp_uuid_string_free(char** text, uint64_t* status) {
  if (text != nullptr) {
    zar::mem::free(*text);
    *text = nullptr;
  }
  setStatus(status, ZAR_S_OK);
}

ZAR_API int kp_uuid_equal(const kp_uuid_t* uuid1, const kp_uuid_t* uuid2, uint64_t* status) {
  const kp_uuid_t& a = uuid1 != nullptr ? *uuid1 : uuid_g_nil_uuid;
  const kp_uuid_t& b = uuid2 != nullptr ? *uuid2 : uuid_g_nil_uuid;
  if (!variantOk(a) || !variantOk(b)) {
    setStatus(status, ZAR_S_UUID_BAD_VARIANT);
    return 0;
  }
  setStatus(status, ZAR_S_OK);
  return memcmp(&a, &b, sizeof a) == 0 ? 1 : 0;
}

ZAR_API int kp_uuid_compare(const kp_uuid_t* uuid1, const kp_uuid_t* uuid2, uint64_t* status) {
  const kp_uuid_t& a = uuid1 != nullptr ? *uuid1 : uuid_g_nil_uuid;
  const kp_uuid_t& b = uuid2 != nullptr ? *uuid2 : uuid_g_nil_uuid;
  if (!variantOk(a) || !variantOk(b)) {
    setStatus(status, ZAR_S_UUID_BAD_VARIANT);
    return -1;
  }
  setStatus(status, ZAR_S_OK);
  using zar::uuid::sign;
  if (int s = sign(a.time_low, b.time_low)) return s;
  if (int s = sign(a.time_mid, b.time_mid)) return s;
  if (int s = sign(a.time_hi_and_version, b.time_hi_and_version)) return s;
  if (int s = sign(a.clock_seq_hi_and_reserved, b.clock_seq_hi_and_reserved)) return s;
  if (int s = sign(a.clock_seq_low, b.clock_seq_low)) return s;
  for (int i = 0; i < 6; ++i)
    if (int s = sign(a.node[i], b.node[i])) return s;
  return 0;
}

ZAR_API int kp_uuid_is_nil(const kp_uuid_t* uuid, uint64_t* status) {
  const kp_uuid_t& u = uuid != nullptr ? *uuid : uuid_g_nil_uuid;
  if (!variantOk(u)) {
    setStatus(status, ZAR_S_UUID_BAD_VARIANT);
    return 0;
  }
  setStatus(status, ZAR_S_OK);
  return memcmp(&u, &uuid_g_nil_uuid, sizeof u) == 0 ? 1 : 0;
}

ZAR_API uint16_t kp_uuid_hash(const kp_uuid_t* uuid, uint64_t* status) {
  const kp_uuid_t& u = uuid != nullptr ? *uuid : uuid_g_nil_uuid;
  if (!variantOk(u)) {
    setStatus(status, ZAR_S_UUID_BAD_VARIANT);
    return 0;
  }
  // Fletcher-style sums over the bytes in memory order, 16-bit signed
  // accumulators that wrap.
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&u);
  int16_t c0 = 0, c1 = 0;
  for (int i = 0; i < 16; ++i) {
    c0 = static_cast<int16_t>(c0 + bytes[i]);
    c1 = static_cast<int16_t>(c1 + c0);
  }
  int x = -c1 % 255;
  if (x < 0) x += 255;
  int y = (c1 - c0) % 255;
  if (y < 0) y += 255;
  setStatus(status, ZAR_S_OK);
  return static_cast<uint16_t>(y * 256 + x);
}

}  // extern "C"
