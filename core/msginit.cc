// Message initialisation of a process: locale, NLSPATH, the internationalisation
// layer's directory, the program name and the product's components.
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <atomic>

#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "platform/nlz.h"
#include "zar/msginit.h"
#include "zar/nls.h"
#include "zar/paths.h"
#include "zar/status.h"

namespace zar::msginit {
namespace {

// Set once the program name is recorded; a later zarmsg_init returns at once.
// zarmsg_init runs on the main thread before others use the library.
std::atomic<bool> gInitialized{false};

// Puts the product's catalog directory in front of NLSPATH unless it is on
// it already. Failures are reported and ignored.
void extendNlsPath() {
  const char* dir = zar_get_path(ZAR_PATH_NLS_MSG);
  const char* old = nlz_get_nlspath();
  if (old == nullptr) old = "";
  if (dir != nullptr && nlz_strstr(nlz_get_def_cs(), old, dir) != nullptr) return;
  bool ok = false;
  if (dir != nullptr) {
    // "%s/%L/%N:%s/%L/%N.cat:%s" of the directory, the directory, the old value.
    size_t size = 2 * strlen(dir) + strlen(old) + 32;
    mem::Unique<char> value(static_cast<char*>(mem::alloc(size)));
    if (value) {
      snprintf(value.get(), size, "%s/%%L/%%N:%s/%%L/%%N.cat:%s", dir, dir, old);
      ok = setenv("NLSPATH", value.get(), 1) == 0;
    }
  }
  if (!ok) {
    syslog(LOG_CRIT, "Cannot initialize NLSPATH.");
    fputs("Cannot initialize NLSPATH.", stderr);
  }
}

struct Component {
  const char* name;
  zar_svc_subcomp* table;
  const zar_msg_entry* messages;
  uint32_t count;
  zar_svc_handle* handle;
};

}  // namespace
}  // namespace zar::msginit

extern "C" {

ZAR_API void zarmsg_init_catalog(const char* name, zar_svc_subcomp* table,
                                 const zar_msg_entry* messages, uint32_t count,
                                 zar_svc_handle* handle, uint32_t* status) {
  unsigned long st = 0;
  zar_msg_define_msg_table(messages, count, &st);
  if (st == 0) {
    zar_svc_handle h = zar_svc_register(table, name, &st);
    if (st == 0 && handle != nullptr) *handle = h;
  }
  zar::setStatus(status, static_cast<uint32_t>(st));
}

ZAR_API int zarmsg_init(const char* ident, int utf8) {
  using namespace zar::msginit;
  if (gInitialized.load()) return 1;
  unsigned long st = 0;
  zar_svc_init(0, &st);
  setlocale(LC_ALL, "");
  openlog(ident, LOG_CONS | LOG_NDELAY, LOG_USER);
  extendNlsPath();
  const char* dataDir = nlz_get_dir();
  if (dataDir == nullptr || *dataDir == '\0') nlz_set_dir(zar_get_path(ZAR_PATH_NLZ_DIR));

  st = 0;
  zar_svc_set_progname(ident, &st);
  if (st != 0 || ident == nullptr) {
    if (ident == nullptr) st = ZAR_S_INVALID_INPUT;
    syslog(LOG_CRIT, "Cannot initialize DCE servicibility messages");
    fprintf(stderr, "Cannot initialize DCE servicibility messages(status 0x%8lx)\n", st);
    closelog();
    return 0;
  }
  gInitialized.store(true);

  const Component components[] = {
      {"wsc", zarsv_client_svc_table, zarsv_client_svc_g_table, ZAR_MSG_CLIENT_TABLE_COUNT,
       &zarsv_client_svc_handle},
      {"wsd", zarsv_deploy_svc_table, zarsv_deploy_svc_g_table, ZAR_MSG_DEPLOY_TABLE_COUNT,
       &zarsv_deploy_svc_handle},
      {"wsi", zarsv_if_svc_table, zarsv_if_svc_g_table, ZAR_MSG_IF_TABLE_COUNT,
       &zarsv_if_svc_handle},
  };
  for (const Component& c : components) {
    uint32_t cst = 0;
    zarmsg_init_catalog(c.name, c.table, c.messages, c.count, c.handle, &cst);
    if (cst != 0) {
      syslog(LOG_CRIT, "Cannot initialize servicibility messages");
      fprintf(stderr, "Cannot initialize servicibility messages(status 0x%8x)\n", cst);
      closelog();
      return 0;
    }
  }
  closelog();
  // The layer keeps the handle it is given for the life of the process, so
  // it gets a handle of its own, never the thread's.
  nlz_cs_t cs =
      utf8 != 0 ? nlz_cs_new("UTF8") : nlz_cs_new(nlz_cs_name(zarsvc_get_local_code_page()));
  if (cs != nullptr && nlz_set_def_cs(cs) != 0) nlz_cs_free(cs);
  return 1;
}

ZAR_API const char* zarmsg_get_utf8_locale_msg(uint32_t id, const char* locale, int* allocated,
                                               unsigned long* status) {
  if (allocated != nullptr) *allocated = 0;
  // Without *allocated the caller could not release a catalog text: the
  // compiled text is the answer then.
  if (allocated != nullptr && (locale == nullptr || strcmp(locale, "C") != 0)) {
    unsigned long st = 0;
    char* text = zar_msg_get_locale_cat_msg(id, locale, "UTF8", 1, &st);
    if (text != nullptr) {
      *allocated = 1;
      zar::setStatus(status, ZAR_S_OK);
      return text;
    }
  }
  return zar_msg_get_default_msg(id, status);
}

ZAR_API void zarmsg_free(const char* text) {
  free(const_cast<char*>(text));
}

ZAR_API void zarmsg_shutdown(void) {}

}  // extern "C"
