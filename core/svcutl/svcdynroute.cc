// Route types registered at run time: the registry of types with its own
// lock and condition variable, reference counts, the open, print and close
// steps that call a type's callbacks, and the walks that let route elements
// naming a type take it over when it is added (announce) and fall back when
// it is removed (denounce).
//
// Lock order: "Lock order" in core/svcutl/svcint.h. The dynamic-route lock is
// never held while the mutex is taken (add and remove
// release it before announcing or denouncing) and never while a callback
// runs. Cancellation: the lock guard below is the clean-up of every holder,
// and each callback or wait has a guard that puts its counters back and
// wakes the waiters, so a cancelled thread leaves the registry consistent.
#include <pthread.h>
#include <string.h>

#include <atomic>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svccollect.h"
#include "core/svcutl/svcint.h"
#include "zar/status.h"

namespace zar::svc {
namespace {

// Invariants: lock and cond are usable once inited is set (by init, once);
// types holds count registered, not removed-and-taken-out records, in
// registration order, each holding one reference for the registry.
struct DynRouteState {
  pthread_once_t once = PTHREAD_ONCE_INIT;
  std::atomic<bool> inited{false};  // lock and cond exist (set once by init)
  zar::Mutex lock;                  // the dynamic-route lock
  pthread_cond_t cond;              // broadcast when an open, print or close ends
  svc_dyn_route** types ZAR_GUARDED_BY(lock) = nullptr;  // the registered types
  uint32_t count ZAR_GUARDED_BY(lock) = 0;
  // The fork's prepare handler took the lock. inited may turn true between
  // the handlers, so the release handler goes by this, not by inited; only
  // the fork handlers touch it.
  bool lockedForFork ZAR_GUARDED_BY(lock) = false;
};

DynRouteState gDyn;

// A type's block: the record with its name right after it; references 1 (the
// registry's). Null when memory cannot be had.
svc_dyn_route* newType(const char* name, void* arg, zar_svc_route_open_fn open,
                       zar_svc_route_print_fn print, zar_svc_route_close_fn close) {
  size_t nameLen = strlen(name);
  auto type =
      static_cast<svc_dyn_route*>(mem::allocZero(1, sizeof(svc_dyn_route) + nameLen + 1));
  if (type == nullptr) return nullptr;
  char* text = reinterpret_cast<char*>(type + 1);
  memcpy(text, name, nameLen + 1);
  type->name = text;
  type->arg = arg;
  type->open = open;
  type->print = print;
  type->close = close;
  type->references = 1;
  return type;
}

// The library's own route types are registered before anything can look
// into the registry, so no route ever waits for them. A type that cannot be
// added (no memory) is missing, as one an application did not add. Runs
// once, before the lock exists and before any thread can reach the registry.
void dynRouteInit() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (pthread_mutex_init(&gDyn.lock, nullptr) != 0) return;
  if (pthread_cond_init(&gDyn.cond, nullptr) != 0) {
    pthread_mutex_destroy(&gDyn.lock);
    return;
  }
  static const collect::BuiltinType* const kBuiltins[] = {&collect::kSyslogType,
                                                          &collect::kJournalType};
  constexpr size_t kCount = sizeof kBuiltins / sizeof kBuiltins[0];
  gDyn.types = static_cast<svc_dyn_route**>(mem::allocZero(kCount, sizeof(svc_dyn_route*)));
  for (const collect::BuiltinType* b : kBuiltins) {
    svc_dyn_route* type =
        gDyn.types != nullptr ? newType(b->name, nullptr, b->open, b->print, b->close) : nullptr;
    if (type != nullptr) gDyn.types[gDyn.count++] = type;
  }
  gDyn.inited.store(true, std::memory_order_release);
}

// Holds the dynamic-route lock for its scope (or until unlock()). held() is
// false when the lock cannot be had. The destructor is the cancellation
// clean-up of the holder: glibc takes the lock back before a thread
// cancelled in wait() unwinds.
class ZAR_SCOPED_CAPABILITY DynLock {
 public:
  DynLock() ZAR_ACQUIRE(gDyn.lock) ZAR_NO_THREAD_SAFETY_ANALYSIS {
    pthread_once(&gDyn.once, dynRouteInit);
    held_ = gDyn.inited.load(std::memory_order_acquire) && pthread_mutex_lock(&gDyn.lock) == 0;
  }
  ~DynLock() ZAR_RELEASE() ZAR_NO_THREAD_SAFETY_ANALYSIS {
    if (held_) pthread_mutex_unlock(&gDyn.lock);
  }
  DynLock(const DynLock&) = delete;
  DynLock& operator=(const DynLock&) = delete;

  bool held() const { return held_; }
  void unlock() ZAR_RELEASE() ZAR_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&gDyn.lock);
    held_ = false;
  }
  // A cancellation point.
  void wait() { pthread_cond_wait(&gDyn.cond, &gDyn.lock); }

 private:
  bool held_;
};

void wakeAll() { pthread_cond_broadcast(&gDyn.cond); }

// Runs fn when the scope ends, also when the thread is cancelled inside it,
// unless disarmed first.
template <class Fn>
class OnExit {
 public:
  explicit OnExit(Fn fn) : fn_(fn) {}
  ~OnExit() {
    if (armed_) fn_();
  }
  void disarm() { armed_ = false; }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  Fn fn_;
  bool armed_ = true;
};

// The block goes when its last reference does.
void dropReference(svc_dyn_route* type) ZAR_REQUIRES(gDyn.lock) {
  if (--type->references == 0) mem::free(type);
}

// Takes the lock and drops a reference; for the ends of callbacks.
void dropReferenceLocked(svc_dyn_route* type) {
  DynLock lock;
  if (lock.held()) dropReference(type);
}

// The type called name; while one is being removed a type of the
// same name may have been added already, and that one is found first.
svc_dyn_route* findType(const char* name) ZAR_REQUIRES(gDyn.lock) {
  svc_dyn_route* removed = nullptr;
  for (uint32_t i = 0; i < gDyn.count; ++i) {
    if (strcmp(gDyn.types[i]->name, name) != 0) continue;
    if (!gDyn.types[i]->removed) return gDyn.types[i];
    removed = gDyn.types[i];
  }
  return removed;
}

// A name that route strings can refer to: one kind word, not a built-in one.
bool usableName(const char* name) {
  return name != nullptr && *name != '\0' && strpbrk(name, ":;.") == nullptr &&
         !isKindKeyword(name);
}

bool removedNow(svc_dyn_route* type) {
  DynLock lock;
  return !lock.held() || type->removed != 0;
}

// Tries to make a waiting route (its kind not DYNAMIC) a route of
// the type its element names.
void takeOver(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  svc_dyn_route* type = nullptr;
  void* data = nullptr;
  unsigned long st = 0;
  zar__svc_dyn_route_open(route->dynName, route->dynArg != nullptr ? route->dynArg : "", &type,
                          &data, &st);
  if (st != 0) return;
  route->type = type;
  route->routeData = data;
  route->kind = kRouteDynamic;
  route->opened = 1;
}

}  // namespace

void dynRouteForkPrepare() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  gDyn.lockedForFork = gDyn.inited.load(std::memory_order_acquire);
  if (gDyn.lockedForFork) pthread_mutex_lock(&gDyn.lock);
}

void dynRouteForkRelease() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (gDyn.lockedForFork) pthread_mutex_unlock(&gDyn.lock);
  gDyn.lockedForFork = false;
}

}  // namespace zar::svc

using zar::setStatus;
using zar::svc::DynLock;
using zar::svc::gDyn;
using zar::svc::OnExit;

extern "C" {

void zar__svc_dyn_route_open(const char* name, const char* where, svc_dyn_route** target,
                             void** routeData, unsigned long* status) {
  setStatus(status, 0);
  DynLock lock;
  if (!lock.held()) {
    setStatus(status, ZAR_S_SVC_DYN_ROUTE_LOCK);
    return;
  }
  svc_dyn_route* type = zar::svc::findType(name);
  if (type == nullptr) {
    setStatus(status, ZAR_S_SVC_BAD_ROUTE);
    return;
  }
  if (type->opening) {
    // Opens of one type run one at a time. A waiter is counted, so that a
    // removal (which waits for it) cannot free the type under it.
    ++type->openWaiting;
    OnExit doneWaiting([type] {
      --type->openWaiting;
      zar::svc::wakeAll();
    });
    while (type->opening) lock.wait();
  }
  if (type->removed) {
    setStatus(status, ZAR_S_SVC_ROUTE_OPEN_FAILED);
    return;
  }
  ++type->references;
  type->opening = 1;
  lock.unlock();

  int32_t opened = 0;
  void* data = nullptr;
  {
    OnExit openEnded([type, &opened] {
      DynLock relock;
      if (!relock.held()) return;
      type->opening = 0;
      if (opened == 0) zar::svc::dropReference(type);
      zar::svc::wakeAll();
    });
    type->open(type->name, where, type->arg, &data, &opened);
  }
  if (opened == 0) {
    setStatus(status, ZAR_S_SVC_ROUTE_OPEN_FAILED);
    return;
  }
  *target = type;
  *routeData = data;
}

void zar__svc_dyn_route_print(svc_dyn_route* type, void* routeData, zar_svc_prolog* prolog,
                              va_list args) {
  {
    DynLock lock;
    if (!lock.held() || type->removed) return;  // the record is dropped
    ++type->printing;
  }
  OnExit printEnded([type] {
    {
      DynLock lock;
      if (lock.held()) --type->printing;
    }
    zar::svc::wakeAll();
  });
  va_list copy;
  va_copy(copy, args);
  type->print(type->arg, routeData, prolog, copy);
  va_end(copy);
}

void zar__svc_dyn_route_print2(svc_dyn_route* type, void* routeData, zar_svc_prolog* prolog,
                               ...) {
  va_list args;
  va_start(args, prolog);
  zar__svc_dyn_route_print(type, routeData, prolog, args);
  va_end(args);
}

void zar__svc_dyn_route_close(svc_dyn_route* type, void* routeData) {
  DynLock lock;
  if (!lock.held()) return;
  if (type->removed || type->references <= 1) {
    zar::svc::dropReference(type);
    return;
  }
  {
    // The route is already out of its list: a thread cancelled while it
    // waits still gives up the route's reference (a cancelled wait returns
    // with the lock held, which the analysis cannot follow).
    OnExit cancelled([type]() ZAR_NO_THREAD_SAFETY_ANALYSIS { zar::svc::dropReference(type); });
    while (type->closing || type->printing) lock.wait();
    cancelled.disarm();
  }
  type->closing = 1;
  lock.unlock();
  OnExit closeEnded([type] {
    {
      DynLock relock;
      if (!relock.held()) return;
      type->closing = 0;
      zar::svc::dropReference(type);
    }
    zar::svc::wakeAll();
  });
  unsigned long ignored = 0;
  if (type->close != nullptr) type->close(type->name, type->arg, routeData, &ignored);
}

void zar_svc__routing_announce(const char* name, unsigned long* status) {
  setStatus(status, 0);
  zar::svc::SvcLock lock;
  zar::svc::forEachRoute([name](svc_route* route, bool) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (route->kind == zar::svc::kRouteDynamic || route->dynName == nullptr ||
        strcmp(route->dynName, name) != 0)
      return;
    zar::svc::takeOver(route);
  });
}

void zar_svc__routing_denounce(const char* name, unsigned long* status) {
  setStatus(status, 0);
  zar::svc::SvcLock lock;
  zar::svc::forEachRoute([name](svc_route* route,
                                bool inDebugList) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (route->kind != zar::svc::kRouteDynamic || route->dynName == nullptr ||
        strcmp(route->dynName, name) != 0)
      return;
    svc_dyn_route* type = route->type;
    // A route that a type registered again since has taken over stays.
    if (!zar::svc::removedNow(type)) return;
    void* data = route->routeData;
    route->kind = inDebugList ? zar::svc::kRouteDiscard : zar::svc::kRouteStderr;
    route->type = nullptr;
    route->routeData = nullptr;
    zar__svc_dyn_route_close(type, data);
    // A type of the same name added while this one went away takes over.
    zar::svc::takeOver(route);
  });
}

ZAR_API void zar_svc_add_route(const char* name, void* arg, zar_svc_route_open_fn open,
                               zar_svc_route_print_fn print, zar_svc_route_close_fn close,
                               unsigned long* status) {
  if (!zar::svc::usableName(name) || open == nullptr || print == nullptr) {
    setStatus(status, ZAR_S_SVC_BAD_ROUTE);
    return;
  }
  svc_dyn_route* type = zar::svc::newType(name, arg, open, print, close);
  if (type == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return;
  }

  unsigned long st = 0;
  {
    DynLock lock;
    if (!lock.held()) {
      zar::mem::free(type);
      st = ZAR_S_SVC_DYN_ROUTE_LOCK;
    } else if (svc_dyn_route* found = zar::svc::findType(name);
               found != nullptr && !found->removed) {
      zar::mem::free(type);  // the first registration stays
    } else {
      auto grown = static_cast<svc_dyn_route**>(
          zar::mem::realloc(gDyn.types, (gDyn.count + 1) * sizeof(svc_dyn_route*)));
      if (grown == nullptr) {
        zar::mem::free(type);
        st = ZAR_S_SVC_NO_MEMORY;
      } else {
        gDyn.types = grown;
        gDyn.types[gDyn.count++] = type;
      }
    }
  }
  unsigned long ignored = 0;
  zar_svc__routing_announce(name, &ignored);
  setStatus(status, zar::statusCode(st));
}

ZAR_API void zar_svc_remove_route(const char* name, unsigned long* status) {
  unsigned long st = ZAR_S_SVC_BAD_ROUTE;
  svc_dyn_route* notify = nullptr;  // a type whose routes outlive its removal
  if (name != nullptr) {
    DynLock lock;
    svc_dyn_route* type = lock.held() ? zar::svc::findType(name) : nullptr;
    if (!lock.held()) {
      st = ZAR_S_SVC_DYN_ROUTE_LOCK;
    } else if (type != nullptr && type->removed) {
      st = 0;  // another thread is removing it
    } else if (type != nullptr) {
      type->removed = 1;
      {
        zar::CancelDisabled noCancel;
        while (type->opening || type->printing || type->closing || type->openWaiting)
          lock.wait();
      }
      for (uint32_t i = 0; i < gDyn.count; ++i) {
        if (gDyn.types[i] != type) continue;
        memmove(&gDyn.types[i], &gDyn.types[i + 1], (gDyn.count - i - 1) * sizeof(svc_dyn_route*));
        --gDyn.count;
        break;
      }
      if (gDyn.count == 0) {
        zar::mem::free(gDyn.types);
        gDyn.types = nullptr;
      }
      if (type->references == 1) {
        zar::svc::dropReference(type);
      } else {
        notify = type;
      }
      st = 0;
    }
  }
  if (notify != nullptr) {
    // Routes still hold the type: its close callback hears, once, with no
    // route data, that the type goes away; then the registry lets go.
    OnExit release([notify] { zar::svc::dropReferenceLocked(notify); });
    unsigned long ignored = 0;
    if (notify->close != nullptr) notify->close(notify->name, notify->arg, nullptr, &ignored);
  }
  if (name != nullptr) {
    unsigned long ignored = 0;
    zar_svc__routing_denounce(name, &ignored);
  }
  setStatus(status, zar::statusCode(st));
}

}  // extern "C"
