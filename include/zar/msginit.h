/*
 * libzar: message initialisation of a process.
 *
 * A program calls zarmsg_init once from its main thread, before other
 * threads use the library: it sets the locale from the environment, puts the
 * product's catalog directory in front of NLSPATH, records the program name
 * for message prefixes and registers the product's three components with
 * their message tables.
 *
 * Conventions of this header:
 * - Ownership: a text from zarmsg_get_utf8_locale_msg with *allocated 1 is
 *   the caller's (release it with zarmsg_free); with *allocated 0 it is the
 *   library's.
 * - Status: zarmsg_init_catalog writes a status code (zar/status.h) into
 *   *status (32-bit); zarmsg_get_utf8_locale_msg into *status (unsigned
 *   long, low 32 bits). Null status pointers mean "not wanted".
 */
#ifndef ZAR_MSGINIT_H
#define ZAR_MSGINIT_H

#include <stdint.h>

#include "zar/export.h"
#include "zar/msg.h"
#include "zar/svc.h"

ZAR_EXTERN_C_BEGIN

/* Initialises the process's messages (see above); ident is the program name
 * (for the system log and the message prefix), utf8 non-zero makes UTF-8 the
 * default code set of formatted output, zero the local code page.
 * Returns 1, or 0 when the program name or a component could not be set up
 * (with a message on standard error and in the system log). A later call
 * returns 1 at once. Problems with NLSPATH are reported ("Cannot initialize
 * NLSPATH.") but do not fail the call. */
ZAR_API int zarmsg_init(const char* ident, int utf8);

/* Registers the message table (count entries) and then the component table
 * under name, storing the new handle in *handle. *status receives the first
 * failure, or 0. */
ZAR_API void zarmsg_init_catalog(const char* name, zar_svc_subcomp* table,
                                 const zar_msg_entry* messages, uint32_t count,
                                 zar_svc_handle* handle, uint32_t* status);

/* The text of message id in the named locale (null: the thread's locale),
 * in UTF-8: from that locale's catalogs unless the locale is "C", else (or
 * when the catalogs have none) the compiled text of the tables. *allocated tells whether the text is the caller's. Null (status
 * from the table lookup) when there is no text at all. */
ZAR_API const char* zarmsg_get_utf8_locale_msg(uint32_t id, const char* locale, int* allocated,
                                               unsigned long* status);

/* Releases a text returned to the caller (null is ignored). */
ZAR_API void zarmsg_free(const char* text);

/* Nothing to do: kept for programs that pair it with zarmsg_init. */
ZAR_API void zarmsg_shutdown(void);

ZAR_EXTERN_C_END

#endif /* ZAR_MSGINIT_H */
