// Compiled and registered tables, texts of status codes from the built
// catalogs and the tables, and error texts.
#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <random>

#include "core/svcutl/msgint.h"
#include "platform/nlz.h"
#include "tests/testutil/catalogs.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace {

using zar::test::hexStatus;
using zar::test::withStatus;
using Texts = std::vector<std::string>;

constexpr char kNoCatalogs[] = "/nowhere/%N";
constexpr char kNoMemory[] = "XKJSC0151E   Memory could not be allocated.";
constexpr char kNoMemoryDe[] = "XKJSC0151E   Es konnte kein Speicher zugeordnet werden.";

// Runs fn in a child whose NLSPATH (null: the built catalogs), locale and
// SVC_NOXPGCAT are set first: the message subsystem reads them once per process.
Texts inChild(const char* nlspath, const char* locale, const std::function<Texts()>& fn,
              const char* noxpgcat = nullptr) {
  const std::string built = zar::test::buildDir() + "/nls/msg/%L/%N";
  return zar::test::childTexts([&]() -> Texts {
    setenv("NLSPATH", nlspath != nullptr ? nlspath : built.c_str(), 1);
    if (noxpgcat != nullptr) setenv("SVC_NOXPGCAT", noxpgcat, 1);
    if (setlocale(LC_ALL, locale) == nullptr) return {"no locale"};
    return fn();
  });
}

std::string getMsg(uint32_t code, bool utf8 = false) {
  unsigned long st = 1;
  char* text = utf8 ? zar_msg_get_msg_utf8(code, &st) : zar_msg_get_msg(code, &st);
  std::string s = withStatus(text, st);
  free(text);
  return s;
}
std::string defaultMsg(uint32_t code) {
  unsigned long st = 1;
  const char* text = zar_msg_get_default_msg(code, &st);
  return withStatus(text, st);
}
std::string errText(uint32_t code, bool utf8 = false) {
  zar_error_string_t buf;
  int st = 5;
  (utf8 ? zar_error_inq_text_utf8 : zar_error_inq_text)(code, buf, &st);
  return st == 0 ? buf : buf + (" #" + std::to_string(st));
}

// Each compiled table is sorted by code between its bounds, and the default
// lookup finds every entry in place (no copy).
TEST(CompiledTables, AreSortedAndEveryEntryIsFound) {
  for (const zar_msg_table& t : zar_msg_g_compiled_table) {
    ASSERT_LT(10u, t.count);
    EXPECT_EQ(t.lowest, t.entries[0].code);
    EXPECT_EQ(t.highest, t.entries[t.count - 1].code);
    for (uint32_t k = 0; k < t.count; ++k) {
      unsigned long st = 1;
      EXPECT_TRUE(k == 0 || t.entries[k - 1].code < t.entries[k].code) << k;
      EXPECT_EQ(t.entries[k].text, zar_msg_get_default_msg(t.entries[k].code, &st));
      EXPECT_ZAR_OK(st);
    }
  }
}

// Texts of the compiled tables, misses, and tables defined later.
TEST(DefaultLookup, KnownTextsMissesAndLaterTables) {
  const std::string kMiss = "<null> #" + hexStatus(ZAR_S_MSG_NOT_IN_TABLES);
  EXPECT_EQ((Texts{kNoMemory, "kpweb.srv.srvshlib", kMiss, kMiss}),
            (Texts{defaultMsg(0x38C52097), defaultMsg(0x38C53FD7),
                   defaultMsg(0x38C52095),  // below the client table
                   defaultMsg(0)}));        // 0x10652209, which only the catalogs have
  // A table defined later comes behind the compiled ones; an empty one never
  // matches. (In a child: defining starts the message subsystem, which reads
  // its environment once per process.)
  EXPECT_EQ((Texts{"<null> #" + hexStatus(ZAR_S_MSG_NO_MEMORY), kMiss, "<null>", "one", "three",
                   kMiss, kNoMemory}),
            zar::test::childTexts([&] {
              static const zar_msg_entry mine[] = {
                  {0x38C52097, "shadowed"}, {0x7A000003, "three"}, {0x7A000001, "one"}};
              unsigned long st = 1;
              {
                zar::test::FaultPlan plan(zar::fault::Op::kAlloc, 1, true);
                zar_msg_define_msg_table(mine, 3, &st);
              }
              Texts t = {withStatus(nullptr, st), defaultMsg(0x7A000001)};
              zar_msg_define_msg_table(mine, 0, &st);
              zar_msg_define_msg_table(mine, 3, &st);
              t.insert(t.end(), {withStatus(nullptr, st), defaultMsg(0x7A000001),
                                 defaultMsg(0x7A000003), defaultMsg(0x7A000002),
                                 defaultMsg(0x38C52097)});
              return t;
            }));
}

TEST(GetMsg, TablesCatalogsInTheLocalesCodeSetAndUnknownTexts) {
  const std::string kNotInTables = " #" + hexStatus(ZAR_S_MSG_NOT_IN_TABLES);
  EXPECT_EQ((Texts{"XKJSC0150E   An SSL toolkit failure occurred while calling %s. Error: %s.",
                   "Unknown message number 0x12345678" + kNotInTables,
                   "Unknown message number 0x00000000" + kNotInTables}),
            inChild(kNoCatalogs, "C", [] {
              return Texts{getMsg(0x38C52096), getMsg(0x12345678), getMsg(0)};
            }));
  // "ausgeführt": Latin-1 in the locale's code set, UTF-8 through the _utf8 form.
  EXPECT_EQ((Texts{kNoMemoryDe, "Die Operation wurde erfolgreich ausgef\xfchrt.",
                   "Die Operation wurde erfolgreich ausgef\xc3\xbchrt."}),
            inChild(nullptr, "de_DE.ISO-8859-1",
                    [] { return Texts{getMsg(0x38C52097), getMsg(0), getMsg(0, true)}; }));
  EXPECT_EQ(Texts{"Memory could not be allocated for a message text or a message table."},
            inChild(nullptr, "C", [] { return Texts{getMsg(ZAR_S_MSG_NO_MEMORY)}; }));
  // SVC_NOXPGCAT switches the catalogs off for the plain lookup, not for UTF-8.
  EXPECT_EQ((Texts{kNoMemory, kNoMemoryDe}),
            inChild(nullptr, "de_DE.UTF-8",
                    [] { return Texts{getMsg(0x38C52097), getMsg(0x38C52097, true)}; }, "1"));
}

TEST(ErrorText, FormsWithAndWithoutText) {
  EXPECT_EQ((Texts{kNoMemory + std::string(" (kp / wsc)"), "status 0x10652209 (dce / bas) #-1",
                   "status 0x10652209 (kp / bas) #-1", "status 0x40001234 #-1"}),
            inChild(kNoCatalogs, "C", [] {
              zar_error_string_t buf;
              zar_error_inq_text(0x38C52097, buf, nullptr);  // status not wanted
              return Texts{errText(0x38C52097), errText(0), errText(0, true), errText(0x40001234)};
            }));
}

// Any 32-bit code gives a terminated text; long texts are cut at whole characters.
TEST(ErrorText, AnyCodeAndLongTextsStayInBounds) {
  EXPECT_EQ(Texts{"ok"}, inChild(nullptr, "de_DE.UTF-8", [] {
              static std::string longText;
              for (int i = 0; i < 700; ++i) longText += "\xc3\xa4";  // 1400 bytes of "ä"
              static const zar_msg_entry table[] = {{0x7B000001, longText.c_str()}};
              unsigned long mst;
              zar_msg_define_msg_table(table, 1, &mst);
              zar_error_string_t buf;
              int st;
              zar_error_inq_text(0x7B000001, buf, &st);
              size_t len = strlen(buf);
              char out[2048];
              if (st != 0 || len > 1023 || len < 1020 || len % 2 != 0 ||
                  nlz_to_utf8(nlz_cs_shared("UTF-8"), buf, static_cast<int>(len), out, 2048) < 0)
                return Texts{"cut: " + std::to_string(len)};
              std::mt19937 rng(42);
              for (int i = 0; i < 3000; ++i) {
                uint32_t code = i < 16 ? (static_cast<uint32_t>(i) << 28) | 0x0FA00FFF : rng();
                for (auto* fn : {zar_error_inq_text, zar_error_inq_text_utf8}) {
                  memset(buf, 'Z', sizeof buf);
                  fn(code, buf, &st);
                  if (memchr(buf, '\0', sizeof buf) == nullptr) return Texts{hexStatus(code)};
                }
              }
              return Texts{"ok"};
            }));
}

}  // namespace
