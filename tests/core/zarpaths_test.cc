#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/nlz.h"
#include "tests/testutil/testutil.h"
#include "zar/paths.h"

namespace {

using zar::test::ScopedEnv;
using zar::test::TempDir;

// Entry 7 is the internationalisation layer's directory once it has one;
// indexes past the table give null.
TEST(ZarPaths, LayerEntryAndIndexesPastTheTable) {
  const char* dir = nlz_get_dir();
  EXPECT_STREQ(*dir != '\0' ? dir : "/opt/kpsrv/nls/NLZ/", zar_get_path(ZAR_PATH_NLZ_DIR));
  EXPECT_EQ(nullptr, zar_get_path(10));
  EXPECT_EQ(nullptr, zar_get_path(~0u));
}

TEST(ZarPaths, CanonicalizeTidiesInPlace) {
  const struct {
    const char *in, *out;
  } cases[] = {{"  /opt//kpsrv///etc/  ", "/opt/kpsrv/etc"}, {"/", ""}, {"a b ", "a b"},
               {"\t//a\t", "/a"}, {"", ""}, {"   ", ""}, {"a//", "a"}, {"a/ /", "a/ "},
               {"rel/x", "rel/x"}};
  for (const auto& c : cases) {
    std::string buf = c.in;
    zar_canonicalize_path(buf.data());
    EXPECT_STREQ(c.out, buf.c_str()) << '"' << c.in << '"';
  }
  zar_canonicalize_path(nullptr);  // ignored
}

TEST(ZarPaths, LocaleDirIsTheMostSpecificSubdirectory) {
  const auto none = std::nullopt;
  const struct {
    std::optional<std::string> lcAll, lcMessages;
    std::vector<std::string> present;  // entries made under the base
    const char* expected;              // relative to the base; "" is the base itself
  } cases[] = {
      {"", "de_DE", {"de"}, "de"},
      {"de_DE.ISO-8859-1", none, {"de_DE", "de", "C"}, "de_DE"},
      {"de_DE.UTF-8", "fr_FR", {"de", "fr"}, "de"},
      {"fr_FR", none, {"C"}, "C"},
      {"fr_FR", none, {}, ""},
      {"de_AT", none, {"file:de"}, "de"},  // any kind of file counts
      {"fil_PH", none, {"fil"}, "fil"},    // a language of three letters
      {none, none, {"C"}, "C"},            // the process locale: "C"
      {"../x", none, {}, ""},              // a name that is no locale must not lead out of the base
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lcAll.value_or("(unset)") + " " + c.expected);
    TempDir base;
    for (const std::string& name : c.present) {
      if (name == "file:de") {
        zar::test::writeFile(base.file("de"), "not a directory");
      } else {
        ASSERT_EQ(0, mkdir(base.file(name).c_str(), 0755));
      }
    }
    ScopedEnv all("LC_ALL", c.lcAll);
    ScopedEnv messages("LC_MESSAGES", c.lcMessages);
    char* dir = zar_getlocaledir(base.path().c_str());
    ASSERT_NE(nullptr, dir);
    EXPECT_EQ(*c.expected ? base.file(c.expected) : base.path(), dir);
    free(dir);
  }
  EXPECT_EQ(nullptr, zar_getlocaledir(nullptr));
}

}  // namespace
