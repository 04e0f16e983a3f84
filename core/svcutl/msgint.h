// Internals of the message texts and catalogs, shared by msgtable.cc,
// msgcat.cc, the generated tables and the serviceability printer.
//
// Process-wide state (lock order: "Lock order" in core/svcutl/svcint.h):
// - zar_msg_g_mutex guards the registered tables (zar_msg_g_curr_table,
//   zar_msg_g_table_size) and every text lookup;
// - zar_msgcat_g_mutex guards the catalog cache (msgcat.cc) only.
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
extern const zar_msg_table* zar_msg_g_curr_table;  // guarded by zar_msg_g_mutex
extern uint32_t zar_msg_g_table_size;               // guarded by zar_msg_g_mutex
extern uint32_t zar_msg_g_noxpgcat;                 // set once at initialisation
extern zar::Mutex zar_msgcat_g_mutex;
extern zar::Mutex zar_msg_g_mutex ZAR_ACQUIRED_BEFORE(zar_msgcat_g_mutex);

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

// Set (release) once zar_msg__init_mutex has succeeded; read by the inline
// fast path of ensureInit so that a lookup after start-up skips pthread_once.
extern std::atomic<bool> gReady;
// KPSVC_DEBUG_MSG was set at initialisation; written before gReady.
extern bool gDebugMsg;

// Runs zar_msg__init_mutex once; false when it could not initialise.
bool ensureInitSlow();
inline bool ensureInit() {
  return gReady.load(std::memory_order_acquire) || ensureInitSlow();
}
// KPSVC_DEBUG_MSG was set at initialisation.
inline bool debugCatalogs() { return gDebugMsg; }

// A catalog text copied out under the locks: the current-locale lookup of
// zar_msg_get_cat_msg, but returning a new copy (caller frees) so that no
// pointer into the cache escapes. REQUIRES: zar_msg_g_mutex held.
char* copyCatalogText(uint32_t code, unsigned long* status);

// Copies the longest run of whole characters (of cs; null: the thread's code
// set) of text that fits in max - 1 bytes into out, and terminates it.
void copyCut(char* out, int max, const char* text, zar_codeset_t cs);

}  // namespace zar::msg

#endif  // ZAR_CORE_SVCUTL_MSGINT_H_
