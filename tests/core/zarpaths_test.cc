#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/nlz.h"
#include "tests/testutil/testutil.h"
#include "zar/paths.h"

namespace {

using zar::test::ScopedEnv;
using zar::test::TempDir;

TEST(ZarPaths, TableHoldsTheInstallDirectories) {
  const char* expected[] = {"/opt/kpsrv/",      "/opt/kpsrv/bin/", "/opt/kpsrv/etc/",     nullptr,
                            "/opt/kpsrv/sbin/", "/opt/kpsrv/lib/", "/opt/kpsrv/nls/msg/", nullptr,
                            "/var/kpsrv/log/",  "/opt/Brantholm/"};
  for (unsigned i = 0; i < 10; ++i) {
    if (i == ZAR_PATH_NLZ_DIR) continue;
    if (expected[i] == nullptr) {
      EXPECT_EQ(nullptr, zar_get_path(i)) << i;
    } else {
      EXPECT_STREQ(expected[i], zar_get_path(i)) << i;
    }
  }
  EXPECT_EQ(nullptr, zar_get_path(10));
  EXPECT_EQ(nullptr, zar_get_path(~0u));
  // Entry 7 is the internationalisation layer's directory once it has one.
  const char* dir = nlz_get_dir();
  EXPECT_STREQ(*dir != '\0' ? dir : "/opt/kpsrv/nls/NLZ/", zar_get_path(ZAR_PATH_NLZ_DIR));
}

// The table is set up once per process, so this runs in a fresh process:
// the test binary itself, started again for this one case.
TEST(ZarPaths, LayerDirectoryFromTheEnvironmentBecomesEntrySeven) {
  if (getenv("ZAR_TEST_FRESH_PROCESS") != nullptr) {
    EXPECT_STREQ("/srv/nlz-data", zar_get_path(ZAR_PATH_NLZ_DIR));
    return;
  }
  int status = zar::test::runInChild([] {
    setenv("ZAR_TEST_FRESH_PROCESS", "1", 1);
    setenv("QVNLZDIR", "/srv/nlz-data", 1);
    execl("/proc/self/exe", "zarpaths_test",
          "--gtest_filter=ZarPaths.LayerDirectoryFromTheEnvironmentBecomesEntrySeven",
          static_cast<char*>(nullptr));
    return 127;
  });
  EXPECT_EQ(0, zar::test::exitCode(status));
}

struct CanonCase {
  const char* in;
  const char* out;
};

class Canonicalize : public ::testing::TestWithParam<CanonCase> {};

TEST_P(Canonicalize, TidiesInPlace) {
  std::string buf = GetParam().in;
  zar_canonicalize_path(buf.data());
  EXPECT_STREQ(GetParam().out, buf.c_str());
}

INSTANTIATE_TEST_SUITE_P(Table, Canonicalize,
                         ::testing::Values(CanonCase{"  /opt//kpsrv///etc/  ", "/opt/kpsrv/etc"},
                                           CanonCase{"/", ""}, CanonCase{"a b ", "a b"},
                                           CanonCase{"\t//a\t", "/a"}, CanonCase{"", ""},
                                           CanonCase{"   ", ""}, CanonCase{"a//", "a"},
                                           CanonCase{"a/ /", "a/ "}, CanonCase{"rel/x", "rel/x"}));

TEST(CanonicalizeNull, NullIsIgnored) {
  zar_canonicalize_path(nullptr);
}

struct LocaleCase {
  std::optional<std::string> lcAll;
  std::optional<std::string> lcMessages;
  std::vector<std::string> present;  // entries made under the base
  const char* expected;              // relative to the base; "" is the base itself
};

class LocaleDir : public ::testing::TestWithParam<LocaleCase> {};

TEST_P(LocaleDir, FindsTheMostSpecificSubdirectory) {
  const LocaleCase& c = GetParam();
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
  std::string want = *c.expected ? base.file(c.expected) : base.path();
  EXPECT_EQ(want, dir);
  free(dir);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LocaleDir,
    ::testing::Values(
        LocaleCase{"", "de_DE", {"de"}, "de"},
        LocaleCase{"de_DE.ISO-8859-1", std::nullopt, {"de_DE", "de", "C"}, "de_DE"},
        LocaleCase{"de_DE.UTF-8", "fr_FR", {"de", "fr"}, "de"},
        LocaleCase{"fr_FR", std::nullopt, {"C"}, "C"}, LocaleCase{"fr_FR", std::nullopt, {}, ""},
        LocaleCase{"de_AT", std::nullopt, {"file:de"}, "de"},  // any kind of file counts
        LocaleCase{std::nullopt, std::nullopt, {"C"}, "C"},    // the process locale: "C"
        // A name that is no locale must not lead out of the base.
        LocaleCase{"../x", std::nullopt, {}, ""}));

TEST(LocaleDirNull, NullBaseGivesNull) {
  EXPECT_EQ(nullptr, zar_getlocaledir(nullptr));
}

}  // namespace
