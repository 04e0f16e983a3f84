// What the printer takes from the message and code-set layers: message texts,
// the code sets of the calling thread, and the reports of failures of the
// code-set set-up, which are themselves serviceability messages.
#include <pthread.h>

#include "core/rawlog.h"
#include "core/svcutl/msgint.h"
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcnls.h"
#include "core/zarmem.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace zar::svc {
namespace {

// Failures of the code-set set-up are reported from the set-up itself; they
// name the set-up's module.
constexpr const char* kNlsRecordFile = "core/svcutl/svcnls";

// Set while this thread prints such a report. The printer then does not ask
// for the local code page again: the report may come from inside that
// request's one-time set-up, which must not be entered twice.
thread_local bool tReporting = false;

}  // namespace

char* messageText(uint32_t msgid) {
  unsigned long st = 0;
  return zar_msg_get_msg(msgid, &st);
}

char* messageTextUtf8(uint32_t msgid) {
  unsigned long st = 0;
  char* text = zar_msg_get_locale_cat_msg(msgid, nullptr, zar_svc_utf8_cs, 4, &st);
  if (text == nullptr) text = mem::strDup(zar_msg_get_default_msg(msgid, &st));
  return text;
}

nlz_cs_t localCodePage() { return tReporting ? nullptr : zarsvc_get_local_code_page(); }

nlz_cs_t utf8CodeSet() { return zarsvc_get_utf8_code_page(); }

void techTag(uint32_t code, char tag[4]) { zar_msg__inq_tech(code, tag); }

void componentName(uint32_t code, char name[4]) { zar_msg__inq_comp(code, name); }

void reportSystemRoutineFailure(const char* routine, int code) {
  // Inside a print call (the mutex is held, a record may be half written), in
  // a report already, or before the client component exists, the record goes
  // to standard error on the raw path instead.
  if (tReporting || heldByThisThread() || zarsv_client_svc_handle == nullptr) {
    rawLog("%s: XKJSC0156E   The %s system routine failed: system error code: %d\n",
           kNlsRecordFile, routine, code);
    return;
  }
  struct Reporting {
    Reporting() { tReporting = true; }
    ~Reporting() { tReporting = false; }
  } reporting;
  zar_svc_printf_withfile(zarsv_client_svc_handle, kNlsRecordFile, __LINE__, "%s%d", 0,
                          svc_c_sev_error, ZAR_S_SYSCALL_FAILED_CODE, routine, code);
}

}  // namespace zar::svc
