// The formatted-output engine: its own rules, malformed formats, positional
// formats against glibc, heap arrays, wide conversions and stream output.
// Cuts at every buffer size and into streams are checked by the printf fuzz
// target (its corpus replays in every test run).
#include "core/zarprintf.h"

#include <errno.h>
#include <fenv.h>
#include <limits.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "tests/testutil/testutil.h"
#include "zar/printf.h"

namespace zar {
namespace {

using test::FaultPlan;

const std::string kError = "<error>";

// zar_snprintf's text (or kError).
template <class... A>
std::string F(const char* fmt, A... a) {
  char buf[4096];
  int n = zar_snprintf(buf, sizeof buf, fmt, a...);
  if (n < 0) return kError;
  EXPECT_LT(n, static_cast<int>(sizeof buf)) << fmt;
  return std::string(buf, static_cast<size_t>(n));
}

int streamPrintf(FILE* f, nlz_cs_t cs, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = nlz_vfprintf(f, cs, fmt, ap);
  va_end(ap);
  return n;
}

// zar_asprintf's text (or kError), after checking its length result.
template <class... A>
std::string As(const char* fmt, A... a) {
  char* out = nullptr;
  int n = zar_asprintf(&out, fmt, a...);
  if (n < 0) return kError;
  std::string r = out;
  zar_asprintf_free(out);
  EXPECT_EQ(static_cast<size_t>(n), r.size()) << fmt;
  return r;
}

// nlz_vfprintf's text into a memory stream (or kError).
template <class... A>
std::string Str(nlz_cs_t cs, const char* fmt, A... a) {
  char* text = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&text, &len);
  int n = streamPrintf(f, cs, fmt, a...);
  fclose(f);
  std::string r(text, len);
  free(text);
  if (n < 0) return kError;
  EXPECT_EQ(static_cast<size_t>(n), r.size()) << fmt;
  return r;
}

// What glibc does the same is left to the random comparisons; these are the
// engine's own rules.
TEST(ZarPrintf, FormatsAsDescribed) {
  int v5 = 5;
  void* beef = reinterpret_cast<void*>(0xbeef);
  const std::string big(5000, 'b');
  const struct {
    std::string got;
    std::string want;
  } rows[] = {
      {F("%c%c%hc%lc", 'a', 'b' + 256, 'c', 'd'), "abcd"},
      {F("%s|%.2s|%.10s|%ls|%hs", static_cast<char*>(nullptr), "abc", "abc", "wide?", "x"),
       "|ab|abc|wide?|x"},
      {F("%5%|%-3%|100%%"), "    %|%  |100%"},
      {F("%1$d %d", 1, 2), "1 2"},
      {F("%1$d|%1$x|%1$.*1$d|%2$s%2$p", 3, nullptr), "3|3|003|"},
      {F("%.f", 1.5), "1.500000"},  // '.' alone sets no precision
      {F("%08.3f", 1.5), "   1.500"},  // a precision clears '0'
      {F("%08.3d|%08.d", 42, 42), "     042|00000042"},
      {F("%p|%5p|%-5p|", nullptr, nullptr, nullptr), "|     |     |"},
      {F("%p|%012p|%.6p", beef, beef, beef), "0xbeef|0x000000beef|0x00beef"},
      {F("%#.0o|%#.0x|%.0o|%.0d|%+.0d", 0, 0, 0, 0, 0), "||||+"},
      {F("%#o|%#.2o|%#.4o", 7, 8, 8), "07|010|0010"},  // one leading zero, or the precision's
      {F("%*d|%-*s|", -4, 7, -3, "a"), "7|a|"},  // negative width argument: no width
      {F("%*f|", -10, 1.0), "1.000000  |"},      // except for floating conversions
      {F("%.*s|%.*d|%0*.*d", -1, "abc", -1, 7, 3, -1, 7), "|7|  7"},
      {F("%00d|%005d|%-05d|%0-5d|", v5, v5, v5, v5), "5|00005|5    |5    |"},
      {F("%'d|%#d|%#s", 1234567, 5, "s"), "1234567|5|s"},
      {As("%s-%d", "a", 7), "a-7"},
      {As("<%s>", big.c_str()), "<" + big + ">"},
      {As("%s", ""), ""},
  };
  for (const auto& r : rows) EXPECT_EQ(r.want, r.got);
  zar_asprintf_free(nullptr);
}

TEST(ZarPrintf, MalformedFormatsFailWithoutRendering) {
  const char* const bad[] = {
      "%", "abc%", "%5", "%l", "%y", "%F", "%n", "%a", "%A", "%hhd", "%hld", "%lhd", "%Lhd",
      "%llld", "%lld%Lld%qqd", "%lf", "%hf", "%le", "%hG", "%5*d", "%.5*d", "%*5d", "%1$*5d",
      "%*2$d", "%.*2$d", "%1$s %3$s", "%2$d", "%0$d", "%1$*0$d", "%1$d %1$S", "%1$d %1$s",
      "%1$S %1$s", "%s %d %y", "%00-5d", "%1$f %1$d", "%1$*1$f", "%1$Lf %1$f", "%1$p %1$d",
      "%1$d %1$.*1$e",
  };
  char* poison = reinterpret_cast<char*>(16);  // would fault if it were rendered
  for (const char* fmt : bad) {
    char buf[16];
    memset(buf, 'Z', sizeof buf);
    errno = 0;
    EXPECT_EQ(-1, zar_snprintf(buf, sizeof buf, fmt, poison, poison, poison)) << fmt;
    EXPECT_EQ(EINVAL, errno) << fmt;
    EXPECT_EQ('Z', buf[0]) << fmt << ": the buffer was written";
    char* out = poison;
    EXPECT_EQ(-1, zar_asprintf(&out, fmt, poison, poison, poison)) << fmt;
    EXPECT_EQ(poison, out) << fmt;
  }
  EXPECT_EQ(-1, zar_snprintf(nullptr, 0, nullptr));
  EXPECT_EQ(-1, zar_asprintf(nullptr, "x"));
}

// The engine makes the digits of %f itself where that is exact: ties, the
// edges of that path, another decimal point and other rounding modes must
// give glibc's bytes.
TEST(ZarPrintf, FixedPointMatchesGlibc) {
  const double values[] = {0.5,    1.5,     2.5,    0.125,   -0.375,    2.675,     -0.0,
                           1e-7,   0.0005,  9.9995, 0x1p62,  0x1p63,    -9.5e18,   1e30,
                           0x1p-1074, 0x1p-126, 0x1p-129, 4503599627370495.5, 1.0 / 0.0, 0.1};
  locale_t de = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(nullptr, de) << "generated locales are missing (LOCPATH)";
  for (locale_t loc : {LC_GLOBAL_LOCALE, de}) {
    locale_t old = uselocale(loc);
    for (int mode : {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
      fesetround(mode);
      for (double v : values) {
        const char* fmt = "%.0f|%.1f|%.2f|%f|%.17f|%.18f|%8.3f|%-+9.3f|";
        char want[1024];
        snprintf(want, sizeof want, fmt, v, v, v, v, v, v, v, v);
        EXPECT_EQ(want, F(fmt, v, v, v, v, v, v, v, v)) << mode << " " << v;
      }
    }
    fesetround(FE_TONEAREST);
    uselocale(old);
  }
  freelocale(de);
}

TEST(ZarPrintf, SizeZeroWritesNothing) {
  char buf[4] = {'Q', 'Q', 'Q', 'Q'};
  EXPECT_EQ(11, zar_snprintf(buf, 0, "hello world"));
  EXPECT_EQ(11, zar_snprintf(buf, -3, "hello %s", "world"));
  EXPECT_EQ(8, zar_snprintf(buf, 0, "%8.3f", 2.0));
  EXPECT_EQ(0, memcmp(buf, "QQQQ", 4));
  EXPECT_EQ(11, zar_snprintf(nullptr, 0, "hello %s", "world"));
  EXPECT_EQ(4, zar_snprintf(nullptr, 0, "%3S|", u"a"));  // padding before a wide string
  EXPECT_EQ(INT_MAX, zar_snprintf(nullptr, 0, "%99999999999d", 1));  // widths saturate
  errno = 0;
  EXPECT_EQ(-1, zar_snprintf(nullptr, 0, "%2147483647d%d", 1, 2));
  EXPECT_EQ(EOVERFLOW, errno);
}

// Positional formats (arguments out of order, reused, widths and precisions
// taken by position) against glibc; single conversions and sequential
// formats are compared by the reliability suite's diff-printf.
TEST(ZarPrintf, PositionalFormatsMatchGlibc) {
  const char* const formats[] = {
      "%7$c|%6$llx|%5$u|%4$ld|%3$e|%2$s|%1$d", "%2$-8s|%1$*1$d|%3$+.2f|%1$x",
      "%3$#g %4$#lo %5$08X %6$-+lld %7$c %1$0*1$.*1$d %2$s",
      "%4$'ld %2$.1s %3$G %5$#o %2$s %6$lld %1$d %7$c",
      "%3$*1$.3e|%5$*1$u|%7$*1$c|%3$-*1$.1f|%2$s%4$ld%6$lld",
      "x=%2$10.2s %3$ E %1$i %4$lx %6$20llX %5$o %7$c"};
  for (const char* fmt : formats) {
    char want[1024];
    int n = snprintf(want, sizeof want, fmt, 12, "str", -3.25, -1234567L, 0xbeefu, 1LL << 40, 'Q');
    EXPECT_EQ(std::string(want, static_cast<size_t>(n)),
              F(fmt, 12, "str", -3.25, -1234567L, 0xbeefu, 1LL << 40, 'Q'))
        << fmt;
  }
}

// zar_snprintf_cs's "length:text" (or kError) with wide conversions into cs.
template <class... A>
std::string W(nlz_cs_t cs, int size, const char* fmt, A... a) {
  char buf[256];
  int n = zar_snprintf_cs(buf, size, cs, fmt, a...);
  return n < 0 ? kError : std::to_string(n) + ":" + buf;
}

TEST(ZarPrintfWide, ConvertsIntoTheCodeSet) {
  nlz_cs_t u8 = nlz_cs_shared("UTF8");
  nlz_cs_t latin1 = nlz_cs_shared("ISO8859-1");
  ASSERT_NE(nullptr, u8);
  ASSERT_NE(nullptr, latin1);
  const char16_t* ee = u"\u00e9\u00e9";  // two characters of two UTF-8 bytes each
  const struct {
    std::string got;
    std::string want;
  } rows[] = {
      {W(u8, 99, "%S|%C", u"h\u00e9llo", u'\u20ac'), "10:h\u00e9llo|\u20ac"},
      {W(u8, 99, "%S|%.8S", u"\U0001D11E", u"\U000103FF\U0001D11E"),  // pairs, one character each
       "13:\U0001D11E|\U000103FF\U0001D11E"},
      {W(u8, 99, "%3C|%-3C|%lC", u'\u00e9', u'\u00e9', u'x'), "9: \u00e9|\u00e9 |x"},
      {W(u8, 99, "%.3S|%.4S|%.0S|%.*S", ee, ee, ee, -1, ee), "9:\u00e9|\u00e9\u00e9||"},
      {W(u8, 99, "%6S|%-6S|%S", ee, ee, static_cast<char16_t*>(nullptr)),
       "14:  \u00e9\u00e9|\u00e9\u00e9  |"},
      {W(u8, 4, "%S|", ee), "5:\u00e9"},  // cut at a character boundary, nothing after it
      {W(u8, 5, "%S|", ee), "5:\u00e9\u00e9"},
      {W(u8, 5, "%6S", ee), "6:  \u00e9"},  // padding first, then the whole characters that fit
      {W(u8, 4, "%6S", ee), "6:  "},
      {W(u8, 3, "%C", u'\u00e9'), "2:\u00e9"},
      {W(u8, 2, "%C", u'\u00e9'), "2:\xc3"},  // a single character is cut at a byte
      {W(latin1, 99, "%S%C", u"\u00e9t\u00e9", u'\u00fc'), "4:\xe9t\xe9\xfc"},
      {W(latin1, 99, "%S", u"\u20ac"), kError},  // not representable
      {W(latin1, 99, "%C", u'\u20ac'), kError},
      {W(u8, 99, "%S", u"a\xD800" u"b"), kError},  // lone surrogates
      {W(u8, 99, "%C", 0xDC00), kError},
  };
  for (const auto& r : rows) EXPECT_EQ(r.want, r.got);
}

TEST(ZarPrintfStream, WritesWhatTheBufferWouldHoldAndReportsFailures) {
  nlz_cs_t u8 = nlz_cs_shared("UTF8");
  const std::string big(300, 'z');
  char want[1024];
  snprintf(want, sizeof want, "%.3f %s %.1Le", 2.5, big.c_str(), 1.0L);
  EXPECT_EQ(want, Str(u8, "%1$.3f %2$s %3$*4$.1Le", 2.5, big.c_str(), 1.0L, 3));
  EXPECT_EQ("[  \u00e9\u00e9|\u00e9\u00e9  ]", Str(u8, "[%6S|%-6S]", u"\u00e9\u00e9", u"\u00e9\u00e9"));
  EXPECT_EQ(std::string(195, ' ') + "1.000", Str(u8, "%200.3f", 1.0));
  EXPECT_EQ(kError, Str(u8, "%y"));
  EXPECT_EQ(kError, Str(u8, "ok%S", u"\xDC00"));
  FILE* f = tmpfile();
  ASSERT_NE(nullptr, f);
  {
    FaultPlan plan(fault::Op::kWrite, 2);
    EXPECT_EQ(-1, streamPrintf(f, nullptr, "a%db%sc", 1, "x"));
    EXPECT_EQ(1, plan.failures());
  }
  fclose(f);
  char buf[8];
  auto vs = [&](const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = nlz_vsprintf(buf, sizeof buf, u8, nullptr, fmt, ap);
    va_end(ap);
    return r;
  };
  EXPECT_EQ(9, vs("%s=%S", "key", u"\u00e9tat"));
  EXPECT_STREQ("key=\u00e9t", buf);
}

}  // namespace
}  // namespace zar
