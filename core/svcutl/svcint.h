// Private interface shared by the serviceability sources (core/svcutl/svc*.cc):
// the process-wide state, routes and file records, and the internal steps of
// registration, routing and log files. Not for any other module.
//
// The library's lock order is written once, below gSvc ("Lock order").
// gSvc.mutex is plain and non-recursive, held for the whole of every print
// call. Every holder takes it through SvcLock, whose destructor is the
// cancellation clean-up that releases it.
#ifndef ZAR_CORE_SVCUTL_SVCINT_H_
#define ZAR_CORE_SVCUTL_SVCINT_H_

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <atomic>

#include "base/zarlock.h"
#include "core/svcutl/msgint.h"
#include "core/zarprintf.h"
#include "platform/nlz.h"
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

inline bool isFileKind(RouteKind kind) {
  return kind == kRouteTextFile || kind == kRouteUtf8File || kind == kRouteXmlFile;
}

constexpr int kNumSeverities = 5;
// Longest file name (after the process id is put in) and longest saved
// wildcard setting, in bytes without the terminator.
constexpr size_t kMaxRouteText = 511;
constexpr char kSepChar = ':';

}  // namespace zar::svc

struct svc_dyn_route;

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
  int32_t cutShort;    // a failed write left the open file inside a record
};

// One route. Invariants: allocated once, never freed, chained newest first
// from gSvc.routebase; its kind's sink (sinkOf) does its work, with the
// destination of the kinds that have one in the union.
struct zar_svc_route_s {
  zar_svc_route_s* next;  // the route created before this one
  zar::svc::RouteKind kind;
  zar::svc::RouteKind fallback;  // kRouteDiscard or kRouteStderr: the kind when the
                                 // destination cannot be opened
  int32_t opened;         // ready for output
  union {
    svc_file_route* file;  // the file kinds: the log file's record
    char* listName;        // GOESTO: owned, the name of the list it continues with
    svc_dyn_route* type;   // DYNAMIC: the route type
  };
  void* routeData;        // a dynamic route's per-route data (its open callback's)
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

// One registered route type (svcdynroute.cc), allocated as one block with
// its name right after it.
// Invariants: the fields up to close never change after registration; the
// counters and flags are read and written only under the dynamic-route lock.
// references counts the registry (until removal), every open route and every
// open call in progress; the block is freed when it drops to 0. removed is
// set once and never cleared. At most one open call of a type runs at a time.
struct svc_dyn_route {
  const char* name;                // the text stored after the record
  void* arg;                       // context argument handed to every callback
  zar_svc_route_open_fn open;
  zar_svc_route_print_fn print;
  zar_svc_route_close_fn close;    // may be null
  int32_t references;              // dynamic-route lock
  int32_t removed;                 // dynamic-route lock: being or been removed
  int32_t opening;                 // dynamic-route lock: an open callback runs
  int32_t closing;                 // dynamic-route lock: a close callback runs
  int32_t printing;                // dynamic-route lock: print callbacks running
  int32_t openWaiting;             // dynamic-route lock: opens waiting for opening
};

struct svc_callbacks {
  zar_svc_register_fn onRegister;
  zar_svc_register_fn onUnregister;
  zar_svc_level_fn onLevel;
};

// ---- Process-wide state ------------------------------------------------------------

namespace zar::svc {

// The local time text of one whole second, kept for the records of that
// second. msAt is the index of its milliseconds (0: nothing kept).
struct TimeTextCache {
  uint64_t from100 = 0;  // the second's start, in the UTC value's 100 ns units
  size_t msAt = 0;
  size_t length = 0;  // of text
  char text[50] = {};
};

// The parsed form of the latest message text rendered, with its own copy of
// the text: a record whose text is the same, byte for byte and in the same
// code set, takes its conversions instead of parsing the text again. Another
// message, a catalog read again or another locale gives another text, which
// does not match.
struct ParsedTextCache {
  size_t length = 0;  // of text; 0: nothing kept
  char text[256] = {};
  zar::format::Context model;  // parsed from text, no heap arrays
};

// Invariants: every field below `mutex` is read and written only with mutex
// held (the exceptions say so). Arrays grow by one slot at a time and never
// shrink except map and callbacks, which shrink on removal.
struct SvcState {
  // The serviceability mutex; first in the lock order (below).
  zar::Mutex mutex ZAR_ACQUIRED_BEFORE(zar::msg::gMsg.mutex) = PTHREAD_MUTEX_INITIALIZER;
  pthread_once_t setupOnce = PTHREAD_ONCE_INIT;  // runs the one-time set-up
  std::atomic<bool> setup{false};   // one-time set-up done (set once, then read freely)
  pthread_once_t forkOnce = PTHREAD_ONCE_INIT;  // the fork handlers are registered once
  std::atomic<pthread_t> owner{0};  // thread holding mutex, 0 when none (for re-entry checks)
  int32_t brief = 0;                // SVC_BRIEF, read once at set-up, then read freely

  zar_svc_handle* map ZAR_GUARDED_BY(mutex) = nullptr;  // registered handles in registration order
  uint32_t mapSize ZAR_GUARDED_BY(mutex) = 0;
  svc_callbacks* callbacks ZAR_GUARDED_BY(mutex) = nullptr;  // callback sets in registration order
  uint32_t nCallbacks ZAR_GUARDED_BY(mutex) = 0;
  char progname[32] = {};           // mutex for writes; set once, read freely afterwards

  svc_route_list routes[kNumSeverities] ZAR_GUARDED_BY(mutex) = {};  // FATAL .. NOTICE_VERBOSE
  svc_route* routebase ZAR_GUARDED_BY(mutex) = nullptr;       // every route ever made, newest first
  svc_saved_setting* memory ZAR_GUARDED_BY(mutex) = nullptr;  // saved settings, one per key
  uint32_t memorySize ZAR_GUARDED_BY(mutex) = 0;
  svc_file_route** fileroutes ZAR_GUARDED_BY(mutex) = nullptr;  // every log file record
  uint32_t numFileroutes ZAR_GUARDED_BY(mutex) = 0;

  std::atomic<pid_t> pid{0};        // cached process id; refreshed in a fork child

  TimeTextCache timeCache ZAR_GUARDED_BY(mutex);  // local time text of the latest second printed
  ParsedTextCache parsedCache ZAR_GUARDED_BY(mutex);
  char pidName[32] ZAR_GUARDED_BY(mutex) = {};    // "PID#" and pidNameOf
  pid_t pidNameOf ZAR_GUARDED_BY(mutex) = 0;      // the process id pidName was made for

  pthread_key_t msgsaveKey = 0;     // the thread's message save; made at set-up
  bool msgsaveKeyMade = false;      // set at set-up, then read freely
};

extern SvcState gSvc;

}  // namespace zar::svc

// ---- Lock order ----------------------------------------------------------------------------
//
// The order in which the library's process-wide locks are taken, never the
// reverse:
//   1. the serviceability mutex, gSvc.mutex (held for a whole print call)
//   2. the dynamic-route lock (svcdynroute.cc; never held while 1 is taken,
//      nor while a route type's callback runs)
//   3. the message lock zar::msg::gMsg.mutex, then the catalog lock
//      gMsg.catMutex (msgint.h; msgtable.cc, msgcat.cc)
//   4. the time-zone lock gZone.mu (utczone.cc), a leaf
//   5. the install-path lock gPaths.loadMu (zarpaths.cc), then the data
//      directory's set-up lock (platform/qumbra.cc)
//   6. a message catalog's conversion lock (platform/nlzcat.cc)
// Leaf locks, which hold nothing else and may be taken under any of the
// above: the code-set locks of platform/ (gCs.namesMu and gCs.sharedMu in
// nlzcs.cc, each handle's descriptor pools), the locale settings lock
// gLoc.mu (nlzloc.cc), the UTF-8 handle lock gNls.utf8Mu (svcnls.cc), the
// UUID generator lock gGen.mu, the message-cache read-write lock, the delay
// mutex gDelay.mu (zarthread.cc).
// clang checks the pairs annotated ACQUIRED_BEFORE at the locks' declarations
// (gSvc.mutex above, the message lock in msgint.h).

namespace zar::svc {

// Runs the one-time set-up (mutex, SVC_BRIEF, code sets) once; cheap after
// the first call.
void ensureInit();

// Holds the serviceability mutex for its scope (the cancellation clean-up of
// every holder). Not recursive.
class ZAR_SCOPED_CAPABILITY SvcLock {
 public:
  SvcLock() ZAR_ACQUIRE(gSvc.mutex);
  ~SvcLock() ZAR_RELEASE();
  SvcLock(const SvcLock&) = delete;
  SvcLock& operator=(const SvcLock&) = delete;
};

// True when the calling thread holds the serviceability mutex: code that may
// be reached from inside a print call (code-set set-up, assertions) uses it to
// avoid taking the mutex a second time.
inline bool heldByThisThread() {
  return pthread_equal(gSvc.owner.load(std::memory_order_relaxed), pthread_self()) != 0;
}

// Holds the serviceability mutex for its scope, unless the calling thread
// holds it already (code reached from inside a print call: an assertion).
class ZAR_SCOPED_CAPABILITY SvcLockUnlessHeld {
 public:
  SvcLockUnlessHeld() ZAR_ACQUIRE(gSvc.mutex);
  ~SvcLockUnlessHeld() ZAR_RELEASE();
  SvcLockUnlessHeld(const SvcLockUnlessHeld&) = delete;
  SvcLockUnlessHeld& operator=(const SvcLockUnlessHeld&) = delete;

 private:
  bool took_;
};

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

// Registers a component's table (the body of zar_svc_register).
zar_svc_handle registerHandle(zar_svc_subcomp* table, const char* component, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Puts the process id into a route's where field: "%d", "%i", "%u" (with an
// optional 'l', flags and width) become the pid, "%%" a '%'. Returns false
// when another conversion is used or the result needs more than
// kMaxRouteText bytes; out has room for kMaxRouteText + 1 bytes.
bool expandFileName(const char* format, pid_t pid, char* out);

// The route list of a component's debug messages, its debug settings filled
// in first when they are not settled yet; null when the fill-in fails.
svc_route_list* debugRoutesOf(zar_svc_handle handle) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Visits every route of the five severity lists, then of the debug list of
// every registered component in map order, as fn(route, inDebugList).
template <class Fn>
void forEachRoute(Fn fn) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  for (svc_route_list& list : gSvc.routes) {
    for (int32_t i = 0; i < list.count; ++i) fn(list.routes[i], false);
  }
  for (uint32_t m = 0; m < gSvc.mapSize; ++m) {
    svc_route_list& list = gSvc.map[m]->debug_routes;
    for (int32_t i = 0; i < list.count; ++i) fn(list.routes[i], true);
  }
}

// The severity whose name is exactly name (index 0..4), or -1.
int severityByName(const char* name);
// True when word is one of the kind words of route strings ("STDERR",
// "GOESTO", ...), which no route type may be named.
bool isKindKeyword(const char* word);

// The value of a component's debug variable SVC_<COMPONENT>_DBG (the name's
// ASCII letters upper case), or null when it is not set or its name cannot be
// made (then *noMemory). *rest is what follows the value's leading
// "COMPONENT:" (the name in any case), null when the value names another
// component.
const char* debugVariable(const char* component, const char** rest, bool* noMemory);

// The list that a GOESTO route names: a severity's (filled in first when it
// is empty) or a registered component's debug list; null for unknown names.
svc_route_list* goestoList(const char* name) ZAR_REQUIRES(zar::svc::gSvc.mutex);

}  // namespace zar::svc

// ---- One print call ---------------------------------------------------------------------

// The message of one print call, built on the caller's stack and released at
// the end of the call (its destructor frees what it owns). What the routes
// write is made from it on first use and kept for the other routes of the
// call: its text formatted in its own code set, that text converted into the
// other one (UTF-8 and the local code page), the format parsed with its
// arguments, and the local time text. The prolog counts as built once
// prolog.handle is set.
struct zar_svc_record {
  // Only what tells "not built yet" is cleared; buildProlog fills the rest.
  zar_svc_record() {
    prolog.handle = nullptr;
    prolog.format = nullptr;
    prolog.xml = 0;
  }
  ~zar_svc_record();
  zar_svc_record(const zar_svc_record&) = delete;
  zar_svc_record& operator=(const zar_svc_record&) = delete;

  // A saved message: its text already formatted (not owned; null for an
  // unknown message or an empty text) and no format.
  void useSavedText(char* text, int32_t length) {
    text_ = text;
    textLength_ = length;
    textMade_ = true;
    saved_ = true;
  }
  bool saved() const { return saved_; }
  const char* savedText() const { return saved_ ? text_ : nullptr; }
  // Takes a message text as the prolog's format: the record's own format
  // buffer, or an owned block.
  void ownFormat(char* format) {
    prolog.format = format;
    formatOwned_ = format != nullptr && format != formatBuffer_;
  }
  // Where a message text that fits is copied, to be taken by ownFormat.
  char* formatBuffer() { return formatBuffer_; }
  static constexpr size_t kFormatBufferSize = 256;

  // The code set of the text and its string arguments, and the other one
  // (UTF-8 for a local text, else the local code page).
  nlz_cs_t sourceCs();
  nlz_cs_t otherCs();
  // The text in its own code set: the saved text, or the format formatted
  // with args; null (length 0) when there is none, it is empty or cannot be
  // formatted.
  const char* text(va_list args, size_t* length);
  // The text converted into the other code set; null (length 0) when it
  // cannot be had.
  const char* convertedText(va_list args, size_t* length);
  // The format parsed with args for rendering in code set cs; null when it
  // cannot be parsed. Kept for the next call with the same code set.
  zar::format::Context* parsed(va_list args, nlz_cs_t cs) ZAR_REQUIRES(zar::svc::gSvc.mutex);
  // The local time text of prolog.t ("" when it cannot be made), and its
  // length once it is made.
  const char* timeText() ZAR_REQUIRES(zar::svc::gSvc.mutex);
  size_t timeTextLength() const { return timeLength_; }

  bool utf8Source = false;       // text and string arguments are UTF-8 (else the local code set)
  bool dynamicGetsArgs = false;  // route types get the format and its arguments (else
                                 // "%s" and the converted text)
  zar_svc_prolog prolog;

 private:
  bool saved_ = false;
  bool formatOwned_ = false;
  bool codeSetsMade_ = false;
  nlz_cs_t sourceCs_ = nullptr;
  nlz_cs_t otherCs_ = nullptr;
  bool textMade_ = false;
  char* text_ = nullptr;  // owned unless saved_
  size_t textLength_ = 0;
  bool convertedMade_ = false;
  char* converted_ = nullptr;
  size_t convertedLength_ = 0;
  nlz_cs_t parsedCs_ = nullptr;
  int parseState_ = 0;  // 0 not yet, 1 parsed_ is live, -1 the format is bad
  zar::format::Context parsed_;
  bool timeMade_ = false;
  char timeText_[50];
  size_t timeLength_ = 0;
  char formatBuffer_[kFormatBufferSize];
};

namespace zar::svc {

// Message texts and code sets as the printer needs them (svcmsg.cc).
// messageText: the text of msgid in the local code set (catalog of the
// user's locale, else the compiled table, else "Unknown message number"), in
// buf when it fits in its cap bytes, else a new block; null only when memory
// is short. messageTextUtf8: the catalog
// text in UTF-8, else a copy of the compiled text, else null.
char* messageText(uint32_t msgid, char* buf, size_t cap);
char* messageTextUtf8(uint32_t msgid);
// The calling thread's local code page and the UTF-8 code set (either may be
// null when it cannot be made).
nlz_cs_t localCodePage();
nlz_cs_t utf8CodeSet();
// Technology tag ("kp", "dce", "???") and component name ("wsc") of a code.
void techTag(uint32_t code, char tag[4]);
void componentName(uint32_t code, char name[4]);

// Fills the prolog of a severity message (and the record's code sets and
// message text). cs non-null: the text is UTF-8 from the catalog, else the
// compiled text; null: the local text of zar_msg_get_msg.
void buildProlog(zar_svc_record* record, zar_svc_handle handle, zar_codeset_t cs, const char* file,
                 int line, const char* argtypes, uint32_t subcomp, uint32_t attributes,
                 uint32_t msgid) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// The program name of a record (32 bytes): the one set, or "PID#" and the
// process id.
void copyProgname(char* out) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Writes the record to every route of list, in order, as each route's kind
// needs; GOESTO routes continue with the list they name (a list already
// visited in this call is skipped). buildProlog is called through the given
// builder the first time a route writes.
using PrologBuilder = void (*)(zar_svc_record* record, void* context);
void writeRoutes(zar_svc_record* record, svc_route_list* list, PrologBuilder build,
                 void* buildContext, va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Formats fmt with a fresh copy of args in code set cs into a new text
// (length in *length); null (length 0) when it cannot be formatted, would be
// empty, or memory is short.
char* localSprintf(nlz_cs_t cs, const char* fmt, int32_t* length, va_list args);

// The body of zar_svc_printf_withfile.
void printMessage(zar_svc_handle handle, const char* file, int line, const char* argtypes,
               uint32_t subcomp, uint32_t attributes, uint32_t msgid, ...)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);

}  // namespace zar::svc

// ---- Internal steps ---------------------------------------------------------------------

extern "C" {
// Registration (svcreg.cc).
void zar_svc__init_mutex(void);
void zar_svc__cleanup_mutex(void) ZAR_RELEASE(zar::svc::gSvc.mutex);  // releases it for this thread
bool zar_svc__add_to_table(zar_svc_handle handle, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
zar_svc_handle zar_svc__component_to_handle(const char* name) ZAR_REQUIRES(zar::svc::gSvc.mutex);
zar_svc_handle zar_svc__table_to_handle(zar_svc_subcomp* table) ZAR_REQUIRES(zar::svc::gSvc.mutex);
unsigned long zar_svc__mapthreadid(const pthread_t* thread);
// Closes every severity list and debug list.
void zar_svc__shutdown(void) ZAR_EXCLUDES(zar::svc::gSvc.mutex);

// Routing (svcroute.cc).
void zar_svc__open_routes(svc_route_list* list, zar::svc::RouteKind fallback, const char* routes,
                          unsigned long* status) ZAR_REQUIRES(zar::svc::gSvc.mutex);
void zar_svc__fillin(uint32_t attributes, unsigned long* status) ZAR_REQUIRES(zar::svc::gSvc.mutex);
svc_route** zar_svc__goesto(const char* name, int32_t* count) ZAR_REQUIRES(zar::svc::gSvc.mutex);
char* zar_svc__linefor(const char* name);  // caller frees
const char* zar_svc__get(const char* name) ZAR_REQUIRES(zar::svc::gSvc.mutex);
void zar_svc__store(const char* text, int32_t kind, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
bool checkWildCardLogRoute(const char* value);
bool checkWildCardTraceRoute(const char* value);

// The sinks (svcsink.cc): closes every route of list (the list is left
// empty; the routes stay in gSvc.routebase).
void zar_svc__close_routes(svc_route_list* list) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Log files and fork (svcfile.cc).
pid_t zar_svc__get_pid(void);
void zar_svc__register_fork_handler_once(void);

// Dynamic routes (svcdynroute.cc). Open, print and close run their callback
// without the dynamic-route lock; announce and denounce take the mutex.
void zar__svc_dyn_route_open(const char* name, const char* where, svc_dyn_route** target,
                             void** routeData, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
void zar__svc_dyn_route_print2(svc_dyn_route* target, void* routeData, zar_svc_prolog* prolog,
                               ...);
void zar__svc_dyn_route_print(svc_dyn_route* target, void* routeData, zar_svc_prolog* prolog,
                              va_list args);
void zar__svc_dyn_route_close(svc_dyn_route* target, void* routeData)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
void zar_svc__routing_announce(const char* name, unsigned long* status)
    ZAR_EXCLUDES(zar::svc::gSvc.mutex);
void zar_svc__routing_denounce(const char* name, unsigned long* status)
    ZAR_EXCLUDES(zar::svc::gSvc.mutex);

// Message save (svcsave.cc). The destructor of the thread-specific slot.
void zar_svc_msgsave_destructor(void* state);

// Debug levels (svcdbglevel.cc). Applies a level list to a handle; fills in a
// handle's debug settings, true when settled.
void zar_svc__really_debug_set_levels(zar_svc_handle handle, const char* levels, int callbacks,
                                      unsigned long* status) ZAR_REQUIRES(zar::svc::gSvc.mutex);
bool zar_svc__debug_fillin(zar_svc_handle handle, unsigned long* status)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
}

namespace zar::svc {

// ---- Sinks --------------------------------------------------------------------------
//
// What the routes of one kind do, the same four steps for every kind; a
// step a kind has no use for is null. Each kind's steps are declared
// ZAR_REQUIRES(gSvc.mutex): they run inside a print call or a close.
struct Sink {
  // Gets the route ready before a record: opens its log file, or the next
  // one when the file is full. A destination that cannot be had turns the
  // route into its fallback kind.
  void (*open)(svc_route* route);
  // Writes one record (its prolog built) in the kind's form.
  void (*write)(svc_route* route, zar_svc_record* record, va_list args);
  // Hands on what stdio holds for the destination (before fork).
  void (*flush)(svc_route* route);
  // Lets the destination go when the route's list is closed.
  void (*close)(svc_route* route);
  // GOESTO only: the list the walk continues with, in place of the rest of
  // this one (null: none).
  svc_route_list* (*continueWith)(svc_route* route);
};

constexpr int kNumRouteKinds = kRouteXmlStderr + 1;
extern const Sink kSinks[kNumRouteKinds];
inline const Sink& sinkOf(RouteKind kind) { return kSinks[kind]; }

// The log-file steps of the file kinds (svcfile.cc).
void openLogRoute(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex);
void flushLogRoute(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex);
void closeLogRoute(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex);

}  // namespace zar::svc

namespace zar::svc {
// The dynamic-route lock across fork: taken (after the mutex) before fork,
// released after it in parent and child.
void dynRouteForkPrepare();
void dynRouteForkRelease();

// The calling thread's message save when it is active, else null; saves the
// record (its prolog built) and says whether it is still to be routed.
struct MsgSaveState;
MsgSaveState* activeMsgSave();
bool doSaveMsg(MsgSaveState* state, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);

// Attaches a new file route to the record of its file (made when there is
// none) and sets the record up from the element when the route is its only
// one. gens and limit are null when the element had no .GENS.LIMIT. Returns
// false with status 0x106521F4 when memory is short (nothing attached).
bool attachFileRoute(svc_route* route, const char* name, const char* where, const char* gens,
                     const char* limit, const char* mode, const char* user, const char* group,
                     unsigned long* status) ZAR_REQUIRES(zar::svc::gSvc.mutex);
void archiveLogFile(svc_file_route* record) ZAR_REQUIRES(zar::svc::gSvc.mutex);
}  // namespace zar::svc

#endif  // ZAR_CORE_SVCUTL_SVCINT_H_
