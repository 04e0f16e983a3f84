// Component registration: the component map, callback sets, the program
// name, severity names and the product's components.
#include <string.h>

#include <string>
#include <vector>

#include "core/svcutl/svcint.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using zar::test::exitCode;
using zar::test::runInChild;

zar_svc_subcomp gTable[] = {{"main", "main part", 0, 0}, {"net", "network", 0, 0}, {}};

std::vector<std::string>& events() {
  static std::vector<std::string> e;
  return e;
}
void onRegister(const char* comp, zar_svc_subcomp* table) {
  events().push_back(std::string("reg ") + comp + (table == gTable ? " gTable" : " other"));
}
void onUnregister(const char* comp, zar_svc_subcomp* table) {
  events().push_back(std::string("unreg ") + comp + (table == gTable ? " gTable" : " other"));
}
void onRegisterLate(const char* comp, zar_svc_subcomp*) {
  events().push_back(std::string("late ") + comp);
}

zar_svc_handle lookUp(const char* name) {
  zar::svc::SvcLock lock;
  return zar_svc__component_to_handle(name);
}

TEST(SvcRegister, HandleIsFoundByNameAndTableUntilUnregistered) {
  unsigned long st = 1;
  zar_svc_handle h = zar_svc_register(gTable, "rga", &st);
  ASSERT_ZAR_OK(st);
  ASSERT_NE(nullptr, h);
  EXPECT_STREQ("rga", h->component);
  EXPECT_EQ(2u, h->table_size);
  EXPECT_EQ(1, h->allocated);
  EXPECT_EQ(h, lookUp("rga"));
  {
    zar::svc::SvcLock lock;
    EXPECT_EQ(h, zar_svc__table_to_handle(gTable));
  }
  // A second registration of the name gives a second handle; the first
  // stays the one found by name.
  zar_svc_handle h2 = zar_svc_register(gTable, "rga", &st);
  ASSERT_NE(nullptr, h2);
  EXPECT_NE(h, h2);
  EXPECT_EQ(h, lookUp("rga"));
  zar_svc_unregister(h, &st);
  ASSERT_ZAR_OK(st);
  EXPECT_EQ(h2, lookUp("rga"));
  zar_svc_unregister(h2, &st);
  EXPECT_EQ(nullptr, lookUp("rga"));
  zar_svc_unregister(nullptr, &st);
  EXPECT_ZAR_OK(st);
}

TEST(SvcRegister, CallbacksAreToldInOrderAndOnlyOfLaterComponents) {
  events().clear();
  unsigned long st = 1;
  zar_svc_register_callbacks(onRegister, onUnregister, nullptr, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle a = zar_svc_register(gTable, "rgb", &st);
  zar_svc_register_callbacks(onRegisterLate, nullptr, nullptr, &st);
  zar_svc_handle b = zar_svc_register(nullptr, "rgc", &st);
  zar_svc_unregister(a, &st);
  zar_svc_unregister(b, &st);
  EXPECT_EQ((std::vector<std::string>{"reg rgb gTable", "reg rgc other", "late rgc",
                                      "unreg rgb gTable", "unreg rgc other"}),
            events());

  zar_svc_unregister_callbacks(onRegister, onUnregister, nullptr, &st);
  EXPECT_ZAR_OK(st);
  zar_svc_unregister_callbacks(onRegister, onUnregister, nullptr, &st);  // twice
  EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_SUCH_CALLBACKS, st);
  zar_svc_unregister_callbacks(onRegisterLate, nullptr, nullptr, &st);
  EXPECT_ZAR_OK(st);
  events().clear();
  zar_svc_handle c = zar_svc_register(gTable, "rgd", &st);
  zar_svc_unregister(c, &st);
  EXPECT_TRUE(events().empty());
}

TEST(SvcRegister, BadArgumentsAndAllocationFailureLeaveTheMapUnchanged) {
  unsigned long st = 0;
  EXPECT_EQ(nullptr, zar_svc_register(gTable, nullptr, &st));
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  // Each of the three allocations of a registration (handle, name, map slot).
  for (long k = 1; k <= 3; ++k) {
    zar_svc_handle h;
    {
      zar::test::FaultPlan plan(zar::fault::Op::kAlloc, k);
      h = zar_svc_register(gTable, "rge", &st);
    }
    EXPECT_EQ(nullptr, h) << "allocation " << k;
    EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
    EXPECT_EQ(nullptr, lookUp("rge"));
  }
  zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1);
  zar_svc_register_callbacks(onRegister, nullptr, nullptr, &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_NO_MEMORY, st);
}

TEST(SvcRegister, FirstProgramNameWinsAndIsCutTo31Bytes) {
  int rc = runInChild([] {
    if (zar_svc_get_progname()[0] != '\0') return 1;
    unsigned long st = 1;
    zar_svc_set_progname("0123456789012345678901234567890123456789", &st);
    if (st != 0 || strcmp(zar_svc_get_progname(), "0123456789012345678901234567890") != 0)
      return 2;
    zar_svc_set_progname("other", &st);
    return strcmp(zar_svc_get_progname(), "0123456789012345678901234567890") == 0 ? 0 : 3;
  });
  EXPECT_EQ(0, exitCode(rc));
}

TEST(SvcRegister, SeverityNamesOfAttributeWords) {
  const struct {
    uint32_t attributes;
    const char* name;  // null: the word names nothing
  } kCases[] = {{0x10, "FATAL"},   {0x50, "NOTICE_VERBOSE"}, {0x3, "DEBUG3"},
                {0x39, "DEBUG9"},  {0x1020, "ERROR"},        {0x0, nullptr},
                {0x60, nullptr},   {0xA, nullptr},           {0x1F0, nullptr}};
  for (const auto& c : kCases) EXPECT_STREQ(c.name, zar_svc_inq_sev_name(c.attributes)) << c.attributes;
}

TEST(SvcInit, RegistersTheProductComponentsOnce) {
  unsigned long st = 1;
  zar_svc_init(0, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle client = zarsv_client_svc_handle;
  ASSERT_NE(nullptr, client);
  EXPECT_STREQ("wsc", client->component);
  EXPECT_EQ(zarsv_client_svc_table, client->table);
  zar_svc_handle deploy = lookUp("wsd");
  ASSERT_EQ(zarsv_deploy_svc_handle, deploy);
  ASSERT_EQ(6u, deploy->table_size);
  EXPECT_STREQ("srvshlib", deploy->table[5].name);
  EXPECT_EQ(0x38C53FD7u, deploy->table[5].description_id);
  EXPECT_EQ(zarsv_if_svc_handle, lookUp("wsi"));
  EXPECT_EQ(2u, zarsv_if_svc_handle->table_size);
  zar_svc_init(0, &st);
  EXPECT_ZAR_OK(st);
  EXPECT_EQ(client, zarsv_client_svc_handle);
}

TEST(SvcTranslate, DescriptionsComeFromTheCatalogOfTheFirstId) {
  // Component "tst" (code 0x79A3) of technology 3: catalog kptst.cat.
  zar::test::TempDir dir;
  ASSERT_TRUE(zar::test::makeCatalog(dir.file("kptst.cat"),
                                     {{1, "Hauptteil"}, {2, "Netzwerk"}}));
  zar::test::ScopedEnv nlspath("NLSPATH", dir.path() + "/%N");
  zar::test::ScopedEnv noxpg("SVC_NOXPGCAT", std::nullopt);
  static zar_svc_subcomp table[] = {{"main", "main part", 0x379A3001, 0},
                                    {"plain", "no id", 0, 0},
                                    {"net", "network", 0x379A3002, 0},
                                    {"gone", "not in the catalog", 0x379A3009, 0},
                                    {}};
  unsigned long st = 1;
  zar_svc_handle h = zar_svc_register(table, "tst", &st);
  ASSERT_NE(nullptr, h);
  zar_svc__translate(h, &st);
  EXPECT_ZAR_OK(st);
  EXPECT_STREQ("Hauptteil", table[0].description);
  EXPECT_STREQ("no id", table[1].description);
  EXPECT_STREQ("Netzwerk", table[2].description);
  EXPECT_STREQ("not in the catalog", table[3].description);
  EXPECT_EQ(1, h->translated);
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
