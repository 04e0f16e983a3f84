// Route strings and the route lists of the five severities: parsing,
// the saved settings, the SVC_* variables and the routing file, and GOESTO
// look-ups.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/dceassert.h"
#include "core/svcutl/svcdiag.h"
#include "core/svcutl/svcint.h"
#include "platform/secenv.h"
#include "platform/sysio.h"
#include "zar/status.h"

// The separator of the fields of a setting; its name appears in the text of
// the assertion that a saved setting has one.
#define SVC_SEP_CHAR ':'

namespace zar::svc {
namespace {

constexpr const char* kRecordFile = "core/svcutl/svcroute";

// Built-in kind words and the kinds they give; anything else names a dynamic
// route type.
struct KindWord {
  const char* word;
  RouteKind kind;
};
constexpr KindWord kStreamKinds[] = {
    {"STDOUT", kRouteStdout},       {"STDERR", kRouteStderr}, {"XMLSTDOUT", kRouteXmlStdout},
    {"XMLSTDERR", kRouteXmlStderr}, {"DISCARD", kRouteDiscard},
};
constexpr KindWord kFileKinds[] = {
    {"TEXTFILE", kRouteTextFile},
    {"UTF8FILE", kRouteUtf8File},
    {"XMLFILE", kRouteXmlFile},
    {"FILE", kRouteTextFile},
};

// Splits text at the next ':' (the field ends there) and returns the rest, or
// null when there is no further field.
char* cutField(char* text) {
  if (text == nullptr) return nullptr;
  char* colon = strchr(text, ':');
  if (colon == nullptr) return nullptr;
  *colon = '\0';
  return colon + 1;
}

// Makes room for one more route in list: the array grows by one slot only
// when it is full.
bool reserveSlot(svc_route_list* list) {
  if (list->count < list->capacity) return true;
  auto grown = static_cast<svc_route**>(
      mem::realloc(list->routes, (static_cast<size_t>(list->capacity) + 1) * sizeof(svc_route*)));
  if (grown == nullptr) return false;
  list->routes = grown;
  ++list->capacity;
  return true;
}

// Parses one route element (modified in place) and appends its route to list.
// Returns false when parsing must stop (the status says why).
bool openElement(svc_route_list* list, zar::svc::RouteKind fallback, char* element, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  char* kindWord = element;
  char* where = cutField(element);
  if (where == nullptr) {
    setStatus(status, ZAR_S_SVC_BAD_ROUTE);
    return false;
  }
  char* gens = nullptr;
  char* limit = nullptr;
  if (char* dot = strchr(kindWord, '.')) {
    *dot = '\0';
    gens = dot + 1;
    char* dot2 = strchr(gens, '.');
    if (dot2 == nullptr) {
      setStatus(status, ZAR_S_SVC_BAD_ROUTE);
      return false;
    }
    *dot2 = '\0';
    limit = dot2 + 1;
  }
  char* mode = cutField(where);
  char* user = cutField(mode);
  char* group = cutField(user);
  cutField(group);  // anything after GROUP is ignored
  if (user != nullptr && *user == '\0') user = nullptr;
  if (group != nullptr && *group == '\0') group = nullptr;

  auto route = static_cast<svc_route*>(mem::allocZero(1, sizeof(svc_route)));
  if (route == nullptr || !reserveSlot(list)) {
    mem::free(route);
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return false;
  }
  route->kind = fallback;
  route->fallback = fallback;

  bool known = false;
  for (const KindWord& k : kStreamKinds) {
    if (strcmp(kindWord, k.word) != 0) continue;
    route->kind = k.kind;
    route->opened = 1;
    known = true;
    break;
  }
  for (const KindWord& k : kFileKinds) {
    if (known || strcmp(kindWord, k.word) != 0) continue;
    char name[kMaxRouteText + 1];
    if (!expandFileName(where, zar_svc__get_pid(), name)) {
      mem::free(route);
      setStatus(status, ZAR_S_SVC_BAD_ROUTE);
      return false;
    }
    route->kind = k.kind;
    if (!attachFileRoute(route, name, where, gens, limit, mode, user, group, status)) {
      mem::free(route);
      return false;
    }
    known = true;
  }
  if (!known && strcmp(kindWord, "GOESTO") == 0) {
    route->listName = mem::strDup(where);
    if (route->listName == nullptr) {
      mem::free(route);
      setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return false;
    }
    route->kind = kRouteGoesTo;
    route->opened = 1;
    known = true;
  }
  if (!known) {
    // A word that names no built-in kind names a dynamic route type. The
    // name and argument are kept for good: a type of that name takes the
    // route over whenever it is added.
    route->dynName = mem::strDup(kindWord);
    route->dynArg = mem::strDup(where);
    if (route->dynName == nullptr || route->dynArg == nullptr) {
      mem::free(route->dynName);
      mem::free(route->dynArg);
      mem::free(route);
      setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return false;
    }
    route->opened = 1;
  }
  list->routes[list->count++] = route;
  route->next = gSvc.routebase;
  gSvc.routebase = route;
  setStatus(status, 0);
  if (!known) {
    // The route is in its list (as its fallback kind) before the type's open
    // callback runs, so a thread cancelled in that callback leaves it there.
    svc_dyn_route* type = nullptr;
    void* data = nullptr;
    unsigned long st = 0;
    zar__svc_dyn_route_open(route->dynName, route->dynArg, &type, &data, &st);
    if (st == 0) {
      route->kind = kRouteDynamic;
      route->type = type;
      route->routeData = data;
    } else if (st != ZAR_S_SVC_BAD_ROUTE) {
      // The open failed: the route stays its fallback kind and the status
      // says so unless a later element succeeds. No such type yet is no
      // error: the route waits for one.
      setStatus(status, zar::statusCode(st));
    }
  }
  return true;
}

// The text of the first field of a routing-file value: up to ':' or the end.
bool firstFieldEndsInDigit(const char* value, bool* empty) {
  size_t len = strcspn(value, ":");
  *empty = len == 0;
  return len > 0 && isdigit(static_cast<unsigned char>(value[len - 1]));
}

// Reads a file in the pieces that fgets with a 512-byte buffer gives: a line
// of up to 511 bytes with its newline, longer lines in pieces of 511 bytes.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  // Fills line (512 bytes) with the next piece; false at the end or on error.
  bool next(char* line) {
    size_t n = 0;
    while (n < 511) {
      if (pos_ == len_ && !fill()) break;
      char c = buf_[pos_++];
      line[n++] = c;
      if (c == '\n') break;
    }
    line[n] = '\0';
    return n > 0;
  }

 private:
  bool fill() {
    for (;;) {
      ssize_t r = sys::read(fd_, buf_, sizeof buf_);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      pos_ = 0;
      len_ = static_cast<size_t>(r);
      return true;
    }
  }
  int fd_;
  char buf_[4096];
  size_t pos_ = 0;
  size_t len_ = 0;
};

}  // namespace

int severityByName(const char* name) {
  for (int i = 0; i < kNumSeverities; ++i) {
    if (strcmp(name, kCodeTable[i]) == 0) return i;
  }
  return -1;
}

bool isKindKeyword(const char* word) {
  for (const KindWord& k : kStreamKinds) {
    if (strcmp(word, k.word) == 0) return true;
  }
  for (const KindWord& k : kFileKinds) {
    if (strcmp(word, k.word) == 0) return true;
  }
  return strcmp(word, "GOESTO") == 0;
}

svc_route_list* debugRoutesOf(zar_svc_handle handle) {
  if (!handle->debug_filled) {
    unsigned long st = 0;
    if (!zar_svc__debug_fillin(handle, &st)) return nullptr;
  }
  return &handle->debug_routes;
}

// The list that a GOESTO route names: a severity's (filled first when
// empty) or a component's debug list. Null when the name is unknown.
svc_route_list* goestoList(const char* name) {
  if (name == nullptr) return nullptr;
  int sev = severityByName(name);
  if (sev >= 0) {
    svc_route_list* list = &gSvc.routes[sev];
    if (list->count == 0) {
      unsigned long st = 0;
      zar_svc__fillin(kAttrTable[sev], &st);
    }
    return list;
  }
  zar_svc_handle h = zar_svc__component_to_handle(name);
  return h == nullptr ? nullptr : debugRoutesOf(h);
}

}  // namespace zar::svc

char* zar::svc::lineFor(const char* name, int* lineNo) {
  const char* path = zar::env::get("KP_SVC_ROUTING_FILE");
  if (path == nullptr || *path == '\0' || name == nullptr) return nullptr;
  // No cancellation while the file is open, so a cancelled thread never
  // leaves the descriptor behind.
  zar::CancelDisabled noCancel;
  int fd = zar::sys::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    reportUnreadableRoutingFile(path, errno);
    return nullptr;
  }
  bool severity = severityByName(name) >= 0;
  size_t nameLen = strlen(name);
  LineReader reader(fd);
  char line[512];
  char* result = nullptr;
  int number = 0;
  bool lineStart = true;  // the piece read next begins a line
  while (reader.next(line)) {
    size_t len = strlen(line);
    if (lineStart) ++number;
    lineStart = len > 0 && line[len - 1] == '\n';
    if (len > 0 && line[len - 1] == '\n') line[len - 1] = '\0';
    const char* s = line;
    while (*s == ' ' || *s == '\t') ++s;
    if (*s == '\0' || *s == '#') continue;
    const char* colon = strchr(s, ':');
    if (colon == nullptr) continue;
    size_t keyLen = static_cast<size_t>(colon - s);
    const char* value = colon + 1;
    bool match = keyLen == nameLen && memcmp(s, name, nameLen) == 0;
    if (!match && keyLen == 1 && *s == '*')
      match = severity ? checkWildCardLogRoute(value) : checkWildCardTraceRoute(value);
    if (match) {
      result = zar::mem::strDup(value);
      if (lineNo != nullptr) *lineNo = number;
      break;
    }
  }
  ::close(fd);
  return result;
}

using zar::setStatus;
using zar::svc::gSvc;

extern "C" {

void zar_svc__open_routes(svc_route_list* list, zar::svc::RouteKind fallback, const char* text,
                          unsigned long* status) {
  zar_svc__register_fork_handler_once();
  list->count = 0;
  if (text == nullptr || *text == '\0') return;
  zar::mem::Unique<char> copy(zar::mem::strDup(text));
  if (!copy) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return;
  }
  char* p = copy.get();
  while (*p != '\0') {
    char* element = p;
    char* semi = strchr(p, ';');
    if (semi != nullptr) {
      *semi = '\0';
      p = semi + 1;
      while (*p == ';') ++p;
    } else {
      p += strlen(p);
    }
    if (!zar::svc::openElement(list, fallback, element, status)) return;
  }
}

void zar_svc__fillin(uint32_t attributes, unsigned long* status) {
  int sev = zar::svc::severityIndex(attributes);
  if (sev < 0) return;
  const char* name = zar::svc::kCodeTable[sev];
  const char* text = zar_svc__get(name);
  zar::mem::Unique<char> fromFile;
  char var[32] = "SVC_";
  zar::svc::SettingSource source;
  if (text == nullptr) {
    strcat(var, name);  // severity names are upper case already
    text = zar::env::get(var);
    if (text != nullptr) source.variable = var;
  }
  if (text == nullptr) {
    fromFile.reset(zar::svc::lineFor(name, &source.line));
    text = fromFile.get();
  }
  if (text == nullptr) text = sev <= 2 ? "STDERR:" : "DISCARD:";
  svc_route_list* list = &gSvc.routes[sev];
  zar_svc__open_routes(list, zar::svc::kRouteDiscard, text, status);
  if (source.known()) zar::svc::markRoutesFromSetting(list);
  if (status != nullptr && zar::statusCode(*status) == ZAR_S_SVC_BAD_ROUTE)
    zar::svc::reportBadSeverityRoutes(sev, source, text, list->count);
}

svc_route** zar_svc__goesto(const char* name, int32_t* count) {
  svc_route_list* list = zar::svc::goestoList(name);
  if (list == nullptr || list->count == 0) {
    *count = 0;
    return nullptr;
  }
  *count = list->count;
  return list->routes;
}

bool checkWildCardLogRoute(const char* value) {
  bool empty = false;
  bool digit = zar::svc::firstFieldEndsInDigit(value, &empty);
  return !empty && !digit;
}

bool checkWildCardTraceRoute(const char* value) {
  bool empty = false;
  return zar::svc::firstFieldEndsInDigit(value, &empty);
}

char* zar_svc__linefor(const char* name) {
  return zar::svc::lineFor(name, nullptr);
}

const char* zar_svc__get(const char* name) {
  size_t len = strlen(name);
  for (uint32_t i = 0; i < gSvc.memorySize; ++i) {
    const char* text = gSvc.memory[i].text;
    if (strncmp(text, name, len) == 0 && text[len] == ':') return text + len + 1;
  }
  return nullptr;
}

void zar_svc__store(const char* text, int32_t kind, unsigned long* status) {
  ZAR_ASSERT(nullptr, strchr(text, SVC_SEP_CHAR) != NULL, zar::svc::kRecordFile);
  char* copy = zar::mem::strDup(text);
  if (copy == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return;
  }
  setStatus(status, 0);
  size_t keyLen = static_cast<size_t>(strchr(copy, ':') - copy) + 1;  // with the ':'
  for (uint32_t i = 0; i < gSvc.memorySize; ++i) {
    if (strncmp(gSvc.memory[i].text, copy, keyLen) != 0) continue;
    zar::mem::free(gSvc.memory[i].text);
    gSvc.memory[i].text = copy;
    gSvc.memory[i].kind = kind;
    return;
  }
  auto grown = static_cast<svc_saved_setting*>(
      zar::mem::realloc(gSvc.memory, (gSvc.memorySize + 1) * sizeof(svc_saved_setting)));
  if (grown == nullptr) {
    zar::mem::free(copy);
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return;
  }
  gSvc.memory = grown;
  gSvc.memory[gSvc.memorySize++] = svc_saved_setting{copy, kind};
}

}  // extern "C"

namespace zar::svc {
namespace {

// The body of zar_svc_routing; returns the status.
unsigned long routeSeverities(const char* text) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (text == nullptr) return ZAR_S_SVC_BAD_ROUTE;
  mem::Unique<char> copy(mem::strDup(text));
  if (!copy) return ZAR_S_SVC_NO_MEMORY;
  char* colon = strchr(copy.get(), ':');
  if (colon == nullptr || strchr(colon + 1, ':') == nullptr) return ZAR_S_SVC_BAD_ROUTE;
  *colon = '\0';
  const char* sevPart = copy.get();
  const char* routeText = colon + 1;
  unsigned long st = 0;

  if (text[0] == '*' && text[1] == ':') {
    // Every severity gets its own saved setting, "NAME" followed by the
    // route string from its ':' on; all must fit before any is saved.
    size_t restLen = strlen(text + 1);
    for (const char* name : kCodeTable) {
      if (strlen(name) + restLen > kMaxRouteText) return ZAR_S_SVC_BAD_ROUTE;
    }
    for (const char* name : kCodeTable) {
      char saved[kMaxRouteText + 1];
      strcpy(saved, name);
      strcat(saved, text + 1);
      zar_svc__store(saved, 0, &st);
      if (st != 0) return st;
    }
    for (svc_route_list& list : gSvc.routes) {
      zar_svc__close_routes(&list);
      st = 0;
      zar_svc__open_routes(&list, kRouteStderr, routeText, &st);
      if (st != 0) return st;
    }
    return st;
  }

  // A severity name or a prefix of one (over the prefix's own length); the
  // first severity in table order that matches is chosen.
  size_t partLen = strlen(sevPart);
  int sev = -1;
  for (int i = 0; i < kNumSeverities && sev < 0 && partLen > 0; ++i) {
    if (strncmp(kCodeTable[i], sevPart, partLen) == 0) sev = i;
  }
  if (sev < 0) return ZAR_S_SVC_BAD_ROUTE;
  zar_svc__store(text, 0, &st);
  if (st != 0) return st;
  zar_svc__close_routes(&gSvc.routes[sev]);
  zar_svc__open_routes(&gSvc.routes[sev], kRouteStderr, routeText, &st);
  return st;
}

}  // namespace
}  // namespace zar::svc

extern "C" {

ZAR_API void zar_svc_routing(const char* text, unsigned long* status) {
  unsigned long st;
  {
    zar::svc::SvcLock lock;
    st = zar::svc::routeSeverities(text);
  }
  setStatus(status, zar::statusCode(st));
}

}  // extern "C"
