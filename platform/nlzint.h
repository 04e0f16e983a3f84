// Internals shared by the sources of the internationalisation layer only.
#ifndef ZAR_PLATFORM_NLZINT_H_
#define ZAR_PLATFORM_NLZINT_H_

#include "platform/nlz.h"

// The LC_MESSAGES locale name of a locale object ("C" for null).
const char* nlzLocMessagesName(nlz_loc_t loc);

#endif  // ZAR_PLATFORM_NLZINT_H_
