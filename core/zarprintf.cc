// The formatted-output engine: parsing a format into conversion records,
// fetching the arguments, and rendering through the renderer table.
//
// Rendering writes into a sink. Two sinks exist: a bounded buffer (the
// snprintf contract: output cut at the room, the leftmost bytes kept) and a
// stdio stream written with the unlocked calls while the engine holds the
// stream. The renderers are templates over the sink, so the buffer path pays
// nothing for the stream path and the stream path needs no intermediate
// buffer and renders once.
#include "core/zarprintf.h"

#include <errno.h>
#include <fenv.h>
#include <limits.h>
#include <string.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/sysio.h"

namespace zar::format {
namespace {

constexpr char kRadixLower[] = "0123456789abcdef";
constexpr char kRadixUpper[] = "0123456789ABCDEF";

// Marks in Argument::type while the indices are being checked.
constexpr int32_t kTypeMask = 0xFF;
constexpr int32_t kTypeUnset = 0xFF;
constexpr int32_t kNamedMark = 0x100;

// "No width" and "no precision given".
constexpr int64_t kNone = INT64_MIN;

// Bytes written by nlz_wctomb at most.
constexpr size_t kMaxCharBytes = 8;

inline bool isDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

// Reads the decimal digits at *p (at least one), saturating at INT_MAX.
inline int32_t readNumber(const char** p) {
  const char* q = *p;
  int64_t n = 0;
  do {
    if (n < INT_MAX) n = n * 10 + (*q - '0');
    ++q;
  } while (isDigit(*q));
  *p = q;
  return n > INT_MAX ? INT_MAX : static_cast<int32_t>(n);
}

// The next '%' at or after p, or the terminator. The text between two
// conversions is usually short: a few bytes are looked at here before
// handing a longer text to strchrnul.
inline const char* nextPercent(const char* p) {
  for (int i = 0; i < 8; ++i, ++p)
    if (*p == '%' || *p == '\0') return p;
  return strchrnul(p, '%');
}

// ---- Sinks ---------------------------------------------------------------------

// A bounded buffer. room() bytes may still be written; when the buffer had a
// size of at least 1 there is always one more byte after them for the
// terminator. stop() ends the output (used when a character was cut, so that
// what was written stays a prefix of the whole output).
class BufferSink {
 public:
  static constexpr bool kBounded = true;

  BufferSink(char* buf, size_t room, bool terminated)
      : pos_(buf), room_(room), terminated_(terminated) {}

  void put(const char* s, size_t n) {
    if (n > room_) n = room_;
    if (n == 0) return;
    mem::moveBytes(pos_, s, n);  // most pieces of a format are a few bytes long
    pos_ += n;
    room_ -= n;
  }
  void fill(char c, size_t n) {
    if (n > room_) n = room_;
    if (n == 0) return;
    memset(pos_, c, n);
    pos_ += n;
    room_ -= n;
  }
  void putChar(char c) {
    if (room_ == 0) return;
    *pos_++ = c;
    --room_;
  }
  char* pos() const { return pos_; }
  size_t room() const { return room_; }
  bool terminated() const { return terminated_; }
  // Takes n bytes (n <= room()) that were written at pos() directly.
  void advance(size_t n) {
    pos_ += n;
    room_ -= n;
  }
  void stop() { room_ = 0; }

 private:
  char* pos_;
  size_t room_;
  bool terminated_;
};

// A stdio stream held by the caller (flockfile). A failed write ends the
// output and is reported by failed().
class StreamSink {
 public:
  static constexpr bool kBounded = false;

  explicit StreamSink(FILE* stream) : stream_(stream) {}

  void put(const char* s, size_t n) {
    if (n == 0 || failed_) return;
    if (sys::fwriteUnlocked(s, 1, n, stream_) != n) {
      failed_ = true;
      return;
    }
    written_ += n;
  }
  void fill(char c, size_t n) {
    char block[64];
    memset(block, c, n < sizeof block ? n : sizeof block);
    while (n > 0 && !failed_) {
      size_t k = n < sizeof block ? n : sizeof block;
      put(block, k);
      n -= k;
    }
  }
  void putChar(char c) { put(&c, 1); }
  bool failed() const { return failed_; }
  uint64_t written() const { return written_; }

 private:
  FILE* stream_;
  uint64_t written_ = 0;
  bool failed_ = false;
};

// ---- Pieces common to the renderers ------------------------------------------

// The width, or kNone. A width argument that is negative as a signed number
// counts as no width.
inline int64_t widthOf(const Conversion& c, const Argument* args) {
  if (c.flags & kFlagWidthDigits) return c.width;
  if (c.flags & kFlagWidthArg) {
    int32_t w = static_cast<int32_t>(static_cast<uint32_t>(args[c.width].value.u));
    return w < 0 ? kNone : w;
  }
  return kNone;
}

// The precision as given (possibly negative from an argument), or kNone.
inline int64_t precisionOf(const Conversion& c, const Argument* args) {
  if (c.flags & kFlagPrecDigits) return c.precision;
  if (c.flags & kFlagPrecArg)
    return static_cast<int32_t>(static_cast<uint32_t>(args[c.precision].value.u));
  return kNone;
}

// Padding before (left false) or after the text.
template <class Sink>
inline void padBefore(Sink& out, uint32_t flags, char padChar, int64_t pad) {
  if (pad > 0 && !(flags & kFlagLeft)) out.fill(padChar, static_cast<size_t>(pad));
}
template <class Sink>
inline void padAfter(Sink& out, uint32_t flags, int64_t pad) {
  if (pad > 0 && (flags & kFlagLeft)) out.fill(' ', static_cast<size_t>(pad));
}

// Writes the decimal digits of v ending just before end; returns the first.
inline char* decimalDigits(uint64_t v, char* end) {
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  char* p = end;
  while (v >= 100) {
    const char* d = kPairs + (v % 100) * 2;
    v /= 100;
    *--p = d[1];
    *--p = d[0];
  }
  if (v >= 10) {
    const char* d = kPairs + v * 2;
    *--p = d[1];
    *--p = d[0];
  } else {
    *--p = static_cast<char>('0' + v);
  }
  return p;
}

// Writes a number: padding, sign or prefix, the field (leading zeros and the
// digits), padding. field >= digitCount.
template <class Sink>
inline int64_t emitNumber(Sink& out, uint32_t flags, bool zeroPad, int64_t width,
                          const char* prefix, size_t prefixLen, const char* digits,
                          size_t digitCount, int64_t field) {
  int64_t len = field + static_cast<int64_t>(prefixLen);
  int64_t pad = width > len ? width - len : 0;
  if (zeroPad && !(flags & kFlagLeft)) {
    out.put(prefix, prefixLen);
    out.fill('0', static_cast<size_t>(pad + field - static_cast<int64_t>(digitCount)));
  } else {
    padBefore(out, flags, ' ', pad);
    out.put(prefix, prefixLen);
    out.fill('0', static_cast<size_t>(field - static_cast<int64_t>(digitCount)));
  }
  out.put(digits, digitCount);
  padAfter(out, flags, pad);
  return len + pad;
}

// Next character of a 16-bit string: a surrogate pair is combined into one
// code point; a lone surrogate is handed on as it is (and rejected by the
// conversion).
inline uint32_t nextWideChar(const uint16_t** w) {
  const uint16_t* p = *w;
  uint32_t u = *p++;
  if (u >= 0xD800 && u < 0xDC00 && *p >= 0xDC00 && *p < 0xE000) {
    u = 0x10000 + ((u - 0xD800) << 10) + (*p++ - 0xDC00u);
  }
  *w = p;
  return u;
}

// ---- Renderers -----------------------------------------------------------------
// All: (code set, conversion, arguments, sink) -> whole length of the
// conversion's output, or -1. They never write a terminator.

// Types 0 (c) and 19 (%%).
template <class Sink>
int64_t renderChar(nlz_cs_t, const Conversion& c, const Argument* args, Sink& out) {
  char ch = c.type == kPercent ? '%' : static_cast<char>(args[c.argIndex].value.i);
  int64_t width = widthOf(c, args);
  int64_t pad = width > 1 ? width - 1 : 0;
  padBefore(out, c.flags, ' ', pad);
  out.putChar(ch);
  padAfter(out, c.flags, pad);
  return 1 + pad;
}

// Type 1 (C).
template <class Sink>
int64_t renderWideChar(nlz_cs_t cs, const Conversion& c, const Argument* args, Sink& out) {
  char mb[kMaxCharBytes];
  int n = nlz_wctomb(cs, mb, static_cast<uint16_t>(args[c.argIndex].value.u));
  if (n < 0 || n > static_cast<int>(sizeof mb)) {
    errno = EILSEQ;
    return -1;
  }
  int64_t width = widthOf(c, args);
  int64_t pad = width > n ? width - n : 0;
  padBefore(out, c.flags, ' ', pad);
  out.put(mb, static_cast<size_t>(n));
  padAfter(out, c.flags, pad);
  return n + pad;
}

// Byte string of type 2.
template <class Sink>
int64_t renderByteString(const Conversion& c, const Argument* args, Sink& out) {
  const char* s = static_cast<const char*>(args[c.argIndex].value.p);
  if (s == nullptr) s = "";
  int64_t prec = precisionOf(c, args);
  size_t len;
  if (prec == kNone)
    len = strlen(s);
  else if (prec >= 1)
    len = strnlen(s, static_cast<size_t>(prec));
  else
    len = 0;
  int64_t width = widthOf(c, args);
  int64_t textLen = static_cast<int64_t>(len);
  int64_t pad = width > textLen ? width - textLen : 0;
  padBefore(out, c.flags, ' ', pad);
  out.put(s, len);
  padAfter(out, c.flags, pad);
  return textLen + pad;
}

// Wide string of type 3 into a bounded buffer: the characters are converted
// at the output position while they fit whole (and measured beyond), then,
// when padding goes first, moved right behind it and cut at the last whole
// character that still fits.
int64_t renderWideStringBuffer(nlz_cs_t cs, const Conversion& c, const Argument* args,
                               BufferSink& out) {
  const uint16_t* w = static_cast<const uint16_t*>(args[c.argIndex].value.p);
  int64_t prec = precisionOf(c, args);
  int64_t limit = prec == kNone ? INT64_MAX : prec;
  char* start = out.pos();
  size_t room = out.room();
  int64_t width = widthOf(c, args);
  // Whole strings that fit are converted in one call.
  if (prec == kNone && w != nullptr && out.terminated() && room > 0) {
    int n = nlz_wcstombs(cs, start, w, room < INT_MAX ? static_cast<int>(room) + 1 : INT_MAX);
    int64_t pad = width > n ? width - n : 0;
    if (n >= 0 && (c.flags & kFlagLeft)) {
      out.advance(static_cast<size_t>(n));
      padAfter(out, c.flags, pad);
      return n + pad;
    }
    if (n >= 0 && static_cast<size_t>(n + pad) <= room) {
      memmove(start + pad, start, static_cast<size_t>(n));
      memset(start, ' ', static_cast<size_t>(pad));
      out.advance(static_cast<size_t>(n + pad));
      return n + pad;
    }
  }
  size_t written = 0;
  int64_t len = 0;
  bool cut = false;
  char scratch[kMaxCharBytes];
  while (w != nullptr && *w != 0 && len < limit) {
    uint32_t ch = nextWideChar(&w);
    bool direct = !cut && room - written >= kMaxCharBytes &&
                  len <= limit - static_cast<int64_t>(kMaxCharBytes);
    char* dst = direct ? start + written : scratch;
    int n = nlz_wctomb(cs, dst, ch);
    if (n < 0) {
      errno = EILSEQ;
      return -1;
    }
    if (len + n > limit) break;
    len += n;
    if (cut) continue;
    if (direct) {
      written += static_cast<size_t>(n);
    } else if (static_cast<size_t>(n) <= room - written) {
      memcpy(start + written, scratch, static_cast<size_t>(n));
      written += static_cast<size_t>(n);
    } else {
      cut = true;
    }
  }
  int64_t pad = width > len ? width - len : 0;
  if (pad > 0 && !(c.flags & kFlagLeft)) {
    size_t padLen = static_cast<size_t>(pad);
    if (padLen >= room) {
      if (room != 0) memset(start, ' ', room);
      out.advance(room);
      return len + pad;
    }
    size_t keep = written;
    if (padLen + written > room) {
      size_t avail = room - padLen;
      keep = 0;
      while (keep < written) {
        int m = nlz_mblen(cs, start + keep, static_cast<int>(written - keep));
        if (m <= 0) {
          errno = EILSEQ;
          return -1;
        }
        if (keep + static_cast<size_t>(m) > avail) break;
        keep += static_cast<size_t>(m);
      }
      cut = true;
    }
    memmove(start + padLen, start, keep);
    memset(start, ' ', padLen);
    out.advance(padLen + keep);
  } else {
    out.advance(written);
    if (!cut) padAfter(out, c.flags, pad);
  }
  if (cut) out.stop();
  return len + pad;
}

// Wide string of type 3 into a stream: measured first when padding goes
// before it, then converted character by character into the stream.
int64_t renderWideStringStream(nlz_cs_t cs, const Conversion& c, const Argument* args,
                               StreamSink& out) {
  const uint16_t* const begin = static_cast<const uint16_t*>(args[c.argIndex].value.p);
  int64_t prec = precisionOf(c, args);
  int64_t limit = prec == kNone ? INT64_MAX : prec;
  int64_t width = widthOf(c, args);
  if (prec == kNone && begin != nullptr) {
    char text[256];
    int n = nlz_wcstombs(cs, text, begin, sizeof text);
    if (n >= 0) {
      int64_t pad = width > n ? width - n : 0;
      padBefore(out, c.flags, ' ', pad);
      out.put(text, static_cast<size_t>(n));
      padAfter(out, c.flags, pad);
      return n + pad;
    }
  }
  char mb[kMaxCharBytes];
  // Pass 0 measures (only needed for padding before the text), pass 1 writes.
  int64_t len = 0;
  int64_t pad = 0;
  bool measured = !(width > 0 && !(c.flags & kFlagLeft));
  for (int pass = measured ? 1 : 0; pass < 2; ++pass) {
    if (pass == 1) {
      if (!measured) {
        pad = width > len ? width - len : 0;
        padBefore(out, c.flags, ' ', pad);
      }
      len = 0;
    }
    for (const uint16_t* w = begin; w != nullptr && *w != 0 && len < limit;) {
      int n = nlz_wctomb(cs, mb, nextWideChar(&w));
      if (n < 0) {
        errno = EILSEQ;
        return -1;
      }
      if (len + n > limit) break;
      len += n;
      if (pass == 1) out.put(mb, static_cast<size_t>(n));
    }
  }
  if (measured) {
    pad = width > len ? width - len : 0;
    padAfter(out, c.flags, pad);
  }
  return len + pad;
}

inline int64_t renderWideString(nlz_cs_t cs, const Conversion& c, const Argument* args,
                                BufferSink& out) {
  return renderWideStringBuffer(cs, c, args, out);
}
inline int64_t renderWideString(nlz_cs_t cs, const Conversion& c, const Argument* args,
                                StreamSink& out) {
  return renderWideStringStream(cs, c, args, out);
}

// Types 2 (s) and 3 (S).
template <class Sink>
int64_t renderString(nlz_cs_t cs, const Conversion& c, const Argument* args, Sink& out) {
  if (c.type == kString) return renderByteString(c, args, out);
  return renderWideString(cs, c, args, out);
}

// Types 5, 7, 9, 11 (o u x X) and 12 (p).
template <class Sink>
int64_t renderUnsigned(nlz_cs_t, const Conversion& c, const Argument* args, Sink& out) {
  uint64_t v = args[c.argIndex].value.u;
  if (c.type == kUShort)
    v = static_cast<uint16_t>(v);
  else if (c.type == kUInt)
    v = static_cast<uint32_t>(v);
  char buf[24];
  char* end = buf + sizeof buf;
  char* digits = end;
  if (c.flags & (kFlagHex | kFlagHexUpper)) {
    const char* radix = (c.flags & kFlagHexUpper) ? kRadixUpper : kRadixLower;
    uint64_t x = v;
    do {
      *--digits = radix[x & 0xF];
      x >>= 4;
    } while (x != 0);
  } else if (c.flags & kFlagOctal) {
    uint64_t x = v;
    do {
      *--digits = kRadixLower[x & 7];
      x >>= 3;
    } while (x != 0);
  } else {
    digits = decimalDigits(v, end);
  }
  size_t digitCount = static_cast<size_t>(end - digits);
  int64_t prec = precisionOf(c, args);
  if (prec == kNone) prec = c.type == kPointer ? 0 : 1;
  if (v == 0 && prec == 0) digitCount = 0;
  int64_t field = prec > static_cast<int64_t>(digitCount) ? prec : static_cast<int64_t>(digitCount);
  const char* prefix = "";
  size_t prefixLen = 0;
  if ((c.flags & kFlagAlt) && v != 0) {
    if (c.flags & kFlagOctal) {
      if (prec <= static_cast<int64_t>(digitCount)) field = static_cast<int64_t>(digitCount) + 1;
    } else if (c.flags & kFlagHexUpper) {
      prefix = "0X";
      prefixLen = 2;
    } else if (c.flags & kFlagHex) {
      prefix = "0x";
      prefixLen = 2;
    }
  }
  return emitNumber(out, c.flags, (c.flags & kFlagZero) != 0, widthOf(c, args), prefix,
                    prefixLen, digits, digitCount, field);
}

// Types 4, 6, 8, 10 (d i).
template <class Sink>
int64_t renderSigned(nlz_cs_t, const Conversion& c, const Argument* args, Sink& out) {
  int64_t v = args[c.argIndex].value.i;
  if (c.type == kShort)
    v = static_cast<int16_t>(v);
  else if (c.type == kInt)
    v = static_cast<int32_t>(v);
  uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  char buf[24];
  char* end = buf + sizeof buf;
  char* digits = decimalDigits(magnitude, end);
  size_t digitCount = static_cast<size_t>(end - digits);
  int64_t prec = precisionOf(c, args);
  if (prec == kNone) prec = 1;
  if (v == 0 && prec == 0) digitCount = 0;
  int64_t field = prec > static_cast<int64_t>(digitCount) ? prec : static_cast<int64_t>(digitCount);
  const char* sign = v < 0                      ? "-"
                     : (c.flags & kFlagPlus)    ? "+"
                     : (c.flags & kFlagSpace)   ? " "
                                                : "";
  size_t signLen = *sign != '\0' ? 1 : 0;
  return emitNumber(out, c.flags, (c.flags & kFlagZero) != 0, widthOf(c, args), sign, signLen,
                    digits, digitCount, field);
}

// Formats one floating value with the C library, with the width and the
// precision as int arguments where the format has '*'.
template <class V>
int formatFloat(char* dst, size_t size, const char* spec, bool hasWidth, int width,
                bool hasPrec, int prec, V value) {
  if (hasWidth && hasPrec) return snprintf(dst, size, spec, width, prec, value);
  if (hasWidth) return snprintf(dst, size, spec, width, value);
  if (hasPrec) return snprintf(dst, size, spec, prec, value);
  return snprintf(dst, size, spec, value);
}

// Digits of one floating value by the C library's strfromd/strfroml, with
// the precision written into the format when it was given (a negative one
// counts as none, as for printf). Returns the length, or -1 when it does not
// fit into len bytes.
inline int floatDigits(char* buf, size_t len, char conv, bool hasPrec, int prec, bool isLong,
                       const Argument& a) {
  char spec[16] = "%";
  char* q = spec + 1;
  if (hasPrec && prec >= 0) {
    char num[12];
    char* end = num + sizeof num;
    char* d = decimalDigits(static_cast<uint64_t>(prec), end);
    *q++ = '.';
    memcpy(q, d, static_cast<size_t>(end - d));
    q += end - d;
  }
  *q++ = conv;
  *q = '\0';
  int n = isLong ? strfroml(buf, len, spec, a.value.ld) : strfromd(buf, len, spec, a.value.d);
  return n >= 0 && static_cast<size_t>(n) < len ? n : -1;
}

// Digits of a double under "%.<prec>f" without '#' and '\'', made here
// when that is exact and cheap: a finite value below 2^63, a precision of at
// most 17, rounding to nearest (the default mode) and a one-byte decimal
// point. The value is m * 2^-s exactly, so the digits are an integer
// quotient, and the remainder decides the rounding, with ties to even as the
// C library rounds. Writes the digits ending at end, with '-' before them
// for a negative value (a negative zero included, as printf writes it);
// returns the first, or null when the C library must format the value.
char* fixedDigits(double value, int prec, char* end) {
  static constexpr auto kPow10 = [] {
    struct Powers {
      uint64_t at[18];
    } t{};
    uint64_t v = 1;
    for (uint64_t& p : t.at) p = v, v *= 10;
    return t;
  }();
  if (prec < 0 || prec > 17) return nullptr;
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  const int exponent = static_cast<int>((bits >> 52) & 0x7FF);
  if (exponent == 0x7FF) return nullptr;  // infinity or NaN
  uint64_t m = bits & ((uint64_t{1} << 52) - 1);
  int s = 1074;  // subnormal: m * 2^-1074
  if (exponent != 0) {
    m |= uint64_t{1} << 52;
    s = 1075 - exponent;
  }
  uint64_t whole = 0;
  uint64_t frac = 0;
  if (s <= 0) {
    if (s < -10) return nullptr;  // 2^63 or more
    whole = m << -s;
  } else {
    const uint64_t fracBits = s < 64 ? m & ((uint64_t{1} << s) - 1) : m;
    whole = s < 64 ? m >> s : 0;
    // Beyond 2^-127 the scaled fraction (below 2^53 * 10^17 < 2^117) stays
    // under half a unit of the last digit: every digit is 0, nothing rounds.
    if (s < 128) {
      using U128 = unsigned __int128;
      const U128 n = static_cast<U128>(fracBits) * kPow10.at[prec];
      const U128 q = n >> s;
      const U128 rem = n - (q << s);
      const U128 half = static_cast<U128>(1) << (s - 1);
      frac = static_cast<uint64_t>(q);
      const bool odd = ((prec > 0 ? frac : whole) & 1) != 0;
      if ((rem > half || (rem == half && odd)) && ++frac == kPow10.at[prec]) {
        frac = 0;
        ++whole;
      }
    }
  }
  if (fegetround() != FE_TONEAREST) return nullptr;
  char point = nlz_decimal_point();
  if (point == '\0') return nullptr;
  char* p = end;
  if (prec > 0) {
    p = decimalDigits(frac, p);
    while (end - p < prec) *--p = '0';
    *--p = point;
  }
  p = decimalDigits(whole, p);
  if (bits >> 63) *--p = '-';
  return p;
}

// Types 13 to 18 (e E f g G, with or without L): formatted by the C library.
// Without '#' and '\'' the digits come from strfromd and the sign and the
// padding are added here exactly as printf adds them (spaces, not zeros,
// around an infinity or a NaN); otherwise, or when the digits are long, a
// printf format is rebuilt out of the record.
template <class Sink>
int64_t renderFloat(nlz_cs_t, const Conversion& c, const Argument* args, Sink& out) {
  const bool hasWidth = (c.flags & (kFlagWidthDigits | kFlagWidthArg)) != 0;
  const bool hasPrec = (c.flags & (kFlagPrecDigits | kFlagPrecArg)) != 0;
  const int width = !hasWidth ? 0
                    : (c.flags & kFlagWidthDigits)
                        ? c.width
                        : static_cast<int>(static_cast<uint32_t>(args[c.width].value.u));
  const int prec = !hasPrec ? 0
                   : (c.flags & kFlagPrecDigits)
                       ? c.precision
                       : static_cast<int>(static_cast<uint32_t>(args[c.precision].value.u));
  const bool isLong = c.type >= kLongDoubleE;
  const bool upper = (c.flags & kFlagUpper) != 0;
  char conv;
  switch (isLong ? c.type - (kLongDoubleE - kDoubleE) : c.type) {
    case kDoubleE:
      conv = upper ? 'E' : 'e';
      break;
    case kDoubleF:
      conv = 'f';
      break;
    default:
      conv = upper ? 'G' : 'g';
      break;
  }
  const Argument& a = args[c.argIndex];
  if (!(c.flags & (kFlagAlt | kFlagGroup)) && width != INT_MIN && (!hasPrec || prec < 40)) {
    char digits[72];
    char* const digitsEnd = digits + sizeof digits;
    const char* text = conv == 'f' && !isLong
                           ? fixedDigits(a.value.d, hasPrec && prec >= 0 ? prec : 6, digitsEnd)
                           : nullptr;
    int n;
    if (text != nullptr) {
      n = static_cast<int>(digitsEnd - text);
    } else {
      text = digits;
      n = floatDigits(digits, sizeof digits, conv, hasPrec, prec, isLong, a);
    }
    if (n > 0) {
      const char* body = text;
      const char* sign = "";
      if (*body == '-') {
        sign = "-";
        ++body;
      } else if (c.flags & kFlagPlus) {
        sign = "+";
      } else if (c.flags & kFlagSpace) {
        sign = " ";
      }
      const size_t bodyLen = static_cast<size_t>(n - (body - text));
      uint32_t flags = c.flags;
      if (width < 0) flags |= kFlagLeft;  // printf's reading of a negative width
      const bool finite = isDigit(*body);
      return emitNumber(out, flags, finite && (flags & (kFlagZero | kFlagLeft)) == kFlagZero,
                        width < 0 ? -static_cast<int64_t>(width) : width, sign, *sign ? 1 : 0,
                        body, bodyLen, static_cast<int64_t>(bodyLen));
    }
  }
  char spec[16];
  char* q = spec;
  *q++ = '%';
  if (c.flags & kFlagZero) *q++ = '0';
  if (c.flags & kFlagAlt) *q++ = '#';
  if (c.flags & kFlagLeft) *q++ = '-';
  if (c.flags & kFlagSpace) *q++ = ' ';
  if (c.flags & kFlagPlus) *q++ = '+';
  if (c.flags & kFlagGroup) *q++ = '\'';
  if (hasWidth) *q++ = '*';
  if (hasPrec) {
    *q++ = '.';
    *q++ = '*';
  }
  if (isLong) *q++ = 'L';
  *q++ = conv;
  *q = '\0';
  if constexpr (Sink::kBounded) {
    // Straight into the output: the C library cuts at the room and puts its
    // terminator at most on the byte reserved for ours.
    char* dst = out.terminated() ? out.pos() : nullptr;
    size_t size = out.terminated() ? out.room() + 1 : 0;
    int n = isLong ? formatFloat(dst, size, spec, hasWidth, width, hasPrec, prec, a.value.ld)
                   : formatFloat(dst, size, spec, hasWidth, width, hasPrec, prec, a.value.d);
    if (n < 0) return -1;
    size_t took = static_cast<size_t>(n) < out.room() ? static_cast<size_t>(n) : out.room();
    out.advance(took);
    return n;
  } else {
    char local[128];
    int n = isLong ? formatFloat(local, sizeof local, spec, hasWidth, width, hasPrec, prec,
                                 a.value.ld)
                   : formatFloat(local, sizeof local, spec, hasWidth, width, hasPrec, prec,
                                 a.value.d);
    if (n < 0) return -1;
    if (static_cast<size_t>(n) < sizeof local) {
      out.put(local, static_cast<size_t>(n));
      return n;
    }
    mem::Unique<char> big(static_cast<char*>(mem::alloc(static_cast<size_t>(n) + 1)));
    if (big == nullptr) return -1;
    int m = isLong ? formatFloat(big.get(), static_cast<size_t>(n) + 1, spec, hasWidth, width,
                                 hasPrec, prec, a.value.ld)
                   : formatFloat(big.get(), static_cast<size_t>(n) + 1, spec, hasWidth, width,
                                 hasPrec, prec, a.value.d);
    if (m != n) return -1;
    out.put(big.get(), static_cast<size_t>(n));
    return n;
  }
}

template <class Sink>
using Renderer = int64_t (*)(nlz_cs_t, const Conversion&, const Argument*, Sink&);

// The renderer table: the conversion type is the index.
template <class Sink>
constexpr Renderer<Sink> kRenderers[kTypeCount] = {
    renderChar<Sink>,      // 0  c
    renderWideChar<Sink>,  // 1  C
    renderString<Sink>,    // 2  s
    renderString<Sink>,    // 3  S
    renderSigned<Sink>,    // 4  hd
    renderUnsigned<Sink>,  // 5  hu ho hx hX
    renderSigned<Sink>,    // 6  d
    renderUnsigned<Sink>,  // 7  u o x X
    renderSigned<Sink>,    // 8  ld
    renderUnsigned<Sink>,  // 9  lu lo lx lX
    renderSigned<Sink>,    // 10 lld
    renderUnsigned<Sink>,  // 11 llu llo llx llX
    renderUnsigned<Sink>,  // 12 p
    renderFloat<Sink>,     // 13 e E
    renderFloat<Sink>,     // 14 f
    renderFloat<Sink>,     // 15 g G
    renderFloat<Sink>,     // 16 Le LE
    renderFloat<Sink>,     // 17 Lf
    renderFloat<Sink>,     // 18 Lg LG
    renderChar<Sink>,      // 19 %%
};

// What shapes a conversion's output beyond its value.
constexpr uint32_t kShapeFlags = kFlagAlt | kFlagLeft | kFlagZero | kFlagSpace | kFlagPlus |
                                 kFlagGroup | kFlagWidthDigits | kFlagWidthArg | kFlagPrecDigits |
                                 kFlagPrecArg | kFlagOctal | kFlagHex | kFlagHexUpper;

// The conversions most formats are made of, without padding, sign, prefix or
// precision: a byte string, or an integer in decimal. Gives the same bytes as
// renderString, renderSigned and renderUnsigned would, without building the
// field; returns -1 for any other conversion, which the renderer table then
// takes.
template <class Sink>
inline int64_t renderPlain(const Conversion& c, const Argument* args, Sink& out) {
  if (c.flags & kShapeFlags) return -1;
  const Argument& a = args[c.argIndex];
  uint64_t v;
  bool negative = false;
  switch (c.type) {
    case kString: {
      const char* s = static_cast<const char*>(a.value.p);
      if (s == nullptr) return 0;
      size_t len = strlen(s);
      out.put(s, len);
      return static_cast<int64_t>(len);
    }
    case kInt:
      negative = static_cast<int32_t>(a.value.i) < 0;
      v = negative ? 0 - static_cast<uint64_t>(static_cast<int32_t>(a.value.i))
                   : static_cast<uint32_t>(a.value.i);
      break;
    case kLong:
    case kLongLong:
      negative = a.value.i < 0;
      v = negative ? 0 - static_cast<uint64_t>(a.value.i) : static_cast<uint64_t>(a.value.i);
      break;
    case kUInt:
      v = static_cast<uint32_t>(a.value.u);
      break;
    case kULong:
    case kULongLong:
      v = a.value.u;
      break;
    default:
      return -1;
  }
  char buf[24];
  char* end = buf + sizeof buf;
  char* digits = decimalDigits(v, end);
  if (negative) *--digits = '-';
  size_t len = static_cast<size_t>(end - digits);
  out.put(digits, len);
  return static_cast<int64_t>(len);
}

// Renders the whole format: the text between conversions and each
// conversion. Returns the whole length, or -1.
template <class Sink>
int64_t renderAll(const Context* ctx, Sink& out) {
  const char* prev = ctx->format;
  int64_t total = 0;
  const Conversion* c = ctx->conversions;
  const Conversion* const last = c + ctx->conversionCount;
  for (; c != last; ++c) {
    size_t text = static_cast<size_t>(c->start - prev);
    out.put(prev, text);
    int64_t r = renderPlain(*c, ctx->arguments, out);
    if (r < 0) r = kRenderers<Sink>[c->type](ctx->cs, *c, ctx->arguments, out);
    if (r < 0) return -1;
    total += static_cast<int64_t>(text) + r;
    prev = c->end;
  }
  size_t text = static_cast<size_t>(ctx->formatEnd - prev);
  out.put(prev, text);
  return total + static_cast<int64_t>(text);
}

// ---- Parsing -------------------------------------------------------------------

// Appends a conversion record, moving the records to the heap (10 more at a
// time) when the array in use is full. Null on allocation failure.
Conversion* appendConversion(Context* ctx) {
  if (ctx->conversionCount == ctx->conversionCapacity) {
    if (ctx->conversionCapacity > INT32_MAX - kInlineConversions) return nullptr;
    int32_t capacity = ctx->conversionCapacity + kInlineConversions;
    size_t bytes = static_cast<size_t>(capacity) * sizeof(Conversion);
    Conversion* grown;
    if (ctx->conversions == ctx->inlineConversions) {
      grown = static_cast<Conversion*>(mem::alloc(bytes));
      if (grown != nullptr)
        memcpy(grown, ctx->inlineConversions, sizeof ctx->inlineConversions);
    } else {
      grown = static_cast<Conversion*>(mem::realloc(ctx->conversions, bytes));
    }
    if (grown == nullptr) return nullptr;
    ctx->conversions = grown;
    ctx->conversionCapacity = capacity;
  }
  return &ctx->conversions[ctx->conversionCount++];
}

// Type and flags of a conversion character written right after its '%'
// (no index, flags, width, precision or length): the usual conversion, read
// in one step. type -1: anything else, read by the full grammar.
struct BareConversion {
  int8_t type;
  uint32_t flags;
};
constexpr auto kBare = [] {
  struct Table {
    BareConversion at[256];
  } t{};
  for (BareConversion& b : t.at) b = {-1, 0};
  auto set = [&t](unsigned char c, BareConversion b) { t.at[c] = b; };
  set('c', {kChar, 0});
  set('C', {kWideChar, 0});
  set('s', {kString, 0});
  set('S', {kWideString, 0});
  set('d', {kInt, 0});
  set('i', {kInt, 0});
  set('u', {kUInt, 0});
  set('o', {kUInt, kFlagOctal});
  set('x', {kUInt, kFlagHex});
  set('X', {kUInt, kFlagHexUpper});
  set('p', {kPointer, kFlagHex | kFlagAlt});
  set('e', {kDoubleE, 0});
  set('E', {kDoubleE, kFlagUpper});
  set('f', {kDoubleF, 0});
  set('g', {kDoubleG, 0});
  set('G', {kDoubleG, kFlagUpper});
  set('%', {kPercent, kFlagPercent});
  return t;
}();

// Parses one conversion starting after its '%' at q into c; returns the
// position past its conversion character, or null when it is malformed.
const char* parseConversion(const char* q, Conversion* c) {
  const BareConversion& bare = kBare.at[static_cast<unsigned char>(*q)];
  if (bare.type >= 0) {
    c->type = bare.type;
    c->flags = bare.flags;
    c->argIndex = 0;
    c->width = 0;
    c->precision = 0;
    return q + 1;
  }
  uint32_t flags = 0;
  int32_t argIndex = 0;
  int32_t width = 0;
  int32_t precision = 0;
  // n$; digits without '$' are read again as flags and width.
  if (isDigit(*q)) {
    const char* r = q;
    int32_t n = readNumber(&r);
    if (*r == '$') {
      if (n == 0) return nullptr;
      argIndex = n;
      flags |= kFlagNamedArg;
      q = r + 1;
    }
  }
  for (;; ++q) {
    switch (*q) {
      case ' ':
        flags |= kFlagSpace;
        continue;
      case '#':
        flags |= kFlagAlt;
        continue;
      case '\'':
        flags |= kFlagGroup;
        continue;
      case '+':
        flags |= kFlagPlus;
        continue;
      case '-':
        flags = (flags | kFlagLeft) & ~kFlagZero;
        continue;
      case '0':
        if (flags & kFlagZero) break;  // a second '0' begins the width
        if (!(flags & kFlagLeft)) flags |= kFlagZero;
        continue;
      default:
        break;
    }
    break;
  }
  if (isDigit(*q)) {
    width = readNumber(&q);
    flags |= kFlagWidthDigits;
    if (*q == '*') return nullptr;
  } else if (*q == '*') {
    flags |= kFlagWidthArg;
    ++q;
    if (isDigit(*q)) {
      width = readNumber(&q);
      if (*q != '$' || !(flags & kFlagNamedArg) || width == 0) return nullptr;
      ++q;
      flags |= kFlagWidthNamed;
    }
  }
  if (*q == '.') {
    ++q;
    if (isDigit(*q)) {
      precision = readNumber(&q);
      flags = (flags | kFlagPrecDigits) & ~kFlagZero;
      if (*q == '*') return nullptr;
    } else if (*q == '*') {
      flags = (flags | kFlagPrecArg) & ~kFlagZero;
      ++q;
      if (isDigit(*q)) {
        precision = readNumber(&q);
        if (*q != '$' || !(flags & kFlagNamedArg) || precision == 0) return nullptr;
        ++q;
        flags |= kFlagPrecNamed;
      }
    }
  }
  switch (*q) {
    case 'h':
      flags |= kFlagShort;
      ++q;
      break;
    case 'l':
      ++q;
      if (*q == 'l') {
        flags |= kFlagLongLong;
        ++q;
      } else {
        flags |= kFlagLong;
      }
      break;
    case 'L':
    case 'q':
      flags |= kFlagLongLong;
      ++q;
      break;
    default:
      break;
  }
  if (*q == 'h' || *q == 'l' || *q == 'L' || *q == 'q') return nullptr;
  const uint32_t length = flags & (kFlagShort | kFlagLong | kFlagLongLong);
  int32_t type;
  switch (*q) {
    case 'c':
      type = kChar;
      break;
    case 'C':
      type = kWideChar;
      break;
    case 's':
      type = kString;
      break;
    case 'S':
      type = kWideString;
      break;
    case 'd':
    case 'i':
      type = length == 0 ? kInt : length == kFlagShort ? kShort : length == kFlagLong ? kLong
                                                                                     : kLongLong;
      break;
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      flags |= *q == 'o'   ? uint32_t{kFlagOctal}
               : *q == 'x' ? uint32_t{kFlagHex}
               : *q == 'X' ? uint32_t{kFlagHexUpper}
                           : 0u;
      type = length == 0 ? kUInt : length == kFlagShort ? kUShort : length == kFlagLong ? kULong
                                                                                       : kULongLong;
      break;
    case 'p':
      type = kPointer;
      flags |= kFlagHex | kFlagAlt;
      break;
    case 'E':
    case 'e':
    case 'f':
    case 'G':
    case 'g':
      if (length & (kFlagShort | kFlagLong)) return nullptr;
      if (*q == 'E' || *q == 'G') flags |= kFlagUpper;
      type = (*q == 'e' || *q == 'E') ? kDoubleE : *q == 'f' ? kDoubleF : kDoubleG;
      if (length != 0) type += kLongDoubleE - kDoubleE;
      break;
    case '%':
      type = kPercent;
      flags |= kFlagPercent;
      break;
    default:  // also the end of the format
      return nullptr;
  }
  c->type = type;
  c->flags = flags;
  c->argIndex = argIndex;
  c->width = width;
  c->precision = precision;
  return q + 1;
}

// Kinds of argument: an argument is fetched once, with the type of its first
// use, so every use of one index must read the same kind of value.
enum Kind : uint8_t { kIntegerKind, kPointerKind, kDoubleKind, kLongDoubleKind };
constexpr Kind kKindOf[kTypeCount] = {
    kIntegerKind, kIntegerKind, kPointerKind, kPointerKind, kIntegerKind,    // c C s S hd
    kIntegerKind, kIntegerKind, kIntegerKind, kIntegerKind, kIntegerKind,    // hu d u ld lu
    kIntegerKind, kIntegerKind, kPointerKind, kDoubleKind, kDoubleKind,      // lld llu p e f
    kDoubleKind,  kLongDoubleKind, kLongDoubleKind, kLongDoubleKind, kIntegerKind,  // g Le Lf Lg %
};

// Records one use of argument index i with type t (kUInt for a width or a
// precision). False when the use conflicts with the type that fetches the
// argument: another kind of value, or a byte string read as a wide one or
// the other way round (reading either would run past the caller's text).
inline bool useArgument(Argument* args, int32_t i, int32_t t, bool named) {
  Argument& a = args[i];
  if ((a.type & kTypeMask) == kTypeUnset) a.type = (a.type & ~kTypeMask) | t;
  if (named) a.type |= kNamedMark;
  const int32_t fetched = a.type & kTypeMask;
  if (kKindOf[fetched] != kKindOf[t]) return false;
  return !((t == kString && fetched == kWideString) || (t == kWideString && fetched == kString));
}

// Fetches argument i with the type it was given.
inline void fetchArgument(Argument* a, va_list* ap) {
  memset(&a->value, 0, sizeof a->value);
  switch (a->type) {
    case kChar:
      a->value.i = static_cast<unsigned char>(va_arg(*ap, int));
      break;
    case kWideChar:
      a->value.u = static_cast<uint16_t>(va_arg(*ap, int));
      break;
    case kString:
    case kWideString:
    case kPointer:
      a->value.p = va_arg(*ap, const void*);
      break;
    case kShort:
      a->value.i = static_cast<int16_t>(va_arg(*ap, int));
      break;
    case kUShort:
      a->value.u = static_cast<uint16_t>(va_arg(*ap, int));
      break;
    case kInt:
      a->value.i = va_arg(*ap, int);
      break;
    case kUInt:
      a->value.u = va_arg(*ap, unsigned int);
      break;
    case kLong:
      a->value.i = va_arg(*ap, long);
      break;
    case kULong:
      a->value.u = va_arg(*ap, unsigned long);
      break;
    case kLongLong:
      a->value.i = va_arg(*ap, long long);
      break;
    case kULongLong:
      a->value.u = va_arg(*ap, unsigned long long);
      break;
    case kDoubleE:
    case kDoubleF:
    case kDoubleG:
      a->value.d = va_arg(*ap, double);
      break;
    default:  // the long double types
      a->value.ld = va_arg(*ap, long double);
      break;
  }
}

}  // namespace
}  // namespace zar::format

using zar::format::Argument;
using zar::format::Context;
using zar::format::Conversion;

int zar_vsnprintf_parse(Context* ctx, nlz_cs_t cs, const char* fmt, va_list ap) {
  namespace f = zar::format;
  ctx->cs = cs;
  ctx->conversions = ctx->inlineConversions;
  ctx->conversionCount = 0;
  ctx->conversionCapacity = f::kInlineConversions;
  ctx->arguments = ctx->inlineArguments;
  ctx->argumentCount = 0;
  ctx->format = fmt;
  ctx->formatEnd = fmt;
  int err = EINVAL;
  // Indices are assigned left to right as the conversions are read: a
  // width, then a precision, then the value; unnamed ones take the next index
  // after the last one assigned. While no index is named and all fit inline
  // (the usual format), each index has exactly one use, whose type is
  // recorded at once; otherwise a second pass finds the first use of each
  // index and checks the named ones.
  int64_t counter = 0;
  int64_t highest = 0;
  int64_t highestNamed = 0;
  bool sequential = true;
  // Assigns the index of one use: named (set the counter) or the next one.
  auto assign = [&](bool named, int32_t* index, int32_t type) {
    if (named) {
      counter = *index;
      if (counter > highestNamed) highestNamed = counter;
      sequential = false;
    } else {
      if (counter >= INT32_MAX) return false;
      *index = static_cast<int32_t>(++counter);
      if (counter >= f::kInlineArguments) sequential = false;
      if (sequential) ctx->inlineArguments[counter].type = type;
    }
    if (counter > highest) highest = counter;
    return true;
  };
  const char* p = fmt;
  for (;;) {
    p = f::nextPercent(p);
    if (*p == '\0') break;
    Conversion* c = f::appendConversion(ctx);
    if (c == nullptr) {
      err = ENOMEM;
      goto fail;
    }
    c->start = p;
    p = f::parseConversion(p + 1, c);
    if (p == nullptr) goto fail;
    c->end = p;
    const uint32_t flags = c->flags;
    if ((flags & f::kFlagWidthArg) &&
        !assign((flags & f::kFlagWidthNamed) != 0, &c->width, f::kUInt))
      goto fail;
    if ((flags & f::kFlagPrecArg) &&
        !assign((flags & f::kFlagPrecNamed) != 0, &c->precision, f::kUInt))
      goto fail;
    if (c->type != f::kPercent &&
        !assign((flags & f::kFlagNamedArg) != 0, &c->argIndex, c->type))
      goto fail;
  }
  ctx->formatEnd = p;
  if (highest >= f::kInlineArguments) {
    // Every index up to the highest is used, so a format needs at least about
    // one byte per index; the bound keeps the product below overflow.
    if (static_cast<uint64_t>(highest) >= SIZE_MAX / sizeof(Argument) / 2) goto fail;
    ctx->arguments =
        static_cast<Argument*>(zar::mem::alloc((static_cast<size_t>(highest) + 1) * sizeof(Argument)));
    if (ctx->arguments == nullptr) {
      ctx->arguments = ctx->inlineArguments;
      err = ENOMEM;
      goto fail;
    }
  }
  ctx->argumentCount = static_cast<int32_t>(highest);
  {
    Argument* args = ctx->arguments;
    if (!sequential) {
      for (int64_t i = 1; i <= highest; ++i) args[i].type = f::kTypeUnset;
      // Types of the first use: records in format order; in a record its
      // value, then its width, then its precision.
      const Conversion* const last = ctx->conversions + ctx->conversionCount;
      for (const Conversion* c = ctx->conversions; c != last; ++c) {
        if (c->type != f::kPercent &&
            !f::useArgument(args, c->argIndex, c->type, (c->flags & f::kFlagNamedArg) != 0))
          goto fail;
        if ((c->flags & f::kFlagWidthArg) &&
            !f::useArgument(args, c->width, f::kUInt, (c->flags & f::kFlagWidthNamed) != 0))
          goto fail;
        if ((c->flags & f::kFlagPrecArg) &&
            !f::useArgument(args, c->precision, f::kUInt, (c->flags & f::kFlagPrecNamed) != 0))
          goto fail;
      }
      // Once any index is named, all up to the highest named one must be.
      for (int64_t i = 1; i <= highestNamed; ++i)
        if (!(args[i].type & f::kNamedMark)) goto fail;
      for (int64_t i = 1; i <= highest; ++i) args[i].type &= f::kTypeMask;
    }
    va_list list;
    va_copy(list, ap);
    for (int64_t i = 1; i <= highest; ++i) f::fetchArgument(&args[i], &list);
    va_end(list);
  }
  return 0;

fail:
  zar_vsnprintf_done(ctx);
  errno = err;
  return -1;
}

int zar_vsnprintf_parse_as(Context* ctx, const Context* model, const char* fmt, va_list ap) {
  namespace f = zar::format;
  if (model->conversions != model->inlineConversions || model->arguments != model->inlineArguments)
    return -1;
  ctx->cs = model->cs;
  ctx->conversions = ctx->inlineConversions;
  ctx->conversionCount = model->conversionCount;
  ctx->conversionCapacity = f::kInlineConversions;
  ctx->arguments = ctx->inlineArguments;
  ctx->argumentCount = model->argumentCount;
  ctx->format = fmt;
  ctx->formatEnd = fmt + (model->formatEnd - model->format);
  for (int32_t i = 0; i < model->conversionCount; ++i) {
    Conversion& c = ctx->inlineConversions[i];
    c = model->inlineConversions[i];
    c.start = fmt + (c.start - model->format);
    c.end = fmt + (c.end - model->format);
  }
  va_list list;
  va_copy(list, ap);
  for (int32_t i = 1; i <= model->argumentCount; ++i) {
    ctx->inlineArguments[i].type = model->inlineArguments[i].type;
    f::fetchArgument(&ctx->inlineArguments[i], &list);
  }
  va_end(list);
  return 0;
}

int zar_vsnprintf_render(Context* ctx, char* buf, size_t size) {
  if (buf == nullptr) size = 0;
  zar::format::BufferSink out(buf, size != 0 ? size - 1 : 0, size != 0);
  int64_t total = zar::format::renderAll(ctx, out);
  if (total < 0) return -1;
  if (size != 0) *out.pos() = '\0';
  if (total > INT_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int>(total);
}

namespace {

// Holds a stdio stream's lock for its scope.
class StreamHold {
 public:
  explicit StreamHold(FILE* f) : f_(f) { flockfile(f_); }
  ~StreamHold() { funlockfile(f_); }
  StreamHold(const StreamHold&) = delete;
  StreamHold& operator=(const StreamHold&) = delete;

 private:
  FILE* f_;
};

}  // namespace

int zar_vsnprintf_render_stream(Context* ctx, FILE* stream) {
  if (stream == nullptr) {
    errno = EINVAL;
    return -1;
  }
  zar::CancelDisabled noCancel;
  StreamHold hold(stream);
  zar::format::StreamSink out(stream);
  int64_t total = zar::format::renderAll(ctx, out);
  if (total < 0 || out.failed()) return -1;
  if (out.written() > INT_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int>(out.written());
}

void zar_vsnprintf_done(Context* ctx) {
  if (ctx->conversions != ctx->inlineConversions) zar::mem::free(ctx->conversions);
  if (ctx->arguments != ctx->inlineArguments) zar::mem::free(ctx->arguments);
  ctx->conversions = ctx->inlineConversions;
  ctx->arguments = ctx->inlineArguments;
  ctx->conversionCount = 0;
  ctx->argumentCount = 0;
}

int nlz_vsprintf(char* buf, size_t size, nlz_cs_t cs, nlz_loc_t, const char* fmt, va_list ap) {
  if (fmt == nullptr) {
    errno = EINVAL;
    return -1;
  }
  Context ctx;
  if (zar_vsnprintf_parse(&ctx, cs != nullptr ? cs : nlz_get_def_cs(), fmt, ap) != 0) return -1;
  int n = zar_vsnprintf_render(&ctx, buf, size);
  zar_vsnprintf_done(&ctx);
  return n;
}

int nlz_vfprintf(FILE* stream, nlz_cs_t cs, const char* fmt, va_list ap) {
  if (fmt == nullptr || stream == nullptr) {
    errno = EINVAL;
    return -1;
  }
  Context ctx;
  if (zar_vsnprintf_parse(&ctx, cs != nullptr ? cs : nlz_get_def_cs(), fmt, ap) != 0) return -1;
  int n = zar_vsnprintf_render_stream(&ctx, stream);
  zar_vsnprintf_done(&ctx);
  return n;
}
