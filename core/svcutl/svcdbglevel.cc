// Debug levels and debug routes of components: level lists applied to a
// component's sub-component table (with the level-change callbacks), the
// run-time settings, and the fill-in of a component's settings from a saved
// setting, its SVC_<COMPONENT>_DBG variable or the routing file.
#include <stdlib.h>
#include <string.h>

#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcdiag.h"
#include "core/svcutl/svcint.h"
#include "platform/secenv.h"
#include "zar/status.h"

namespace zar::svc {
namespace {

constexpr uint32_t kMaxLevel = 9;
// A level word keeps bits 4 to 7 when its level (bits 0 to 3) is set; the
// bits above are cleared.
constexpr uint32_t kKeptLevelBits = 0xF0;

// One level set, told to the level-change callbacks later.
struct LevelNote {
  const char* subcomp;  // the name in the caller's table
  uint32_t descriptionId;
  uint32_t level;
};

// Where the levels set by a list are told. Told at once: the callbacks run
// as each level is set, under the mutex. Collected: the notes and
// the callbacks of the moment are kept, and tell() calls them later without
// the mutex.
class LevelTeller {
 public:
  explicit LevelTeller(bool collect) : collect_(collect) {}
  ~LevelTeller() {
    mem::free(notes_);
    mem::free(callbacks_);
  }
  LevelTeller(const LevelTeller&) = delete;
  LevelTeller& operator=(const LevelTeller&) = delete;

  // Takes the callbacks of the moment; false when memory is short.
  bool snapshotCallbacks() ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (!collect_ || gSvc.nCallbacks == 0) return true;
    callbacks_ = static_cast<zar_svc_level_fn*>(
        mem::alloc(gSvc.nCallbacks * sizeof(zar_svc_level_fn)));
    if (callbacks_ == nullptr) return false;
    for (uint32_t i = 0; i < gSvc.nCallbacks; ++i) {
      if (gSvc.callbacks[i].onLevel != nullptr) callbacks_[nCallbacks_++] = gSvc.callbacks[i].onLevel;
    }
    return true;
  }
  // Room for one more note before a level is set.
  bool reserve() ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (!collect_ || nCallbacks_ == 0 || count_ < capacity_) return true;
    uint32_t capacity = capacity_ == 0 ? 8 : capacity_ * 2;
    auto grown = static_cast<LevelNote*>(mem::realloc(notes_, capacity * sizeof(LevelNote)));
    if (grown == nullptr) return false;
    notes_ = grown;
    capacity_ = capacity;
    return true;
  }
  // After reserve().
  void levelSet(const char* component, const zar_svc_subcomp& entry, uint32_t level)
      ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (collect_) {
      if (nCallbacks_ != 0) notes_[count_++] = LevelNote{entry.name, entry.description_id, level};
      return;
    }
    for (uint32_t i = 0; i < gSvc.nCallbacks; ++i) {
      zar_svc_level_fn fn = gSvc.callbacks[i].onLevel;
      if (fn != nullptr) fn(component, entry.name, entry.description_id, level);
    }
  }
  // The collected notes, each to every callback in registration order.
  void tell(const char* component) const ZAR_EXCLUDES(zar::svc::gSvc.mutex) {
    for (uint32_t n = 0; n < count_; ++n) {
      for (uint32_t i = 0; i < nCallbacks_; ++i)
        callbacks_[i](component, notes_[n].subcomp, notes_[n].descriptionId, notes_[n].level);
    }
  }

 private:
  bool collect_;
  LevelNote* notes_ = nullptr;
  uint32_t count_ = 0;
  uint32_t capacity_ = 0;
  zar_svc_level_fn* callbacks_ = nullptr;
  uint32_t nCallbacks_ = 0;
};

// Reads LEVEL: a decimal number 0 to 9 starting with a digit (text after its
// digits is ignored); -1 when there is none or it is above 9.
int readLevel(const char* text) {
  if (*text < '0' || *text > '9') return -1;
  uint32_t v = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    v = v * 10 + static_cast<uint32_t>(*text - '0');
    if (v > kMaxLevel) return -1;
  }
  return static_cast<int>(v);
}

// Sets one entry's level and tells it; false when memory is short for the
// note (nothing is set then).
bool setLevel(zar_svc_handle handle, zar_svc_subcomp* entry, uint32_t level, LevelTeller* teller,
              bool callbacks) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (callbacks && !teller->reserve()) return false;
  entry->level = (entry->level & kKeptLevelBits) | level;
  if (callbacks) teller->levelSet(handle->component, *entry, level);
  return true;
}

// Applies a level list item by item; returns the status (the
// items before a bad one stay applied).
uint32_t applyLevels(zar_svc_handle handle, const char* levels, bool callbacks, LevelTeller* teller)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (levels == nullptr || *levels == '\0') return 0;
  mem::Unique<char> copy(mem::strDup(levels));
  if (!copy) return ZAR_S_SVC_NO_MEMORY;
  char* p = copy.get();
  while (*p != '\0') {
    char* item = p;
    if (char* comma = strchr(p, ',')) {
      *comma = '\0';
      p = comma + 1;
    } else {
      p += strlen(p);
    }
    char* dot = strchr(item, '.');
    if (dot == nullptr) return ZAR_S_SVC_BAD_ROUTE;
    *dot = '\0';
    int level = readLevel(dot + 1);
    if (level < 0) return ZAR_S_SVC_BAD_ROUTE;
    if (strcmp(item, "*") == 0) {
      for (uint32_t i = 0; i < handle->table_size; ++i) {
        if (!setLevel(handle, &handle->table[i], static_cast<uint32_t>(level), teller, callbacks))
          return ZAR_S_SVC_NO_MEMORY;
      }
      continue;
    }
    uint32_t i = 0;
    while (i < handle->table_size && strcmp(handle->table[i].name, item) != 0) ++i;
    if (i == handle->table_size) return ZAR_S_SVC_BAD_ROUTE;
    if (!setLevel(handle, &handle->table[i], static_cast<uint32_t>(level), teller, callbacks))
      return ZAR_S_SVC_NO_MEMORY;
  }
  return 0;
}

uint32_t setLevelsSetting(const char* setting, bool callbacks) {
  if (setting == nullptr || strchr(setting, ':') == nullptr) return ZAR_S_SVC_BAD_ROUTE;
  mem::Unique<char> copy(mem::strDup(setting));
  if (!copy) return ZAR_S_SVC_NO_MEMORY;
  char* colon = strchr(copy.get(), ':');
  *colon = '\0';
  SvcLock lock;
  unsigned long st = 0;
  zar_svc__store(setting, 1, &st);
  if (st != 0) return statusCode(st);
  zar_svc_handle handle = zar_svc__component_to_handle(copy.get());
  if (handle == nullptr) return 0;  // remembered for when it registers
  LevelTeller teller(false);
  return applyLevels(handle, colon + 1, callbacks, &teller);
}

uint32_t debugRoutingSetting(const char* setting, bool callbacks) {
  if (setting == nullptr) return ZAR_S_SVC_BAD_ROUTE;
  mem::Unique<char> copy(mem::strDup(setting));
  if (!copy) return ZAR_S_SVC_NO_MEMORY;
  char* colon = strchr(copy.get(), ':');
  if (colon == nullptr) return ZAR_S_SVC_BAD_ROUTE;
  *colon = '\0';
  const char* component = copy.get();
  LevelTeller teller(true);
  uint32_t result;
  {
    SvcLock lock;
    unsigned long st = 0;
    zar_svc__store(setting, 1, &st);
    if (st != 0) return statusCode(st);
    zar_svc_handle handle = zar_svc__component_to_handle(component);
    char* second = strchr(colon + 1, ':');
    if (handle == nullptr || second == nullptr) return 0;  // remembered only
    *second = '\0';
    if (callbacks && !teller.snapshotCallbacks()) return ZAR_S_SVC_NO_MEMORY;
    result = applyLevels(handle, colon + 1, callbacks, &teller);
    const char* routes = second + 1;
    if (result == 0 && *routes != '\0') {
      zar_svc__close_routes(&handle->debug_routes);
      zar_svc__open_routes(&handle->debug_routes, kRouteDiscard, routes, &st);
      handle->debug_filled = 1;
      result = statusCode(st);
    }
  }
  // Level-change callbacks of a routing call run without the mutex.
  teller.tell(component);
  return result;
}

}  // namespace

const char* debugVariable(const char* component, const char** rest, bool* noMemory) {
  *rest = nullptr;
  size_t len = strlen(component);
  mem::Unique<char> name(static_cast<char*>(mem::alloc(len + sizeof "SVC__DBG")));
  if (!name) {
    *noMemory = true;
    return nullptr;
  }
  char* n = name.get();
  memcpy(n, "SVC_", 4);
  for (size_t i = 0; i < len; ++i) {
    char c = component[i];
    n[4 + i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  memcpy(n + 4 + len, "_DBG", 5);
  const char* value = zar::env::get(n);
  if (value == nullptr) return nullptr;
  // The value repeats the component's name, ASCII letters in any case.
  bool same = strlen(value) > len && value[len] == ':';
  for (size_t i = 0; same && i < len; ++i) {
    char x = value[i] >= 'A' && value[i] <= 'Z' ? static_cast<char>(value[i] - 'A' + 'a') : value[i];
    char y = component[i] >= 'A' && component[i] <= 'Z' ? static_cast<char>(component[i] - 'A' + 'a')
                                                         : component[i];
    same = x == y;
  }
  if (same) *rest = value + len + 1;
  return value;
}

}  // namespace zar::svc

using zar::setStatus;

extern "C" {

void zar_svc__really_debug_set_levels(zar_svc_handle handle, const char* levels, int callbacks,
                                      unsigned long* status) {
  zar::svc::LevelTeller teller(false);
  setStatus(status, zar::svc::applyLevels(handle, levels, callbacks != 0, &teller));
}

bool zar_svc__debug_fillin(zar_svc_handle handle, unsigned long* status) {
  using namespace zar::svc;
  if (!zar_svc__add_to_table(handle, status)) return false;
  handle->debug_filled = 1;
  // Settled anew: routes of an earlier fill-in are closed, not lost.
  zar_svc__close_routes(&handle->debug_routes);

  const char* component = handle->component;
  zar::mem::Unique<char> text;
  SettingSource source;
  char variable[64];
  const char* whole = nullptr;  // the setting as written, for a notice
  if (const char* saved = zar_svc__get(component)) {
    text.reset(zar::mem::strDup(saved));
    if (!text) {
      setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return false;
    }
  } else {
    bool noMemory = false;
    const char* rest = nullptr;
    const char* value = debugVariable(component, &rest, &noMemory);
    if (noMemory) {
      setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return false;
    }
    if (value != nullptr) {
      // "COMPONENT:LEVELS:ROUTES", the name in any case; another
      // component's setting is refused, and the routing file is not read.
      snprintf(variable, sizeof variable, "SVC_%s_DBG", component);
      source.variable = variable;
      whole = value;
      if (rest == nullptr) {
        reportBadDebugSetting(component, source, value, "another component's name", 1);
        return false;
      }
      text.reset(zar::mem::strDup(rest));
      if (!text) {
        setStatus(status, ZAR_S_SVC_NO_MEMORY);
        return false;
      }
    } else {
      text.reset(lineFor(component, &source.line));
      whole = text.get();
    }
  }
  if (!text) return true;  // nothing anywhere: the levels of the table, no routes

  // Positions in a notice count in the setting as written.
  const int skipped = whole != nullptr ? static_cast<int>(strlen(whole) - strlen(text.get())) : 0;
  zar::mem::Unique<char> shown(whole != nullptr ? zar::mem::strDup(whole) : nullptr);
  const char* setting = shown ? shown.get() : "";
  char* colon = strchr(text.get(), ':');
  if (colon == nullptr) {
    reportBadDebugSetting(component, source, setting, "no ':' after its level list", skipped + 1);
    return false;
  }
  *colon = '\0';
  LevelTeller teller(false);
  uint32_t st = applyLevels(handle, text.get(), true, &teller);
  if (st != 0) {
    reportBadDebugSetting(component, source, setting, "a level list that cannot be applied",
                          skipped + 1);
    setStatus(status, st);
    return false;
  }
  unsigned long openStatus = 0;
  zar_svc__open_routes(&handle->debug_routes, kRouteStderr, colon + 1, &openStatus);
  if (openStatus == ZAR_S_SVC_BAD_ROUTE) {
    int at = badRoutePosition(colon + 1);
    reportBadDebugSetting(component, source, setting, "routes that cannot be parsed",
                          skipped + static_cast<int>(colon + 1 - text.get()) + at);
  }
  setStatus(status, openStatus);
  return true;
}

ZAR_API void zar_svc_debug_set_levels(const char* setting, unsigned long* status) {
  setStatus(status, zar::svc::setLevelsSetting(setting, true));
}

ZAR_API void zar_svc_debug_set_levels_nocb(const char* setting, unsigned long* status) {
  setStatus(status, zar::svc::setLevelsSetting(setting, false));
}

ZAR_API void zar_svc_debug_routing(const char* setting, unsigned long* status) {
  setStatus(status, zar::svc::debugRoutingSetting(setting, true));
}

ZAR_API void zar_svc_debug_routing_nocb(const char* setting, unsigned long* status) {
  setStatus(status, zar::svc::debugRoutingSetting(setting, false));
}

}  // extern "C"
