// Notices of route settings, routing files and log files that would lose
// messages without a word (see svcdiag.h).
#include "core/svcutl/svcdiag.h"

#include <stdio.h>
#include <string.h>

#include <atomic>

#include "base/rawlog.h"
#include "core/svcutl/svcint.h"
#include "base/zarmem.h"
#include "platform/secenv.h"

namespace zar::svc {
namespace {

// What was reported once, and the routes made from a setting of the
// environment or the routing file. Invariants: a bit of reportedSeverities is
// set once its severity's faulty setting was reported; bits are never cleared,
// so each severity is reported at most once however often its empty list is
// filled in again. Route records are never freed, so the addresses in marked
// identify them for good.
struct DiagState {
  uint32_t reportedSeverities ZAR_GUARDED_BY(gSvc.mutex) = 0;
  std::atomic<bool> reportedRoutingFile{false};
  const zar_svc_route_s** marked ZAR_GUARDED_BY(gSvc.mutex) = nullptr;
  size_t markedCount ZAR_GUARDED_BY(gSvc.mutex) = 0;
};
DiagState gDiag;

bool isFileKindWord(const char* word, size_t len) {
  for (const char* k : {"TEXTFILE", "UTF8FILE", "XMLFILE", "FILE"}) {
    if (strlen(k) == len && memcmp(word, k, len) == 0) return true;
  }
  return false;
}

// One route element, [begin, begin + len): the checks of the route parser.
bool elementParses(const char* begin, size_t len) {
  const char* colon = static_cast<const char*>(memchr(begin, ':', len));
  if (colon == nullptr) return false;
  size_t kindLen = static_cast<size_t>(colon - begin);
  const char* dot = static_cast<const char*>(memchr(begin, '.', kindLen));
  if (dot != nullptr && memchr(dot + 1, '.', kindLen - (dot + 1 - begin)) == nullptr) return false;
  size_t wordLen = dot != nullptr ? static_cast<size_t>(dot - begin) : kindLen;
  if (!isFileKindWord(begin, wordLen)) return true;
  const char* where = colon + 1;
  size_t whereLen = strcspn(where, ":");
  if (whereLen > len - (where - begin)) whereLen = len - (where - begin);
  char format[2 * kMaxRouteText];
  char name[kMaxRouteText + 1];
  if (whereLen >= sizeof format) return false;
  memcpy(format, where, whereLen);
  format[whereLen] = '\0';
  return expandFileName(format, 1, name);
}

// "the variable SVC_ERROR" or "line 3 of the routing file /etc/routing".
void describe(const SettingSource& src, char* out, size_t outLen) {
  if (src.variable != nullptr) {
    snprintf(out, outLen, "%s", src.variable);
  } else {
    const char* path = env::get("KP_SVC_ROUTING_FILE");
    snprintf(out, outLen, "%s line %d", path != nullptr ? path : "routing file", src.line);
  }
}

}  // namespace

int badRoutePosition(const char* text) {
  if (text == nullptr) return 0;
  const char* p = text;
  while (*p != '\0') {
    size_t len = strcspn(p, ";");
    if (!elementParses(p, len)) return static_cast<int>(p - text) + 1;
    p += len;
    while (*p == ';') ++p;
  }
  return 0;
}

void markRoutesFromSetting(const svc_route_list* list) {
  for (int32_t i = 0; i < list->count; ++i) {
    if (!isFileKind(list->routes[i]->kind) || fromSetting(list->routes[i])) continue;
    auto grown = static_cast<const zar_svc_route_s**>(
        mem::realloc(gDiag.marked, (gDiag.markedCount + 1) * sizeof(zar_svc_route_s*)));
    if (grown == nullptr) return;  // only a notice is lost
    gDiag.marked = grown;
    gDiag.marked[gDiag.markedCount++] = list->routes[i];
  }
}

bool fromSetting(const zar_svc_route_s* route) {
  for (size_t i = 0; i < gDiag.markedCount; ++i) {
    if (gDiag.marked[i] == route) return true;
  }
  return false;
}

void reportUnreadableRoutingFile(const char* path, int err) {
  if (gDiag.reportedRoutingFile.exchange(true)) return;
  rawLog(
      "libzar: KP_SVC_ROUTING_FILE: cannot read %s (%s); severities and components without "
      "another setting use their defaults\n",
      path, strerror(err));
}

void reportBadSeverityRoutes(int severity, const SettingSource& src, const char* text,
                             int32_t opened) {
  if (severity < 0 || severity >= kNumSeverities || !src.known()) return;
  if ((gDiag.reportedSeverities & (1u << severity)) != 0) return;
  gDiag.reportedSeverities |= 1u << severity;
  char where[600];
  describe(src, where, sizeof where);
  const char* name = kCodeTable[severity];
  if (opened == 0) {
    rawLog(
        "libzar: %s: route setting \"%s\" cannot be parsed at position %d; %s messages now go "
        "nowhere\n",
        where, text, badRoutePosition(text), name);
  } else {
    rawLog(
        "libzar: %s: route setting \"%s\" cannot be parsed at position %d; %s messages go only "
        "to the %d route(s) before it\n",
        where, text, badRoutePosition(text), name, opened);
  }
}

void reportBadDebugSetting(const char* component, const SettingSource& src, const char* text,
                           const char* what, int position) {
  if (!src.known()) return;
  char where[600];
  describe(src, where, sizeof where);
  rawLog(
      "libzar: %s: debug setting \"%s\" has %s at position %d; debug messages of %s now go "
      "nowhere\n",
      where, text, what, position, component);
}

void reportLogFileUnusable(const char* name, int err, bool refusedLink, bool toNowhere) {
  const char* effect = toNowhere ? "nowhere" : "to standard error";
  if (refusedLink) {
    rawLog(
        "libzar: log file %s is a symbolic link that another user made in a shared "
        "directory; refused, its messages now go %s\n",
        name, effect);
  } else {
    rawLog("libzar: log file %s cannot be opened (%s); its messages now go %s\n", name,
           strerror(err), effect);
  }
}

}  // namespace zar::svc
