// Fuzz target of catalog look-up along NLSPATH: the input is a message path,
// a locale name and a catalog name, one per line; byte 0 gives the open
// flags. Each element of the path is expanded for the locale's forms and the
// files it names are read as catalogs (read only).
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "platform/nlz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 8192) return 0;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  size_t a = text.find('\n');
  size_t b = a == std::string::npos ? a : text.find('\n', a + 1);
  if (b == std::string::npos) return 0;
  setenv("NLSPATH", text.substr(0, a).c_str(), 1);
  setenv("LANG", text.substr(a + 1, b - a - 1).c_str(), 1);
  std::string name = text.substr(b + 1);
  int flags = data[0] & (NLZ_CAT_NO_DATADIR | NLZ_CAT_NO_LANG_FALLBACK | NLZ_CAT_NO_C_FALLBACK);
  nlz_cat_t cat = nlz_catopen(name.c_str(), flags, nullptr);
  if (cat != nullptr) {
    const char* t = nlz_catgets(cat, 1, 1, "none", nullptr);
    if (t == nullptr) abort();
    nlz_catclose(cat);
  }
  return 0;
}
