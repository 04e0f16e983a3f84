// Locale and code-set state of the library, shared by the printer, the
// message lookups and the formatted-output families (public part in
// include/zar/nls.h).
#ifndef ZAR_CORE_SVCUTL_SVCNLS_H_
#define ZAR_CORE_SVCUTL_SVCNLS_H_

#include "zar/nls.h"

// The code-set name of UTF-8 that lookups pass where a name is asked for; a
// lookup given exactly this pointer uses zar_svc_cs_utf8 instead of making a
// handle.
extern const char* const zar_svc_utf8_cs;
// The process-wide UTF-8 handle made by zar_svc_nls_init (null before).
extern zar_codeset_t zar_svc_cs_utf8;

#endif  // ZAR_CORE_SVCUTL_SVCNLS_H_
