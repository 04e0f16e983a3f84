// The product's components as the library's own modules use them (the tables
// and handle variables themselves are public, in include/zar/svc.h).
#ifndef ZAR_CORE_SVCUTL_SVCPROD_H_
#define ZAR_CORE_SVCUTL_SVCPROD_H_

#include "zar/svc.h"

namespace zar::svc {

// The client component's handle, on which library modules log their errors.
// Registers the product's components first when the program has not
// (zarmsg_init does), so that a report is not lost; null only when that
// registration failed. REQUIRES: the serviceability mutex is not held.
zar_svc_handle clientHandle();

}  // namespace zar::svc

#endif  // ZAR_CORE_SVCUTL_SVCPROD_H_
