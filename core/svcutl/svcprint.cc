// The printing pipeline: one print call filters its message, saves it when
// the thread saves messages, builds its record once, hands the record to the
// sink of every route of its severity (svcsink.cc), and finally takes the
// message's abort or exit action.
#include <stdlib.h>
#include <string.h>

#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"

namespace zar::svc {
namespace {

// GOESTO chains longer than this many lists end the walk.
constexpr int kMaxVisitedLists = 32;

}  // namespace

// ---- The route walk ---------------------------------------------------------------

void writeRoutes(zar_svc_record* record, svc_route_list* list, PrologBuilder build,
                 void* buildContext, va_list args) {
  if (list == nullptr || list->count == 0) return;
  const svc_route_list* visited[kMaxVisitedLists];
  int nVisited = 0;
  visited[nVisited++] = list;
  svc_route** routes = list->routes;
  int32_t count = list->count;
  for (int32_t i = 0; i < count; ++i) {
    svc_route* route = routes[i];
    if (auto open = sinkOf(route->kind).open) open(route);
    route->opened = 1;
    record->prolog.xml = 0;
    const Sink& sink = sinkOf(route->kind);
    if (sink.continueWith != nullptr) {
      // The named list replaces the rest of this one; an unknown, empty or
      // already visited list is skipped and this one goes on.
      svc_route_list* target = sink.continueWith(route);
      if (target == nullptr || target->count == 0 || nVisited == kMaxVisitedLists) continue;
      bool seen = false;
      for (int v = 0; v < nVisited; ++v) seen = seen || visited[v] == target;
      if (seen) continue;
      visited[nVisited++] = target;
      routes = target->routes;
      count = target->count;
      i = -1;
      continue;
    }
    if (sink.write == nullptr) continue;  // DISCARD
    if (record->prolog.handle == nullptr) build(record, buildContext);
    sink.write(route, record, args);
  }
}

void buildProlog(zar_svc_record* record, zar_svc_handle handle, zar_codeset_t cs,
                 const char* file, int line, const char* argtypes, uint32_t subcomp,
                 uint32_t attributes, uint32_t msgid) {
  zar_svc_prolog& p = record->prolog;
  record->utf8Source = cs != nullptr;
  // A UTF-8 message reaches route types with its own format and arguments.
  record->dynamicGetsArgs = cs != nullptr;
  record->ownFormat(record->utf8Source ? messageTextUtf8(msgid)
                                       : messageText(msgid, record->formatBuffer(),
                                                     zar_svc_record::kFormatBufferSize));
  p.handle = handle;
  p.version = 1;
  zar_utc_gettime(&p.t);
  p.argtypes = argtypes;
  p.table_index = subcomp;
  p.attributes = attributes;
  p.message_index = msgid;
  // '/' is never part of a multibyte character in the code sets the library
  // runs in, so the byte search is a character search.
  const char* slash = file != nullptr ? strrchr(file, '/') : nullptr;
  p.file = file == nullptr ? "?" : slash != nullptr ? slash + 1 : file;
  p.line = line;
  p.thread_id = pthread_self();
  copyProgname(p.progname);
}

void copyProgname(char* out) {
  if (gSvc.progname[0] != '\0') {
    memcpy(out, gSvc.progname, sizeof gSvc.progname);
  } else {
    // "PID#" and the process id, made again only when the id changed (fork).
    pid_t pid = zar_svc__get_pid();
    if (pid != gSvc.pidNameOf) {
      snprintf(gSvc.pidName, sizeof gSvc.pidName, "PID#%ld", static_cast<long>(pid));
      gSvc.pidNameOf = pid;
    }
    memcpy(out, gSvc.pidName, sizeof gSvc.pidName);
  }
}

}  // namespace zar::svc

// ---- The entry points ---------------------------------------------------------------

namespace zar::svc {
namespace {

struct SeverityCall {
  zar_svc_handle handle;
  zar_codeset_t cs;
  const char* file;
  int line;
  const char* argtypes;
  uint32_t subcomp;
  uint32_t attributes;
  uint32_t msgid;
};

void buildSeverityProlog(zar_svc_record* record, void* context) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  auto* c = static_cast<const SeverityCall*>(context);
  buildProlog(record, c->handle, c->cs, c->file, c->line, c->argtypes, c->subcomp,
              c->attributes, c->msgid);
}

// A word with a debug level 1 to 9, or none and a severity 1 to 5.
bool validAttributes(uint32_t attributes) {
  uint32_t level = attributes & svc_c_debug_mask;
  return level != 0 ? level <= 9 : severityIndex(attributes) >= 0;
}

bool printable(const SeverityCall& call) {
  return call.handle != nullptr && validAttributes(call.attributes) &&
         call.subcomp < call.handle->table_size;
}

// One print call.
void printBody(const SeverityCall& call, va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  zar_svc_handle handle = call.handle;
  zar_svc_record record;
  void* context = const_cast<SeverityCall*>(&call);
  if (handle->filter != nullptr) {
    buildSeverityProlog(&record, context);
    va_list copy;
    va_copy(copy, args);
    int keep = handle->filter(&record.prolog, copy);
    va_end(copy);
    if (!keep) return;
  }
  if ((call.attributes & svc_c_route_nolog) == 0) {
    svc_route_list* list;
    if ((call.attributes & svc_c_debug_mask) == 0) {
      if (MsgSaveState* save = activeMsgSave()) {
        if (record.prolog.handle == nullptr) buildSeverityProlog(&record, context);
        if (!doSaveMsg(save, &record, args)) return;  // held back: no route, no action
      }
      list = &gSvc.routes[severityIndex(call.attributes)];
      if (list->count == 0) {
        unsigned long st = 0;
        zar_svc__fillin(call.attributes, &st);
      }
    } else {
      list = debugRoutesOf(handle);
      if (list == nullptr) return;  // the debug settings cannot be settled
    }
    writeRoutes(&record, list, buildSeverityProlog, context, args);
  }
  if (call.attributes & svc_c_route_stderr) {
    // The copy is an XML record when the last route written was XML; its
    // text is the local one rendered as it is, or converted for XML.
    if (record.prolog.handle == nullptr) buildSeverityProlog(&record, context);
    if (record.prolog.xml) {
      writeXml(stderr, &record, RecordText::kConverted, true, args);
    } else {
      writeLineRecord(stderr, &record, true, RecordText::kOwn, nlz_get_def_cs(), args);
    }
  }
  if (call.attributes & svc_c_action_abort) abort();
  if (call.attributes & svc_c_action_exit_bad) exit(1);
  if (call.attributes & svc_c_action_exit_ok) exit(0);
}

void printCall(const SeverityCall& call, va_list args) {
  if (!printable(call)) return;
  SvcLock lock;
  printBody(call, args);
}

}  // namespace

void printMessage(zar_svc_handle handle, const char* file, int line, const char* argtypes,
               uint32_t subcomp, uint32_t attributes, uint32_t msgid, ...) {
  SeverityCall call{handle, nullptr, file, line, argtypes, subcomp, attributes, msgid};
  if (!printable(call)) return;
  va_list args;
  va_start(args, msgid);
  printBody(call, args);
  va_end(args);
}

}  // namespace zar::svc

extern "C" {

ZAR_API void zar_svc_vprintf_withfile(zar_svc_handle handle, const char* file, int line,
                                      const char* argtypes, uint32_t subcomp,
                                      uint32_t attributes, uint32_t msgid, va_list args) {
  zar::svc::printCall({handle, nullptr, file, line, argtypes, subcomp, attributes, msgid}, args);
}

ZAR_API void zar_svc_printf_withfile(zar_svc_handle handle, const char* file, int line,
                                     const char* argtypes, uint32_t subcomp,
                                     uint32_t attributes, uint32_t msgid, ...) {
  va_list args;
  va_start(args, msgid);
  zar::svc::printCall({handle, nullptr, file, line, argtypes, subcomp, attributes, msgid}, args);
  va_end(args);
}

ZAR_API void zar_svc_vprintf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                         const char* file, int line, const char* argtypes,
                                         uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                         va_list args) {
  zar::svc::printCall({handle, cs, file, line, argtypes, subcomp, attributes, msgid}, args);
}

ZAR_API void zar_svc_printf_cs_withfile(zar_svc_handle handle, zar_codeset_t cs,
                                        const char* file, int line, const char* argtypes,
                                        uint32_t subcomp, uint32_t attributes, uint32_t msgid,
                                        ...) {
  va_list args;
  va_start(args, msgid);
  zar::svc::printCall({handle, cs, file, line, argtypes, subcomp, attributes, msgid}, args);
  va_end(args);
}

}  // extern "C"
