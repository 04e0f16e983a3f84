// Component registration: the serviceability mutex and its one-time set-up,
// the component map, callback sets, the program name and the severity names.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcint.h"
#include "platform/secenv.h"
#include "zar/status.h"

namespace zar::svc {

SvcState gSvc;

const char* const kCodeTable[kNumSeverities] = {"FATAL", "ERROR", "WARNING", "NOTICE",
                                                "NOTICE_VERBOSE"};
const char* const kDebugTable[9] = {"DEBUG1", "DEBUG2", "DEBUG3", "DEBUG4", "DEBUG5",
                                    "DEBUG6", "DEBUG7", "DEBUG8", "DEBUG9"};
const uint32_t kAttrTable[kNumSeverities] = {0x10, 0x20, 0x30, 0x40, 0x50};
const uint32_t kAttrMaskTable[kNumSeverities] = {0x1, 0x2, 0x4, 0x8, 0xA};

namespace {

// Counts the entries of a sub-component table before its terminator.
uint32_t countEntries(const zar_svc_subcomp* table) {
  uint32_t n = 0;
  if (table != nullptr) {
    while (table[n].name != nullptr) ++n;
  }
  return n;
}

void freeHandle(zar_svc_handle h) {
  mem::free(h->component);
  mem::free(h->debug_routes.routes);
  mem::free(h);
}

// Makes a handle for table and component; null with the status on failure.
zar_svc_handle newHandle(zar_svc_subcomp* table, const char* component, unsigned long* status) {
  if (component == nullptr) {
    setStatus(status, ZAR_S_SVC_BAD_ROUTE);
    return nullptr;
  }
  auto h = static_cast<zar_svc_handle>(mem::allocZero(1, sizeof(zar_svc_handle_s)));
  if (h == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return nullptr;
  }
  h->table = table;
  h->table_size = countEntries(table);
  h->allocated = 1;
  h->component = mem::strDup(component);
  if (h->component == nullptr) {
    mem::free(h);
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return nullptr;
  }
  return h;
}

}  // namespace

void ensureInit() {
  if (!gSvc.setup.load(std::memory_order_acquire))
    pthread_once(&gSvc.setupOnce, zar_svc__init_mutex);
}

SvcLock::SvcLock() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  ensureInit();
  pthread_mutex_lock(&gSvc.mutex);
  gSvc.owner.store(pthread_self(), std::memory_order_relaxed);
}

SvcLock::~SvcLock() { zar_svc__cleanup_mutex(); }

SvcLockUnlessHeld::SvcLockUnlessHeld() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  took_ = !heldByThisThread();
  if (took_) {
    ensureInit();
    pthread_mutex_lock(&gSvc.mutex);
    gSvc.owner.store(pthread_self(), std::memory_order_relaxed);
  }
}

SvcLockUnlessHeld::~SvcLockUnlessHeld() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (took_) zar_svc__cleanup_mutex();
}

zar_svc_handle registerHandle(zar_svc_subcomp* table, const char* component,
                              unsigned long* status) {
  setStatus(status, 0);
  zar_svc_handle h = newHandle(table, component, status);
  if (h == nullptr) return nullptr;
  if (!zar_svc__add_to_table(h, status)) {
    freeHandle(h);
    return nullptr;
  }
  for (uint32_t i = 0; i < gSvc.nCallbacks; ++i) {
    if (gSvc.callbacks[i].onRegister != nullptr) gSvc.callbacks[i].onRegister(h->component, table);
  }
  return h;
}

}  // namespace zar::svc

using zar::setStatus;
using zar::svc::gSvc;
using zar::svc::SvcLock;

extern "C" {

void zar_svc__init_mutex(void) {
  if (pthread_mutex_init(&gSvc.mutex, nullptr) != 0) return;
  // Without the key threads cannot save messages; everything else works.
  gSvc.msgsaveKeyMade = pthread_key_create(&gSvc.msgsaveKey, zar_svc_msgsave_destructor) == 0;
  if (const char* brief = zar::env::get("SVC_BRIEF")) {
    gSvc.brief = static_cast<int32_t>(strtol(brief, nullptr, 10));
  }
  gSvc.setup.store(true, std::memory_order_release);
  zar_svc_nls_init(nullptr);
}

void zar_svc__cleanup_mutex(void) ZAR_NO_THREAD_SAFETY_ANALYSIS {
  gSvc.owner.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&gSvc.mutex);
}

bool zar_svc__add_to_table(zar_svc_handle handle, unsigned long* status) {
  if (handle->in_map) return true;
  auto grown = static_cast<zar_svc_handle*>(
      zar::mem::realloc(gSvc.map, (gSvc.mapSize + 1) * sizeof(zar_svc_handle)));
  if (grown == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return false;
  }
  gSvc.map = grown;
  gSvc.map[gSvc.mapSize++] = handle;
  handle->in_map = 1;
  return true;
}

zar_svc_handle zar_svc__component_to_handle(const char* name) {
  if (name == nullptr) return nullptr;
  for (uint32_t i = 0; i < gSvc.mapSize; ++i) {
    if (strcmp(gSvc.map[i]->component, name) == 0) return gSvc.map[i];
  }
  return nullptr;
}

zar_svc_handle zar_svc__table_to_handle(zar_svc_subcomp* table) {
  for (uint32_t i = 0; i < gSvc.mapSize; ++i) {
    if (gSvc.map[i]->table == table) return gSvc.map[i];
  }
  return nullptr;
}

unsigned long zar_svc__mapthreadid(const pthread_t* thread) {
  return thread == nullptr ? 0 : static_cast<unsigned long>(*thread);
}

void zar_svc__shutdown(void) {
  SvcLock lock;
  for (svc_route_list& list : gSvc.routes) zar_svc__close_routes(&list);
  for (uint32_t i = 0; i < gSvc.mapSize; ++i) zar_svc__close_routes(&gSvc.map[i]->debug_routes);
}

ZAR_API zar_svc_handle zar_svc_register(zar_svc_subcomp* table, const char* component,
                                        unsigned long* status) {
  SvcLock lock;
  return zar::svc::registerHandle(table, component, status);
}

ZAR_API zar_svc_handle zar_svc_register2(zar_svc_subcomp* table, const char* component,
                                         unsigned long* status) ZAR_NO_THREAD_SAFETY_ANALYSIS {
  zar::svc::ensureInit();
  return zar::svc::registerHandle(table, component, status);
}

ZAR_API void zar_svc_unregister(zar_svc_handle handle, unsigned long* status) {
  setStatus(status, 0);
  if (handle == nullptr) return;
  SvcLock lock;
  zar_svc__close_routes(&handle->debug_routes);
  if (handle->in_map) {
    for (uint32_t i = 0; i < gSvc.nCallbacks; ++i) {
      if (gSvc.callbacks[i].onUnregister != nullptr)
        gSvc.callbacks[i].onUnregister(handle->component, handle->table);
    }
    for (uint32_t i = 0; i < gSvc.mapSize; ++i) {
      if (gSvc.map[i] != handle) continue;
      memmove(&gSvc.map[i], &gSvc.map[i + 1], (gSvc.mapSize - i - 1) * sizeof(zar_svc_handle));
      --gSvc.mapSize;
      break;
    }
    // Shrinking cannot fail in a way that matters: on failure the larger
    // block simply stays.
    if (gSvc.mapSize == 0) {
      zar::mem::free(gSvc.map);
      gSvc.map = nullptr;
    } else if (auto shrunk = static_cast<zar_svc_handle*>(
                   zar::mem::realloc(gSvc.map, gSvc.mapSize * sizeof(zar_svc_handle)))) {
      gSvc.map = shrunk;
    }
    handle->in_map = 0;
  }
  if (handle->allocated) zar::svc::freeHandle(handle);
}

ZAR_API void zar_svc_register_callbacks(zar_svc_register_fn on_register,
                                        zar_svc_register_fn on_unregister,
                                        zar_svc_level_fn on_level, unsigned long* status) {
  SvcLock lock;
  auto grown = static_cast<svc_callbacks*>(
      zar::mem::realloc(gSvc.callbacks, (gSvc.nCallbacks + 1) * sizeof(svc_callbacks)));
  if (grown == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return;
  }
  gSvc.callbacks = grown;
  gSvc.callbacks[gSvc.nCallbacks++] = svc_callbacks{on_register, on_unregister, on_level};
  setStatus(status, 0);
}

ZAR_API void zar_svc_unregister_callbacks(zar_svc_register_fn on_register,
                                          zar_svc_register_fn on_unregister,
                                          zar_svc_level_fn on_level, unsigned long* status) {
  setStatus(status, 0);
  SvcLock lock;
  for (uint32_t i = 0; i < gSvc.nCallbacks; ++i) {
    const svc_callbacks& c = gSvc.callbacks[i];
    if (c.onRegister != on_register || c.onUnregister != on_unregister || c.onLevel != on_level)
      continue;
    memmove(&gSvc.callbacks[i], &gSvc.callbacks[i + 1],
            (gSvc.nCallbacks - i - 1) * sizeof(svc_callbacks));
    if (--gSvc.nCallbacks == 0) {
      zar::mem::free(gSvc.callbacks);
      gSvc.callbacks = nullptr;
    } else if (auto shrunk = static_cast<svc_callbacks*>(
                   zar::mem::realloc(gSvc.callbacks, gSvc.nCallbacks * sizeof(svc_callbacks)))) {
      gSvc.callbacks = shrunk;
    }
    return;
  }
  setStatus(status, ZAR_S_SVC_NO_SUCH_CALLBACKS);
}

ZAR_API void zar_svc_set_progname(const char* name, unsigned long* status) {
  {
    SvcLock lock;
    if (gSvc.progname[0] == '\0' && name != nullptr) {
      strncpy(gSvc.progname, name, sizeof gSvc.progname - 1);
      gSvc.progname[sizeof gSvc.progname - 1] = '\0';
    }
  }
  setStatus(status, 0);
}

ZAR_API const char* zar_svc_get_progname(void) { return gSvc.progname; }

ZAR_API const char* zar_svc_inq_sev_name(uint32_t attributes) {
  uint32_t level = attributes & svc_c_debug_mask;
  if (level != 0) return level <= 9 ? zar::svc::kDebugTable[level - 1] : nullptr;
  int sev = zar::svc::severityIndex(attributes);
  return sev < 0 ? nullptr : zar::svc::kCodeTable[sev];
}

ZAR_API void zar_svc_shutdown(void) {
  if (!gSvc.setup.load(std::memory_order_acquire)) return;
  if (gSvc.msgsaveKeyMade) pthread_key_delete(gSvc.msgsaveKey);
  gSvc.msgsaveKeyMade = false;
  pthread_mutex_destroy(&gSvc.mutex);
}

}  // extern "C"
