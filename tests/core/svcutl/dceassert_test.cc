// Assertions: a failed internal check is a FATAL record, then abort.
#include "core/svcutl/dceassert.h"

#include <signal.h>
#include <stdlib.h>

#include "core/svcutl/svcint.h"
#include "tests/testutil/testutil.h"

namespace {

class DceAssert : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The record's text, with the failed expression, is in the "bas" catalog.
    setenv("NLSPATH", (zar::test::buildDir() + "/nls/msg/C/%N").c_str(), 1);
    unsigned long st = 0;
    zar_svc_init(0, &st);
  }
};

TEST_F(DceAssert, AFailedCheckIsAFatalRecordThenAnAbort) {
  // Without a handle: the component "dce", sub-component "assert".
  EXPECT_EXIT(zar___assert(nullptr, "x != 0", "core/svcutl/svcroute", 99),
              ::testing::KilledBySignal(SIGABRT),
              "0x106521FA PID#[0-9]+ FATAL dce assert dceassert 54 0x[0-9a-f]+\n"
              "[^\n]*x != 0[^\n]*core/svcutl/svcroute[^\n]*99");
  // With the handle of another component: its sub-component of index 0.
  EXPECT_EXIT(zar___assert(zarsv_deploy_svc_handle, "ok", "f.c", 1),
              ::testing::KilledBySignal(SIGABRT), "FATAL wsd deploy dceassert 54");
  // A check inside routing, with the serviceability mutex held (a saved
  // setting must have a ':'), reports without a deadlock.
  EXPECT_EXIT(
      {
        zar::svc::SvcLock lock;
        unsigned long st = 0;
        zar_svc__store("no separator", 0, &st);
      },
      ::testing::KilledBySignal(SIGABRT),
      "FATAL dce assert dceassert 54 .*\n[^\n]*strchr\\(text, SVC_SEP_CHAR\\) != NULL");
}

int gDceRegistrations = 0;
int gFiltered = 0;
int dropAll(zar_svc_prolog*, va_list) {
  ++gFiltered;
  return 0;
}
void onRegister(const char* name, zar_svc_subcomp* table) {
  if (strcmp(name, "dce") != 0) return;
  ++gDceRegistrations;
  // Runs under the mutex: the handle is looked up without taking it again.
  zar_svc__table_to_handle(table)->filter = dropAll;
}

TEST_F(DceAssert, TheDceComponentIsRegisteredOnceAndAFilterCanKeepTheProcess) {
  int status = zar::test::runInChild([] {
    unsigned long st = 0;
    zar_svc_register_callbacks(onRegister, nullptr, nullptr, &st);
    zar___assert(nullptr, "first", "a.c", 1);
    zar___assert(nullptr, "second", "a.c", 2);
    return gDceRegistrations == 1 && gFiltered == 2 ? 0 : 1;
  });
  EXPECT_EQ(0, zar::test::exitCode(status));
}

}  // namespace
