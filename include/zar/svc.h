/*
 * libzar: serviceability — components, severity messages and their routes.
 *
 * A program registers a component (a short name and a table of its
 * sub-components) and gets a handle; every message names that handle, a
 * sub-component index, an attribute word (severity and action bits) and a
 * status code whose text is the message's printf format. The library writes
 * each message to the routes configured for its severity: standard streams,
 * text, UTF-8 or XML log files, other route lists, or nowhere.
 *
 * Conventions of this header:
 * - Status: functions with a status argument write it through a pointer to
 *   unsigned long; the low 32 bits receive the code (zar/status.h), the rest
 *   is 0; 0 is success. A null status pointer means "not wanted".
 * - Print calls return nothing: a message that cannot be printed is lost.
 *   A null handle makes a print call do nothing.
 * - Ownership: handles belong to the library from registration to
 *   unregistration. A sub-component table belongs to the caller, who keeps it
 *   alive and writable for as long as any handle made from it exists (the
 *   library writes descriptions and debug levels into it).
 * - Threads: every function may be called from any thread. Registration
 *   callbacks, handle filters, route-type callbacks and level-change
 *   callbacks (except those of zar_svc_debug_routing) run while the library
 *   holds its serviceability mutex; they must not call the functions of this header
 *   that take it (all of them except zar_svc_register2, zar_svc_init with
 *   ZAR_SVC_INIT_MUTEX_HELD, zar_svc_get_progname and zar_svc_inq_sev_name).
 * - Fork: the library holds its mutex across fork(2); a child of fork gets
 *   its own TEXTFILE log files when their names contain the process id.
 */
#ifndef ZAR_SVC_H
#define ZAR_SVC_H

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>

#include "zar/export.h"
#include "zar/nls.h"
#include "zar/utc.h"

/* ---- The attribute word --------------------------------------------------
 * Bits 0-3: debug level 1 to 9 (0 for a severity message).
 * Bits 4-8: severity 1 to 5 (values below), read as (attr & 0x1F0) >> 4.
 * Action and routing bits may be or-ed into a severity message's word. */
#define svc_c_sev_fatal 0x00000010U
#define svc_c_sev_error 0x00000020U
#define svc_c_sev_warning 0x00000030U
#define svc_c_sev_notice 0x00000040U
#define svc_c_sev_notice_verbose 0x00000050U
#define svc_c_sev_mask 0x000001F0U   /* the severity bits */
#define svc_c_debug_mask 0x0000000FU /* the debug-level bits */

#define svc_c_debug1 0x00000001U
#define svc_c_debug2 0x00000002U
#define svc_c_debug3 0x00000003U
#define svc_c_debug4 0x00000004U
#define svc_c_debug5 0x00000005U
#define svc_c_debug6 0x00000006U
#define svc_c_debug7 0x00000007U
#define svc_c_debug8 0x00000008U
#define svc_c_debug9 0x00000009U

#define svc_c_action_abort 0x00001000U    /* abort() after the record is written */
#define svc_c_action_exit_bad 0x00002000U /* exit(1) after the record is written */
#define svc_c_action_exit_ok 0x00004000U  /* exit(0) after the record is written */
#define svc_c_action_brief 0x00008000U    /* the message text without the record prefix */
#define svc_c_route_stderr 0x00010000U    /* also write the record to standard error */
#define svc_c_route_nolog 0x00020000U     /* do not use the severity's routes */

/* Magic of zar_svc_init: the caller already holds the serviceability mutex. */
#define ZAR_SVC_INIT_MUTEX_HELD 0x1C0FFEEUL

ZAR_EXTERN_C_BEGIN

/* ---- Types ----------------------------------------------------------------- */

/* One entry of a sub-component table. A table is an array of these ended by
 * an entry whose name is null; print calls name a sub-component by its index
 * in the table (the first entry is index 0). */
typedef struct zar_svc_subcomp_s {
  const char* name;        /* e.g. "core" */
  const char* description; /* one line */
  uint32_t description_id; /* status code of the description's text, 0 for none */
  uint32_t level;          /* low 4 bits: the sub-component's current debug level, 0-9 */
} zar_svc_subcomp;

/* One route of a route list; its contents are private to the library. */
struct zar_svc_route_s;

/* A route list: the routes that receive the messages of one severity, or the
 * debug messages of one component, in order. Read-only for callers. */
typedef struct zar_svc_route_list_s {
  int32_t count;                   /* routes in use */
  int32_t capacity;                /* slots allocated */
  struct zar_svc_route_s** routes; /* capacity slots, count of them in use */
} svc_route_list;

/* What one print call knows of its message: handed to filters (and to the
 * routes an application registers). Read-only for them; valid during the
 * call only. */
typedef struct zar_svc_prolog_s {
  struct zar_svc_handle_s* handle; /* the component's handle */
  int version;                     /* 1 */
  utc_t t;                         /* when the message was printed */
  const char* argtypes;            /* the caller's argument types, e.g. "%s%d" */
  uint32_t table_index;            /* sub-component index */
  uint32_t attributes;             /* the attribute word */
  uint32_t message_index;          /* the message id (status code); 0 for debug messages */
  const char* format;              /* the message's text (its printf format), or null */
  const char* file;                /* the caller's source file (last path component) */
  char progname[32];               /* program name, or "PID#" and the process id */
  int line;                        /* the caller's source line */
  pthread_t thread_id;             /* the printing thread */
  uint8_t xml;                     /* set while an XML record is being written */
} zar_svc_prolog;

/* A handle's message filter: called for every message printed through the
 * zar_svc_*printf* functions on that handle, before routing, with the
 * message's prolog and its arguments. Returning 0 suppresses the message and
 * its abort or exit action. Runs with the serviceability mutex held. */
typedef int (*zar_svc_filter_fn)(zar_svc_prolog* prolog, va_list args);

/* A serviceability handle, as registration makes it. Callers read it and may
 * set the filter (before the handle is used from other threads); every other
 * field belongs to the library and changes only under its mutex. */
struct zar_svc_handle_s {
  char* component;              /* owned copy of the component name */
  zar_svc_subcomp* table;       /* the caller's table, not owned */
  uint8_t debug_filled;         /* debug levels and routes have been settled */
  uint8_t translated;           /* reserved, always 0 */
  uint8_t allocated;            /* made by registration; unregistration frees it */
  uint8_t in_map;               /* listed in the component map */
  uint32_t table_size;          /* entries of table before its terminator */
  svc_route_list debug_routes;  /* routes of the component's debug messages */
  zar_svc_filter_fn filter;     /* null, or the message filter */
};
typedef struct zar_svc_handle_s* zar_svc_handle;

/* Callbacks told of registrations (component name and table), of
 * unregistrations (the same), and of debug-level changes (component name,
 * sub-component name, description id and the new level). Each may be null.
 * They run with the serviceability mutex held. */
typedef void (*zar_svc_register_fn)(const char* component, zar_svc_subcomp* table);
typedef void (*zar_svc_level_fn)(const char* component, const char* subcomp,
                                 uint32_t description_id, uint32_t level);

/* ---- Registration ----------------------------------------------------------- */

/* Registers a component and returns its new handle, or null with the status
 * 0x106521F4 (no memory) or 0x106521F7 (null component name). table may be
 * null (a component without sub-components prints nothing). Registering a
 * name twice gives two handles; lookups by name find the first. Tells every
 * register callback. */
ZAR_API zar_svc_handle zar_svc_register(zar_svc_subcomp* table, const char* component,
                                        unsigned long* status);

/* As zar_svc_register, for a caller that already holds the serviceability
 * mutex: a registration or level-change callback.
 * REQUIRES: the calling thread is inside such a callback. */
ZAR_API zar_svc_handle zar_svc_register2(zar_svc_subcomp* table, const char* component,
                                         unsigned long* status);

/* Closes the handle's debug routes, tells the unregister callbacks, removes
 * the handle from the component map and frees it. A null handle is ignored.
 * The status is always 0. The handle must not be used afterwards. */
ZAR_API void zar_svc_unregister(zar_svc_handle handle, unsigned long* status);

/* Registers the product's three components ("wsc", "wsd", "wsi") whose handle
 * variables (below) are still null, stopping at the first failure (whose
 * status it leaves). A second call changes nothing. magic
 * ZAR_SVC_INIT_MUTEX_HELD is for callers that hold the mutex (callbacks). */
ZAR_API void zar_svc_init(unsigned long magic, unsigned long* status);

/* Adds a callback set (any member may be null); status 0 or 0x106521F4. Sets
 * added later are not told of components registered earlier. */
ZAR_API void zar_svc_register_callbacks(zar_svc_register_fn on_register,
                                        zar_svc_register_fn on_unregister,
                                        zar_svc_level_fn on_level, unsigned long* status);
/* Removes the first set equal in all three members; 0x106521F9 when none is. */
ZAR_API void zar_svc_unregister_callbacks(zar_svc_register_fn on_register,
                                          zar_svc_register_fn on_unregister,
                                          zar_svc_level_fn on_level, unsigned long* status);

/* Sets the program name shown in every record (at most 31 bytes are kept).
 * The first name set wins; later calls change nothing. Status always 0.
 * Until a name is set, records show "PID#" and the process id. */
ZAR_API void zar_svc_set_progname(const char* name, unsigned long* status);
/* The program name (a 32-byte buffer of the library; empty until set). */
ZAR_API const char* zar_svc_get_progname(void);

/* The name of the attribute's debug level ("DEBUG1" to "DEBUG9") when its
 * level bits are non-zero, else of its severity ("FATAL", "ERROR", "WARNING",
 * "NOTICE", "NOTICE_VERBOSE"). Null when the word names neither a debug level
 * 1 to 9 nor a severity 1 to 5. The text is constant. */
ZAR_API const char* zar_svc_inq_sev_name(uint32_t attributes);

/* Destroys the serviceability mutex and its thread-specific key. Nothing of
 * this header may be called afterwards; meant for the very end of a process
 * (for example before unloading the library). */
ZAR_API void zar_svc_shutdown(void);

/* ---- Routing ------------------------------------------------------------------
 * A route string is one or more elements separated by ';':
 *   KIND[.GENS.LIMIT]:WHERE[:MODE[:USER[:GROUP]]]
 * KIND is STDOUT, STDERR, XMLSTDOUT, XMLSTDERR, DISCARD, TEXTFILE (or FILE),
 * UTF8FILE, XMLFILE or GOESTO; WHERE is the log file name (a printf format
 * given the process id, so "%d" becomes the pid), or for GOESTO the name of a
 * severity or a component. See docs/serviceability.md. */

/* Replaces the routes of one severity: setting is "SEVERITY:ROUTES",
 * where SEVERITY is a severity name or a prefix of one ("WARN"), or "*" for
 * all five. The setting is remembered for the life of the process and wins
 * over the SVC_* variables and the routing file. Status 0, 0x106521F7 (bad
 * route string, no such severity) or 0x106521F4 (no memory). Files that
 * cannot be opened make their routes write to standard error instead. */
ZAR_API void zar_svc_routing(const char* setting, unsigned long* status);

/* Where the routes of name come from, as the library would fill them in now:
 * for a severity name (ERROR ...) its route string; for any other name (a
 * component) its debug setting "LEVELS:ROUTES". The sources are tried in the
 * library's order: a setting saved by zar_svc_routing or the debug calls,
 * the environment (SVC_<SEVERITY>, SVC_<COMPONENT>_DBG without its leading
 * "component:"), the routing file, the built-in default (severities only).
 * Returns the source; *spec receives a copy of the text (free() it), or NULL
 * for ZAR_SVC_SOURCE_NONE. Status 0, 0x106521F7 (no name) or 0x106521F4.
 * Reads the routing file; takes the serviceability mutex briefly. */
#define ZAR_SVC_SOURCE_NONE 0
#define ZAR_SVC_SOURCE_SAVED 1
#define ZAR_SVC_SOURCE_ENVIRONMENT 2
#define ZAR_SVC_SOURCE_FILE 3
#define ZAR_SVC_SOURCE_DEFAULT 4
ZAR_API int zar_svc_inq_routing(const char* name, char** spec, unsigned long* status);

/* ---- Route types registered at run time -------------------------------------------
 * A program adds destinations of its own: a route type is a name and three
 * callbacks. A route element whose kind word is that name ("COUNTER:warnings"
 * in a route string) becomes a route of that type: it is opened through the
 * open callback with the element's WHERE text, every record routed to it is
 * handed to the print callback, and closing the route calls the close
 * callback. Elements naming a type that is not registered wait as their
 * fallback kind (standard error or nowhere) and are taken over when the type
 * is added; routes of a type that is removed write to standard error again
 * (a component's debug routes: nowhere) and are taken over when a type of
 * the same name is added later.
 *
 * All three callbacks run while the library holds its serviceability mutex
 * (they are reached from routing, printing and closing routes), so they must
 * not call the functions of this header that take it. They run without the
 * library's route-type lock. Opens of one type run one at a time; a close
 * waits for running prints of its type. A thread cancelled inside a callback
 * leaves every lock released and every count right. */

/* Opens one route: where is the element's WHERE text (possibly empty). Store
 * the route's own data in *route_data and set *opened to non-zero when the
 * route is open; left 0, the route keeps its fallback kind. */
typedef void (*zar_svc_route_open_fn)(const char* name, const char* where, void* arg,
                                      void** route_data, int32_t* opened);
/* Writes one record: prolog describes it; its format (the message's text, or
 * "%s" with the formatted text as the one argument) is the format of args. */
typedef void (*zar_svc_route_print_fn)(void* arg, void* route_data, zar_svc_prolog* prolog,
                                       va_list args);
/* Closes one route (route_data as its open stored it); called once with null
 * route_data when the type is removed while routes still use it. *status is
 * not looked at. */
typedef void (*zar_svc_route_close_fn)(const char* name, void* arg, void* route_data,
                                       unsigned long* status);

/* Registers a route type named name with the context argument arg (handed
 * to every callback) and takes over the waiting routes that name it. name
 * must be a non-empty word without ':', ';' or '.' that is not one of the
 * kind words above (STDOUT, STDERR, XMLSTDOUT, XMLSTDERR, DISCARD, TEXTFILE,
 * FILE, UTF8FILE, XMLFILE, GOESTO; compared case-sensitively), and open and
 * print must be non-null; close may be null. A name registered already keeps
 * its first callbacks (status 0). Status 0, 0x106521F7 (bad name or
 * callbacks), 0x106521F4 (no memory) or 0x1354A1C8 (the route-type lock
 * cannot be had). */
ZAR_API void zar_svc_add_route(const char* name, void* arg, zar_svc_route_open_fn open,
                               zar_svc_route_print_fn print, zar_svc_route_close_fn close,
                               unsigned long* status);

/* Removes the route type called name: waits until no open, print or close
 * callback of it runs, calls its close callback once with null route data
 * when routes still use it, and lets those routes fall back. Later records
 * never reach its callbacks. Status 0, 0x106521F7 (no such type) or
 * 0x1354A1C8. REQUIRES: not called from one of the type's own callbacks. */
ZAR_API void zar_svc_remove_route(const char* name, unsigned long* status);

/* ---- Message save ------------------------------------------------------------------
 * A thread holds back its severity messages: from zar_svc_msgsave_start on,
 * every severity message the thread prints is also kept, fully formatted, in
 * a list of the thread's own, and in mode 0 not routed (nor acted on: no
 * abort or exit). The list is printed through the normal routes, cleared, or
 * kept; it is freed when the thread ends. Debug messages are never saved. */

/* Starts (or restarts, keeping the list) saving. selector must be below 32
 * (it is reserved: every severity message is saved); mode 0 saves only, 1
 * saves and prints; reserved must be null. Returns 0, 0x1065220A (bad
 * argument; nothing changes) or 0x10652203 (no memory for the thread's
 * state). */
ZAR_API unsigned long zar_svc_msgsave_start(uint32_t selector, uint32_t mode, void* reserved);
/* Stops saving; with clear non-zero the saved messages are freed too. */
ZAR_API void zar_svc_msgsave_stop(uint8_t clear);
/* With which -1, frees the thread's saved messages; other values do nothing. */
ZAR_API void zar_svc_msgsave_clear(int which);
/* With which -1, writes every saved message, oldest first, to the routes of
 * its severity as they are now, with the time and source position of the
 * call that saved it; the list is kept and no action is taken. Messages of a
 * component unregistered since are skipped. Other values do nothing. On XML
 * routes a saved message has its Id and Severity from its text and no Param
 * lines. */
ZAR_API void zar_svc_msgsave_print(int which);

/* ---- Debug messages ----------------------------------------------------------------
 * Trace messages of a component: a printf format and its arguments, a
 * sub-component index and a level 1 to 9. A message is printed when the
 * sub-component's current level (the low 4 bits of its table entry's level
 * word) is at least the message's level, and it goes to the component's
 * debug routes. Both are settled the first time they are needed: from a
 * setting made by zar_svc_debug_routing (or zar_svc_debug_set_levels), else
 * from the variable SVC_<COMPONENT>_DBG (the component name in upper case),
 * else from the component's line of the routing file; with none of them the
 * component's debug messages go nowhere. A level 0 or above 9, or a
 * sub-component index beyond the table, prints nothing. Debug messages are
 * not filtered, not saved, never abort or exit. The file shown is the one
 * given, directories included ("?" and line 0 without one). */
ZAR_API void zar_svc__debug(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                            const char* format, ...);
ZAR_API void zar_svc__vdebug(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                             const char* format, va_list args);
ZAR_API void zar_svc__debug_withfile(zar_svc_handle handle, const char* file, int line,
                                     uint32_t subcomp, uint32_t level, const char* format, ...);
/* The format and its string arguments are UTF-8: text routes receive the
 * record in the local code set, UTF-8 and XML routes as it is. */
ZAR_API void zar_svc__debug_utf8(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                                 const char* format, ...);
ZAR_API void zar_svc__debug_utf8_withfile(zar_svc_handle handle, const char* file, int line,
                                          uint32_t subcomp, uint32_t level, const char* format,
                                          ...);

/* The current debug level of sub-component subcomp, settling the
 * component's debug settings first (as the first debug message would); 0
 * when they cannot be settled or subcomp is beyond the table. For testing a
 * level before building costly arguments. Each call settles the settings
 * anew (a later SVC_<COMPONENT>_DBG or routing-file line is seen): callers
 * test the handle's debug_filled flag and read the level word once it is set. */
ZAR_API uint32_t zar_svc__debug_fillin2(zar_svc_handle handle, uint32_t subcomp);

/* ---- Debug levels and debug routes ---------------------------------------------------
 * A level list is one or more items separated by ',': SUB.LEVEL, where SUB
 * is a sub-component name (exact) or "*" for all of them and LEVEL a decimal
 * number 0 to 9 (text after its digits is ignored). Items are applied left
 * to right; at a bad item (no '.', no digit, above 9, no such sub-component)
 * the status is 0x106521F7 and the items before it stay applied. Each level
 * set is told to the level-change callbacks (zar_svc_register_callbacks),
 * except by the _nocb forms. Settings are remembered for components
 * registered later. Status 0x106521F4 when memory is short. */

/* setting is "COMPONENT:LEVELS". Sets the levels of a registered component
 * and remembers the setting; the component's routes are untouched. The
 * level-change callbacks run with the serviceability mutex held. */
ZAR_API void zar_svc_debug_set_levels(const char* setting, unsigned long* status);
ZAR_API void zar_svc_debug_set_levels_nocb(const char* setting, unsigned long* status);

/* setting is "COMPONENT:LEVELS:ROUTES". Remembers it; for a registered
 * component sets the levels and, when ROUTES is not empty, replaces its debug
 * routes (a log file that cannot be opened writes nowhere). Without the
 * second ':' nothing is applied (status 0). The level-change callbacks run
 * without the serviceability mutex (they may call this header). */
ZAR_API void zar_svc_debug_routing(const char* setting, unsigned long* status);
ZAR_API void zar_svc_debug_routing_nocb(const char* setting, unsigned long* status);

/* ---- Printing -------------------------------------------------------------------
 * Prints the message msgid of the component of handle, sub-component index
 * subcomp, with the attribute word attributes and the variable arguments of
 * the message's text. file and line name the caller's source position (the
 * record shows the file's last path component). argtypes describes the
 * arguments as a string of conversions ("%s%d"); it is handed to filters and
 * routes but the message text is the format. An attribute word that names
 * neither a debug level 1 to 9 nor a severity 1 to 5, or a sub-component index
 * beyond the table, prints nothing and takes no action. */
ZAR_API void zar_svc_printf_withfile(zar_svc_handle handle, const char* file, int line,
                                     const char* argtypes, uint32_t subcomp,
                                     uint32_t attributes, uint32_t msgid, ...);
ZAR_API void zar_svc_vprintf_withfile(zar_svc_handle handle, const char* file, int line,
                                      const char* argtypes, uint32_t subcomp,
                                      uint32_t attributes, uint32_t msgid, va_list args);

/* As zar_svc_printf_withfile, but with cs non-null the message's text comes
 * from the catalog in UTF-8 and the string arguments are UTF-8: text routes
 * receive the record converted to the local code set, UTF-8 and XML routes
 * receive it as it is. cs is only tested for null (null behaves exactly as
 * zar_svc_printf_withfile). */
ZAR_API void zar_svc_printf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                        const char* file, int line, const char* argtypes,
                                        uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                        ...);
ZAR_API void zar_svc_vprintf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                         const char* file, int line, const char* argtypes,
                                         uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                         va_list args);

/* ---- The product's components ---------------------------------------------------
 * Sub-component tables and handles of the client ("wsc"), deploy ("wsd") and
 * interface ("wsi") components. The handles are null until zar_svc_init. */
ZAR_API extern zar_svc_subcomp zarsv_client_svc_table[];
ZAR_API extern zar_svc_subcomp zarsv_deploy_svc_table[];
ZAR_API extern zar_svc_subcomp zarsv_if_svc_table[];
ZAR_API extern zar_svc_handle zarsv_client_svc_handle;
ZAR_API extern zar_svc_handle zarsv_deploy_svc_handle;
ZAR_API extern zar_svc_handle zarsv_if_svc_handle;

ZAR_EXTERN_C_END

#endif /* ZAR_SVC_H */
