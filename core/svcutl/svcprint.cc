// The printing pipeline: one print call looks its message text up and builds
// its prolog once, then writes the record to every route of its severity in
// the form the route's kind needs (a text record with its prefix, the text
// converted to UTF-8, or an XML record), and finally takes the message's
// abort or exit action.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "platform/sysio.h"

namespace zar::svc {
namespace {

// Longest message text of an XML record, in bytes of UTF-8.
constexpr size_t kXmlTextLimit = 20000;
// Room for one converted string of an XML Param line.
constexpr int kParamTextLimit = 10000;
// GOESTO chains longer than this many lists end the walk.
constexpr int kMaxVisitedLists = 32;
// The first buffer local_sprintf renders into.
constexpr size_t kSprintfBuffer = 8192;

// ---- Building a record's bytes ----------------------------------------------

// Whether a stream is one of the library's log files. Only the library
// writes to those, and it leaves nothing in their stdio buffers, so a record
// goes straight to the file's descriptor; the standard streams, which the
// program writes too, are written through stdio.
bool isLogFile(FILE* stream) { return stream != stdout && stream != stderr; }

// Set when a write of the record being printed to a log file failed, so
// that the route walk can mark the file (svc_file_route::cutShort).
thread_local bool tLogWriteFailed = false;

// Writes v as at least eight hexadecimal digits ("%8.8lx", "%8.8lX") at w;
// returns the end (at most 16 bytes are written).
// Eight hexadecimal digits of v, most significant first, as the bytes of a
// word in memory order: the nibbles are spread one per byte and turned into
// digits all at once.
uint64_t hexWord(uint32_t v, bool upper) {
  uint64_t x = v;
  x = ((x & 0xFFFF0000ULL) << 16) | (x & 0xFFFFULL);
  x = ((x & 0x0000FF000000FF00ULL) << 8) | (x & 0x000000FF000000FFULL);
  x = ((x & 0x00F000F000F000F0ULL) << 4) | (x & 0x000F000F000F000FULL);
  // x now holds the nibbles, the most significant in the highest byte.
  uint64_t letters = ((x + 0x0606060606060606ULL) >> 4) & 0x0101010101010101ULL;
  x += 0x3030303030303030ULL + letters * (upper ? 7 : 39);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  x = __builtin_bswap64(x);
#endif
  return x;
}

char* putHex8(char* w, unsigned long v, bool upper) {
  uint32_t high = static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32);
  if (high != 0) {
    int digits = (32 - __builtin_clz(high) + 3) / 4;
    char tmp[8];
    uint64_t x = hexWord(high, upper);
    memcpy(tmp, &x, 8);
    memcpy(w, tmp + 8 - digits, static_cast<size_t>(digits));
    w += digits;
  }
  uint64_t x = hexWord(static_cast<uint32_t>(v), upper);
  memcpy(w, &x, 8);
  return w + 8;
}

// Writes v in decimal at w; returns the end (at most 20 bytes are written).
char* putDec(char* w, long long v) {
  char tmp[24];
  char* end = tmp + sizeof tmp;
  char* p = end;
  unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v)
                               : static_cast<unsigned long long>(v);
  do {
    *--p = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0);
  if (v < 0) *--p = '-';
  memcpy(w, p, static_cast<size_t>(end - p));
  return w + (end - p);
}

// Collects a record's bytes in a stack buffer and hands them on in as few
// writes as possible: to the descriptor of a log file, or to a standard
// stream through stdio. Longer records go out in pieces, which the file lock
// keeps together. Lives only inside a StreamHold, so its writes (also the
// one of its destructor) run with cancellation disabled.
class OutBuf {
 public:
  explicit OutBuf(FILE* stream) : stream_(stream), fd_(isLogFile(stream) ? fileno(stream) : -1) {}
  ~OutBuf() { flush(); }
  OutBuf(const OutBuf&) = delete;
  OutBuf& operator=(const OutBuf&) = delete;

  void put(const char* p, size_t n) {
    if (n <= sizeof buf_ - len_) {
      memcpy(buf_ + len_, p, n);
      len_ += n;
      return;
    }
    while (n > 0) {
      if (len_ == sizeof buf_) flush();
      size_t k = sizeof buf_ - len_ < n ? sizeof buf_ - len_ : n;
      memcpy(buf_ + len_, p, k);
      len_ += k;
      p += k;
      n -= k;
    }
  }
  void put(const char* s) { put(s, strlen(s)); }
  void put(char c) {
    if (len_ == sizeof buf_) flush();
    buf_[len_++] = c;
  }
  void hex8(unsigned long v, bool upper) { len_ = putHex8(reserve(16), v, upper) - buf_; }
  void dec(long long v) { len_ = putDec(reserve(24), v) - buf_; }
  // Room for n bytes at the end of the buffer (flushing it first when
  // needed), to be filled and then committed; null when n exceeds the
  // buffer.
  char* reserve(size_t n) {
    if (n > sizeof buf_) return nullptr;
    if (sizeof buf_ - len_ < n) flush();
    return buf_ + len_;
  }
  void commit(size_t n) { len_ += n; }
  // Renders a parsed format; a text longer than the buffer is rendered into
  // a block of its own. False when the format cannot be rendered (or memory
  // for a long text cannot be had).
  bool render(format::Context* ctx) {
    size_t room = sizeof buf_ - len_;
    int n = zar_vsnprintf_render(ctx, buf_ + len_, room);
    if (n < 0) return false;
    if (static_cast<size_t>(n) < room) {
      len_ += static_cast<size_t>(n);
      return true;
    }
    mem::Unique<char> text(static_cast<char*>(mem::alloc(static_cast<size_t>(n) + 1)));
    if (!text || zar_vsnprintf_render(ctx, text.get(), static_cast<size_t>(n) + 1) != n)
      return false;
    put(text.get(), static_cast<size_t>(n));
    return true;
  }
  void flush() {
    if (len_ == 0) return;
    if (fd_ >= 0) {
      if (!sys::writeAll(fd_, buf_, len_)) tLogWriteFailed = true;
    } else {
      sys::fwrite(buf_, 1, len_, stream_);
    }
    len_ = 0;
  }

 private:
  FILE* stream_;
  int fd_;  // the log file's descriptor, or -1 for a standard stream
  size_t len_ = 0;
  char buf_[2048];
};

// A stream held for one record: the whole-file write lock (so that processes
// sharing the file never interleave records) and no cancellation; for a
// standard stream also its stdio lock (so that the program's own writes to it
// do not interleave either), and a flush when it lets go.
class StreamHold {
 public:
  explicit StreamHold(FILE* stream)
      : stream_(stream), fd_(fileno(stream)), logFile_(isLogFile(stream)) {
    previous_ = zar_svc__lock_for_write(fd_);
    if (!logFile_) flockfile(stream_);
  }
  ~StreamHold() {
    if (!logFile_) {
      sys::fflush(stream_);
      funlockfile(stream_);
    }
    zar_svc__unlock_for_write(fd_, previous_);
  }
  StreamHold(const StreamHold&) = delete;
  StreamHold& operator=(const StreamHold&) = delete;

 private:
  FILE* stream_;
  int fd_;
  bool logFile_;
  int previous_;
};

// ---- Code sets, formatting and conversion -------------------------------------

void fetchCodeSets(zar_svc_record* record) {
  if (record->codeSetsKnown) return;
  nlz_cs_t local = localCodePage();
  nlz_cs_t utf8 = utf8CodeSet();
  record->sourceCs = record->utf8Source ? utf8 : local;
  record->otherCs = record->utf8Source ? local : utf8;
  record->codeSetsKnown = true;
}

}  // namespace

char* localSprintf(nlz_cs_t cs, const char* fmt, int32_t* length, va_list args) {
  *length = 0;
  format::Context ctx;
  va_list copy;
  va_copy(copy, args);
  int rc = zar_vsnprintf_parse(&ctx, cs, fmt, copy);
  va_end(copy);
  if (rc != 0) return nullptr;
  char stackBuf[1024];
  int n = zar_vsnprintf_render(&ctx, stackBuf, sizeof stackBuf);
  char* text = nullptr;
  if (n >= 1) {
    text = static_cast<char*>(mem::alloc(static_cast<size_t>(n) + 1));
    if (text != nullptr && static_cast<size_t>(n) < sizeof stackBuf) {
      memcpy(text, stackBuf, static_cast<size_t>(n) + 1);
    } else if (text != nullptr && zar_vsnprintf_render(&ctx, text, static_cast<size_t>(n) + 1) != n) {
      mem::free(text);
      text = nullptr;
    }
  }
  zar_vsnprintf_done(&ctx);
  if (text != nullptr) *length = n;
  return text;
}

namespace {

// Converts length bytes of text from code set source into other (UTF-8 into
// the local code set when source is UTF-8, else into UTF-8); a new
// terminated text, or null (length 0) on failure.
char* localConvert(nlz_cs_t source, nlz_cs_t other, bool sourceIsUtf8, int32_t length,
                   const char* text, int32_t* outLength) {
  *outLength = 0;
  if (length == 0) length = static_cast<int32_t>(strlen(text));
  if (source == other) {
    char* copy = static_cast<char*>(mem::alloc(static_cast<size_t>(length) + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, static_cast<size_t>(length));
    copy[length] = '\0';
    *outLength = length;
    return copy;
  }
  size_t room = static_cast<size_t>(length) * (sourceIsUtf8 ? 2 : 3) + 1 + 4;
  if (room > INT32_MAX) return nullptr;
  char* out = static_cast<char*>(mem::alloc(room));
  if (out == nullptr) return nullptr;
  int n = sourceIsUtf8 ? nlz_from_utf8(other, text, length, out, static_cast<int>(room) - 1)
                       : nlz_to_utf8(source, text, length, out, static_cast<int>(room) - 1);
  if (n < 1) {
    mem::free(out);
    return nullptr;
  }
  out[n] = '\0';
  *outLength = n;
  return out;
}

// The record's text in its other code set, made at the first need and then
// shared by every route of the call.
const char* convertedText(zar_svc_record* record, va_list args) {
  if (!record->convertTried) {
    record->convertTried = true;
    fetchCodeSets(record);
    if (record->text != nullptr) {
      record->converted = localConvert(record->sourceCs, record->otherCs, record->utf8Source,
                                       record->textLength, record->text,
                                       &record->convertedLength);
    } else if (record->prolog.format != nullptr) {
      int32_t length = 0;
      mem::Unique<char> formatted(
          localSprintf(record->sourceCs, record->prolog.format, &length, args));
      if (formatted) {
        record->converted = localConvert(record->sourceCs, record->otherCs, record->utf8Source,
                                         length, formatted.get(), &record->convertedLength);
      }
    }
  }
  return record->converted;
}

// The format parsed once with its arguments, in the default code set of
// formatted output; null when it cannot be parsed.
format::Context* parsedFormat(zar_svc_record* record, va_list args) {
  if (record->parseState == 0) {
    va_list copy;
    va_copy(copy, args);
    int rc = zar_vsnprintf_parse(&record->parsed, nlz_get_def_cs(), record->prolog.format, copy);
    va_end(copy);
    record->parseState = rc == 0 ? 1 : -1;
  }
  return record->parseState == 1 ? &record->parsed : nullptr;
}

// The local time text of the record's time. The text of a whole second is
// made once and kept; records within that second only put in their
// milliseconds. (Zone offsets change at whole seconds, so the kept text is
// right for the whole second; a changed TZ shows from the next second on.)
const char* timeText(zar_svc_record* record) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (record->timeKnown) return record->timeText;
  record->timeKnown = true;
  struct timespec ts = {};
  TimeTextCache& cache = gSvc.timeCache;
  if (zar_utc_bintime(&ts, nullptr, nullptr, &record->prolog.t) == 0 && cache.msAt != 0 &&
      ts.tv_sec == cache.second) {
    memcpy(record->timeText, cache.text, sizeof record->timeText);
    long ms = ts.tv_nsec / 1000000;
    record->timeText[cache.msAt] = static_cast<char>('0' + ms / 100);
    record->timeText[cache.msAt + 1] = static_cast<char>('0' + ms / 10 % 10);
    record->timeText[cache.msAt + 2] = static_cast<char>('0' + ms % 10);
    return record->timeText;
  }
  if (zar_utc_asclocaltime(record->timeText, sizeof record->timeText, &record->prolog.t) != 0) {
    record->timeText[0] = '\0';
    return record->timeText;
  }
  // Keep it when the milliseconds are where the form puts them: three
  // digits after the first '.'.
  const char* dot = strchr(record->timeText, '.');
  cache.msAt = 0;
  if (dot != nullptr && isdigit(static_cast<unsigned char>(dot[1])) &&
      isdigit(static_cast<unsigned char>(dot[2])) && isdigit(static_cast<unsigned char>(dot[3]))) {
    memcpy(cache.text, record->timeText, sizeof cache.text);
    cache.second = ts.tv_sec;
    cache.msAt = static_cast<size_t>(dot + 1 - record->timeText);
  }
  return record->timeText;
}

// The longest prefix of text (length bytes of UTF-8) of at most limit bytes
// that ends at a character boundary.
size_t utf8Cut(const char* text, size_t length, size_t limit) {
  if (length <= limit) return length;
  size_t n = limit;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return n;
}

bool isDebug(const zar_svc_prolog& p) { return (p.attributes & svc_c_debug_mask) != 0; }

// ---- XML heads --------------------------------------------------------------------

// Puts text converted from the local code set into UTF-8 into out (at most
// kParamTextLimit bytes, ending at a character boundary); a byte that cannot
// be converted becomes '?'.
void putLocalAsUtf8(OutBuf& out, nlz_cs_t local, const char* text, size_t width, bool left,
                    long precision) {
  size_t length = strlen(text);
  if (precision >= 0 && static_cast<size_t>(precision) < length) length = static_cast<size_t>(precision);
  mem::Unique<char> buf(static_cast<char*>(mem::alloc(kParamTextLimit)));
  if (!buf) return;
  int n = nlz_to_utf8(local, text, static_cast<int>(length), buf.get(), kParamTextLimit);
  size_t used = 0;
  if (n >= 0) {
    used = static_cast<size_t>(n);
  } else {
    // Character by character: what cannot be converted becomes '?'.
    size_t i = 0;
    while (i < length && used < kParamTextLimit) {
      int charLen = nlz_mblen(local, text + i, static_cast<int>(length - i));
      char one[16];
      int k = charLen > 0 ? nlz_to_utf8(local, text + i, charLen, one, sizeof one) : -1;
      if (k < 0) {
        buf.get()[used++] = '?';
        i += 1;
        continue;
      }
      if (used + static_cast<size_t>(k) > kParamTextLimit) break;
      memcpy(buf.get() + used, one, static_cast<size_t>(k));
      used += static_cast<size_t>(k);
      i += static_cast<size_t>(charLen);
    }
  }
  size_t pad = width > used ? width - used : 0;
  if (!left) {
    for (size_t i = 0; i < pad; ++i) out.put(' ');
  }
  out.put(buf.get(), used);
  if (left) {
    for (size_t i = 0; i < pad; ++i) out.put(' ');
  }
}

// A 16-bit wide string in UTF-8 (at most kParamTextLimit bytes); a unit that
// cannot be converted becomes '?'.
void putWideAsUtf8(OutBuf& out, const nlz_wchar_t* text) {
  if (text == nullptr) return;
  size_t used = 0;
  for (size_t i = 0; text[i] != 0 && used < kParamTextLimit; ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    }
    char one[8];
    int k = nlz_wctomb(utf8CodeSet(), one, c);
    if (k < 0) {
      out.put('?');
      ++used;
    } else if (used + static_cast<size_t>(k) <= kParamTextLimit) {
      out.put(one, static_cast<size_t>(k));
      used += static_cast<size_t>(k);
    } else {
      break;
    }
  }
}

const char kParamFailure[] = "(Failed to handle a data type in svcprintf.c, printPrefix())";

// The width and precision of one conversion of a message text, as the Param
// scan reads them ('*' takes an int argument).
struct ParamFormat {
  bool alt = false;
  bool zero = false;
  bool left = false;
  long width = -1;
  long precision = -1;
};

// Formats one numeric value with the conversion's flags into out.
template <class T>
void putNumber(OutBuf& out, const ParamFormat& pf, const char* conv, T value) {
  char fmt[32] = "%";
  size_t n = 1;
  if (pf.alt) fmt[n++] = '#';
  if (pf.left) fmt[n++] = '-';
  if (pf.zero) fmt[n++] = '0';
  n += static_cast<size_t>(snprintf(fmt + n, sizeof fmt - n, "*.*%s", conv));
  char buf[600];
  int len = snprintf(buf, sizeof buf, fmt, static_cast<int>(pf.width < 0 ? 0 : pf.width),
                     static_cast<int>(pf.precision), value);
  if (len > 0) out.put(buf, static_cast<size_t>(len) < sizeof buf ? static_cast<size_t>(len) : sizeof buf - 1);
}

// One Param line per conversion of the message text, with its argument taken
// from a fresh copy of the argument list.
void putParams(OutBuf& out, zar_svc_record* record, bool convertStrings, va_list args) {
  va_list ap;
  va_copy(ap, args);
  const char* p = record->prolog.format;
  while (*p != '\0') {
    if (*p++ != '%') continue;
    if (*p == '%') {  // a percent sign: no Param
      ++p;
      continue;
    }
    ParamFormat pf;
    bool inPrecision = false;
    bool widthDigits = false;
    while (*p != '\0' && strchr("0123456789.#*", *p) != nullptr) {
      char c = *p++;
      if (c == '#') {
        pf.alt = true;
      } else if (c == '.') {
        if (!inPrecision) pf.precision = 0;
        inPrecision = true;
      } else if (c == '*') {
        int v = va_arg(ap, int);
        if (inPrecision) {
          pf.precision = v;
        } else if (v < 0) {
          pf.left = true;
          pf.width = -static_cast<long>(v);
        } else {
          pf.width = v;
        }
      } else if (inPrecision) {
        pf.precision = (pf.precision < 0 ? 0 : pf.precision) * 10 + (c - '0');
        if (pf.precision > 512) pf.precision = 512;
      } else if (c == '0' && !widthDigits) {
        pf.zero = true;
      } else {
        widthDigits = true;
        pf.width = (pf.width < 0 ? 0 : pf.width) * 10 + (c - '0');
        if (pf.width > 512) pf.width = 512;
      }
    }
    if (pf.width > 512) pf.width = 512;
    if (*p == '%') {  // "%5%": a percent sign with flags; no Param
      ++p;
      continue;
    }
    out.put("  <Param><![CDATA[");
    char conv = *p;
    if (conv != '\0') ++p;
    switch (conv) {
      case 's': {
        const char* s = va_arg(ap, const char*);
        if (s == nullptr) s = "";
        if (convertStrings) {
          fetchCodeSets(record);
          putLocalAsUtf8(out, record->sourceCs, s, pf.width < 0 ? 0 : static_cast<size_t>(pf.width),
                         pf.left, pf.precision);
        } else {
          putNumber(out, pf, "s", s);
        }
        break;
      }
      case 'S':
        putWideAsUtf8(out, va_arg(ap, const nlz_wchar_t*));
        break;
      case 'd':
        putNumber(out, pf, "d", va_arg(ap, int));
        break;
      case 'u':
        if (*p == 'l') {
          ++p;
          putNumber(out, pf, "llu", static_cast<unsigned long long>(va_arg(ap, uint64_t)));
          out.put('l');
        } else {
          putNumber(out, pf, "u", va_arg(ap, unsigned));
        }
        break;
      case 'x':
        putNumber(out, pf, "x", va_arg(ap, unsigned));
        break;
      case 'o':
        putNumber(out, pf, "o", va_arg(ap, unsigned));
        break;
      case 'c':
        putNumber(out, pf, "c", va_arg(ap, int));
        break;
      case 'f':
        putNumber(out, pf, "f", static_cast<double>(static_cast<float>(va_arg(ap, double))));
        break;
      case 'l':
        if (*p == 'd') {
          ++p;
          putNumber(out, pf, "ld", va_arg(ap, long));
          break;
        }
        if (*p == 'x') {
          ++p;
          putNumber(out, pf, "lx", va_arg(ap, unsigned long));
          break;
        }
        out.put(kParamFailure);
        break;
      default:
        out.put(kParamFailure);
        break;
    }
    out.put("]]></Param>\n");
    if (conv == '\0') break;
  }
  va_end(ap);
}

// The catalog that holds a message id's text, for example "kpwsc.cat".
void putCatalog(OutBuf& out, uint32_t msgid) {
  uint32_t tech = msgid >> 28;
  char tag[4];
  char comp[4];
  techTag(msgid, tag);
  componentName(msgid, comp);
  if (tech == 1) {
    out.put("kpb");
  } else if (tech == 4 || tech == 5) {
    out.put("???");
  } else {
    out.put(tag);
  }
  out.put(comp);
  out.put(".cat");
}

// " <Component>COMPONENT/SUBCOMPONENT</Component>" and its line end.
void putComponent(OutBuf& out, const zar_svc_prolog& p, const char* sub) {
  out.put(" <Component>");
  out.put(p.handle->component);
  out.put('/');
  out.put(sub);
  out.put("</Component>\n");
}

// The Source, Process and Thread lines, which both record kinds carry in this
// order.
void putSourceProcessThread(OutBuf& out, const zar_svc_prolog& p) {
  out.put(" <Source FileName=\"");
  out.put(p.file);
  out.put("\" Method=\"unknown\" Line=\"");
  out.dec(p.line);
  out.put("\"></Source>\n <Process>");
  out.put(p.progname);
  out.put("</Process>\n <Thread>0x");
  out.hex8(zar_svc__mapthreadid(&p.thread_id), false);
  out.put("</Thread>\n");
}

void putTimeElements(OutBuf& out, zar_svc_record* record) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  struct timespec ts = {};
  zar_utc_bintime(&ts, nullptr, nullptr, &record->prolog.t);
  out.put(" <Time Millis=\"");
  out.dec(ts.tv_sec);
  char ms[4] = {static_cast<char>('0' + ts.tv_nsec / 100000000 % 10),
                static_cast<char>('0' + ts.tv_nsec / 10000000 % 10),
                static_cast<char>('0' + ts.tv_nsec / 1000000 % 10), 0};
  out.put(ms);
  out.put("\">");
  const char* t = timeText(record);
  out.put(t, strnlen(t, 23));
  out.put("</Time>\n");
}

void putXmlHead(OutBuf& out, zar_svc_record* record, bool convertStrings, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  const zar_svc_prolog& p = record->prolog;
  const char* sub = p.handle->table[p.table_index].name;
  if (isDebug(p)) {
    uint32_t level = p.attributes & svc_c_debug_mask;
    out.put("<Trace Level=");
    out.put(level <= 3 ? "\"MIN\"" : level <= 6 ? "\"MID\"" : "\"MAX\"");
    out.put(">\n");
    putTimeElements(out, record);
    putComponent(out, p, sub);
    putSourceProcessThread(out, p);
    out.put(" <LogAttribs><KeyName><![CDATA[Numeric Trace Level]]></KeyName> "
            "<Value><![CDATA[");
    out.dec(level);
    out.put("]]></Value></LogAttribs>\n <LogText><![CDATA[");
    return;
  }
  // A saved message has its text (already formatted) and no format: its Id
  // and Severity come from that text, and its arguments are gone.
  const char* text = p.format != nullptr ? p.format : record->text != nullptr ? record->text : "";
  size_t idLen = strnlen(text, 10);
  char sevLetter = idLen == 10 ? text[9] : '\0';
  out.put("<Message Id=\"");
  out.put(text, idLen);
  out.put("\" Severity=\"");
  out.put(sevLetter == 'E' ? "ERROR" : sevLetter == 'W' ? "WARN" : "INFO");
  out.put("\">\n");
  putTimeElements(out, record);
  putComponent(out, p, sub);
  out.put(" <LogAttribs><KeyName><![CDATA[Message Number]]></KeyName> <Value><![CDATA[0x");
  out.hex8(p.message_index, true);
  out.put("]]></Value></LogAttribs>\n");
  putSourceProcessThread(out, p);
  out.put(" <TranslationInfo Type=\"XPG4\" Catalog=\"");
  putCatalog(out, p.message_index);
  out.put("\" SetId=\"1\" MsgKey=\"");
  char key[16];
  snprintf(key, sizeof key, "%x", p.message_index);
  out.put(key);
  out.put("\">\n");
  if (p.format != nullptr) putParams(out, record, convertStrings, args);
  out.put(" </TranslationInfo>\n <LogText><![CDATA[");
}

// The head of a record: the text prefix, or in XML mode the element's head.
void printPrefix(OutBuf& out, zar_svc_record* record, int newline, bool convertStrings,
                 va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (record->prolog.xml) {
    putXmlHead(out, record, convertStrings, args);
    return;
  }
  // "TIME 0xID PROGRAM SEVERITY COMPONENT SUB FILE LINE 0xTHREAD" or, for a
  // debug record, "TIME PROGRAM DEBUGn COMPONENT SUB FILE LINE 0xTHREAD".
  const zar_svc_prolog& p = record->prolog;
  const char* text[6] = {timeText(record), p.progname,
                         isDebug(p) ? "DEBUG" : kCodeTable[severityIndex(p.attributes)],
                         p.handle->component, p.handle->table[p.table_index].name, p.file};
  size_t len[6];
  size_t total = 64;  // blanks, id, level, line, thread, separator
  for (int i = 0; i < 6; ++i) total += len[i] = strlen(text[i]);
  char* w = out.reserve(total);
  if (w == nullptr) {  // names too long for the buffer: piece by piece
    out.put(text[0], len[0]);
    if (!isDebug(p)) {
      out.put(" 0x");
      out.hex8(p.message_index, true);
    }
    for (int i = 1; i < 6; ++i) {
      out.put(' ');
      out.put(text[i], len[i]);
      if (i == 2 && isDebug(p)) out.dec(p.attributes & svc_c_debug_mask);
    }
    out.put(' ');
    out.dec(p.line);
    out.put(" 0x");
    out.hex8(zar_svc__mapthreadid(&p.thread_id), false);
    out.put(newline ? '\n' : ' ');
    return;
  }
  char* start = w;
  memcpy(w, text[0], len[0]);
  w += len[0];
  if (!isDebug(p)) {
    memcpy(w, " 0x", 3);
    w = putHex8(w + 3, p.message_index, true);
  }
  for (int i = 1; i < 6; ++i) {
    *w++ = ' ';
    memcpy(w, text[i], len[i]);
    w += len[i];
    if (i == 2 && isDebug(p)) *w++ = static_cast<char>('0' + (p.attributes & svc_c_debug_mask));
  }
  *w++ = ' ';
  w = putDec(w, p.line);
  memcpy(w, " 0x", 3);
  w = putHex8(w + 3, zar_svc__mapthreadid(&p.thread_id), false);
  *w++ = newline ? '\n' : ' ';
  out.commit(static_cast<size_t>(w - start));
}

// The prolog's format reads "%s" while a route type gets the formatted text
// as the one argument, and its own again afterwards (also when the thread is
// cancelled in the callback: the record frees an owned format).
class FormatSwap {
 public:
  explicit FormatSwap(zar_svc_prolog* prolog) : prolog_(prolog), saved_(prolog->format) {
    prolog_->format = "%s";
  }
  ~FormatSwap() { prolog_->format = saved_; }
  FormatSwap(const FormatSwap&) = delete;
  FormatSwap& operator=(const FormatSwap&) = delete;

 private:
  zar_svc_prolog* prolog_;
  const char* saved_;
};

// Hands the record to a route of a registered type: the format and its
// arguments, or "%s" with the formatted text (in UTF-8 for a severity message
// of the local code set; a saved UTF-8 message is its own text).
void writeDynamic(zar_svc_record* record, svc_route* route, va_list args) {
  auto type = static_cast<svc_dyn_route*>(route->target);
  if (record->dynamicGetsArgs) {
    zar__svc_dyn_route_print(type, route->routeData, &record->prolog, args);
    return;
  }
  const char* text = record->saved && record->utf8Source ? record->text
                                                          : convertedText(record, args);
  FormatSwap swap(&record->prolog);
  zar__svc_dyn_route_print2(type, route->routeData, &record->prolog, text != nullptr ? text : "");
}

bool wantsPrefix(const zar_svc_record* record) {
  const zar_svc_prolog& p = record->prolog;
  if (p.attributes & svc_c_action_brief) return false;
  return !(gSvc.brief != 0 && isDebug(p));
}

void putUnknown(OutBuf& out, uint32_t msgid) {
  out.put("Unknown message 0x");
  out.hex8(msgid, false);
}

void closeXml(OutBuf& out, const zar_svc_record* record) {
  out.put(" ]]></LogText>\n");
  out.put(isDebug(record->prolog) ? "</Trace>\n\n" : "</Message>\n\n");
}

}  // namespace

// ---- The route walk ---------------------------------------------------------------

void writeRoutes(zar_svc_record* record, svc_route_list* list, PrologBuilder build,
                 void* buildContext, va_list args) {
  if (list == nullptr || list->count == 0) return;
  const svc_route_list* visited[kMaxVisitedLists];
  int nVisited = 0;
  visited[nVisited++] = list;
  svc_route** routes = list->routes;
  int32_t count = list->count;
  for (int32_t i = 0; i < count; ++i) {
    svc_route* route = routes[i];
    zar_svc__check_open(route);
    record->prolog.xml = 0;
    int32_t kind = route->kind;
    if (kind == kRouteGoesTo) {
      // The named list replaces the rest of this one; an unknown, empty or
      // already visited list is skipped and this one goes on.
      svc_route_list* target = goestoList(static_cast<const char*>(route->target));
      if (target == nullptr || target->count == 0 || nVisited == kMaxVisitedLists) continue;
      bool seen = false;
      for (int v = 0; v < nVisited; ++v) seen = seen || visited[v] == target;
      if (seen) continue;
      visited[nVisited++] = target;
      routes = target->routes;
      count = target->count;
      i = -1;
      continue;
    }
    FILE* stream = nullptr;
    int newline = 0;
    switch (kind) {
      case kRouteTextFile:
      case kRouteUtf8File:
      case kRouteXmlFile:
        stream = static_cast<svc_file_route*>(route->target)->stream;
        break;
      case kRouteStdout:
      case kRouteXmlStdout:
        stream = stdout;
        newline = 1;
        break;
      case kRouteStderr:
      case kRouteXmlStderr:
        stream = stderr;
        newline = 1;
        break;
      case kRouteDynamic:
        if (record->prolog.handle == nullptr) build(record, buildContext);
        writeDynamic(record, route, args);
        continue;
      default:  // DISCARD, and a route waiting for its type
        continue;
    }
    if (stream == nullptr) continue;
    if (record->prolog.handle == nullptr) build(record, buildContext);
    // A record cut short by a failed write (a full disk, a file size limit)
    // left the file inside a line; the next record starts a line of its own.
    auto file = isFileKind(kind) ? static_cast<svc_file_route*>(route->target) : nullptr;
    if (file != nullptr && file->cutShort && sys::writeAll(fileno(stream), "\n", 1))
      file->cutShort = 0;
    tLogWriteFailed = false;
    bool xml = kind == kRouteXmlFile || kind == kRouteXmlStdout || kind == kRouteXmlStderr;
    record->prolog.xml = xml ? 1 : 0;
    bool textKind = kind == kRouteTextFile || kind == kRouteStdout || kind == kRouteStderr;
    if (record->saved) {
      // The saved text is converted for the routes that need the other code
      // set: text routes need the local one, UTF-8 and XML routes UTF-8.
      int convert = textKind ? record->utf8Source : !record->utf8Source;
      zar_svc__vfprintf2(stream, record, newline, convert, args);
    } else if (record->utf8Source) {
      // UTF-8 text: converted for the text kinds, as it is for UTF-8 and XML.
      zar_svc__vfprintf2(stream, record, newline, textKind ? 1 : 0, args);
    } else if (kind == kRouteUtf8File) {
      zar_svc__vfprintf2(stream, record, newline, 1, args);
    } else {
      zar_svc__vfprintf(stream, record, newline, args);
    }
    if (file != nullptr && tLogWriteFailed) file->cutShort = 1;
  }
}

void buildProlog(zar_svc_record* record, zar_svc_handle handle, zar_codeset_t cs,
                 const char* file, int line, const char* argtypes, uint32_t subcomp,
                 uint32_t attributes, uint32_t msgid) {
  zar_svc_prolog& p = record->prolog;
  record->utf8Source = cs != nullptr;
  // A UTF-8 message reaches route types with its own format and arguments.
  record->dynamicGetsArgs = cs != nullptr;
  char* text = record->utf8Source ? messageTextUtf8(msgid) : messageText(msgid);
  p.format = text;
  record->formatOwned = text != nullptr;
  p.handle = handle;
  p.version = 1;
  zar_utc_gettime(&p.t);
  p.argtypes = argtypes;
  p.table_index = subcomp;
  p.attributes = attributes;
  p.message_index = msgid;
  // '/' is never part of a multibyte character in the code sets the library
  // runs in, so the byte search is a character search.
  const char* slash = file != nullptr ? strrchr(file, '/') : nullptr;
  p.file = file == nullptr ? "?" : slash != nullptr ? slash + 1 : file;
  p.line = line;
  p.thread_id = pthread_self();
  copyProgname(p.progname);
}

void copyProgname(char* out) {
  if (gSvc.progname[0] != '\0') {
    memcpy(out, gSvc.progname, sizeof gSvc.progname);
  } else {
    // "PID#" and the process id, made again only when the id changed (fork).
    pid_t pid = zar_svc__get_pid();
    if (pid != gSvc.pidNameOf) {
      snprintf(gSvc.pidName, sizeof gSvc.pidName, "PID#%ld", static_cast<long>(pid));
      gSvc.pidNameOf = pid;
    }
    memcpy(out, gSvc.pidName, sizeof gSvc.pidName);
  }
}

}  // namespace zar::svc

zar_svc_record::~zar_svc_record() {
  if (parseState == 1) zar_vsnprintf_done(&parsed);
  zar::mem::free(converted);
  if (!textBorrowed) zar::mem::free(text);
  if (formatOwned) zar::mem::free(const_cast<char*>(prolog.format));
}

using zar::svc::OutBuf;
using zar::svc::StreamHold;

extern "C" {

int zar_svc__lock_for_write(int fd) {
  zar::sys::fileLock(fd, F_WRLCK, true);
  int previous = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
  return previous;
}

void zar_svc__unlock_for_write(int fd, int previousCancelState) {
  zar::sys::fileLock(fd, F_UNLCK, true);
  if (previousCancelState == PTHREAD_CANCEL_ENABLE)
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void zar_svc__vfprintf(FILE* stream, zar_svc_record* record, int newline, va_list args) {
  using namespace zar::svc;
  const zar_svc_prolog& p = record->prolog;
  bool xml = p.xml != 0;
  zar::format::Context* parsed = nullptr;
  const char* utf8 = nullptr;
  if (p.format != nullptr) {
    // Formatting may need memory and the catalog; it is done before the
    // stream is locked so that the lock is held for writing only.
    if (xml) {
      utf8 = zar::svc::convertedText(record, args);
    } else {
      parsed = zar::svc::parsedFormat(record, args);
    }
  }
  timeText(record);
  StreamHold hold(stream);
  OutBuf out(stream);
  if (wantsPrefix(record)) printPrefix(out, record, newline, true, args);
  if (p.format == nullptr) {
    putUnknown(out, p.message_index);
  } else if (xml) {
    if (utf8 != nullptr)
      out.put(utf8, utf8Cut(utf8, static_cast<size_t>(record->convertedLength), kXmlTextLimit));
  } else if (parsed != nullptr) {
    out.render(parsed);
  }
  if (xml) {
    closeXml(out, record);
  } else {
    out.put('\n');
  }
}

void zar_svc__vfprintf2(FILE* stream, zar_svc_record* record, int newline, int convert,
                        va_list args) {
  using namespace zar::svc;
  const zar_svc_prolog& p = record->prolog;
  bool xml = p.xml != 0;
  const char* body = nullptr;
  size_t bodyLength = 0;
  zar::format::Context* parsed = nullptr;
  zar::mem::Unique<char> formatted;
  if (convert) {
    body = zar::svc::convertedText(record, args);
    bodyLength = body != nullptr ? static_cast<size_t>(record->convertedLength) : 0;
  } else if (record->text != nullptr) {
    body = record->text;
    bodyLength = static_cast<size_t>(record->textLength);
  } else if (p.format != nullptr && xml) {
    // An XML record's text is bounded: formatted in the source code set
    // first, then cut.
    zar::svc::fetchCodeSets(record);
    int32_t length = 0;
    formatted.reset(zar::svc::localSprintf(record->sourceCs, p.format, &length, args));
    body = formatted.get();
    bodyLength = static_cast<size_t>(length);
  } else if (p.format != nullptr) {
    zar::svc::fetchCodeSets(record);
    va_list copy;
    va_copy(copy, args);
    zar::format::Context ctx;
    // Parsed in the source code set; rendered below into the stream.
    if (zar_vsnprintf_parse(&ctx, record->sourceCs, p.format, copy) == 0) parsed = &ctx;
    va_end(copy);
    timeText(record);
    {
      StreamHold hold(stream);
      OutBuf out(stream);
      if (wantsPrefix(record)) printPrefix(out, record, newline, false, args);
      if (parsed != nullptr) out.render(parsed);
      out.put('\n');
    }
    if (parsed != nullptr) zar_vsnprintf_done(parsed);
    return;
  }
  if (xml && body != nullptr) bodyLength = utf8Cut(body, bodyLength, kXmlTextLimit);
  timeText(record);
  StreamHold hold(stream);
  OutBuf out(stream);
  if (wantsPrefix(record)) printPrefix(out, record, newline, false, args);
  if (p.format == nullptr && record->text == nullptr) {
    putUnknown(out, p.message_index);
  } else if (body != nullptr) {
    out.put(body, bodyLength);
  }
  if (xml) {
    closeXml(out, record);
  } else {
    out.put('\n');
  }
}

}  // extern "C"

// ---- The entry points ---------------------------------------------------------------

namespace zar::svc {
namespace {

struct SeverityCall {
  zar_svc_handle handle;
  zar_codeset_t cs;
  const char* file;
  int line;
  const char* argtypes;
  uint32_t subcomp;
  uint32_t attributes;
  uint32_t msgid;
};

void buildSeverityProlog(zar_svc_record* record, void* context) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  auto* c = static_cast<const SeverityCall*>(context);
  buildProlog(record, c->handle, c->cs, c->file, c->line, c->argtypes, c->subcomp,
              c->attributes, c->msgid);
}

// A word with a debug level 1 to 9, or none and a severity 1 to 5.
bool validAttributes(uint32_t attributes) {
  uint32_t level = attributes & svc_c_debug_mask;
  return level != 0 ? level <= 9 : severityIndex(attributes) >= 0;
}

bool printable(const SeverityCall& call) {
  return call.handle != nullptr && validAttributes(call.attributes) &&
         call.subcomp < call.handle->table_size;
}

// One print call; the caller holds the mutex.
void printBody(const SeverityCall& call, va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  zar_svc_handle handle = call.handle;
  zar_svc_record record;
  void* context = const_cast<SeverityCall*>(&call);
  if (handle->filter != nullptr) {
    buildSeverityProlog(&record, context);
    va_list copy;
    va_copy(copy, args);
    int keep = handle->filter(&record.prolog, copy);
    va_end(copy);
    if (!keep) return;
  }
  if ((call.attributes & svc_c_route_nolog) == 0) {
    svc_route_list* list;
    if ((call.attributes & svc_c_debug_mask) == 0) {
      if (MsgSaveState* save = activeMsgSave()) {
        if (record.prolog.handle == nullptr) buildSeverityProlog(&record, context);
        if (!doSaveMsg(save, &record, args)) return;  // held back: no route, no action
      }
      list = &gSvc.routes[severityIndex(call.attributes)];
      if (list->count == 0) {
        unsigned long st = 0;
        zar_svc__fillin(call.attributes, &st);
      }
    } else {
      list = debugRoutesOf(handle);
      if (list == nullptr) return;  // the debug settings cannot be settled
    }
    writeRoutes(&record, list, buildSeverityProlog, context, args);
  }
  if (call.attributes & svc_c_route_stderr) {
    // The copy is an XML record when the last route written was XML.
    if (record.prolog.handle == nullptr) buildSeverityProlog(&record, context);
    zar_svc__vfprintf(stderr, &record, 1, args);
  }
  if (call.attributes & svc_c_action_abort) abort();
  if (call.attributes & svc_c_action_exit_bad) exit(1);
  if (call.attributes & svc_c_action_exit_ok) exit(0);
}

void printCall(const SeverityCall& call, va_list args) {
  if (!printable(call)) return;
  SvcLock lock;
  printBody(call, args);
}

}  // namespace

void printHeld(zar_svc_handle handle, const char* file, int line, const char* argtypes,
               uint32_t subcomp, uint32_t attributes, uint32_t msgid, ...) {
  SeverityCall call{handle, nullptr, file, line, argtypes, subcomp, attributes, msgid};
  if (!printable(call)) return;
  va_list args;
  va_start(args, msgid);
  printBody(call, args);
  va_end(args);
}

}  // namespace zar::svc

extern "C" {

ZAR_API void zar_svc_vprintf_withfile(zar_svc_handle handle, const char* file, int line,
                                      const char* argtypes, uint32_t subcomp,
                                      uint32_t attributes, uint32_t msgid, va_list args) {
  zar::svc::printCall({handle, nullptr, file, line, argtypes, subcomp, attributes, msgid}, args);
}

ZAR_API void zar_svc_printf_withfile(zar_svc_handle handle, const char* file, int line,
                                     const char* argtypes, uint32_t subcomp,
                                     uint32_t attributes, uint32_t msgid, ...) {
  va_list args;
  va_start(args, msgid);
  zar::svc::printCall({handle, nullptr, file, line, argtypes, subcomp, attributes, msgid}, args);
  va_end(args);
}

ZAR_API void zar_svc_vprintf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                         const char* file, int line, const char* argtypes,
                                         uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                         va_list args) {
  zar::svc::printCall({handle, cs, file, line, argtypes, subcomp, attributes, msgid}, args);
}

ZAR_API void zar_svc_printf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                        const char* file, int line, const char* argtypes,
                                        uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                        ...) {
  va_list args;
  va_start(args, msgid);
  zar::svc::printCall({handle, cs, file, line, argtypes, subcomp, attributes, msgid}, args);
  va_end(args);
}

}  // extern "C"
