// What the printer takes from the message and code-set layers (message texts,
// the code sets of the calling thread), and the reporting hook through which
// the layers below the serviceability have their failures printed.
#include <pthread.h>
#include <stdio.h>
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

nlz_cs_t localCodePage() { return zarsvc_get_local_code_page(); }

nlz_cs_t utf8CodeSet() { return zarsvc_get_utf8_code_page(); }

void techTag(uint32_t code, char tag[4]) { zar_msg__inq_tech(code, tag); }

void componentName(uint32_t code, char name[4]) { zar_msg__inq_comp(code, name); }

namespace {

// A report made while this thread holds the mutex (inside a print call, a
// record may be half written) goes to standard error on the raw path, in the
// record's text form when the compiled text takes only plain arguments.
void rawReport(const char* recordFile, int line, uint32_t code, const char* argTypes,
               va_list args) {
  unsigned long st = 0;
  const char* text = zar_msg_get_default_msg(code, &st);
  if (text == nullptr || strstr(text, "%S") != nullptr) {
    report::rawError(recordFile, line, code, argTypes, args);
    return;
  }
  char line1[1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  vsnprintf(line1, sizeof line1, text, args);
#pragma GCC diagnostic pop
  rawLog("%s: %s\n", recordFile, line1);
}

void reportError(const char* recordFile, int line, uint32_t code, const char* argTypes,
                 va_list args) {
  if (heldByThisThread()) {
    rawReport(recordFile, line, code, argTypes, args);
    return;
  }
  zar_svc_handle handle = clientHandle();
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
