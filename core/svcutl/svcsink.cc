// The sinks: what a route of each kind does with a record, in one table by
// kind. A new route kind is one more entry here and its word in the route
// parser (svcroute.cc); the pipeline (svcprint.cc) does not change.
#include <stdio.h>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"
#include "platform/sysio.h"

namespace zar::svc {
namespace {

using RecordForm = bool (*)(FILE* stream, zar_svc_record* record, bool lineBreak, va_list args);

// ---- Standard streams -----------------------------------------------------------

template <RecordForm form>
void writeStdout(svc_route*, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  form(stdout, record, true, args);
}

template <RecordForm form>
void writeStderr(svc_route*, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  form(stderr, record, true, args);
}

void flushStdout(svc_route*) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  sys::fflush(stdout);
}
void flushStderr(svc_route*) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  sys::fflush(stderr);
}

bool xmlForm(FILE* stream, zar_svc_record* record, bool, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  return writeXmlRecord(stream, record, args);
}

// ---- Log files ------------------------------------------------------------------------

template <RecordForm form>
void writeFile(svc_route* route, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  svc_file_route* file = route->file;
  if (file->stream == nullptr) return;
  // A record cut short by a failed write (a full disk, a file size limit)
  // left the file inside a line; the next record starts a line of its own.
  if (file->cutShort && sys::writeAll(fileno(file->stream), "\n", 1)) file->cutShort = 0;
  if (!form(file->stream, record, false, args)) file->cutShort = 1;
}

// ---- GOESTO ---------------------------------------------------------------------------

void closeGoesTo(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  mem::free(route->listName);
  route->listName = nullptr;
}

svc_route_list* goesToList(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  return goestoList(route->listName);
}

// ---- Route types --------------------------------------------------------------------

// The prolog's format reads "%s" while a route type gets the formatted text
// as the one argument, and its own again afterwards (also when the thread is
// cancelled in the callback: the record frees an owned format).
class FormatSwap {
 public:
  explicit FormatSwap(zar_svc_prolog* prolog) : prolog_(prolog), saved_(prolog->format) {
    prolog_->format = "%s";
  }
  ~FormatSwap() { prolog_->format = saved_; }
  FormatSwap(const FormatSwap&) = delete;
  FormatSwap& operator=(const FormatSwap&) = delete;

 private:
  zar_svc_prolog* prolog_;
  const char* saved_;
};

// Hands the record to a route of a registered type: the format and its
// arguments, or "%s" with the formatted text (in UTF-8 for a severity message
// of the local code set; a saved UTF-8 message is its own text).
void writeDynamic(svc_route* route, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  svc_dyn_route* type = route->type;
  if (record->dynamicGetsArgs) {
    zar__svc_dyn_route_print(type, route->routeData, &record->prolog, args);
    return;
  }
  size_t length = 0;
  const char* text = record->saved() && record->utf8Source ? record->savedText()
                                                           : record->convertedText(args, &length);
  if (text == nullptr && !record->saved() && record->prolog.format != nullptr) {
    // A text its code set cannot convert (invalid bytes) goes as it is, for
    // the type to repair, rather than as nothing.
    text = record->text(args, &length);
  }
  FormatSwap swap(&record->prolog);
  zar__svc_dyn_route_print2(type, route->routeData, &record->prolog, text != nullptr ? text : "");
}

void closeDynamic(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  // The route is its fallback kind again before the close callback runs, so
  // that a thread cancelled in the callback leaves it wholly closed.
  svc_dyn_route* type = route->type;
  void* data = route->routeData;
  route->kind = route->fallback;
  route->type = nullptr;
  route->routeData = nullptr;
  zar__svc_dyn_route_close(type, data);
}

}  // namespace

// Indexed by RouteKind; 0 and 1 are no kind and behave as DISCARD.
const Sink kSinks[kNumRouteKinds] = {
    // open, write, flush, close, continueWith
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
    /* kRouteTextFile */
    {openLogRoute, writeFile<writeTextRecord>, flushLogRoute, closeLogRoute, nullptr},
    /* kRouteDiscard */ {nullptr, nullptr, nullptr, nullptr, nullptr},
    /* kRouteStdout */ {nullptr, writeStdout<writeTextRecord>, flushStdout, nullptr, nullptr},
    /* kRouteStderr */ {nullptr, writeStderr<writeTextRecord>, flushStderr, nullptr, nullptr},
    /* kRouteGoesTo */ {nullptr, nullptr, nullptr, closeGoesTo, goesToList},
    /* kRouteDynamic */ {nullptr, writeDynamic, nullptr, closeDynamic, nullptr},
    /* kRouteUtf8File */
    {openLogRoute, writeFile<writeUtf8Record>, flushLogRoute, closeLogRoute, nullptr},
    /* kRouteXmlFile */ {openLogRoute, writeFile<xmlForm>, flushLogRoute, closeLogRoute, nullptr},
    /* kRouteXmlStdout */ {nullptr, writeStdout<xmlForm>, flushStdout, nullptr, nullptr},
    /* kRouteXmlStderr */ {nullptr, writeStderr<xmlForm>, flushStderr, nullptr, nullptr},
};

}  // namespace zar::svc

extern "C" void zar_svc__close_routes(svc_route_list* list) {
  using namespace zar::svc;
  while (list->count > 0) {
    svc_route* route = list->routes[--list->count];
    zar::mem::free(route->dynName);
    zar::mem::free(route->dynArg);
    route->dynName = nullptr;
    route->dynArg = nullptr;
    if (auto close = sinkOf(route->kind).close) close(route);
  }
}
