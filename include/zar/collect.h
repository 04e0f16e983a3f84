/*
 * libzar: records to the machine's log collectors.
 *
 * Two route types are always registered by the library: SYSLOG (RFC 5424
 * records to a syslog daemon over the local datagram socket, UDP or TCP) and
 * JOURNAL (the systemd journal's native protocol). Route strings name them as
 * any other route type, e.g. "WARNING:SYSLOG:local3,tcp,10.0.0.5,514" or
 * "*:JOURNAL:". docs/collectors.md describes the forms and fields.
 *
 * Conventions of this header:
 * - A destination is named as in a route string: the type, ':' and the
 *   where text, e.g. "SYSLOG:" or "SYSLOG:udp,127.0.0.1,514".
 * - Status: written through a pointer to unsigned long (low 32 bits the code,
 *   zar/status.h); a null pointer means "not wanted".
 * - Threads: both functions may be called from any thread; they take the
 *   serviceability mutex, so they must not be called from a route callback.
 *   Neither ever waits longer than the time it is given.
 */
#ifndef ZAR_COLLECT_H
#define ZAR_COLLECT_H

#include <stdint.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* What one destination has done in this process (a forked child starts at
 * zero). sent + dropped + queued is the number of records handed to it. */
typedef struct zar_svc_collector_counts_s {
  uint64_t sent;    /* handed to the collector's socket */
  uint64_t dropped; /* given up: queue full, record refused, still queued at exit */
  uint64_t queued;  /* waiting now for the collector */
} zar_svc_collector_counts;

/* The counts of the destination named by route ("SYSLOG:..." or
 * "JOURNAL:..."). Status 0, or 0x106521F7 when no route of this process has
 * opened that destination (counts are then zero); counts may be null. */
ZAR_API void zar_svc_collector_counts_get(const char* route, zar_svc_collector_counts* counts,
                                          unsigned long* status);

/* Sends what waits in the queues of all destinations, waiting for slow or
 * returning collectors at most timeout_ms milliseconds (0: one attempt that
 * never waits). Returns the number of records still queued. */
ZAR_API uint64_t zar_svc_collector_flush(int timeout_ms);

ZAR_EXTERN_C_END

#endif /* ZAR_COLLECT_H */
