// Internal consistency checks: a failed check is a FATAL record that aborts
// the process.
#include "core/svcutl/dceassert.h"

#include <pthread.h>

#include "core/svcutl/svcint.h"

namespace {

constexpr const char* kRecordFile = "core/svcutl/dceassert";
// Assertion records show this module and this line; the failing check's own
// file and line are arguments of the message.
constexpr int kRecordLine = 54;
// "%s%s%d": the expression, the file and the line of the failing check.
constexpr uint32_t kAssertMessage = 0x106521FA;
constexpr uint32_t kAssertAttributes = svc_c_sev_fatal | svc_c_action_abort;

// The component of checks that have no handle of their own: registered once,
// at the first such failure, and never unregistered. handle is set once,
// inside once; the table belongs to the serviceability after registration.
struct AssertState {
  pthread_once_t once;
  zar_svc_handle handle;
  zar_svc_subcomp table[2];
};
AssertState gAssert = {PTHREAD_ONCE_INIT,
                       nullptr,
                       {{"assert", "DCE assertion failures", 0, 0}, {nullptr, nullptr, 0, 0}}};

void registerAssertComponent() {
  zar::svc::SvcLockUnlessHeld lock;
  unsigned long st = 0;
  gAssert.handle = zar::svc::registerHandle(gAssert.table, "dce", &st);
}

}  // namespace

extern "C" void zar___assert(struct zar_svc_handle_s* handle, const char* expr, const char* file,
                             int line) {
  if (handle == nullptr) {
    pthread_once(&gAssert.once, registerAssertComponent);
    handle = gAssert.handle;
  }
  // A check inside the serviceability fails with the mutex held; its record
  // is printed without taking it again.
  zar::svc::SvcLockUnlessHeld lock;
  zar::svc::printMessage(handle, kRecordFile, kRecordLine, "%s%s%d", 0, kAssertAttributes,
                         kAssertMessage, expr, file, line);
}
