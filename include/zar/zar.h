/*
 * libzar: the whole C API.
 *
 * Include this header, or only the family headers you need. Conventions that
 * hold for every family:
 * - Status codes are unsigned 32-bit numbers (zar/status.h); 0 is success.
 *   Each function says where its status goes (an out-parameter, a record
 *   field or the result) and of which type.
 * - Memory: texts returned by the get-message and asprintf functions are
 *   allocated for the caller and freed with free(3) or the family's own free
 *   function; texts of catalogs and compiled tables returned by pointer belong
 *   to the library.
 * - A null pointer where the function documents an optional output means
 *   "not wanted"; other null arguments give a status, never a crash.
 * - Every function is safe to call from any thread unless its header says
 *   otherwise. The library has no threads of its own.
 */
#ifndef ZAR_ZAR_H
#define ZAR_ZAR_H

#include "zar/export.h"
#include "zar/status.h"
#include "zar/nls.h"
#include "zar/msg.h"
#include "zar/svc.h"
#include "zar/collect.h"
#include "zar/printf.h"
#include "zar/msgprintf.h"
#include "zar/msginit.h"
#include "zar/stanza.h"
#include "zar/uuid.h"
#include "zar/paths.h"
#include "zar/file.h"
#include "zar/thread.h"
#include "zar/util.h"
#include "zar/utc.h"

#endif /* ZAR_ZAR_H */
