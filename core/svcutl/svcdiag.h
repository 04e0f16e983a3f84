// Notices of settings that route messages nowhere. A route setting from the
// environment or the routing file that cannot be used, a routing file that
// cannot be read, and a log file that cannot be opened would otherwise lose
// messages without a word; each is said once on standard error through the
// raw path (core/rawlog.h), since the serviceability cannot report its own
// failures through itself. Settings made by calls are not reported: their
// callers get a status.
//
// Thread safety: the once-only marks of the severity reports and the marked
// routes are guarded by the serviceability mutex; the other reports need no
// lock.
#ifndef ZAR_CORE_SVCUTL_SVCDIAG_H_
#define ZAR_CORE_SVCUTL_SVCDIAG_H_

#include <stdint.h>

#include "base/zarlock.h"
#include "core/svcutl/svcint.h"
#include "zar/svc.h"

namespace zar::svc {

// Where a setting came from: an environment variable, or a line of the
// routing file (variable null, line from 1).
struct SettingSource {
  const char* variable = nullptr;
  int line = 0;
  bool known() const { return variable != nullptr || line > 0; }
};

// 1-based position in text of the first route element that does not parse,
// or 0 when every element does.
int badRoutePosition(const char* text);

// The routing file's value for name (as zar_svc__linefor) and, in *line, the
// number of the line it came from. A file that is named but cannot be read is
// reported once.
char* lineFor(const char* name, int* line);

// The routing file at path cannot be read (err is the errno). Once.
void reportUnreadableRoutingFile(const char* path, int err);

// A severity's setting text from src did not parse; opened routes of its list
// were made before the faulty element. Once per severity.
void reportBadSeverityRoutes(int severity, const SettingSource& src, const char* text,
                             int32_t opened) ZAR_REQUIRES(gSvc.mutex);

// A component's debug setting text from src could not be used: what says
// which part (the component name, the level list, the routes), position is
// 1-based in text.
void reportBadDebugSetting(const char* component, const SettingSource& src, const char* text,
                           const char* what, int position);

// Marks the routes of list as made from a setting of the environment or the
// routing file: a log file of theirs that cannot be opened is reported.
void markRoutesFromSetting(const svc_route_list* list) ZAR_REQUIRES(gSvc.mutex);
bool fromSetting(const struct zar_svc_route_s* route) ZAR_REQUIRES(gSvc.mutex);

// A log file could not be opened (err is the errno; refusedLink when it is a
// symbolic link planted by another user): the route writes to standard error
// from now on, or, with toNowhere, nowhere.
void reportLogFileUnusable(const char* name, int err, bool refusedLink, bool toNowhere);

}  // namespace zar::svc

#endif  // ZAR_CORE_SVCUTL_SVCDIAG_H_
