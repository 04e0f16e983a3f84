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

// The environment's value for name: SVC_<SEVERITY>, or for a component what
// its SVC_<COMPONENT>_DBG has after "COMPONENT:" ("" when the variable names
// another component, which the fill-in refuses without reading the routing
// file). Null when not set.
const char* fromEnvironment(const char* name, bool severity) {
  if (severity) {
    char var[32] = "SVC_";
    strcat(var, name);  // severity names are upper case already
    return zar::env::get(var);
  }
  const char* rest = nullptr;
  bool noMemory = false;
  const char* value = zar::svc::debugVariable(name, &rest, &noMemory);
  if (value == nullptr) return nullptr;
  return rest != nullptr ? rest : "";
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
