// Component registration: the component map, callback sets, the program
// name, severity names, the product's components and the descriptions of
// sub-components from a catalog.
#include <string>
#include <vector>

#include "core/svcutl/svcint.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"

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

zar_svc_handle lookUp(const char* name) {
  zar::svc::SvcLock lock;
  return zar_svc__component_to_handle(name);
}

TEST(SvcRegister, HandleIsFoundByNameAndTableUntilUnregistered) {
  unsigned long st = 1;
  zar_svc_handle h = zar_svc_register(gTable, "rga", &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(h, lookUp("rga"));
  {
    zar::svc::SvcLock lock;
    EXPECT_EQ(h, zar_svc__table_to_handle(gTable));
  }
  // A second registration of the name gives a second handle, found by name
  // once the first is gone.
  zar_svc_handle h2 = zar_svc_register(gTable, "rga", &st);
  EXPECT_NE(h, h2);
  EXPECT_EQ(h, lookUp("rga"));
  zar_svc_unregister(h, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(h2, lookUp("rga"));
  zar_svc_unregister(h2, &st);
  EXPECT_EQ(nullptr, lookUp("rga"));
  zar_svc_unregister(nullptr, &st);
  EXPECT_ZAR_OK(st);
  // A null name and each allocation of a registration (handle, name, map
  // slot) fail and leave the map as it was.
  EXPECT_EQ(nullptr, zar_svc_register(gTable, nullptr, &st));
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  for (long k = 1; k <= 3; ++k) {
    FaultPlan plan(zar::fault::Op::kAlloc, k);
    EXPECT_EQ(nullptr, zar_svc_register(gTable, "rge", &st)) << k;
    EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
    EXPECT_EQ(nullptr, lookUp("rge"));
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
  const std::pair<uint32_t, const char*> kNames[] = {  // null: the word names nothing
      {0x10, "FATAL"}, {0x50, "NOTICE_VERBOSE"}, {0x3, "DEBUG3"}, {0x39, "DEBUG9"},
      {0x1020, "ERROR"}, {0x0, nullptr}, {0x60, nullptr}, {0xA, nullptr}, {0x1F0, nullptr}};
  for (const auto& [attributes, name] : kNames)
    EXPECT_STREQ(name, zar_svc_inq_sev_name(attributes)) << attributes;
}

TEST(SvcInit, RegistersTheProductComponentsOnce) {
  unsigned long st = 1;
  zar_svc_init(0, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle client = zarsv_client_svc_handle;
  ASSERT_NE(nullptr, client);
  EXPECT_EQ(client, lookUp("wsc"));
  EXPECT_EQ(zarsv_client_svc_table, client->table);
  zar_svc_handle deploy = lookUp("wsd");
  ASSERT_EQ(zarsv_deploy_svc_handle, deploy);
  ASSERT_EQ(6u, deploy->table_size);
  EXPECT_STREQ("srvshlib", deploy->table[5].name);
  EXPECT_EQ(0x38C53FD7u, deploy->table[5].description_id);
  EXPECT_EQ(zarsv_if_svc_handle, lookUp("wsi"));
  zar_svc_init(0, &st);
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(client, zarsv_client_svc_handle);
}

TEST(SvcTranslate, DescriptionsComeFromTheCatalogOfTheFirstId) {
  // Component "tst" (code 0x79A3) of technology 3: catalog kptst.cat.
  TempDir dir;
  ASSERT_TRUE(makeCatalog(dir.file("kptst.cat"), {{1, "Hauptteil"}, {2, "Netzwerk"}}));
  ScopedEnv nlspath("NLSPATH", dir.path() + "/%N");
  ScopedEnv noxpg("SVC_NOXPGCAT", std::nullopt);
  static zar_svc_subcomp table[] = {{"main", "main part", 0x379A3001, 0},
                                    {"plain", "no id", 0, 0},
                                    {"net", "network", 0x379A3002, 0},
                                    {"gone", "not in the catalog", 0x379A3009, 0},
                                    {}};
  unsigned long st = 1;
  zar_svc_handle h = zar_svc_register(table, "tst", &st);
  zar_svc__translate(h, &st);
  EXPECT_ZAR_OK(st);
  Strings got;
  for (int i = 0; i < 4; ++i) got.push_back(table[i].description);
  EXPECT_EQ((Strings{"Hauptteil", "no id", "Netzwerk", "not in the catalog"}), got);
  // Once per handle: a second call changes nothing.
  free(const_cast<char*>(table[0].description));
  table[0].description = "again";
  zar_svc__translate(h, &st);
  EXPECT_STREQ("again", table[0].description);
  zar_svc_unregister(h, &st);
  // No catalog: the descriptions stay and the status says why.
  static zar_svc_subcomp other[] = {{"x", "kept", 0x379B3001, 0}, {}};
  h = zar_svc_register(other, "tsu", &st);
  zar_svc__translate(h, &st);
  EXPECT_NE(0u, static_cast<uint32_t>(st));
  EXPECT_STREQ("kept", other[0].description);
  zar_svc_unregister(h, &st);
}

}  // namespace
