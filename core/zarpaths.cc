// The product's install-path table and the search for locale subdirectories.
#include <ctype.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/nlz.h"
#include "platform/qumbra.h"
#include "platform/secenv.h"
#include "zar/paths.h"

namespace zar::paths {
namespace {

constexpr int kNameLen = 32;  // locale and language names

// Invariants: the entries are constant texts except entry 7, which after
// initialisation may point to a heap copy owned by the table for the life of
// the process (a replaced copy is kept too, since a reader may still hold
// it). Entry 7 is atomic so that zar_load_paths may run beside readers.
const char* const kDefaults[ZAR_PATH_COUNT] = {
    "/opt/kpsrv/",      "/opt/kpsrv/bin/", "/opt/kpsrv/etc/",     nullptr,
    "/opt/kpsrv/sbin/", "/opt/kpsrv/lib/", "/opt/kpsrv/nls/msg/", "/opt/kpsrv/nls/NLZ/",
    "/var/kpsrv/log/",  "/opt/Brantholm/"};
struct PathState {
  pthread_once_t once;              // the paths are loaded once before the first read
  zar::Mutex loadMu;                // serialises zar_load_paths
  std::atomic<const char*> nlzDir;  // entry 7; stored under loadMu, read without it
};
PathState gPaths = {PTHREAD_ONCE_INIT, PTHREAD_MUTEX_INITIALIZER, {kDefaults[ZAR_PATH_NLZ_DIR]}};

// 0 and *out = base/sub when that exists (of any kind); otherwise non-zero
// and *out = null.
int checkLocaleDir(char** out, const char* base, const char* sub) {
  if (out == nullptr) return 1;
  *out = nullptr;
  if (base == nullptr || sub == nullptr) return 1;
  size_t lenBase = strlen(base), lenSub = strlen(sub);
  char* path = static_cast<char*>(mem::alloc(lenBase + lenSub + 2));
  if (path == nullptr) return 1;
  memcpy(path, base, lenBase);
  path[lenBase] = '/';
  memcpy(path + lenBase + 1, sub, lenSub + 1);
  struct stat st;
  int rc = stat(path, &st);
  if (rc != 0) {
    mem::free(path);
    return rc;
  }
  *out = path;
  return 0;
}

const char* envNonEmpty(const char* name) {
  const char* v = zar::env::get(name);
  return v != nullptr && *v != '\0' ? v : nullptr;
}

}  // namespace
}  // namespace zar::paths

extern "C" {

ZAR_API const char* zar_load_paths(void) {
  using namespace zar::paths;
  zar::MutexLock lock(gPaths.loadMu);
  nlz_get_dir();
  qumbra_initialize();
  const char* dir = nlz_get_dir();
  if (dir == nullptr || *dir == '\0') return nullptr;
  const char* current = gPaths.nlzDir.load(std::memory_order_acquire);
  if (current != kDefaults[ZAR_PATH_NLZ_DIR] && strcmp(current, dir) == 0) return current;
  char* copy = zar::mem::strDup(dir);
  if (copy == nullptr) return nullptr;
  gPaths.nlzDir.store(copy, std::memory_order_release);
  return copy;
}

ZAR_API void zar_path_initialize(void) {
  zar_load_paths();
}

ZAR_API const char* zar_get_path(unsigned int index) {
  using namespace zar::paths;
  pthread_once(&gPaths.once, zar_path_initialize);
  if (index >= ZAR_PATH_COUNT) return nullptr;
  if (index == ZAR_PATH_NLZ_DIR) return gPaths.nlzDir.load(std::memory_order_acquire);
  return kDefaults[index];
}

ZAR_API void zar_canonicalize_path(char* path) {
  if (path == nullptr) return;
  const char* r = path;
  while (*r == ' ' || *r == '\t') ++r;
  char* w = path;
  for (; *r != '\0'; ++r) {
    if (*r == '/' && w > path && w[-1] == '/') continue;
    *w++ = *r;
  }
  while (w > path && (w[-1] == ' ' || w[-1] == '\t')) --w;
  if (w > path && w[-1] == '/') --w;
  *w = '\0';
}

ZAR_API char* zar_getlocaledir(const char* base) {
  using namespace zar::paths;
  if (base == nullptr) return nullptr;
  char osName[kNameLen];
  const char* name = envNonEmpty("LC_ALL");
  if (name == nullptr) name = envNonEmpty("LC_MESSAGES");
  if (name == nullptr) name = nlz_os_lang_name(osName, sizeof osName) == 0 ? osName : "C";

  char* found = nullptr;
  char canonical[kNameLen];
  bool haveCanonical = nlz_canonical_loc(name, canonical, sizeof canonical) == 0;
  if (haveCanonical && checkLocaleDir(&found, base, canonical) == 0) return found;
  // The language code: the first two characters of the canonical name, or
  // of the name itself when it has no canonical form.
  char lang2[3] = {0, 0, 0};
  const char* from = haveCanonical ? canonical : name;
  lang2[0] = from[0];
  if (from[0] != '\0') lang2[1] = from[1];
  // Only letters make a language code: a name such as "../x" must not
  // lead out of base.
  bool letters = isalpha(static_cast<unsigned char>(lang2[0])) &&
                 isalpha(static_cast<unsigned char>(lang2[1]));
  if (letters && checkLocaleDir(&found, base, lang2) == 0) return found;
  char language[kNameLen];
  if (nlz_canonical_lang(name, language, sizeof language) == 0 &&
      checkLocaleDir(&found, base, language) == 0)
    return found;
  if (checkLocaleDir(&found, base, "C") == 0) return found;
  return zar::mem::strDup(base);
}

}  // extern "C"
