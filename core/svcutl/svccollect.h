// Delivery of records to the machine's log collectors: the destinations that
// the SYSLOG and JOURNAL route types write to (svcsyslog.cc, svcjournal.cc).
//
// A destination is one socket address (a datagram socket, a UDP or a TCP
// peer) shared by every route whose element names it. Records that cannot go
// out at once wait in a bounded queue of the destination and are sent by
// later submits and by zar_svc_collector_flush, each within a small time
// budget; nothing ever blocks on a collector. Records that cannot be
// delivered are counted per destination and reported on standard error
// through the raw path, at most once per report interval.
//
// Locking: the serviceability mutex guards all destination state (route
// callbacks run under it; the public calls take it). No other lock is taken.
#ifndef ZAR_CORE_SVCUTL_SVCCOLLECT_H_
#define ZAR_CORE_SVCUTL_SVCCOLLECT_H_

#include <stddef.h>
#include <stdint.h>

#include "base/zarlock.h"
#include "core/svcutl/svcint.h"
#include "zar/svc.h"

namespace zar::collect {

enum class Transport { kUnixDatagram, kUdp, kTcp };

struct Destination;

// One route lets go of its destination. What is still queued when the last
// one goes stays queued (a route string naming the destination again, a
// flush or the exit handler sends it); the socket stays open for it.
void release(Destination* dest) ZAR_REQUIRES(svc::gSvc.mutex);
Transport transportOf(const Destination* dest);

// Hands one record (a whole datagram, or a whole framed TCP record) to the
// destination: sent now when nothing waits before it and the collector takes
// it, else queued; counted as dropped when the queue is full. Never blocks.
void submit(Destination* dest, const char* data, size_t len) ZAR_REQUIRES(svc::gSvc.mutex);

// A route open on a destination, linked into the list of open routes so that
// a type removed while its routes are open can let go of them all. The
// route's own record starts with it.
struct OpenRoute {
  OpenRoute* prev;
  OpenRoute* next;
  Destination* dest;
  const char* typeName;
};

// What the open step of a collector type needs to know of the type.
struct CollectorKind {
  const char* typeName;     // the type's name; a route string's key starts with it
  const char* defaultPath;  // the collector's datagram socket, for an empty address
  bool allowNetwork;        // the udp and tcp address forms are accepted
  bool passLargeAsFile;     // a datagram too large goes as a sealed memory file
};

// Opens a route of a collector type: a zeroed record of size bytes with an
// OpenRoute first, on the destination that address names (the where text,
// or what follows the type's own options in it), keyed "name:where"; the
// route joins the list of open routes. Null when the key is too long, memory
// is short or the address is not valid.
void* openRoute(const CollectorKind& kind, const char* name, const char* where, const char* address,
                size_t size) ZAR_REQUIRES(svc::gSvc.mutex);
// The type called typeName is removed while routes still use it (its close
// callback with null route data, which runs without the mutex): every route
// of the type lets go of its destination and is freed.
void releaseRoutesOf(const char* typeName) ZAR_EXCLUDES(svc::gSvc.mutex);
// The close callback of both types: the route (an OpenRoute first in its
// record) lets go of its destination and is freed; null route data is the
// type removed under its routes (releaseRoutesOf). Runs under the mutex for
// a route, without it for a removed type, which the analysis cannot follow.
void closeRoute(const char* typeName, void* typeData, void* routeData,
                unsigned long* status) ZAR_NO_THREAD_SAFETY_ANALYSIS;

// Counts a record that could not even be made (no memory) as dropped.
void countDropped(Destination* dest) ZAR_REQUIRES(svc::gSvc.mutex);

// Replaces each invalid UTF-8 sequence of in[0..len) by U+FFFD and appends
// the result to out (at most outLen bytes, never cutting a character), with
// escape applied to each of the characters in escapeSet (a backslash is put
// before them). Returns the bytes written.
size_t putUtf8(char* out, size_t outLen, const char* in, size_t len, const char* escapeSet);

// The message text of a record that comes formatted already (the format is
// "%s", as the serviceability hands its records to a route type): that
// argument; null for any other format.
const char* givenText(const zar_svc_prolog* prolog, va_list args);

// The message text of a record: its format with its arguments, in a buffer
// the caller frees with zar_asprintf_free; null when it cannot be made.
char* formatText(zar_svc_prolog* prolog, va_list args);

// The severity of a record as a syslog severity: FATAL 2, ERROR 3, WARNING 4,
// NOTICE 5, NOTICE_VERBOSE 6, debug 7.
int syslogSeverity(uint32_t attributes);

// The route types of the library itself, added to the registry of route
// types when it is first used.
struct BuiltinType {
  const char* name;
  zar_svc_route_open_fn open;
  zar_svc_route_print_fn print;
  zar_svc_route_close_fn close;
};
extern const BuiltinType kSyslogType;
extern const BuiltinType kJournalType;

}  // namespace zar::collect

#endif  // ZAR_CORE_SVCUTL_SVCCOLLECT_H_
