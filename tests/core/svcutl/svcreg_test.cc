// Component registration: statuses and failed allocations, callback sets,
// the program name, severity names and the product's components.
#include <string>
#include <vector>

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
  zar_svc_unregister_callbacks(onRegisterLate, nullptr, nullptr, &st);
  gEvents.clear();
  zar_svc_unregister(zar_svc_register(gTable, "rgd", &st), &st);
  EXPECT_EQ(Strings{}, gEvents);
  FaultPlan plan(zar::fault::Op::kAlloc, 1);
  zar_svc_register_callbacks(onRegister, nullptr, nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
}

TEST(SvcRegister, FirstProgramNameWinsAndIsCutTo31BytesAndSeverityNames) {
  EXPECT_EQ(0, exitCode(runInChild([] {
              std::string before = zar_svc_get_progname();
              unsigned long st = 1;
              zar_svc_set_progname("0123456789012345678901234567890123456789", &st);
              zar_svc_set_progname("other", &st);
              std::string now = zar_svc_get_progname();
              return before.empty() && st == 0 && now == "0123456789012345678901234567890" ? 0 : 1;
            })));
  const std::pair<uint32_t, const char*> kNames[] = {
      // null: the word names nothing
      {0x10, "FATAL"},  {0x50, "NOTICE_VERBOSE"}, {0x3, "DEBUG3"},
      {0x39, "DEBUG9"}, {0x1020, "ERROR"},        {0x0, nullptr},
      {0x60, nullptr},  {0xA, nullptr},           {0x1F0, nullptr}};
  for (const auto& [attributes, name] : kNames)
    EXPECT_STREQ(name, zar_svc_inq_sev_name(attributes)) << attributes;
}

TEST(SvcInit, RegistersTheProductComponentsOnce) {
  unsigned long st = 1;
  zar_svc_init(0, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle client = zarsv_client_svc_handle, deploy = zarsv_deploy_svc_handle;
  ASSERT_NE(nullptr, client);
  EXPECT_EQ(zarsv_client_svc_table, client->table);
  EXPECT_STREQ("wsi", zarsv_if_svc_handle->component);
  ASSERT_EQ(6u, deploy->table_size);
  EXPECT_STREQ("srvshlib", deploy->table[5].name);
  EXPECT_EQ(0x38C53FD7u, deploy->table[5].description_id);
  zar_svc_init(0, &st);
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(client, zarsv_client_svc_handle);
}

}  // namespace
