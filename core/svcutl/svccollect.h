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
// Locking: every function here is called with the serviceability mutex held
// (route callbacks run under it; the public calls take it), which guards all
// destination state. No other lock is taken.
#ifndef ZAR_CORE_SVCUTL_SVCCOLLECT_H_
#define ZAR_CORE_SVCUTL_SVCCOLLECT_H_

#include <stddef.h>
#include <stdint.h>

#include "zar/svc.h"

namespace zar::collect {

enum class Transport { kUnixDatagram, kUdp, kTcp };

struct Destination;

// Parses an address form of a route's where text: "unix,PATH",
// "udp,HOST,PORT" or "tcp,HOST,PORT"; an empty text is the datagram socket
// defaultPath. allowNetwork false accepts only the unix forms. Resolves the
// host (once, here). Returns the destination named key (created on first
// use, shared afterwards, counted per route) or null when the text is not a
// valid address. Mutex held.
Destination* acquire(const char* key, const char* address, const char* defaultPath,
                     bool allowNetwork, bool passLargeAsFile);
// One route lets go of its destination. What is still queued when the last
// one goes stays queued (a route string naming the destination again, a
// flush or the exit handler sends it); the socket stays open for it.
void release(Destination* dest);
Transport transportOf(const Destination* dest);

// Hands one record (a whole datagram, or a whole framed TCP record) to the
// destination: sent now when nothing waits before it and the collector takes
// it, else queued; counted as dropped when the queue is full. Never blocks.
void submit(Destination* dest, const char* data, size_t len);

// A route open on a destination, linked into the list of open routes so that
// a type removed while its routes are open can let go of them all. The
// route's own record starts with it.
struct OpenRoute {
  OpenRoute* prev;
  OpenRoute* next;
  Destination* dest;
  const char* typeName;
};
// Mutex held: the route (its dest and typeName set) joins the list, or
// leaves it and lets go of its destination (the caller frees the record).
void trackRoute(OpenRoute* route);
void untrackRoute(OpenRoute* route);
// The type called typeName is removed while routes still use it (its close
// callback with null route data, which runs without the mutex): every route
// of the type lets go of its destination and is freed. Takes the mutex.
void releaseRoutesOf(const char* typeName);
// The close callback of both types: the route (an OpenRoute first in its
// record) lets go of its destination and is freed; null route data is the
// type removed under its routes (releaseRoutesOf).
void closeRoute(const char* typeName, void* typeData, void* routeData, unsigned long* status);

// Counts a record that could not even be made (no memory) as dropped.
void countDropped(Destination* dest);

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
