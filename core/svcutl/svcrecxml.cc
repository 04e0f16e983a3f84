// The XML record: a Message element (a severity message: its id, severity,
// time, component, catalog and one Param line per argument) or a Trace
// element (a debug message), with the text in UTF-8 as its LogText.
#include <stdio.h>
#include <string.h>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"

namespace zar::svc {
namespace {

// Longest message text of an XML record, in bytes of UTF-8.
constexpr size_t kXmlTextLimit = 20000;
// Room for one converted string of an XML Param line.
constexpr int kParamTextLimit = 10000;

// The longest prefix of text (length bytes of UTF-8) of at most limit bytes
// that ends at a character boundary.
size_t utf8Cut(const char* text, size_t length, size_t limit) {
  if (length <= limit) return length;
  size_t n = limit;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return n;
}

// ---- XML heads --------------------------------------------------------------------

// Puts text converted from the local code set into UTF-8 into out (at most
// kParamTextLimit bytes, ending at a character boundary); a byte that cannot
// be converted becomes '?'.
void putLocalAsUtf8(OutBuf& out, nlz_cs_t local, const char* text, size_t width, bool left,
                    long precision) {
  size_t length = strlen(text);
  if (precision >= 0 && static_cast<size_t>(precision) < length)
    length = static_cast<size_t>(precision);
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
  if (len > 0)
    out.put(buf, static_cast<size_t>(len) < sizeof buf ? static_cast<size_t>(len) : sizeof buf - 1);
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
          putLocalAsUtf8(out, record->sourceCs(), s,
                         pf.width < 0 ? 0 : static_cast<size_t>(pf.width), pf.left, pf.precision);
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
  const char* t = record->timeText();
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
    out.put(
        " <LogAttribs><KeyName><![CDATA[Numeric Trace Level]]></KeyName> "
        "<Value><![CDATA[");
    out.dec(level);
    out.put("]]></Value></LogAttribs>\n <LogText><![CDATA[");
    return;
  }
  // A saved message has its text (already formatted) and no format: its Id
  // and Severity come from that text, and its arguments are gone.
  const char* saved = record->savedText();
  const char* text = p.format != nullptr ? p.format : saved != nullptr ? saved : "";
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

void closeXml(OutBuf& out, const zar_svc_record* record) {
  out.put(" ]]></LogText>\n");
  out.put(isDebug(record->prolog) ? "</Trace>\n\n" : "</Message>\n\n");
}

}  // namespace

bool writeXml(FILE* stream, zar_svc_record* record, RecordText which, bool convertStrings,
              va_list args) {
  record->prolog.xml = 1;
  // Formatting may need memory and the catalog; it is done before the
  // stream is locked so that the lock is held for writing only.
  const bool unknown = unknownText(record);
  size_t bodyLength = 0;
  const char* body = nullptr;
  if (!unknown) {
    body = which == RecordText::kConverted ? record->convertedText(args, &bodyLength)
                                           : record->text(args, &bodyLength);
  }
  if (body != nullptr) bodyLength = utf8Cut(body, bodyLength, kXmlTextLimit);
  record->timeText();
  bool failed = false;
  {
    StreamHold hold(stream);
    OutBuf out(stream, &failed);
    if (wantsPrefix(record)) putXmlHead(out, record, convertStrings, args);
    if (unknown) {
      putUnknown(out, record->prolog.message_index);
    } else if (body != nullptr) {
      out.put(body, bodyLength);
    }
    closeXml(out, record);
  }
  return !failed;
}

bool writeXmlRecord(FILE* stream, zar_svc_record* record, va_list args) {
  // A UTF-8 text goes as it is, a local one converted (its string arguments
  // too).
  if (record->utf8Source) return writeXml(stream, record, RecordText::kOwn, false, args);
  return writeXml(stream, record, RecordText::kConverted, true, args);
}

}  // namespace zar::svc
