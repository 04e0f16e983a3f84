// Start-up of the utility layer; see platform/qumbra.h.
#include "platform/qumbra.h"

#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/nlz.h"

#ifndef ZAR_NLS_INSTALL_DIR
#define ZAR_NLS_INSTALL_DIR "/usr/local/share/zar/nls/msg"
#endif
#ifndef ZAR_NLS_REL_FROM_LIB
#define ZAR_NLS_REL_FROM_LIB "../share/zar/nls/msg"
#endif

namespace {

bool isDir(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

pthread_mutex_t gInitMu = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

int qumbra_installed_dir(char* buf, int len) {
  if (buf == nullptr || len <= 0) return -1;
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&qumbra_installed_dir), &info) == 0 ||
      info.dli_fname == nullptr || info.dli_fname[0] != '/')
    return -1;
  char real[PATH_MAX];
  if (realpath(info.dli_fname, real) == nullptr) return -1;
  char* slash = strrchr(real, '/');
  if (slash == nullptr) return -1;
  *slash = '\0';
  int n = snprintf(buf, static_cast<size_t>(len), "%s/%s", real, ZAR_NLS_REL_FROM_LIB);
  return (n < 0 || n >= len) ? -1 : 0;
}

int qumbra_initialize(void) {
  pthread_mutex_lock(&gInitMu);
  int rc = 0;
  const char* dir = nlz_get_dir();
  if (dir == nullptr || *dir == '\0') {
    char found[PATH_MAX];
    if (qumbra_installed_dir(found, sizeof found) == 0 && isDir(found)) {
      char real[PATH_MAX];
      rc = nlz_set_dir(realpath(found, real) != nullptr ? real : found);
    } else if (isDir(ZAR_NLS_INSTALL_DIR)) {
      rc = nlz_set_dir(ZAR_NLS_INSTALL_DIR);
    } else {
      rc = -1;
    }
  }
  pthread_mutex_unlock(&gInitMu);
  return rc;
}
