// Assertions: a failed internal check is a FATAL record, then abort.
#include "core/svcutl/dceassert.h"

#include <signal.h>
#include <stdlib.h>

#include "tests/testutil/testutil.h"
#include "zar/svc.h"

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
}

}  // namespace
