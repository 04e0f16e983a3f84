// Debug (trace) messages: a printf format of the caller's, a sub-component
// and a level 1 to 9, tested against the sub-component's current level and
// written to the component's debug routes through the printing pipeline.
#include <pthread.h>
#include <stdarg.h>

#include "core/svcutl/svcint.h"
#include "zar/svc.h"

namespace zar::svc {
namespace {

constexpr uint32_t kMaxLevel = 9;

struct DebugCall {
  zar_svc_handle handle;
  const char* file;  // as given, or null
  int line;
  uint32_t subcomp;
  uint32_t level;
  const char* format;
  bool utf8;             // format and string arguments are UTF-8
  bool dynamicGetsArgs;  // route types get the format and its arguments
};

// The prolog of a debug record: the level alone as the attribute word, no
// message id, the caller's format (not owned) and file as given.
void debugFillProlog(zar_svc_record* record, void* context) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  auto c = static_cast<const DebugCall*>(context);
  zar_svc_prolog& p = record->prolog;
  p.handle = c->handle;
  p.version = 1;
  zar_utc_gettime(&p.t);
  p.argtypes = "?";
  p.table_index = c->subcomp;
  p.attributes = c->level;
  p.message_index = 0;
  p.format = c->format;
  p.file = c->file != nullptr ? c->file : "?";
  p.line = c->line;
  p.thread_id = pthread_self();
  copyProgname(p.progname);
}

// True when the message is not to be printed: a level outside 1
// to 9, a sub-component beyond the table, settings that cannot be settled,
// or a sub-component level below the message's.
bool debugTestLevel(zar_svc_handle handle, uint32_t subcomp, uint32_t level)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  if (level < 1 || level > kMaxLevel || subcomp >= handle->table_size) return true;
  if (!handle->debug_filled) {
    unsigned long st = 0;
    if (!zar_svc__debug_fillin(handle, &st)) return true;
  }
  return (handle->table[subcomp].level & svc_c_debug_mask) < level;
}

void debugCall(const DebugCall& call, va_list args) {
  if (call.handle == nullptr || call.format == nullptr) return;
  SvcLock lock;
  if (debugTestLevel(call.handle, call.subcomp, call.level)) return;
  zar_svc_record record;
  record.utf8Source = call.utf8;
  record.dynamicGetsArgs = call.dynamicGetsArgs;
  writeRoutes(&record, &call.handle->debug_routes, debugFillProlog,
              const_cast<DebugCall*>(&call), args);
}

}  // namespace
}  // namespace zar::svc

using zar::svc::DebugCall;
using zar::svc::debugCall;

extern "C" {

ZAR_API void zar_svc__vdebug(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                             const char* format, va_list args) {
  debugCall(DebugCall{handle, nullptr, 0, subcomp, level, format, false, false}, args);
}

ZAR_API void zar_svc__debug(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                            const char* format, ...) {
  va_list args;
  va_start(args, format);
  debugCall(DebugCall{handle, nullptr, 0, subcomp, level, format, false, false}, args);
  va_end(args);
}

ZAR_API void zar_svc__debug_withfile(zar_svc_handle handle, const char* file, int line,
                                     uint32_t subcomp, uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  debugCall(DebugCall{handle, file, line, subcomp, level, format, false, false}, args);
  va_end(args);
}

ZAR_API void zar_svc__debug_utf8(zar_svc_handle handle, uint32_t subcomp, uint32_t level,
                                 const char* format, ...) {
  va_list args;
  va_start(args, format);
  debugCall(DebugCall{handle, nullptr, 0, subcomp, level, format, true, true}, args);
  va_end(args);
}

ZAR_API void zar_svc__debug_utf8_withfile(zar_svc_handle handle, const char* file, int line,
                                          uint32_t subcomp, uint32_t level, const char* format,
                                          ...) {
  va_list args;
  va_start(args, format);
  debugCall(DebugCall{handle, file, line, subcomp, level, format, true, false}, args);
  va_end(args);
}

ZAR_API uint32_t zar_svc__debug_fillin2(zar_svc_handle handle, uint32_t subcomp) {
  if (handle == nullptr) return 0;
  zar::svc::SvcLock lock;
  unsigned long st = 0;
  if (!zar_svc__debug_fillin(handle, &st) || subcomp >= handle->table_size) return 0;
  return handle->table[subcomp].level & svc_c_debug_mask;
}

}  // extern "C"
