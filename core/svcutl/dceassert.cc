#include "core/svcutl/dceassert.h"

#include <stdlib.h>

#include "core/rawlog.h"

// Minimal assertion path used until the serviceability printer reports
// assertions as FATAL records: one raw line on standard error, then abort.
extern "C" void zar___assert(struct zar_svc_handle_s* /*handle*/, const char* expr,
                             const char* file, int line) {
  zar::rawLog("FATAL dce assert: assertion failed: %s (%s, line %d)\n", expr ? expr : "?",
              file ? file : "?", line);
  abort();
}
