// The user's locale and the code sets the library works in: the process's
// locale name, per-thread locale objects and local-code-page handles, and the
// process-wide UTF-8 handle.
#include "core/svcutl/svcnls.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "base/report.h"
#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "platform/nlz.h"
#include "zar/status.h"

const char* const zar_svc_utf8_cs = "UTF8";
zar_codeset_t zar_svc_cs_utf8 = nullptr;
zar_codeset_t kp_zar_svc_utf8_cs = nullptr;

namespace zar::svc {
namespace {

// Failures of the set-up are reported under this module's record name.
constexpr char kRecordName[] = "core/svcutl/svcnls";

// Reports that a system routine failed, as message 0x38C5209C ("The %s
// system routine failed: system error code: %d"), through the reporting hook.
// The report's record asks for the local code page again; inside a report
// that request gets null (zarsvc_get_local_code_page), so it neither waits
// for the one-time set-up that is reporting nor starts another attempt.
#define ZAR_NLS_REPORT(routine, code) \
  ::zar::report::error(kRecordName, __LINE__, ZAR_S_SYSCALL_FAILED_CODE, "%s%d", (routine), (code))

// Invariants: localeName is written once, inside localeOnce, before the
// locale key exists; codePageName and processCodePage likewise inside
// codePageOnce. utf8 handles are published under utf8Mu and never freed.
struct NlsState {
  pthread_once_t localeOnce = PTHREAD_ONCE_INIT;
  char localeName[512] = "";        // written in localeOnce only
  nlz_loc_t processLocale = nullptr;  // written in localeOnce only
  pthread_key_t localeKey;          // thread's nlz_loc_t
  bool localeKeyMade = false;       // written in localeOnce only

  pthread_once_t codePageOnce = PTHREAD_ONCE_INIT;
  char codePageName[32] = "";       // written in codePageOnce only; "" when unknown
  nlz_cs_t processCodePage = nullptr;  // written in codePageOnce only
  pthread_key_t codePageKey;        // thread's CodePageCell
  bool codePageKeyMade = false;     // written in codePageOnce only

  zar::Mutex utf8Mu = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<bool> utf8Done{false};  // set under utf8Mu once the handle exists
};

NlsState gNls;

// The calling thread's cell, also kept under the key (whose destructor frees
// it); read first because it is cheaper than pthread_getspecific.
thread_local struct CodePageCell* tCodePageCell = nullptr;

// What a thread keeps under the code-page key: its handle, possibly null
// (then the thread does not try again).
struct CodePageCell {
  nlz_cs_t cs;
};

void freeLocale(void* p) { nlz_loc_free(static_cast<nlz_loc_t>(p)); }

void freeCodePageCell(void* p) {
  CodePageCell* cell = static_cast<CodePageCell*>(p);
  if (tCodePageCell == cell) tCodePageCell = nullptr;  // runs in the exiting thread
  nlz_cs_free(cell->cs);
  mem::free(cell);
}

void initLocale() {
  if (gNls.localeName[0] == '\0') {
    if (nlz_os_lang_name(gNls.localeName, sizeof gNls.localeName) != 0) {
      gNls.localeName[0] = '\0';
      ZAR_NLS_REPORT("nlz_os_lang_name()", -1);
    } else {
      gNls.processLocale = nlz_loc_new(gNls.localeName);
    }
  }
  gNls.localeKeyMade = pthread_key_create(&gNls.localeKey, freeLocale) == 0;
}

// Reports a failed nlz_cs_new for the code-page name, cut to 44 characters.
void reportCsNewFailure(const char* name) {
  char routine[64];
  snprintf(routine, sizeof routine, "nlz_cs_new(%.44s)", name);
  ZAR_NLS_REPORT(routine, 0);
}

void initCodePage() {
  char name[32];
  if (nlz_os_cs_name(name, sizeof name) != 0) {
    ZAR_NLS_REPORT("nlz_os_cs_nam()", -1);
  } else {
    memcpy(gNls.codePageName, name, sizeof name);
    gNls.processCodePage = nlz_cs_new(name);
    if (gNls.processCodePage == nullptr) reportCsNewFailure(name);
  }
  gNls.codePageKeyMade = pthread_key_create(&gNls.codePageKey, freeCodePageCell) == 0;
}

}  // namespace

}  // namespace zar::svc

using zar::svc::gNls;

const char* zarsvc_get_locale_name(void) { return gNls.localeName; }

zar_locale_t zarsvc_get_locale(void) {
  pthread_once(&gNls.localeOnce, zar::svc::initLocale);
  if (!gNls.localeKeyMade) return nullptr;
  nlz_loc_t loc = static_cast<nlz_loc_t>(pthread_getspecific(gNls.localeKey));
  if (loc != nullptr) return loc;
  if (gNls.localeName[0] == '\0') return nullptr;
  loc = nlz_loc_new(gNls.localeName);
  if (loc != nullptr && pthread_setspecific(gNls.localeKey, loc) != 0) {
    nlz_loc_free(loc);
    return nullptr;
  }
  return loc;
}

zar_codeset_t zarsvc_get_local_code_page(void) {
  if (zar::svc::tCodePageCell != nullptr) return zar::svc::tCodePageCell->cs;
  if (zar::report::active()) return nullptr;
  pthread_once(&gNls.codePageOnce, zar::svc::initCodePage);
  if (!gNls.codePageKeyMade) return nullptr;
  auto* cell = static_cast<zar::svc::CodePageCell*>(pthread_getspecific(gNls.codePageKey));
  if (cell != nullptr) return cell->cs;
  cell = zar::mem::make<zar::svc::CodePageCell>();
  if (cell == nullptr) return nullptr;  // not cached: tried again next time
  cell->cs = nullptr;
  if (gNls.codePageName[0] != '\0') {
    cell->cs = nlz_cs_new(gNls.codePageName);
    if (cell->cs == nullptr) zar::svc::reportCsNewFailure(gNls.codePageName);
  }
  if (pthread_setspecific(gNls.codePageKey, cell) != 0) {
    zar::svc::freeCodePageCell(cell);
    return nullptr;
  }
  zar::svc::tCodePageCell = cell;
  return cell->cs;
}

void zar_svc_nls_init(unsigned long* status) {
  if (gNls.utf8Done.load(std::memory_order_acquire)) {
    zar::setStatus(status, ZAR_S_OK);
    return;
  }
  zar::MutexLock lock(gNls.utf8Mu);
  if (zar_svc_cs_utf8 == nullptr) {
    nlz_cs_t cs = nlz_cs_new(zar_svc_utf8_cs);
    if (cs == nullptr) {
      zar::setStatus(status, ZAR_S_MSG_CAT_OPEN_FAILED);
      return;
    }
    zar_svc_cs_utf8 = cs;
    kp_zar_svc_utf8_cs = cs;
  }
  gNls.utf8Done.store(true, std::memory_order_release);
  zar::setStatus(status, ZAR_S_OK);
}

zar_codeset_t zarsvc_get_utf8_code_page(void) {
  if (!gNls.utf8Done.load(std::memory_order_acquire)) zar_svc_nls_init(nullptr);
  return gNls.utf8Done.load(std::memory_order_acquire) ? zar_svc_cs_utf8 : nullptr;
}
