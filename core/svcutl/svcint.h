// Private interface shared by the serviceability sources (core/svcutl/svc*.cc):
// the process-wide state, routes and file records, and the internal steps of
// registration, routing and log files. Not for any other module.
//
// Lock order (written once here, followed everywhere):
//   serviceability mutex (gSvc.mutex) -> dynamic-route lock -> message lock
//   -> catalog lock; the time-zone lock is a leaf.
// gSvc.mutex is plain and non-recursive, held for the whole of every print
// call. Every holder takes it through SvcLock, whose destructor is the
// cancellation clean-up that releases it.
#ifndef ZAR_CORE_SVCUTL_SVCINT_H_
#define ZAR_CORE_SVCUTL_SVCINT_H_

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <atomic>

#include "zar/svc.h"

// ---- Routes --------------------------------------------------------------------

namespace zar::svc {

// Route kinds; 0 and 1 are never assigned.
enum RouteKind : int32_t {
  kRouteTextFile = 2,
  kRouteDiscard = 3,
  kRouteStdout = 4,
  kRouteStderr = 5,
  kRouteGoesTo = 6,
  kRouteDynamic = 7,
  kRouteUtf8File = 8,
  kRouteXmlFile = 9,
  kRouteXmlStdout = 10,
  kRouteXmlStderr = 11,
};

inline bool isFileKind(int32_t kind) {
  return kind == kRouteTextFile || kind == kRouteUtf8File || kind == kRouteXmlFile;
}

constexpr int kNumSeverities = 5;
// Longest file name (after the process id is put in) and longest saved
// wildcard setting, in bytes without the terminator.
constexpr size_t kMaxRouteText = 511;
constexpr char kSepChar = ':';

}  // namespace zar::svc

// One log file, shared by every route that names it.
// Invariants: allocated zero-filled and never freed; name and nameFormat are
// both set or both null (null for good after an open failed); stream is null
// while the file is closed; references counts the routes attached.
struct svc_file_route {
  char* name;          // file name with the process id put in
  char* nameFormat;    // the where field as written, for a forked child's name
  FILE* stream;        // open output stream, or null
  int32_t references;  // routes attached to this record
  int32_t generations; // numbered generations kept, 0 to 99 (0: none)
  int32_t limit;       // messages per file before rotation (0: never rotated)
  int32_t nextGeneration;  // generation the next archive uses (0: not yet found)
  int32_t count;       // messages counted in the current file
  int32_t mode;        // permission bits applied after each open (0: none)
  int32_t owner;       // user id given after each open (-1: unchanged)
  int32_t group;       // group id given after each open (-1: unchanged)
};

// One route. Invariants: allocated once, never freed, chained newest first
// from gSvc.routebase; target is a svc_file_route for the file kinds, an owned
// name for GOESTO, and the dynamic route type for DYNAMIC.
struct zar_svc_route_s {
  zar_svc_route_s* next;  // the route created before this one
  int32_t kind;           // a RouteKind
  int32_t fallback;       // kRouteDiscard or kRouteStderr: the kind when the
                          // destination cannot be opened
  int32_t opened;         // ready for output
  void* target;
  uintptr_t routeData;    // a dynamic route's per-route word
  char* dynName;          // owned: the kind word of an element that names no
                          // built-in kind (a dynamic route type), or null
  char* dynArg;           // owned: that element's where field, or null
};
typedef struct zar_svc_route_s svc_route;

// One remembered setting: "NAME:rest". Kind 0 is a severity routing setting,
// kind 1 a component debug setting.
struct svc_saved_setting {
  char* text;
  int32_t kind;
};

struct svc_callbacks {
  zar_svc_register_fn onRegister;
  zar_svc_register_fn onUnregister;
  zar_svc_level_fn onLevel;
};

// ---- Process-wide state ------------------------------------------------------------

namespace zar::svc {

// Invariants: every field below `mutex` is read and written only with mutex
// held (the exceptions say so). Arrays grow by one slot at a time and never
// shrink except map and callbacks, which shrink on removal.
struct SvcState {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // the serviceability mutex
  std::atomic<bool> setup{false};   // one-time set-up done (set once, then read freely)
  std::atomic<pthread_t> owner{0};  // thread holding mutex, 0 when none (for re-entry checks)
  int32_t brief = 0;                // SVC_BRIEF, read once at set-up, then read freely

  zar_svc_handle* map = nullptr;    // mutex: registered handles in registration order
  uint32_t mapSize = 0;             // mutex
  svc_callbacks* callbacks = nullptr;  // mutex: callback sets in registration order
  uint32_t nCallbacks = 0;          // mutex
  char progname[32] = {};           // mutex for writes; set once, read freely afterwards

  svc_route_list routes[kNumSeverities] = {};  // mutex: FATAL .. NOTICE_VERBOSE
  svc_route* routebase = nullptr;   // mutex: every route ever made, newest first
  svc_saved_setting* memory = nullptr;  // mutex: saved settings, one per key
  uint32_t memorySize = 0;          // mutex
  svc_file_route** fileroutes = nullptr;  // mutex: every log file record
  uint32_t numFileroutes = 0;       // mutex

  std::atomic<pid_t> pid{0};        // cached process id; refreshed in a fork child
};

extern SvcState gSvc;

// Runs the one-time set-up (mutex, SVC_BRIEF, code sets) once; cheap after
// the first call.
void ensureInit();

// Holds the serviceability mutex for its scope (the cancellation clean-up of
// every holder). Not recursive.
class SvcLock {
 public:
  SvcLock();
  ~SvcLock();
  SvcLock(const SvcLock&) = delete;
  SvcLock& operator=(const SvcLock&) = delete;
};

// True when the calling thread holds the serviceability mutex: code that may
// be reached from inside a print call (code-set set-up, assertions) uses it to
// avoid taking the mutex a second time.
inline bool heldByThisThread() {
  return pthread_equal(gSvc.owner.load(std::memory_order_relaxed), pthread_self()) != 0;
}

// Index 0..4 of the severity of an attribute word, or -1 when its severity
// bits are not 1 to 5.
inline int severityIndex(uint32_t attributes) {
  uint32_t sev = (attributes & svc_c_sev_mask) >> 4;
  return (sev >= 1 && sev <= kNumSeverities) ? static_cast<int>(sev) - 1 : -1;
}

// Names indexed by severity minus 1 and by debug level minus 1, and the
// severity attribute values in severity order.
extern const char* const kCodeTable[kNumSeverities];
extern const char* const kDebugTable[9];
extern const uint32_t kAttrTable[kNumSeverities];
extern const uint32_t kAttrMaskTable[kNumSeverities];

// Registration without the mutex (the caller holds it).
zar_svc_handle registerLocked(zar_svc_subcomp* table, const char* component,
                              unsigned long* status);

// Puts the process id into a route's where field: "%d", "%i", "%u" (with an
// optional 'l', flags and width) become the pid, "%%" a '%'. Returns false
// when another conversion is used or the result needs more than
// kMaxRouteText bytes; out has room for kMaxRouteText + 1 bytes.
bool expandFileName(const char* format, pid_t pid, char* out);

// The route list of a component's debug messages when its debug settings are
// settled, else null (unsettled components have no debug routes yet).
svc_route_list* debugRoutesOf(zar_svc_handle handle);

// The list that a GOESTO route names: a severity's (filled in first when it
// is empty) or a registered component's debug list; null for unknown names.
svc_route_list* goestoList(const char* name);

}  // namespace zar::svc

// ---- Internal steps (mutex held unless stated) ------------------------------------------

extern "C" {
// Registration (svcreg.cc).
void zar_svc__init_mutex(void);
void zar_svc__cleanup_mutex(void);  // releases the mutex held by this thread
bool zar_svc__add_to_table(zar_svc_handle handle, unsigned long* status);
zar_svc_handle zar_svc__component_to_handle(const char* name);
zar_svc_handle zar_svc__table_to_handle(zar_svc_subcomp* table);
unsigned long zar_svc__mapthreadid(const pthread_t* thread);
// Takes the mutex itself; catalog texts for the descriptions, once per handle.
void zar_svc__translate(zar_svc_handle handle, unsigned long* status);
// Takes the mutex itself; closes every severity list and debug list.
void zar_svc__shutdown(void);

// Routing (svcroute.cc).
void zar_svc__open_routes(svc_route_list* list, int32_t fallback, const char* routes,
                          unsigned long* status);
void zar_svc__fillin(uint32_t attributes, unsigned long* status);
svc_route** zar_svc__goesto(const char* name, int32_t* count);
char* zar_svc__linefor(const char* name);  // no mutex needed; caller frees
const char* zar_svc__get(const char* name);
void zar_svc__store(const char* text, int32_t kind, unsigned long* status);
bool checkWildCardLogRoute(const char* value);
bool checkWildCardTraceRoute(const char* value);

// Log files and fork (svcfile.cc).
void zar_svc__check_open(svc_route* route);
void zar_svc__close_routes(svc_route_list* list);
pid_t zar_svc__get_pid(void);  // no mutex needed
void zar_svc__register_fork_handler_once(void);
}

namespace zar::svc {
// Attaches a new file route to the record of its file (made when there is
// none) and sets the record up from the element when the route is its only
// one. gens and limit are null when the element had no .GENS.LIMIT. Returns
// false with status 0x106521F4 when memory is short (nothing attached).
bool attachFileRoute(svc_route* route, const char* name, const char* where, const char* gens,
                     const char* limit, const char* mode, const char* user, const char* group,
                     unsigned long* status);
void archiveLogFile(svc_file_route* record);
}  // namespace zar::svc

#endif  // ZAR_CORE_SVCUTL_SVCINT_H_
