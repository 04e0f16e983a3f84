// The library's formatted-output engine: a printf-like format is parsed once
// into conversion records, with every argument fetched from the argument list
// at parse time, and the parsed form is then rendered any number of times into
// buffers of any size (or straight into a stdio stream).
//
// Format grammar (one conversion):
//   '%' [n '$'] flags* [width] ['.' precision] [length] conversion
//   flags      ' ' '#' '\'' '+' '-' '0'
//   width      digits | '*' | '*' m '$'        (m$ only in a conversion with n$)
//   precision  digits | '*' | '*' m '$'        ('.' alone sets no precision)
//   length     'h' | 'l' | 'll' | 'L' | 'q'
//   conversion c C s S d i o u x X p e E f g G %
// Differences from C printf: %C and %S take 16-bit wide characters and convert
// them into the context's code set; 'l' with c and s changes nothing (%ls is a
// byte string); %p prints the address in lower-case hexadecimal with "0x" and
// nothing for a null pointer; a precision clears the '0' flag for every
// conversion; a negative width argument means no width (except for the
// floating conversions, which follow the C library); 'h'/'l' with a floating
// conversion, 'hh', 'F', 'n', 'a', 'A' are errors; so is an argument index
// used for different kinds of value (integer, width and precision; pointer;
// double; long double) or for both %s and %S.
//
// Usage:
//   zar::format::Context ctx;
//   if (zar_vsnprintf_parse(&ctx, cs, fmt, ap) != 0) return -1;  // nothing to release
//   int n = zar_vsnprintf_render(&ctx, buf, size);               // as often as needed
//   zar_vsnprintf_done(&ctx);
//
// Thread safety: a context belongs to one thread at a time; the engine has no
// shared state. The format text, and the strings and pointers passed for s, S
// and p, must outlive the context.
#ifndef ZAR_CORE_ZARPRINTF_H_
#define ZAR_CORE_ZARPRINTF_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "platform/nlz.h"

namespace zar::format {

// Flags of a conversion record.
enum : uint32_t {
  kFlagNamedArg = 0x1,        // the conversion names its argument (n$)
  kFlagAlt = 0x2,             // '#' (also set by 'p')
  kFlagLeft = 0x4,            // '-'
  kFlagZero = 0x8,            // '0'
  kFlagSpace = 0x10,          // ' '
  kFlagPlus = 0x20,           // '+'
  kFlagGroup = 0x40,          // '\''
  kFlagWidthDigits = 0x80,    // width written as digits
  kFlagWidthArg = 0x100,      // width from an argument ('*')
  kFlagWidthNamed = 0x200,    // width argument named (*m$)
  kFlagPrecDigits = 0x400,    // precision written as digits
  kFlagPrecArg = 0x800,       // precision from an argument ('.*')
  kFlagPrecNamed = 0x1000,    // precision argument named (.*m$)
  kFlagShort = 0x2000,        // 'h'
  kFlagLong = 0x4000,         // 'l'
  kFlagLongLong = 0x8000,     // 'll', 'L' or 'q'
  kFlagOctal = 0x10000,       // 'o'
  kFlagHex = 0x20000,         // 'x' (also 'p')
  kFlagHexUpper = 0x40000,    // 'X'
  kFlagUpper = 0x80000,       // 'E' or 'G'
  kFlagPercent = 0x100000,    // "%%"
};

// Conversion types; a type indexes the renderer table, so the order is fixed.
enum Type : int32_t {
  kChar = 0,           // c (any length modifier): int stored as one byte
  kWideChar = 1,       // C: int stored as a 16-bit wide character
  kString = 2,         // s (any length modifier): byte string
  kWideString = 3,     // S: string of 16-bit wide characters ended by 0
  kShort = 4,          // hd hi
  kUShort = 5,         // ho hu hx hX
  kInt = 6,            // d i
  kUInt = 7,           // o u x X; also the type of width and precision arguments
  kLong = 8,           // ld li
  kULong = 9,          // lo lu lx lX
  kLongLong = 10,      // d i with ll, L or q
  kULongLong = 11,     // o u x X with ll, L or q
  kPointer = 12,       // p (any length modifier)
  kDoubleE = 13,       // e E
  kDoubleF = 14,       // f
  kDoubleG = 15,       // g G
  kLongDoubleE = 16,   // e E with ll, L or q
  kLongDoubleF = 17,   // f with ll, L or q
  kLongDoubleG = 18,   // g G with ll, L or q
  kPercent = 19,       // %%
  kTypeCount = 20,
};

// One conversion of the format.
struct Conversion {
  const char* start;  // its '%'
  const char* end;    // just past its conversion character
  int32_t type;       // Type
  uint32_t flags;     // kFlag*
  int32_t argIndex;   // 1-based index of the value argument (0 for "%%")
  int32_t width;      // the width (kFlagWidthDigits) or its argument's index (kFlagWidthArg)
  int32_t precision;  // the precision (kFlagPrecDigits) or its argument's index (kFlagPrecArg)
};

// One fetched argument.
struct Argument {
  int32_t type;  // the Type of the first use of this index, which decided how it was fetched
  union {
    int64_t i;     // signed integers, sign-extended; c and C
    uint64_t u;    // unsigned integers, width and precision values
    const void* p; // s, S, p
    double d;      // e f g
    long double ld;  // L e f g
  } value;
};

inline constexpr int kInlineConversions = 10;
inline constexpr int kInlineArguments = 10;  // indices 0..9; index 0 is never used

// Engine context: one per formatting, normally on the caller's stack.
//
// Invariants (after a successful parse, until done):
// - conversions points at inlineConversions or at a heap array of at least
//   conversionCount records; arguments points at inlineArguments (highest
//   argument index <= 9) or at a heap array of highest index + 1 records.
// - format..formatEnd is the format text without its terminator.
// The context refers to itself, so it is neither copied nor moved.
struct Context {
  Context() = default;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  nlz_cs_t cs = nullptr;             // code set of %C and %S; null: the thread's locale
  Conversion inlineConversions[kInlineConversions];
  Conversion* conversions = nullptr; // inline or heap array in use
  int32_t conversionCount = 0;
  int32_t conversionCapacity = 0;
  Argument inlineArguments[kInlineArguments];
  Argument* arguments = nullptr;     // inline or heap array in use
  int32_t argumentCount = 0;         // highest argument index used
  const char* format = nullptr;      // the format being rendered
  const char* formatEnd = nullptr;   // its terminating NUL
};

}  // namespace zar::format

// Parses fmt, assigns argument indices and fetches every argument from ap,
// which is consumed as vsnprintf would. Returns 0, or -1 (errno EINVAL for a
// malformed format, ENOMEM for an allocation failure) with the context already
// released. No argument is fetched when the format is malformed.
int zar_vsnprintf_parse(zar::format::Context* ctx, nlz_cs_t cs, const char* fmt, va_list ap);

// zar_vsnprintf_parse of fmt through model, a context parsed (and not
// released) from a text equal to fmt in the wanted code set: its
// conversions, moved onto fmt, and its argument types are taken as they are
// and only the arguments are fetched from ap. Returns 0, or -1 (nothing done)
// when model holds heap arrays; the caller then parses fmt itself.
int zar_vsnprintf_parse_as(zar::format::Context* ctx, const zar::format::Context* model,
                           const char* fmt, va_list ap);

// Renders the parsed context into buf: at most size bytes including a
// terminator, which is always stored when size >= 1 (also when the output was
// cut); buf may be null when size is 0. When the output is cut, what was
// written is a prefix of the whole output, cut at a character boundary for
// %S. Returns the length of the whole output without the terminator, or -1
// when a wide character cannot be represented in the code set (EILSEQ) or
// the length exceeds INT_MAX (EOVERFLOW); the buffer's contents are then
// unspecified. May be called any number of times.
int zar_vsnprintf_render(zar::format::Context* ctx, char* buf, size_t size);

// Renders the parsed context into stream, which the caller may hold with
// flockfile (the engine takes the stream's lock itself as well, and writes
// with cancellation disabled). Returns the number of bytes written, or -1 on
// a render or write error (part of the output may have been written).
int zar_vsnprintf_render_stream(zar::format::Context* ctx, FILE* stream);

// Releases the heap arrays of a parsed context; the context may then be
// parsed again. Calling it twice is harmless.
void zar_vsnprintf_done(zar::format::Context* ctx);

// Formatted output in a code set, over the engine. A null cs means the
// layer's default code set (nlz_get_def_cs()), itself falling back to the
// code set of the thread's locale. loc is accepted for the layer's signature;
// numbers follow the thread's locale (LC_NUMERIC) as the C library's do.
//
// nlz_vsprintf: snprintf contract (at most size bytes, terminated when
// size >= 1; returns the whole length or -1).
int nlz_vsprintf(char* buf, size_t size, nlz_cs_t cs, nlz_loc_t loc, const char* fmt,
                 va_list ap);
// nlz_vfprintf: writes straight into stream without an intermediate buffer;
// returns the bytes written or -1.
int nlz_vfprintf(FILE* stream, nlz_cs_t cs, const char* fmt, va_list ap);

#endif  // ZAR_CORE_ZARPRINTF_H_
