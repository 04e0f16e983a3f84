// Debug messages and levels: the level test, level lists of every shape,
// level-change callbacks, routes kept, replaced or left, GOESTO into and out
// of debug lists. Record forms and where settings come from are logdebug.sh's.

#include "tests/testutil/testutil.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace {

using namespace zar::test;
constexpr uint32_t kBad = ZAR_S_SVC_BAD_ROUTE;

class SvcDebug : public SvcTest {
 protected:
  static void SetUpTestSuite() {
    unsetenv("KP_SVC_ROUTING_FILE");
    SvcTest::SetUpTestSuite();
  }

  void TearDown() override {
    unsigned long st = 0;
    for (zar_svc_handle h : handles_) zar_svc_unregister(h, &st);
  }
  // A component with sub-components main, net and aux (one table for the
  // components of a test), unregistered at the end of the test.
  zar_svc_handle registerComponent(const std::string& name) {
    unsigned long st = 1;
    handles_.push_back(zar_svc_register(table_, name.c_str(), &st));
    EXPECT_ZAR_OK(st);
    return handles_.back();
  }
  zar_svc_subcomp table_[4] = {{"main", "", 0x11, 0}, {"net", "", 0x12, 0}, {"aux", "", 0, 0}, {}};
  std::vector<zar_svc_handle> handles_;
  TempDir dir_;
};

unsigned long call(void (*fn)(const char*, unsigned long*), const std::string& setting) {
  unsigned long st = 1;
  fn(setting.c_str(), &st);
  return st;
}
unsigned long setLevels(const std::string& s) { return call(zar_svc_debug_set_levels_nocb, s); }
unsigned long debugRouting(const std::string& s) { return call(zar_svc_debug_routing_nocb, s); }

TEST_F(SvcDebug, PrintedUpToTheSubComponentsLevel) {
  zar_svc_handle h = registerComponent("frm");
  ASSERT_ZAR_OK(debugRouting("frm:main.5:STDOUT:"));
  // {sub, level}: net is at 0, there is no sub 3, 0x2003 is no level (and never an exit).
  for (auto [sub, level] : std::vector<std::pair<uint32_t, uint32_t>>{
           {0, 6}, {0, 0}, {1, 1}, {3, 1}, {0, 0x2003}}) {
    CaptureFd out(1);
    zar_svc__debug(h, sub, level, "m");
    EXPECT_EQ("", out.text()) << sub << " " << level;
  }
  CaptureFd out(1);
  zar_svc__debug(h, 0, 5, "m");
  EXPECT_NE("", out.text());
  EXPECT_EQ(5u, zar_svc__debug_fillin2(h, 0));
  EXPECT_EQ(0u, zar_svc__debug_fillin2(h, 3));
  EXPECT_EQ(0u, zar_svc__debug_fillin2(nullptr, 0));
}

TEST_F(SvcDebug, LevelListsApplyItemsUpToTheFirstBadOne) {
  registerComponent("ll");
  // Level words afterwards; bits 4 to 7 of a word are kept (aux starts as 0x1F5).
  const struct { const char* list; uint32_t status, main, net, aux; } kCases[] = {
      {"*.9", 0, 9, 9, 0xF9}, {"main.3,net.7", 0, 3, 7, 0x1F5},
      {"main.3,nosuch.7,net.2", kBad, 3, 0, 0x1F5}, {"aux.2", 0, 0, 0, 0xF2},
      {"main.10", kBad, 0, 0, 0x1F5}, {"main.x", kBad, 0, 0, 0x1F5}, {"main", kBad, 0, 0, 0x1F5},
      {"main.5x", 0, 5, 0, 0x1F5}, {"main.09", 0, 9, 0, 0x1F5}, {"main.1,", 0, 1, 0, 0x1F5},
      {",main.1", kBad, 0, 0, 0x1F5}, {"main.1,,net.1", kBad, 1, 0, 0x1F5},
      {".5", kBad, 0, 0, 0x1F5}, {"MAIN.1", kBad, 0, 0, 0x1F5},
      {"main.99999999999999999999", kBad, 0, 0, 0x1F5}, {"", 0, 0, 0, 0x1F5}};
  for (const auto& c : kCases) {
    table_[0].level = table_[1].level = 0;
    table_[2].level = 0x1F5;
    EXPECT_ZAR_STATUS(c.status, setLevels(std::string("ll:") + c.list)) << c.list;
    EXPECT_EQ((std::vector<uint32_t>{c.main, c.net, c.aux}),
              (std::vector<uint32_t>{table_[0].level, table_[1].level, table_[2].level}))
        << c.list;
  }
}

struct LevelEvent {
  std::string component, sub;
  uint32_t descriptionId, level;
  bool operator==(const LevelEvent&) const = default;
};
std::vector<LevelEvent> gEvents;

TEST_F(SvcDebug, LevelChangeCallbacksAndTheLocksTheyRunUnder) {
  auto onLevel = [](const char* component, const char* sub, uint32_t id, uint32_t level) {
    gEvents.push_back({component, sub, id, level});
  };
  unsigned long st = 1;
  zar_svc_register_callbacks(nullptr, nullptr, onLevel, &st);
  ASSERT_ZAR_OK(st);
  zar_svc_handle h = registerComponent("cb");
  ASSERT_ZAR_OK(call(zar_svc_debug_set_levels, "cb:main.2"));
  ASSERT_ZAR_OK(call(zar_svc_debug_routing, "cb:net.3:DISCARD:"));
  ASSERT_ZAR_OK(setLevels("cb:*.4"));       // _nocb: not told
  ASSERT_ZAR_OK(debugRouting("cb:*.5:"));  // likewise
  zar_svc__debug_fillin2(h, 0);  // settling (from the saved "*.5") tells
  EXPECT_EQ((std::vector<LevelEvent>{{"cb", "main", 0x11, 2}, {"cb", "net", 0x12, 3},
                                     {"cb", "main", 0x11, 5}, {"cb", "net", 0x12, 5},
                                     {"cb", "aux", 0, 5}}),
            gEvents);
  zar_svc_unregister_callbacks(nullptr, nullptr, onLevel, &st);
}

TEST_F(SvcDebug, RoutesReplacedKeptOrLeftAndGoesTo) {
  zar_svc_handle h = registerComponent("rt");
  std::string log = dir_.file("rt.log");
  auto lines = [&] { return splitLines(readFile(log)).size(); };
  ASSERT_ZAR_OK(debugRouting("rt:*.2:TEXTFILE:" + log));
  zar_svc__debug(h, 0, 2, "one");
  ASSERT_ZAR_OK(debugRouting("rt:*.1:"));  // levels only
  zar_svc__debug(h, 0, 2, "not printed");
  zar_svc__debug(h, 0, 1, "two");
  ASSERT_ZAR_OK(debugRouting("rt:*.9"));  // no second ':': nothing applied
  zar_svc__debug(h, 0, 2, "not printed either");
  EXPECT_EQ(2u, lines());
  // GOESTO from a severity into the debug list, and from it to a severity.
  unsigned long st = 1;
  zar_svc_routing("WARNING:GOESTO:rt", &st);
  zar_svc_printf_withfile(zarsv_client_svc_handle, "f", 1, "", 0, svc_c_sev_warning, 0x38C52097);
  EXPECT_EQ(3u, lines());
  zar_svc_routing(("ERROR:TEXTFILE:" + log).c_str(), &st);
  ASSERT_ZAR_OK(debugRouting("rt:*.1:GOESTO:ERROR"));
  zar_svc__debug(h, 0, 1, "three");
  EXPECT_EQ(4u, lines());
  // A file that cannot be opened: debug routes set by a call write nowhere.
  ASSERT_ZAR_OK(debugRouting("rt:*.1:TEXTFILE:/nonexistent/dir/x"));
  CaptureFd err(2);
  zar_svc__debug(h, 0, 1, "lost");
  EXPECT_EQ("", err.text());
}

}  // namespace
