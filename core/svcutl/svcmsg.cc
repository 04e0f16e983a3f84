// What the printer takes from the message and code-set layers (message texts,
// the code sets of the calling thread), and the reporting hook through which
// the layers below the serviceability have their failures printed.
#include <pthread.h>
#include <string.h>

#include "base/rawlog.h"
#include "base/report.h"
#include "base/zarmem.h"
#include "core/svcutl/dceassert.h"
#include "core/svcutl/msgint.h"
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcnls.h"
#include "core/svcutl/svcprod.h"
#include "zar/msg.h"
#include "zar/status.h"

namespace zar::svc {

char* messageText(uint32_t msgid, char* buf, size_t cap) {
  unsigned long st = 0;
  return msg::getMsgInto(msgid, &st, buf, cap);
}

char* messageTextUtf8(uint32_t msgid) {
  unsigned long st = 0;
  char* text = zar_msg_get_locale_cat_msg(msgid, nullptr, zar_svc_utf8_cs, 4, &st);
  if (text == nullptr) text = mem::strDup(zar_msg_get_default_msg(msgid, &st));
  return text;
}

nlz_cs_t localCodePage() { return zarsvc_get_local_code_page(); }

nlz_cs_t utf8CodeSet() { return zarsvc_get_utf8_code_page(); }

void techTag(uint32_t code, char tag[4]) { zar_msg__inq_tech(code, tag); }

void componentName(uint32_t code, char name[4]) { zar_msg__inq_comp(code, name); }

namespace {

// A report made while this thread holds the mutex (inside a print call, a
// record may be half written) goes to standard error on the raw path. It takes
// no lock: the report may come from inside a message or catalog lookup, which
// holds the message lock. A failed system routine keeps its record's text.
void rawReport(const char* recordFile, int line, uint32_t code, const char* argTypes,
               va_list args) {
  if (code != ZAR_S_SYSCALL_FAILED_CODE || strcmp(argTypes, "%s%d") != 0) {
    report::rawError(recordFile, line, code, argTypes, args);
    return;
  }
  const char* routine = va_arg(args, const char*);
  int error = va_arg(args, int);
  rawLog("%s: XKJSC0156E   The %s system routine failed: system error code: %d\n", recordFile,
         routine, error);
}

void reportError(const char* recordFile, int line, uint32_t code, const char* argTypes,
                 va_list args) {
  if (heldByThisThread()) {
    rawReport(recordFile, line, code, argTypes, args);
    return;
  }
  // The code-set set-up may report from inside a message lookup, which holds
  // the message lock that registering the product needs: its reports go raw
  // until the program has registered the product.
  bool fromCodeSets = strcmp(recordFile, "core/svcutl/svcnls") == 0;
  zar_svc_handle handle = fromCodeSets ? zarsv_client_svc_handle : clientHandle();
  if (handle == nullptr) {
    rawReport(recordFile, line, code, argTypes, args);
    return;
  }
  zar_svc_vprintf_withfile(handle, recordFile, line, argTypes, 0, svc_c_sev_error, code, args);
}

void reportCheckFailed(const char* expr, const char* file, int line) {
  zar___assert(nullptr, expr, file, line);
}

const report::Hook kHook = {reportError, reportCheckFailed};

// Installed when the library is loaded, before any caller can report.
[[gnu::constructor]] void installHook() { report::install(&kHook); }

}  // namespace

}  // namespace zar::svc
