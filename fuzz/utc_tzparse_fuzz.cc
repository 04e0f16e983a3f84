// Fuzz target for the POSIX rule-string reader: any text either builds a
// zone whose invariants hold or is refused; the last-ditch reading of the
// same text always builds a one-type zone named after at most 100 bytes of it.
// Daylight-saving names without rules are tried against the system's rules
// zone and against EST5EDT, whose single standard and daylight offsets let
// the shifting of its transitions run.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "core/svcutl/utczone.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zar::utc;
  std::string text(reinterpret_cast<const char*>(data), size);  // cut at the first NUL below
  ZoneData* zd = new ZoneData();
  for (const char* rules : {kRulesZone, "EST5EDT"}) {
    if (tzparse(zd, text.c_str(), false, rules) == 0) {
      if (!zoneIsValid(*zd)) abort();
      for (int i = 0; i < zd->timecnt; ++i) lookupType(*zd, zd->ats[i]);
      lookupType(*zd, 0);
    }
  }
  if (tzparse(zd, text.c_str(), true) != 0 || !zoneIsValid(*zd) || zd->typecnt != 1 ||
      zd->timecnt != 0 || zd->ttis[0].utOffset != 0 ||
      strncmp(zd->chars, text.c_str(), 100) != 0 || strlen(zd->chars) > 100) {
    abort();
  }
  delete zd;
  return 0;
}
