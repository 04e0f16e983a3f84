// Internals of the message texts and catalogs, shared by msgtable.cc,
// msgcat.cc, the generated tables and the serviceability printer.
//
// Process-wide state: zar::msg::gMsg (below); the catalog cache keeps its
// own in msgcat.cc under gMsg.catMutex. Lock order: "Lock order" in
// core/svcutl/svcint.h.
#ifndef ZAR_CORE_SVCUTL_MSGINT_H_
#define ZAR_CORE_SVCUTL_MSGINT_H_

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "base/zarlock.h"
#include "zar/msg.h"
#include "zar/nls.h"

extern "C" {

// The product's three compiled tables (client, deploy, interface), generated
// from messages/*.msg.
extern zar_msg_table zar_msg_g_compiled_table[3];

// The technology tag ("dce", "dfs", "kp", "???"; empty for 4 and 5) and the
// component name of code, each into a 4-byte buffer.
void zar_msg__inq_tech(uint32_t code, char tag[4]);
void zar_msg__inq_comp(uint32_t code, char name[4]);
// Describes a technology 4 or 5 code from its numbered catalog.
void zar__error_inq_isv(uint32_t code, char* buffer, int* status);
// One-time initialisation of the message subsystem (locks, SVC_NOXPGCAT,
// KPSVC_DEBUG_MSG, the UTF-8 handle, the catalog data directory).
void zar_msg__init_mutex(void);
// Release the message lock or the catalog lock (for callers that hold them
// without the guards of base/zarlock.h).
void zar_msg__cleanup_mutex(void);
void zar_msg__cleanup_cat_mutex(void);

}  // extern "C"

namespace zar::msg {

// The message texts' process-wide state.
// Invariants: tables points at zar_msg_g_compiled_table or at a heap array
// of tableCount records; tables are only appended, and a replaced array is
// never freed (lookups read the tables without the lock). A writer stores
// tables before tableCount, a reader loads tableCount before tables, so a
// reader never sees more records than its array holds.
struct MsgState {
  // The catalog cache (msgcat.cc) only; after mutex in the lock order.
  zar::Mutex catMutex = PTHREAD_MUTEX_INITIALIZER;
  // Table changes and every catalog text lookup.
  zar::Mutex mutex ZAR_ACQUIRED_BEFORE(catMutex) = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<const zar_msg_table*> tables{zar_msg_g_compiled_table};  // mutex for writes
  std::atomic<uint32_t> tableCount{3};                                  // mutex for writes
  void* lastBlock ZAR_GUARDED_BY(mutex) = nullptr;  // newest table array block
  pthread_once_t once = PTHREAD_ONCE_INIT;
  bool setup = false;      // set once inside once
  uint32_t noXpgCat = 0;   // SVC_NOXPGCAT; set once inside once
  bool debugMsg = false;   // KPSVC_DEBUG_MSG was set; set once inside once, before ready
  // Set (release) once set-up has succeeded; read by the inline fast path of
  // ensureInit so that a lookup after start-up skips pthread_once.
  std::atomic<bool> ready{false};
};

extern MsgState gMsg;

// Runs zar_msg__init_mutex once; false when it could not initialise.
bool ensureInitSlow();
inline bool ensureInit() {
  return gMsg.ready.load(std::memory_order_acquire) || ensureInitSlow();
}
// KPSVC_DEBUG_MSG was set at initialisation.
inline bool debugCatalogs() { return gMsg.debugMsg; }

// A catalog text copied out under the locks: the current-locale lookup of
// zar_msg_get_cat_msg, but returning a copy so that no pointer into the
// cache escapes: into buf when it fits in its cap bytes, else a new block
// (the caller frees a result other than buf).
char* copyCatalogText(uint32_t code, unsigned long* status, char* buf = nullptr, size_t cap = 0)
    ZAR_REQUIRES(gMsg.mutex);

// The len bytes of text, terminated: in buf when they fit in its cap bytes,
// else in a new block; null with status 0x10652203 when memory is short.
char* copyInto(const char* text, size_t len, char* buf, size_t cap, unsigned long* status);

// zar_msg_get_msg with the same choice of result: buf when the text fits in
// its cap bytes, else a new block (null only when memory is short).
char* getMsgInto(uint32_t code, unsigned long* status, char* buf, size_t cap);

// Copies the longest run of whole characters (of cs; null: the thread's code
// set) of text that fits in max - 1 bytes into out, and terminates it.
void copyCut(char* out, int max, const char* text, zar_codeset_t cs);

}  // namespace zar::msg

#endif  // ZAR_CORE_SVCUTL_MSGINT_H_
