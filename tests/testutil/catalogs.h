// Test helpers for message catalogs: builds XPG catalogs with the system
// gencat from source text, in a locale directory layout.
#ifndef ZAR_TESTS_TESTUTIL_CATALOGS_H_
#define ZAR_TESTS_TESTUTIL_CATALOGS_H_

#include <string>
#include <utility>
#include <vector>

namespace zar::test {

// One message of set 1 (or of the given set).
struct CatMsg {
  int num;
  std::string text;  // bytes in the catalog's code set
  int set = 1;
};

// Writes a gencat source for msgs (plus, when charset is not empty, the
// code-set marker message) and runs gencat under gencatLocale (which must
// accept the bytes; "C.UTF-8" for UTF-8). Returns false when gencat failed.
bool makeCatalog(const std::string& path, const std::vector<CatMsg>& msgs,
                 const std::string& charset = "", const std::string& gencatLocale = "C.UTF-8");

// Creates directory path and its parents.
void makeDirs(const std::string& path);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_CATALOGS_H_
