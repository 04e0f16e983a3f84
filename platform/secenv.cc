#include "platform/secenv.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <unistd.h>

#include "base/rawlog.h"

extern char** environ;

namespace zar::env {
namespace {

constexpr char kZoneDir[] = "/usr/share/zoneinfo/";

// The strings of the environment the program was started with, as the C
// library hands them to constructors: a value whose text lies in this block
// came from whoever ran the program; setenv and putenv make new strings.
//
// Invariants: lo, hi and known are written once by the constructor before
// main, read-only after.
struct StartEnv {
  const char* lo = nullptr;  // lowest byte of any start-up string
  const char* hi = nullptr;  // one past the end of the highest
  bool known = false;        // false: every value counts as from the start
  pthread_once_t noticeOnce = PTHREAD_ONCE_INIT;  // the ignored settings are said once
};
StartEnv gStart;

__attribute__((constructor)) void noteStartEnv(int, char**, char** envp) {
  if (envp == nullptr) envp = environ;
  if (envp == nullptr) return;
  for (char** e = envp; *e != nullptr; ++e) {
    const char* end = *e + strlen(*e) + 1;
    if (gStart.lo == nullptr || *e < gStart.lo) gStart.lo = *e;
    if (end > gStart.hi) gStart.hi = end;
  }
  gStart.known = true;
}

bool fromStart(const char* value) {
  if (!gStart.known) return true;
  return value >= gStart.lo && value < gStart.hi;
}

bool startsWith(const char* s, const char* prefix) {
  return strncmp(s, prefix, strlen(prefix)) == 0;
}

bool isSeverityVariable(const char* name) {
  static const char* const kNames[] = {"SVC_FATAL", "SVC_ERROR", "SVC_WARNING", "SVC_NOTICE",
                                       "SVC_NOTICE_VERBOSE"};
  for (const char* n : kNames) {
    if (strcmp(name, n) == 0) return true;
  }
  return false;
}

bool isDebugVariable(const char* name) {
  size_t len = strlen(name);
  return len > 8 && startsWith(name, "SVC_") && strcmp(name + len - 4, "_DBG") == 0;
}

// A TZ value that would make the zone reader open a file of the user's
// choosing: an absolute path outside the zone directory, or a ".." that
// climbs out of it.
bool zoneOutside(const char* value) {
  if (*value == ':') ++value;
  if (strstr(value, "..") != nullptr) return true;
  return value[0] == '/' && !startsWith(value, kZoneDir);
}

// Writes the notice naming the ignored variables, through the raw path: this
// layer sits below the library's logging.
void sayIgnored() {
  if (environ == nullptr) return;
  char line[1024];
  size_t n = 0;
  auto put = [&](const char* s, size_t len) {
    if (n + len >= sizeof line - 2) len = n < sizeof line - 2 ? sizeof line - 2 - n : 0;
    memcpy(line + n, s, len);
    n += len;
  };
  static const char kHead[] =
      "libzar: privileged process (set-user-ID, set-group-ID or capabilities): ignoring the "
      "environment variables";
  bool any = false;
  for (char** e = environ; *e != nullptr; ++e) {
    const char* eq = strchr(*e, '=');
    if (eq == nullptr || !fromStart(eq + 1)) continue;
    char name[256];
    size_t len = static_cast<size_t>(eq - *e);
    if (len >= sizeof name) continue;
    memcpy(name, *e, len);
    name[len] = '\0';
    if (!refused(name, eq + 1)) continue;
    if (!any) put(kHead, sizeof kHead - 1);
    any = true;
    put(" ", 1);
    put(name, len);
  }
  if (!any) return;
  line[n] = '\0';
  rawLog("%s\n", line);
}

}  // namespace

bool privileged() {
  static const bool secure = getauxval(AT_SECURE) != 0;
  return secure;
}

bool refused(const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return false;
  if (isSeverityVariable(name) || isDebugVariable(name)) return true;
  if (strcmp(name, "KP_SVC_ROUTING_FILE") == 0 || strcmp(name, "NLSPATH") == 0 ||
      strcmp(name, "QVNLZDIR") == 0)
    return true;
  if (strcmp(name, "TZ") == 0) return zoneOutside(value);
  if (strcmp(name, "LANG") == 0 || strcmp(name, "LC_ALL") == 0 || strcmp(name, "LC_MESSAGES") == 0)
    return strchr(value, '/') != nullptr || strcmp(value, "..") == 0;
  return false;
}

const char* get(const char* name) {
  const char* value = getenv(name);
  if (!privileged()) return value;
  pthread_once(&gStart.noticeOnce, sayIgnored);
  if (value != nullptr && fromStart(value) && refused(name, value)) return nullptr;
  return value;
}

}  // namespace zar::env
