// Component registration: statuses and failed allocations, callback sets and
// severity names.

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using namespace zar::test;
using Strings = std::vector<std::string>;

zar_svc_subcomp gTable[] = {{"main", "main part", 0, 0}, {"net", "network", 0, 0}, {}};
Strings gEvents;

void onRegister(const char* comp, zar_svc_subcomp* table) {
  gEvents.push_back(std::string("reg ") + comp + (table == gTable ? " gTable" : " other"));
}
void onUnregister(const char* comp, zar_svc_subcomp* table) {
  gEvents.push_back(std::string("unreg ") + comp + (table == gTable ? " gTable" : " other"));
}
void onRegisterLate(const char* comp, zar_svc_subcomp*) {
  gEvents.push_back(std::string("late ") + comp);
}

// A null name and each allocation of a registration (handle, name, map slot)
// fail; a second registration of a name is a handle of its own.
TEST(SvcRegister, StatusesAndFailedAllocations) {
  unsigned long st = 1;
  zar_svc_handle h = zar_svc_register(gTable, "rga", &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(2u, h->table_size);
  EXPECT_STREQ("rga", h->component);
  zar_svc_handle h2 = zar_svc_register(gTable, "rga", &st);
  EXPECT_NE(h, h2);
  for (zar_svc_handle one : {h, h2, static_cast<zar_svc_handle>(nullptr)}) {
    zar_svc_unregister(one, &st);
    EXPECT_ZAR_OK(st);
  }
  EXPECT_EQ(nullptr, zar_svc_register(gTable, nullptr, &st));
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  for (long k = 1; k <= 3; ++k) {
    FaultPlan plan(zar::fault::Op::kAlloc, k);
    EXPECT_EQ(nullptr, zar_svc_register(gTable, "rge", &st)) << k;
    EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
  }
}

TEST(SvcRegister, CallbacksAreToldInOrderAndOnlyOfLaterComponents) {
  unsigned long st = 1;
  zar_svc_register_callbacks(onRegister, onUnregister, nullptr, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle a = zar_svc_register(gTable, "rgb", &st);
  zar_svc_register_callbacks(onRegisterLate, nullptr, nullptr, &st);
  zar_svc_handle b = zar_svc_register(nullptr, "rgc", &st);
  zar_svc_unregister(a, &st);
  zar_svc_unregister(b, &st);
  EXPECT_EQ((Strings{"reg rgb gTable", "reg rgc other", "late rgc", "unreg rgb gTable",
                     "unreg rgc other"}),
            gEvents);
  zar_svc_unregister_callbacks(onRegister, onUnregister, nullptr, &st);
  EXPECT_ZAR_OK(st);
  zar_svc_unregister_callbacks(onRegister, onUnregister, nullptr, &st);  // twice
  EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_SUCH_CALLBACKS, st);
  FaultPlan plan(zar::fault::Op::kAlloc, 1);
  zar_svc_register_callbacks(onRegister, nullptr, nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
}

TEST(SvcRegister, SeverityNames) {
  const std::pair<uint32_t, const char*> kNames[] = {
      // null: the word names nothing
      {0x10, "FATAL"}, {0x50, "NOTICE_VERBOSE"}, {0x39, "DEBUG9"}, {0x1020, "ERROR"},
      {0x0, nullptr},  {0x60, nullptr},          {0xA, nullptr}};
  for (const auto& [attributes, name] : kNames)
    EXPECT_STREQ(name, zar_svc_inq_sev_name(attributes)) << attributes;
}

}  // namespace
