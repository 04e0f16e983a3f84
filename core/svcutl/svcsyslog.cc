// The SYSLOG route type: records as RFC 5424 messages to a syslog daemon, over
// the system's log socket or another datagram socket, UDP, or TCP with
// octet-counting framing (RFC 6587).
//
// Where text: [FACILITY][,ADDRESS] with ADDRESS one of "unix,PATH",
// "udp,HOST,PORT", "tcp,HOST,PORT" (commas, because ':' ends the field of a
// route element); empty means facility user on /dev/log.
//
// A record: <PRI>1 TIMESTAMP HOSTNAME APP-NAME PROCID MSGID [zar@32473 ...]
// BOM MSG. The structured data carry what the text record's prefix carries.
// A record longer than its transport's limit is cut (MSG first), never split.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/zarmem.h"
#include "core/svcutl/svccollect.h"
#include "core/svcutl/svcint.h"
#include "core/zardigits.h"
#include "zar/printf.h"
#include "zar/utc.h"

namespace zar::collect {
namespace {

constexpr size_t kUnixLimit = 8192;  // rsyslog's and syslog-ng's default message size
constexpr size_t kUdpLimit = 2048;   // what RFC 5426 asks every receiver to take
constexpr size_t kTcpLimit = 8192;
constexpr size_t kFrameRoom = 12;  // TCP: the decimal length and its blank, in front

// Private-enterprise SD-ID of the library's element; 32473 is the number
// reserved for examples and documentation (RFC 5612).
constexpr const char* kSdId = "zar@32473";

struct Facility {
  const char* name;
  int code;
};
constexpr Facility kFacilities[] = {
    {"kern", 0},      {"user", 1},    {"mail", 2},    {"daemon", 3},  {"auth", 4},
    {"syslog", 5},    {"lpr", 6},     {"news", 7},    {"uucp", 8},    {"cron", 9},
    {"authpriv", 10}, {"ftp", 11},    {"local0", 16}, {"local1", 17}, {"local2", 18},
    {"local3", 19},   {"local4", 20}, {"local5", 21}, {"local6", 22}, {"local7", 23},
};

constexpr size_t kSdCacheText = 128;  // longer texts are escaped for each record

struct SyslogRoute {
  OpenRoute link;  // first: the record is freed through it
  int facility;
  size_t limit;
  char host[255];  // the host name as a header field ("-" when unknown)
  size_t hostLen;
  // The component, subcomponent and file params of the last record, escaped,
  // and the texts they were made of: a program prints from a few places.
  char sdOf[3][kSdCacheText];
  char sd[3 * (3 * kSdCacheText + 16)];  // an invalid byte may become three
  size_t sdLen;                          // 0: nothing cached
};

// Copies text into out as a header field: printable US-ASCII without blanks,
// at most maxLen bytes; "-" when nothing is left. Returns its length (out is
// not terminated).
size_t headerField(char* out, size_t maxLen, const char* text) {
  size_t n = 0;
  for (; text != nullptr && *text != '\0' && n < maxLen; ++text) {
    unsigned char c = static_cast<unsigned char>(*text);
    out[n++] = (c > 32 && c < 127) ? static_cast<char>(c) : '_';
  }
  if (n == 0) out[n++] = '-';
  return n;
}

constexpr CollectorKind kSyslogKind = {"SYSLOG", "/dev/log", true, false};

void syslogOpen(const char* name, const char* where, void*, void** routeData, int32_t* opened)
    ZAR_REQUIRES(svc::gSvc.mutex) {
  *opened = 0;
  int facility = 1;
  const char* address = where;
  size_t first = strcspn(where, ",");
  for (const Facility& f : kFacilities) {
    if (strlen(f.name) != first || strncmp(where, f.name, first) != 0) continue;
    facility = f.code;
    address = where[first] == ',' ? where + first + 1 : where + first;
    break;
  }
  auto route =
      static_cast<SyslogRoute*>(openRoute(kSyslogKind, name, where, address, sizeof(SyslogRoute)));
  if (route == nullptr) return;
  Transport t = transportOf(route->link.dest);
  route->limit = t == Transport::kUdp ? kUdpLimit : t == Transport::kTcp ? kTcpLimit : kUnixLimit;
  route->facility = facility;
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  route->hostLen = headerField(route->host, sizeof route->host, host);
  *routeData = route;
  *opened = 1;
}

// Appends text at w (below end), returning the new end of the written text.
char* put(char* w, const char* end, const char* text) {
  size_t n = strlen(text);
  if (n > static_cast<size_t>(end - w)) n = static_cast<size_t>(end - w);
  memcpy(w, text, n);
  return w + n;
}

using digits::putSigned;

// "0x" and v in hex, at least 8 digits, as printf's 0x%08X (or 0x%08lx).
char* putHex(char* w, unsigned long v, bool upper) {
  const char* xdigits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[16];
  int n = 0;
  do {
    digits[n++] = xdigits[v & 15];
    v >>= 4;
  } while (v != 0);
  *w++ = '0';
  *w++ = 'x';
  for (int pad = n; pad < 8; ++pad) *w++ = '0';
  while (n > 0) *w++ = digits[--n];
  return w;
}

// One SD-PARAM: name="value" with '"', '\' and ']' escaped, valid UTF-8.
char* putParam(char* w, const char* end, const char* name, const char* value) {
  w = put(w, end, " ");
  w = put(w, end, name);
  w = put(w, end, "=\"");
  if (value != nullptr && end - w > 1)
    w += putUtf8(w, static_cast<size_t>(end - w) - 1, value, strlen(value), "\"\\]");
  return put(w, end, "\"");
}

// An SD-PARAM whose value needs no escaping (a number), written as putParam
// would write it; lead is ' name="' (the header before these params is far
// below any limit, so it always fits).
template <size_t N>
char* putPlainParam(char* w, const char* end, const char (&lead)[N], const char* value,
                    const char* valueEnd) {
  memcpy(w, lead, N - 1);
  w += N - 1;
  size_t n = static_cast<size_t>(valueEnd - value);
  size_t room = end - w > 1 ? static_cast<size_t>(end - w) - 1 : 0;
  memcpy(w, value, n < room ? n : room);
  w += n < room ? n : room;
  *w++ = '"';
  return w;
}

// The component, subcomponent and file params, from the route's copy when
// the texts are those of its last record. The cached params fit in any
// record whole (the header before them is far shorter than a limit), so the
// copy is what putParam would write.
char* putSourceParams(SyslogRoute* route, char* w, const char* end, const zar_svc_prolog* p) {
  const char* texts[3] = {
      p->handle->component,
      p->table_index < p->handle->table_size ? p->handle->table[p->table_index].name : nullptr,
      p->file};
  static const char* const kNames[3] = {"component", "subcomponent", "file"};
  bool same = route->sdLen != 0;
  bool cacheable = true;
  for (int i = 0; i < 3; ++i) {
    const char* t = texts[i] != nullptr ? texts[i] : "";
    same = same && strcmp(route->sdOf[i], t) == 0;
    cacheable = cacheable && strlen(t) < kSdCacheText;
  }
  if (!same) {
    if (!cacheable) {
      for (int i = 0; i < 3; ++i) w = putParam(w, end, kNames[i], texts[i]);
      return w;
    }
    char* c = route->sd;
    for (int i = 0; i < 3; ++i) {
      c = putParam(c, route->sd + sizeof route->sd, kNames[i], texts[i]);
      strcpy(route->sdOf[i], texts[i] != nullptr ? texts[i] : "");
    }
    route->sdLen = static_cast<size_t>(c - route->sd);
  }
  memcpy(w, route->sd, route->sdLen);
  return w + route->sdLen;
}

// Builds the whole record in one buffer on the stack (the TCP frame length
// in front, the message text formatted straight into a second one) and hands
// it to the destination: no allocation and one send per record.
void syslogPrint(void*, void* routeData, zar_svc_prolog* p, va_list args)
    ZAR_REQUIRES(svc::gSvc.mutex) {
  auto route = static_cast<SyslogRoute*>(routeData);
  char buf[kFrameRoom + kTcpLimit];
  char* const start = buf + kFrameRoom;
  const char* const end = start + route->limit;
  char* w = start;

  // The header is at most some 400 bytes, far below any transport's limit.
  bool debug = svc::severityIndex(p->attributes) < 0;
  struct tm tm = {};
  long ns = 0;
  long tdf = 0;
  if (zar_utc_anytime(&tm, &ns, nullptr, nullptr, &tdf, &p->t) != 0) tdf = 0;
  long offMin = (tdf < 0 ? -tdf : tdf) / 60;
  *w++ = '<';
  w = putSigned(w, route->facility * 8 + syslogSeverity(p->attributes));
  w = put(w, end, ">1 ");
  w = putSigned(w, tm.tm_year + 1900, 4);
  *w++ = '-';
  w = putSigned(w, tm.tm_mon + 1, 2);
  *w++ = '-';
  w = putSigned(w, tm.tm_mday, 2);
  *w++ = 'T';
  w = putSigned(w, tm.tm_hour, 2);
  *w++ = ':';
  w = putSigned(w, tm.tm_min, 2);
  *w++ = ':';
  w = putSigned(w, tm.tm_sec, 2);
  *w++ = '.';
  w = putSigned(w, ns / 1000, 6);
  *w++ = tdf < 0 ? '-' : '+';
  w = putSigned(w, offMin / 60, 2);
  *w++ = ':';
  w = putSigned(w, offMin % 60, 2);
  *w++ = ' ';
  memcpy(w, route->host, route->hostLen);
  w += route->hostLen;
  *w++ = ' ';
  w += headerField(w, 48, p->progname);
  *w++ = ' ';
  w = putSigned(w, zar_svc__get_pid());
  *w++ = ' ';
  if (debug) {
    *w++ = '-';
  } else {
    w = putHex(w, p->message_index, true);
  }
  w = put(w, end, " [");
  w = put(w, end, kSdId);
  char field[32];
  if (debug) {
    w = putPlainParam(w, end, " level=\"", field,
                      putSigned(field, p->attributes & svc_c_debug_mask));
  } else {
    w = putPlainParam(w, end, " status=\"", field, putHex(field, p->message_index, true));
  }
  w = putSourceParams(route, w, end, p);
  w = putPlainParam(w, end, " line=\"", field, putSigned(field, p->line));
  w = putPlainParam(w, end, " thread=\"", field,
                    putHex(field, zar_svc__mapthreadid(&p->thread_id), false));
  w = put(w, end, "] \xEF\xBB\xBF");
  // The text, cut a little beyond what the record can hold: putUtf8 writes
  // at least as many bytes as it reads, so the cut is never reached.
  char formatted[kTcpLimit + 8];
  const char* text = givenText(p, args);
  size_t textLen;
  if (text != nullptr) {
    textLen = strnlen(text, sizeof formatted - 1);
  } else {
    va_list copy;
    va_copy(copy, args);
    int n = zar_vsnprintf(formatted, sizeof formatted, p->format != nullptr ? p->format : "", copy);
    va_end(copy);
    if (n < 0) {
      countDropped(route->link.dest);
      return;
    }
    text = formatted;
    textLen = strnlen(text, static_cast<size_t>(n) < sizeof formatted ? static_cast<size_t>(n)
                                                                      : sizeof formatted - 1);
  }
  w += putUtf8(w, static_cast<size_t>(end - w), text, textLen, nullptr);

  size_t len = static_cast<size_t>(w - start);
  char* record = start;
  if (transportOf(route->link.dest) == Transport::kTcp) {
    char prefix[kFrameRoom + 1];
    char* prefixEnd = putSigned(prefix, static_cast<long long>(len));
    *prefixEnd++ = ' ';
    size_t plen = static_cast<size_t>(prefixEnd - prefix);
    record -= plen;
    memcpy(record, prefix, plen);
    len += plen;
  }
  submit(route->link.dest, record, len);
}

}  // namespace

const BuiltinType kSyslogType = {"SYSLOG", syslogOpen, syslogPrint, closeRoute};

}  // namespace zar::collect
