/*
 * libzar: message texts by status code, message catalogs and error texts.
 *
 * Conventions of this header:
 * - A status code (zar/status.h) names a message: technology, component and
 *   message number. Its text comes from the XPG catalog of the user's locale
 *   or, failing that, from the message tables compiled into the library or
 *   registered with zar_msg_define_msg_table.
 * - Status: functions write a status code into the low 32 bits of their last
 *   argument, an unsigned long (null: not wanted); the error-text functions
 *   use a signed int set to -1 at entry and to 0 when a text was found.
 * - Memory: texts returned by zar_msg_get_msg, zar_msg_get_msg_utf8 and
 *   zar_msg_get_locale_cat_msg are allocated for the caller, who frees them
 *   with free(3). Texts returned by zar_msg_get_default_msg belong to the
 *   tables and live for the process. A text returned by zar_msg_cat_get_msg
 *   stays valid until zar_msg_cat_close of its catalog handle; one returned
 *   by zar_msg_get_cat_msg stays valid for the life of the process.
 * - Every function is safe from any thread. Tables are defined at start-up,
 *   before concurrent lookups.
 * - Environment: SVC_NOXPGCAT=1 switches the catalog lookups of
 *   zar_msg_get_msg off; KPSVC_DEBUG_MSG (any value) makes every catalog open
 *   write three diagnostic lines to standard error. Both are read once, at
 *   the first call of any function of this header.
 */
#ifndef ZAR_MSG_H
#define ZAR_MSG_H

#include <stdint.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* One message of a message table: a full status code and its text, a
 * printf-style format in the local code set. */
typedef struct zar_msg_entry {
  uint32_t code;
  const char* text;
} zar_msg_entry;

/* One registered message table. */
typedef struct zar_msg_table {
  const zar_msg_entry* entries; /* not owned */
  uint32_t count;
  uint32_t lowest;  /* smallest code among the entries */
  uint32_t highest; /* largest code among the entries */
} zar_msg_table;

/* The longest error text, terminator included, that the error-text
 * functions write. */
#define ZAR_ERROR_STRING_LEN 1024
typedef char zar_error_string_t[ZAR_ERROR_STRING_LEN];

/* Sizes of the product's compiled message tables. */
#define ZAR_MSG_CLIENT_TABLE_COUNT 114
#define ZAR_MSG_DEPLOY_TABLE_COUNT 864
#define ZAR_MSG_IF_TABLE_COUNT 100

/* The product's message tables (client "wsc", deploy "wsd", interface
 * "wsi"), sorted by status code. */
ZAR_API extern const zar_msg_entry zarsv_client_svc_g_table[ZAR_MSG_CLIENT_TABLE_COUNT];
ZAR_API extern const zar_msg_entry zarsv_deploy_svc_g_table[ZAR_MSG_DEPLOY_TABLE_COUNT];
ZAR_API extern const zar_msg_entry zarsv_if_svc_g_table[ZAR_MSG_IF_TABLE_COUNT];

/*
 * Registers one more message table behind those already registered (the
 * compiled tables come first; an earlier table wins for a code both hold).
 * The entries are not copied and must live for the process.
 * Status: 0, or 0x10652203 when memory is short (nothing registered).
 */
ZAR_API void zar_msg_define_msg_table(const zar_msg_entry* entries, uint32_t count,
                                      unsigned long* status);

/*
 * The text of code in the registered tables (0 stands for 0x10652209), not a
 * copy; null with status 0x10652204 when no table holds it. Takes no lock.
 */
ZAR_API const char* zar_msg_get_default_msg(uint32_t code, unsigned long* status);

/*
 * A new copy of the text of code: from the catalog of the user's locale in
 * the local code set, else from the tables, else "Unknown message number
 * 0x%8.8lx" filled with code (status then 0x10652204 or a catalog status).
 * Null with 0x10652203 when the copy cannot be allocated.
 */
ZAR_API char* zar_msg_get_msg(uint32_t code, unsigned long* status);

/*
 * As zar_msg_get_msg, but the catalog text is asked in UTF-8 (whatever the
 * locale's code set) and SVC_NOXPGCAT does not switch it off. A text from
 * the tables is returned as it is.
 */
ZAR_API char* zar_msg_get_msg_utf8(uint32_t code, unsigned long* status);

/*
 * Writes a printable description of code into buffer: "TEXT (TAG / COMP)"
 * when a text was found (status 0), else "status 0x%8.8lx (TAG / COMP)"
 * (status -1). Codes of technologies 4 and 5 are described from their
 * numbered catalog. At most ZAR_ERROR_STRING_LEN bytes are written, always
 * terminated; a longer text is cut at a character boundary. status may be
 * null. REQUIRES: buffer holds ZAR_ERROR_STRING_LEN bytes.
 */
ZAR_API void zar_error_inq_text(uint32_t code, char* buffer, int* status);
/* As zar_error_inq_text with the text in UTF-8, and the tag "dce" shown as
 * "kp". */
ZAR_API void zar_error_inq_text_utf8(uint32_t code, char* buffer, int* status);

/* ---- Catalogs ---------------------------------------------------------- */

/* An opened catalog, as kept in the library's cache. */
typedef struct zar_msg_cat_s* zar_msg_cat_handle_t;

/*
 * The catalog of code's component for the user's locale ("kpwsc.cat" for
 * technology 3 component wsc; "kpbbas.cat", else "dcebas.cat", for
 * technology 1; "dce%6.6lx.cat" of code >> 14 for technologies 4 and 5).
 * Null with 0x10652207 (permission), 0x10652208 (no such catalog),
 * 0x10652206 (other failure) or 0x10652203 (memory). Release with
 * zar_msg_cat_close.
 */
ZAR_API zar_msg_cat_handle_t zar_msg_cat_open(uint32_t code, unsigned long* status);
/* The text of code in an opened catalog, or null with 0x10652205. On
 * success the status is left as it was. */
ZAR_API const char* zar_msg_cat_get_msg(zar_msg_cat_handle_t catalog, uint32_t code,
                                        unsigned long* status);
/* Releases the handle (status 0); the catalog itself stays cached. Null is
 * accepted. */
ZAR_API void zar_msg_cat_close(zar_msg_cat_handle_t catalog, unsigned long* status);

/*
 * The text of code (0 stands for 0x10652209) in its catalog for the user's
 * locale and local code set, or null (0x10652205 when there is none or
 * SVC_NOXPGCAT switches catalogs off, or an open status as above).
 */
ZAR_API const char* zar_msg_get_cat_msg(uint32_t code, unsigned long* status);

/*
 * A new copy of the text of code in its catalog for locale (null: the
 * thread's current locale) converted into the code set named csName (null:
 * no conversion; "UTF8" for UTF-8). openType 0 to 4 narrows the search from
 * the strictest (0: the locale's own catalogs, on NLSPATH only) to the
 * broadest (4: language and English catalogs and the installed catalog
 * directory too). Null with status 0 for code 0, 0x106521FA for an open type
 * above 4, 0x10652206 for an unknown code set, 0x10652205 when there is no
 * text, or an open status.
 */
ZAR_API char* zar_msg_get_locale_cat_msg(uint32_t code, const char* locale, const char* csName,
                                         int openType, unsigned long* status);

ZAR_EXTERN_C_END

#endif /* ZAR_MSG_H */
