// Which route string the library would use for a severity or a component's
// debug messages, and where it comes from: what the routing would fill in
// now, for administrators' tools. Follows the same sources, in the same order,
// as the fill-ins of svcroute.cc and svcdbglevel.cc, through their own
// helpers.
#include <stdlib.h>
#include <string.h>

#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcint.h"
#include "platform/secenv.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

// The environment's value for name: SVC_<SEVERITY>, or for a component
// SVC_<COMPONENT>_DBG without its leading "component:".
const char* fromEnvironment(const char* name, bool severity) {
  char var[128];
  size_t len = strlen(name);
  if (len + sizeof "SVC__DBG" > sizeof var) return nullptr;
  memcpy(var, "SVC_", 4);
  for (size_t i = 0; i < len; ++i) {
    char c = name[i];
    var[4 + i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  strcpy(var + 4 + len, severity ? "" : "_DBG");
  const char* value = zar::env::get(var);
  if (value == nullptr || severity) return value;
  // The debug variable repeats the component's name (any case) and a ':'.
  if (strncasecmp(value, name, len) != 0 || value[len] == '\0') return "";
  return value + len + 1;
}

}  // namespace

extern "C" {

int zar_svc_inq_routing(const char* name, char** spec, unsigned long* status) {
  if (spec != nullptr) *spec = nullptr;
  if (name == nullptr || *name == '\0' || spec == nullptr) {
    zar::setStatus(status, ZAR_S_SVC_BAD_ROUTE);
    return ZAR_SVC_SOURCE_NONE;
  }
  const bool severity = zar::svc::severityByName(name) >= 0;
  int source = ZAR_SVC_SOURCE_NONE;
  char* text = nullptr;
  {
    zar::svc::SvcLock lock;
    if (const char* saved = zar_svc__get(name)) {
      text = zar::mem::strDup(saved);
      source = ZAR_SVC_SOURCE_SAVED;
      if (text == nullptr) {
        zar::setStatus(status, ZAR_S_SVC_NO_MEMORY);
        return ZAR_SVC_SOURCE_NONE;
      }
    }
  }
  if (source == ZAR_SVC_SOURCE_NONE) {
    if (const char* env = fromEnvironment(name, severity)) {
      text = zar::mem::strDup(env);
      source = ZAR_SVC_SOURCE_ENVIRONMENT;
    } else if ((text = zar_svc__linefor(name)) != nullptr) {
      source = ZAR_SVC_SOURCE_FILE;
    } else if (severity) {
      int sev = zar::svc::severityByName(name);
      text = zar::mem::strDup(sev <= 2 ? "STDERR:" : "DISCARD:");
      source = ZAR_SVC_SOURCE_DEFAULT;
    }
    if (source != ZAR_SVC_SOURCE_NONE && text == nullptr) {
      zar::setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return ZAR_SVC_SOURCE_NONE;
    }
  }
  *spec = text;  // a malloc block: the caller frees it with free()
  zar::setStatus(status, 0);
  return source;
}

}  // extern "C"
