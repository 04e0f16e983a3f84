// Internal consistency checks of the library.
//
// ZAR_ASSERT(handle, cond) reports a failed condition as a FATAL
// serviceability message (status 0x106521FA with the expression, the source
// file and the line as arguments) and aborts the process. handle may be null;
// the assertion component "dce" is then used. The check is always compiled in:
// these are conditions whose failure would corrupt state.
#ifndef ZAR_CORE_SVCUTL_DCEASSERT_H_
#define ZAR_CORE_SVCUTL_DCEASSERT_H_

#include "zar/export.h"  // ZAR_EXTERN_C_BEGIN

struct zar_svc_handle_s;

ZAR_EXTERN_C_BEGIN
// Prints the assertion record and aborts, unless a filter callback of the
// handle suppresses the message (then it returns).
void zar___assert(struct zar_svc_handle_s* handle, const char* expr, const char* file,
                          int line);
ZAR_EXTERN_C_END

#define ZAR_ASSERT(handle, cond, file) \
  ((cond) ? (void)0 : zar___assert((handle), #cond, (file), __LINE__))

#endif  // ZAR_CORE_SVCUTL_DCEASSERT_H_
