// Helpers of the message tests: XPG catalogs built with the system gencat
// from source text, and child processes for state made once per process.
#ifndef ZAR_TESTS_TESTUTIL_CATALOGS_H_
#define ZAR_TESTS_TESTUTIL_CATALOGS_H_

#include <functional>
#include <string>
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
// accept the bytes; "C.UTF-8" for UTF-8), making the file's directory when
// it is missing. Returns false when gencat failed.
bool makeCatalog(const std::string& path, const std::vector<CatMsg>& msgs,
                 const std::string& charset = "", const std::string& gencatLocale = "C.UTF-8");

// Creates directory path and its parents.
void makeDirs(const std::string& path);

// text (or "<null>"), followed by " #" and the status in hexadecimal unless
// the status is 0: one comparable text for a lookup and its status.
std::string withStatus(const char* text, unsigned long status);

// Runs fn in a forked child and returns the texts it gave; a child that did
// not exit normally gives one text naming its wait status.
std::vector<std::string> childTexts(const std::function<std::vector<std::string>()>& fn);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_CATALOGS_H_
