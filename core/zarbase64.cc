// Base64 with the standard and the URI alphabet.
//
// One encoder and one decoder, each parameterised by the alphabet's tables.
// Both run a fast loop over whole groups and fall back to a byte-wise path for
// the tail (encoder) or for any group that is not four alphabet characters in
// a row (decoder), so the fast loop never changes what is produced.
//
// Encoder: a 4096-entry table maps 12 bits of input to two output characters;
// six input bytes (one unaligned 64-bit load) become eight characters (one
// 64-bit store).
//
// Decoder: four 256-entry tables map a character in each position of a group
// to its 6-bit value already shifted into place among the three output bytes,
// with kBad set for characters outside the alphabet, so one OR of four
// look-ups both decodes a group and tells whether it was clean. Output is
// stored four bytes at a time only while enough input remains that the extra
// byte stays within 3 bytes per 4 input characters (see decode()).
#include <stdint.h>
#include <string.h>

#include <array>

#include "zar/util.h"

namespace zar::base64 {
namespace {

constexpr char kStdAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUriAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
constexpr uint8_t kNoValue = 0xFF;
constexpr uint32_t kBad = 0x01000000;  // above the 24 bits of a decoded group

// Reverse table of an alphabet: 7-bit character code to value, kNoValue for
// characters outside it.
using Reverse = std::array<uint8_t, 128>;
constexpr Reverse makeReverse(const char* alphabet) {
  Reverse r{};
  for (auto& v : r) v = kNoValue;
  for (int i = 0; i < 64; ++i) r[static_cast<unsigned char>(alphabet[i])] = static_cast<uint8_t>(i);
  return r;
}

// Two characters (first in the low byte) for each 12-bit input value.
using Pairs = std::array<uint16_t, 4096>;
constexpr Pairs makePairs(const char* alphabet) {
  Pairs p{};
  for (int i = 0; i < 4096; ++i) {
    p[i] = static_cast<uint16_t>(static_cast<unsigned char>(alphabet[i >> 6]) |
                                 (static_cast<unsigned char>(alphabet[i & 63]) << 8));
  }
  return p;
}

// Per-position decoding tables. For values v0..v3 of a group the output bytes
// are b0 = v0<<2 | v1>>4, b1 = (v1&15)<<4 | v2>>2, b2 = (v2&3)<<6 | v3; entry k
// of table j holds the bits that v_j contributes, placed so that the OR read
// as a little-endian word has b0, b1, b2 in its bytes 0, 1, 2.
struct Decoder {
  std::array<uint32_t, 256> pos[4];
};
constexpr Decoder makeDecoder(const Reverse& rev) {
  Decoder d{};
  for (int c = 0; c < 256; ++c) {
    uint32_t v = c < 128 ? rev[c] : kNoValue;
    if (v == kNoValue) {
      for (auto& t : d.pos) t[c] = kBad;
      continue;
    }
    d.pos[0][c] = v << 2;
    d.pos[1][c] = (v >> 4) | ((v & 0xF) << 12);
    d.pos[2][c] = ((v >> 2) << 8) | ((v & 0x3) << 22);
    d.pos[3][c] = v << 16;
  }
  return d;
}

struct Alphabet {
  const char* chars;
  Reverse reverse;
  Pairs pairs;
  Decoder decoder;
};

constexpr Alphabet kStd{kStdAlphabet, makeReverse(kStdAlphabet), makePairs(kStdAlphabet),
                        makeDecoder(makeReverse(kStdAlphabet))};
constexpr Alphabet kUri{kUriAlphabet, makeReverse(kUriAlphabet), makePairs(kUriAlphabet),
                        makeDecoder(makeReverse(kUriAlphabet))};

inline uint64_t loadBigEndian64(const uint8_t* p) {
  uint64_t x;
  memcpy(&x, p, sizeof x);
  return __builtin_bswap64(x);
}

inline uint64_t eightChars(const Pairs& pairs, uint64_t x) {
  return static_cast<uint64_t>(pairs[x >> 52]) |
         (static_cast<uint64_t>(pairs[(x >> 40) & 0xFFF]) << 16) |
         (static_cast<uint64_t>(pairs[(x >> 28) & 0xFFF]) << 32) |
         (static_cast<uint64_t>(pairs[(x >> 16) & 0xFFF]) << 48);
}

void encode(const Alphabet& a, const uint8_t* in, uint64_t len, char* out, uint64_t outSize) {
  if (out == nullptr) return;
  if (len > (UINT64_MAX - 1) / 4 * 3 - 2 || outSize < ZAR_BASE64_ENCODED_SIZE(len)) return;
  if (in == nullptr) {
    if (len == 0) *out = '\0';
    return;
  }
  const uint8_t* const end = in + len;
  // Twelve bytes per round through two eight-byte loads; the second load
  // reads up to in + 14, so the loop keeps 16 bytes ahead of the end.
  while (end - in >= 16) {
    uint64_t w0 = eightChars(a.pairs, loadBigEndian64(in));
    uint64_t w1 = eightChars(a.pairs, loadBigEndian64(in + 6));
    memcpy(out, &w0, 8);
    memcpy(out + 8, &w1, 8);
    in += 12;
    out += 16;
  }
  while (end - in >= 3) {
    uint32_t g = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | in[2];
    uint16_t hi = a.pairs[g >> 12];
    uint16_t lo = a.pairs[g & 0xFFF];
    memcpy(out, &hi, 2);
    memcpy(out + 2, &lo, 2);
    in += 3;
    out += 4;
  }
  if (end - in == 2) {
    uint32_t g = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8);
    out[0] = a.chars[g >> 18];
    out[1] = a.chars[(g >> 12) & 63];
    out[2] = a.chars[(g >> 6) & 63];
    out[3] = '=';
    out += 4;
  } else if (end - in == 1) {
    uint32_t g = uint32_t{in[0]} << 16;
    out[0] = a.chars[g >> 18];
    out[1] = a.chars[(g >> 12) & 63];
    out[2] = '=';
    out[3] = '=';
    out += 4;
  }
  *out = '\0';
}

inline uint32_t groupBits(const Decoder& d, const uint8_t* p) {
  return d.pos[0][p[0]] | d.pos[1][p[1]] | d.pos[2][p[2]] | d.pos[3][p[3]];
}

void decode(const Alphabet& a, const char* text, uint64_t len, uint8_t* out, uint64_t* outLen) {
  if (outLen != nullptr) *outLen = 0;
  if (text == nullptr || out == nullptr || len == 0) return;
  const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
  const uint8_t* const end = p + len;
  uint8_t* const start = out;
  for (;;) {
    // Fast loop: groups of four alphabet characters in a row. The output
    // written so far is at most 3 bytes per 4 characters consumed, and at
    // least 12 characters remain, so the room left is at least 9 bytes and
    // both four-byte stores (up to out + 6) stay inside it.
    while (end - p >= 12) {
      uint32_t g0 = groupBits(a.decoder, p);
      uint32_t g1 = groupBits(a.decoder, p + 4);
      if (((g0 | g1) & kBad) != 0) break;
      memcpy(out, &g0, 4);
      memcpy(out + 3, &g1, 4);
      p += 8;
      out += 6;
    }
    // One group character by character: skip what is not in the alphabet,
    // stop at '=' or at the end of the input.
    uint8_t v[4];
    int n = 0;
    bool stop = false;
    while (n < 4) {
      if (p == end || *p == '=') {
        stop = true;
        break;
      }
      uint8_t c = *p++;
      if (c >= 128 || a.reverse[c] == kNoValue) continue;
      v[n++] = a.reverse[c];
    }
    if (n >= 1) *out++ = static_cast<uint8_t>((v[0] << 2) | (n >= 2 ? v[1] >> 4 : 0));
    if (n >= 2) *out++ = static_cast<uint8_t>((v[1] << 4) | (n >= 3 ? v[2] >> 2 : 0));
    if (n >= 3) *out++ = static_cast<uint8_t>((v[2] << 6) | (n >= 4 ? v[3] : 0));
    if (n == 4 && !stop && p != end) continue;
    uint64_t count = static_cast<uint64_t>(out - start);
    if (n >= 1 && n <= 3) --count;  // an incomplete group's last byte is not data
    if (outLen != nullptr) *outLen = count;
    return;
  }
}

}  // namespace
}  // namespace zar::base64

using zar::base64::kStd;
using zar::base64::kUri;

extern "C" {

ZAR_API void zar_base64_std_encode(const void* data, uint64_t length, char* text,
                                   uint64_t textSize) {
  zar::base64::encode(kStd, static_cast<const uint8_t*>(data), length, text, textSize);
}

ZAR_API void zar_base64_uri_encode(const void* data, uint64_t length, char* text,
                                   uint64_t textSize) {
  zar::base64::encode(kUri, static_cast<const uint8_t*>(data), length, text, textSize);
}

ZAR_API void zar_base64_std_decode(const char* text, uint64_t length, void* data,
                                   uint64_t* dataLength) {
  zar::base64::decode(kStd, text, length, static_cast<uint8_t*>(data), dataLength);
}

ZAR_API void zar_base64_uri_decode(const char* text, uint64_t length, void* data,
                                   uint64_t* dataLength) {
  zar::base64::decode(kUri, text, length, static_cast<uint8_t*>(data), dataLength);
}

}  // extern "C"
