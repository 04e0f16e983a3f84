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
#include <string.h>
#include <unistd.h>

#include "base/zarmem.h"
#include "core/svcutl/svccollect.h"
#include "core/svcutl/svcint.h"
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

struct SyslogRoute {
  OpenRoute link;  // first: the record is freed through it
  int facility;
  size_t limit;
  char host[256];  // the host name as a header field ("-" when unknown)
};

// Copies text into out as a header field: printable US-ASCII without blanks,
// at most maxLen bytes; "-" when nothing is left.
void headerField(char* out, size_t maxLen, const char* text) {
  size_t n = 0;
  for (; text != nullptr && *text != '\0' && n < maxLen; ++text) {
    unsigned char c = static_cast<unsigned char>(*text);
    out[n++] = (c > 32 && c < 127) ? static_cast<char>(c) : '_';
  }
  if (n == 0) out[n++] = '-';
  out[n] = '\0';
}

void syslogOpen(const char* name, const char* where, void*, void** routeData, int32_t* opened) {
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
  char key[svc::kMaxRouteText + 16];
  if (snprintf(key, sizeof key, "%s:%s", name, where) >= static_cast<int>(sizeof key)) return;
  auto route = static_cast<SyslogRoute*>(mem::allocZero(1, sizeof(SyslogRoute)));
  if (route == nullptr) return;
  route->link.dest = acquire(key, address, "/dev/log", true, false);
  if (route->link.dest == nullptr) {
    mem::free(route);
    return;
  }
  Transport t = transportOf(route->link.dest);
  route->limit = t == Transport::kUdp ? kUdpLimit : t == Transport::kTcp ? kTcpLimit : kUnixLimit;
  route->facility = facility;
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  headerField(route->host, 255, host);
  route->link.typeName = "SYSLOG";
  trackRoute(&route->link);
  *routeData = route;
  *opened = 1;
}

void syslogClose(const char* name, void*, void* routeData, unsigned long*) {
  auto route = static_cast<SyslogRoute*>(routeData);
  if (route == nullptr) {
    releaseRoutesOf(name);  // the type goes away under its routes
    return;
  }
  untrackRoute(&route->link);
  mem::free(route);
}

// Appends text at w (below end), returning the new end of the written text.
char* put(char* w, const char* end, const char* text) {
  size_t n = strlen(text);
  if (n > static_cast<size_t>(end - w)) n = static_cast<size_t>(end - w);
  memcpy(w, text, n);
  return w + n;
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

void syslogPrint(void*, void* routeData, zar_svc_prolog* p, va_list args) {
  auto route = static_cast<SyslogRoute*>(routeData);
  char buf[kFrameRoom + kTcpLimit];
  char* const start = buf + kFrameRoom;
  const char* const end = start + route->limit;
  char* w = start;

  char field[64];
  bool debug = svc::severityIndex(p->attributes) < 0;
  int pri = route->facility * 8 + syslogSeverity(p->attributes);
  struct tm tm = {};
  long ns = 0;
  long tdf = 0;
  if (zar_utc_anytime(&tm, &ns, nullptr, nullptr, &tdf, &p->t) != 0) tdf = 0;
  long offMin = (tdf < 0 ? -tdf : tdf) / 60;
  char app[49];
  headerField(app, 48, p->progname);
  int n = snprintf(w, static_cast<size_t>(end - w),
                   "<%d>1 %04d-%02d-%02dT%02d:%02d:%02d.%06ld%c%02ld:%02ld %s %s %d ", pri,
                   tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                   ns / 1000, tdf < 0 ? '-' : '+', offMin / 60, offMin % 60, route->host, app,
                   static_cast<int>(zar_svc__get_pid()));
  w += n > 0 && n < end - w ? n : 0;
  if (debug) {
    w = put(w, end, "- [");
  } else {
    snprintf(field, sizeof field, "0x%08X [", p->message_index);
    w = put(w, end, field);
  }
  w = put(w, end, kSdId);
  if (debug) {
    snprintf(field, sizeof field, "%u", p->attributes & svc_c_debug_mask);
    w = putParam(w, end, "level", field);
  } else {
    snprintf(field, sizeof field, "0x%08X", p->message_index);
    w = putParam(w, end, "status", field);
  }
  w = putParam(w, end, "component", p->handle->component);
  w = putParam(
      w, end, "subcomponent",
      p->table_index < p->handle->table_size ? p->handle->table[p->table_index].name : nullptr);
  w = putParam(w, end, "file", p->file);
  snprintf(field, sizeof field, "%d", p->line);
  w = putParam(w, end, "line", field);
  snprintf(field, sizeof field, "0x%08lx", zar_svc__mapthreadid(&p->thread_id));
  w = putParam(w, end, "thread", field);
  w = put(w, end, "] \xEF\xBB\xBF");
  char* text = formatText(p, args);
  if (text == nullptr) {
    countDropped(route->link.dest);
    return;
  }
  w += putUtf8(w, static_cast<size_t>(end - w), text, strlen(text), nullptr);
  zar_asprintf_free(text);

  size_t len = static_cast<size_t>(w - start);
  char* record = start;
  if (transportOf(route->link.dest) == Transport::kTcp) {
    char prefix[kFrameRoom + 1];
    int plen = snprintf(prefix, sizeof prefix, "%zu ", len);
    record -= plen;
    memcpy(record, prefix, static_cast<size_t>(plen));
    len += static_cast<size_t>(plen);
  }
  submit(route->link.dest, record, len);
}

}  // namespace

const BuiltinType kSyslogType = {"SYSLOG", syslogOpen, syslogPrint, syslogClose};

}  // namespace zar::collect
