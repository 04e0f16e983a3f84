// Fuzz target for the zone-file reader: any bytes either load into a zone
// whose invariants hold and whose lookups stay inside it, or are refused.
#include <stdint.h>
#include <stdlib.h>

#include "core/svcutl/utczone.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zar::utc;
  // The library reads at most this much of a file.
  if (size > kMaxZoneFile) size = kMaxZoneFile;
  ZoneData* zd = new ZoneData();
  if (tzloadBuffer(zd, data, size) == 0) {
    if (!zoneIsValid(*zd)) abort();
    const int64_t probes[] = {INT64_MIN, INT32_MIN, -1, 0, 1, INT32_MAX, INT64_MAX};
    for (int64_t t : probes) lookupType(*zd, t);
    for (int i = 0; i < zd->timecnt; ++i) {
      const ZoneType& tt = lookupType(*zd, zd->ats[i]);
      if (tt.abbrIndex >= zd->charcnt) abort();
    }
  }
  delete zd;
  return 0;
}
