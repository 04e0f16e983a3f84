// Destinations of the collector route types: sockets that never block the
// printing thread, a bounded queue per destination drained by later prints
// and by the flush call, reconnection at a bounded rate, drop counts and
// their reports, fresh sockets in a forked child, and the helpers that the
// record formats share.
//
// All state here is guarded by the serviceability mutex: the route callbacks
// run under it and the public calls take it. The library has no thread of
// its own, so everything that moves a queue happens inside a print, a flush
// or the exit handler, each within a time budget.
#include "core/svcutl/svccollect.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "base/rawlog.h"
#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcint.h"
#include "platform/secenv.h"
#include "zar/collect.h"
#include "zar/printf.h"
#include "zar/status.h"

namespace zar::collect {
namespace {

constexpr int64_t kMsNs = 1000000;
constexpr int64_t kRetryNs = 200 * kMsNs;     // an absent collector is tried again after this
constexpr int64_t kBudgetNs = 2 * kMsNs;      // what one print may spend on a queue
constexpr int64_t kReportNs = 10000 * kMsNs;  // drop reports: at most one per destination per 10 s
constexpr int kExitFlushMs = 200;             // what the exit handler waits for collectors
constexpr uint64_t kDefaultQueueLimit = 4096;
constexpr uint64_t kMaxQueueLimit = 1000000;

int64_t nowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// One record waiting for its collector; the bytes follow the header.
struct Queued {
  Queued* next;
  size_t len;
  char* data() { return reinterpret_cast<char*>(this + 1); }
};

enum class Link { kClosed, kConnecting, kOpen };
enum class Outcome { kSent, kLater, kAbsent, kRefused };

}  // namespace

// Invariants: allocated once and never freed (its counts outlive its routes);
// queued counts the records from head to tail; headSent is 0 unless the
// transport is TCP and the head is partly written on the open link; fd is -1
// while link is kClosed; pid is the process whose socket and queue these are.
struct Destination {
  char* key;  // "TYPE:where", as route strings name it
  Transport transport;
  bool passLargeAsFile;  // a datagram too large goes as a sealed memory file
  struct sockaddr_storage addr;
  socklen_t addrLen;
  int fd;
  Link link;
  pid_t pid;
  int32_t references;  // routes open on it
  Queued* head;
  Queued* tail;
  uint64_t queued;
  size_t headSent;
  int64_t retryAt;  // no attempt to reach an absent collector before this
  uint64_t sent;
  uint64_t dropped;
  uint64_t reported;  // dropped as of the last report
  int64_t reportAt;   // no report before this
};

namespace {

// Invariants: dests holds count destinations, never removed; routes lists
// every open route of both types.
struct CollectState {
  Destination** dests ZAR_GUARDED_BY(svc::gSvc.mutex) = nullptr;
  OpenRoute* routes ZAR_GUARDED_BY(svc::gSvc.mutex) = nullptr;
  uint32_t count ZAR_GUARDED_BY(svc::gSvc.mutex) = 0;
  uint64_t queueLimit ZAR_GUARDED_BY(svc::gSvc.mutex) = 0;  // from SVC_COLLECTOR_QUEUE, read once
  bool exitHandlerSet ZAR_GUARDED_BY(svc::gSvc.mutex) = false;
};

CollectState gCol;

uint64_t queueLimit() ZAR_REQUIRES(svc::gSvc.mutex) {
  if (gCol.queueLimit == 0) {
    gCol.queueLimit = kDefaultQueueLimit;
    if (const char* text = zar::env::get("SVC_COLLECTOR_QUEUE")) {
      char* end = nullptr;
      errno = 0;
      unsigned long long v = strtoull(text, &end, 10);
      if (errno == 0 && end != text && *end == '\0' && text[0] != '-' && v > 0)
        gCol.queueLimit = v < kMaxQueueLimit ? v : kMaxQueueLimit;
    }
  }
  return gCol.queueLimit;
}

void closeSocket(Destination* d) {
  if (d->fd >= 0) {
    CancelDisabled noCancel;
    ::close(d->fd);
  }
  d->fd = -1;
  d->link = Link::kClosed;
  d->headSent = 0;  // a record cut off by a lost link goes again whole
}

void freeQueue(Destination* d) {
  while (Queued* q = d->head) {
    d->head = q->next;
    mem::free(q);
  }
  d->tail = nullptr;
  d->queued = 0;
  d->headSent = 0;
}

void report(Destination* d, bool now) {
  if (d->dropped == d->reported) return;
  int64_t t = nowNs();
  if (!now && t < d->reportAt) return;
  rawLog("libzar: %s: %llu record(s) could not be delivered to the collector (%llu in all)\n",
         d->key, static_cast<unsigned long long>(d->dropped - d->reported),
         static_cast<unsigned long long>(d->dropped));
  d->reported = d->dropped;
  d->reportAt = t + kReportNs;
}

// A forked child finds its parent's socket and queue: it never writes to the
// one nor sends the other (the parent does), and counts from zero.
void adoptAfterFork(Destination* d) {
  pid_t pid = zar_svc__get_pid();
  if (d->pid == pid) return;
  closeSocket(d);
  freeQueue(d);
  d->pid = pid;
  d->sent = d->dropped = d->reported = 0;
  d->retryAt = d->reportAt = 0;
}

int family(const Destination* d) {
  return d->addr.ss_family;
}

// Passes the record as a sealed memory file, as the journal's protocol allows
// for records larger than a datagram.
Outcome sendAsFile(Destination* d, const char* data, size_t len) {
  int mfd = memfd_create("zar-record", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (mfd < 0) return Outcome::kRefused;
  Outcome outcome = Outcome::kRefused;
  size_t done = 0;
  while (done < len) {
    ssize_t n = ::write(mfd, data + done, len - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done == len &&
      fcntl(mfd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0) {
    union {
      struct cmsghdr align;
      char buf[CMSG_SPACE(sizeof(int))];
    } control;
    memset(&control, 0, sizeof control);
    struct msghdr mh;
    memset(&mh, 0, sizeof mh);
    mh.msg_control = control.buf;
    mh.msg_controllen = sizeof control.buf;
    struct cmsghdr* cm = CMSG_FIRSTHDR(&mh);
    cm->cmsg_level = SOL_SOCKET;
    cm->cmsg_type = SCM_RIGHTS;
    cm->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cm), &mfd, sizeof(int));
    if (sendmsg(d->fd, &mh, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
      outcome = Outcome::kSent;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR) {
      outcome = Outcome::kLater;
    } else {
      closeSocket(d);
      d->retryAt = nowNs() + kRetryNs;
      outcome = Outcome::kAbsent;
    }
  }
  ::close(mfd);
  return outcome;
}

// The socket is connected to the collector's address, which spares the
// kernel a look-up of the address on every record; a collector that went
// away (its socket removed or closed, its port unreachable) makes the link
// be made again, at most once per retry interval.
Outcome sendDatagram(Destination* d, const char* data, size_t len) {
  int64_t t = nowNs();
  if (d->fd < 0) {
    if (t < d->retryAt) return Outcome::kAbsent;
    d->fd = socket(family(d), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (d->fd < 0 ||
        connect(d->fd, reinterpret_cast<const struct sockaddr*>(&d->addr), d->addrLen) != 0) {
      closeSocket(d);
      d->retryAt = t + kRetryNs;
      return Outcome::kAbsent;
    }
    d->link = Link::kOpen;
  }
  if (send(d->fd, data, len, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return Outcome::kSent;
  switch (errno) {
    case EAGAIN:
    case ENOBUFS:
    case EINTR:
      return Outcome::kLater;
    case EMSGSIZE:
      if (d->passLargeAsFile) return sendAsFile(d, data, len);
      return Outcome::kRefused;
    default:  // the collector's socket is gone or refuses: make the link again later
      closeSocket(d);
      d->retryAt = t + kRetryNs;
      return Outcome::kAbsent;
  }
}

// Makes the TCP link usable without waiting: starts a connect (at most one
// attempt per retry interval) or looks whether one in progress is done.
bool tcpReady(Destination* d) {
  if (d->link == Link::kOpen) return true;
  if (d->link == Link::kClosed) {
    int64_t t = nowNs();
    if (t < d->retryAt) return false;
    d->retryAt = t + kRetryNs;
    d->fd = socket(family(d), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (d->fd < 0) return false;
    if (connect(d->fd, reinterpret_cast<const struct sockaddr*>(&d->addr), d->addrLen) == 0) {
      d->link = Link::kOpen;
      return true;
    }
    if (errno != EINPROGRESS) {
      closeSocket(d);
      return false;
    }
    d->link = Link::kConnecting;
  }
  struct pollfd p = {d->fd, POLLOUT, 0};
  if (poll(&p, 1, 0) <= 0) return false;
  int err = 0;
  socklen_t errLen = sizeof err;
  if (getsockopt(d->fd, SOL_SOCKET, SO_ERROR, &err, &errLen) != 0 || err != 0) {
    closeSocket(d);
    return false;
  }
  d->link = Link::kOpen;
  return true;
}

// A collector that closed the link (stopped, restarting) has sent its end of
// the stream; what is written after that would vanish, so look first.
void noticePeerClose(Destination* d) {
  if (d->transport != Transport::kTcp || d->link != Link::kOpen) return;
  char c;
  ssize_t n = recv(d->fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
  if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
    closeSocket(d);
}

// Writes what is left of one framed record; *done counts its bytes written.
Outcome sendStream(Destination* d, const char* data, size_t len, size_t* done) {
  if (!tcpReady(d)) return d->link == Link::kConnecting ? Outcome::kLater : Outcome::kAbsent;
  while (*done < len) {
    ssize_t n = send(d->fd, data + *done, len - *done, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      *done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return Outcome::kLater;
    } else {
      closeSocket(d);
      *done = 0;
      return Outcome::kAbsent;
    }
  }
  return Outcome::kSent;
}

Outcome sendOne(Destination* d, const char* data, size_t len, size_t* done) {
  CancelDisabled noCancel;  // output: a cancelled thread leaves no record half sent
  if (d->transport == Transport::kTcp) return sendStream(d, data, len, done);
  return sendDatagram(d, data, len);
}

// Sends queued records in order until the collector stops taking them or the
// deadline passes; true when the queue is empty.
bool drain(Destination* d, int64_t deadline) {
  unsigned n = 0;
  while (Queued* q = d->head) {
    if ((++n & 7) == 0 && nowNs() > deadline) return false;
    Outcome o = sendOne(d, q->data(), q->len, &d->headSent);
    if (o == Outcome::kLater || o == Outcome::kAbsent) return false;
    if (o == Outcome::kSent) {
      ++d->sent;
    } else {
      ++d->dropped;
    }
    d->headSent = 0;
    d->head = q->next;
    if (d->head == nullptr) d->tail = nullptr;
    --d->queued;
    mem::free(q);
  }
  return true;
}

bool enqueue(Destination* d, const char* data, size_t len) ZAR_REQUIRES(svc::gSvc.mutex) {
  if (d->queued >= queueLimit()) return false;
  auto q = static_cast<Queued*>(mem::alloc(sizeof(Queued) + len));
  if (q == nullptr) return false;
  q->next = nullptr;
  q->len = len;
  memcpy(q->data(), data, len);
  if (d->tail != nullptr) {
    d->tail->next = q;
  } else {
    d->head = q;
  }
  d->tail = q;
  ++d->queued;
  return true;
}

// Holds the serviceability mutex if it can be had within timeoutMs: the exit
// handler must not hang on a thread that holds it for good. Like the other
// guards, the analysis takes it as held for its scope; callers test held().
class ZAR_SCOPED_CAPABILITY TrySvcLock {
 public:
  explicit TrySvcLock(int timeoutMs) ZAR_ACQUIRE(svc::gSvc.mutex) ZAR_NO_THREAD_SAFETY_ANALYSIS {
    svc::ensureInit();
    if (svc::heldByThisThread()) {  // exit called by a print's exit action
      held_ = true;
      owned_ = false;
      return;
    }
    int64_t until = nowNs() + timeoutMs * kMsNs;
    while (!(held_ = pthread_mutex_trylock(&svc::gSvc.mutex) == 0) && nowNs() < until) {
      struct timespec pause = {0, kMsNs};
      nanosleep(&pause, nullptr);
    }
    if (held_) svc::gSvc.owner.store(pthread_self(), std::memory_order_relaxed);
  }
  ~TrySvcLock() ZAR_RELEASE() ZAR_NO_THREAD_SAFETY_ANALYSIS {
    if (held_ && owned_) zar_svc__cleanup_mutex();
  }
  TrySvcLock(const TrySvcLock&) = delete;
  TrySvcLock& operator=(const TrySvcLock&) = delete;
  bool held() const { return held_; }

 private:
  bool held_;
  bool owned_ = true;
};

// One pass over every destination of this process; returns the records left.
uint64_t drainAll(int64_t deadline) ZAR_REQUIRES(svc::gSvc.mutex) {
  uint64_t left = 0;
  for (uint32_t i = 0; i < gCol.count; ++i) {
    Destination* d = gCol.dests[i];
    adoptAfterFork(d);
    noticePeerClose(d);
    drain(d, deadline);
    left += d->queued;
  }
  return left;
}

// At exit: what is still queued counts as dropped, and every
// drop not reported yet is reported now.
void giveUpAll() ZAR_REQUIRES(svc::gSvc.mutex) {
  for (uint32_t i = 0; i < gCol.count; ++i) {
    Destination* d = gCol.dests[i];
    d->dropped += d->queued;
    freeQueue(d);
    report(d, true);
  }
}

uint64_t flushFor(int timeoutMs, bool atExit) {
  int64_t deadline = nowNs() + (timeoutMs > 0 ? timeoutMs : 0) * kMsNs;
  for (;;) {
    uint64_t left;
    bool last = false;
    if (atExit) {
      TrySvcLock lock(kExitFlushMs);
      if (!lock.held()) return 0;
      last = nowNs() + 2 * kMsNs >= deadline;
      left = drainAll(last ? deadline : nowNs() + kBudgetNs);
      if (left == 0 || last) giveUpAll();
    } else {
      svc::SvcLock lock;
      last = nowNs() + 2 * kMsNs >= deadline;
      left = drainAll(last ? deadline : nowNs() + kBudgetNs);
    }
    if (left == 0 || last) return left;
    struct timespec pause = {0, 2 * kMsNs};  // a collector that is slow or coming back
    nanosleep(&pause, nullptr);
  }
}

void flushAtExit() {
  flushFor(kExitFlushMs, true);
}

bool parsePort(const char* text, uint16_t* port) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || text[0] == '+' || v < 1 ||
      v > 65535)
    return false;
  *port = static_cast<uint16_t>(v);
  return true;
}

bool unixAddress(const char* path, Destination* d) {
  struct sockaddr_un sun;
  size_t len = strlen(path);
  if (len == 0 || len >= sizeof sun.sun_path) return false;
  memset(&d->addr, 0, sizeof d->addr);
  auto* a = reinterpret_cast<struct sockaddr_un*>(&d->addr);
  a->sun_family = AF_UNIX;
  memcpy(a->sun_path, path, len);
  d->addrLen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len + 1);
  d->transport = Transport::kUnixDatagram;
  return true;
}

// "HOST,PORT": the host's first address of the socket type.
bool netAddress(const char* text, bool tcp, Destination* d) {
  const char* comma = strrchr(text, ',');
  if (comma == nullptr || comma == text) return false;
  char host[256];
  size_t hostLen = static_cast<size_t>(comma - text);
  uint16_t port = 0;
  if (hostLen >= sizeof host || !parsePort(comma + 1, &port)) return false;
  memcpy(host, text, hostLen);
  host[hostLen] = '\0';
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = tcp ? SOCK_STREAM : SOCK_DGRAM;
  struct addrinfo* found = nullptr;
  {
    CancelDisabled noCancel;  // the resolver keeps files and sockets open
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return false;
  }
  bool ok = found->ai_addrlen <= sizeof d->addr;
  if (ok) {
    memcpy(&d->addr, found->ai_addr, found->ai_addrlen);
    d->addrLen = found->ai_addrlen;
    if (d->addr.ss_family == AF_INET)
      reinterpret_cast<struct sockaddr_in*>(&d->addr)->sin_port = htons(port);
    else if (d->addr.ss_family == AF_INET6)
      reinterpret_cast<struct sockaddr_in6*>(&d->addr)->sin6_port = htons(port);
    else
      ok = false;
  }
  freeaddrinfo(found);
  d->transport = tcp ? Transport::kTcp : Transport::kUdp;
  return ok;
}

bool parseAddress(const char* text, const char* defaultPath, bool allowNetwork, Destination* d) {
  if (*text == '\0') return unixAddress(defaultPath, d);
  if (strncmp(text, "unix,", 5) == 0) return unixAddress(text + 5, d);
  if (!allowNetwork) return false;
  if (strncmp(text, "udp,", 4) == 0) return netAddress(text + 4, false, d);
  if (strncmp(text, "tcp,", 4) == 0) return netAddress(text + 4, true, d);
  return false;
}

}  // namespace

// Parses an address form of a route's where text: "unix,PATH",
// "udp,HOST,PORT" or "tcp,HOST,PORT"; an empty text is the datagram socket
// defaultPath. allowNetwork false accepts only the unix forms. Resolves the
// host (once, here). Returns the destination named key (created on first
// use, shared afterwards, counted per route) or null when the text is not a
// valid address.
Destination* acquire(const char* key, const char* address, const char* defaultPath,
                     bool allowNetwork, bool passLargeAsFile) ZAR_REQUIRES(svc::gSvc.mutex) {
  for (uint32_t i = 0; i < gCol.count; ++i) {
    Destination* d = gCol.dests[i];
    if (strcmp(d->key, key) != 0) continue;
    adoptAfterFork(d);
    ++d->references;
    return d;
  }
  auto d = static_cast<Destination*>(mem::allocZero(1, sizeof(Destination)));
  if (d == nullptr) return nullptr;
  if (!parseAddress(address, defaultPath, allowNetwork, d) ||
      (d->key = mem::strDup(key)) == nullptr) {
    mem::free(d);
    return nullptr;
  }
  auto grown =
      static_cast<Destination**>(mem::realloc(gCol.dests, (gCol.count + 1) * sizeof(Destination*)));
  if (grown == nullptr) {
    mem::free(d->key);
    mem::free(d);
    return nullptr;
  }
  gCol.dests = grown;
  gCol.dests[gCol.count++] = d;
  d->passLargeAsFile = passLargeAsFile;
  d->fd = -1;
  d->link = Link::kClosed;
  d->pid = zar_svc__get_pid();
  d->references = 1;
  if (!gCol.exitHandlerSet) gCol.exitHandlerSet = atexit(flushAtExit) == 0;
  return d;
}

void release(Destination* d) ZAR_REQUIRES(svc::gSvc.mutex) {
  adoptAfterFork(d);
  if (--d->references > 0) return;
  // Re-routing closes a list before it opens it again: what waits stays
  // queued for the destination's next route, a flush, or the exit handler.
  noticePeerClose(d);
  drain(d, nowNs() + kBudgetNs);
  report(d, true);
}

Transport transportOf(const Destination* d) {
  return d->transport;
}

// The route (its dest and typeName set) joins the list of open routes.
void trackRoute(OpenRoute* r) ZAR_REQUIRES(svc::gSvc.mutex) {
  r->prev = nullptr;
  r->next = gCol.routes;
  if (gCol.routes != nullptr) gCol.routes->prev = r;
  gCol.routes = r;
}

// The route leaves the list of open routes and lets go of its destination
// (the caller frees the record).
void untrackRoute(OpenRoute* r) ZAR_REQUIRES(svc::gSvc.mutex) {
  if (r->prev != nullptr) {
    r->prev->next = r->next;
  } else {
    gCol.routes = r->next;
  }
  if (r->next != nullptr) r->next->prev = r->prev;
  release(r->dest);
}

void* openRoute(const CollectorKind& kind, const char* name, const char* where, const char* address,
                size_t size) ZAR_REQUIRES(svc::gSvc.mutex) {
  char key[svc::kMaxRouteText + 16];
  if (snprintf(key, sizeof key, "%s:%s", name, where) >= static_cast<int>(sizeof key))
    return nullptr;
  auto route = static_cast<OpenRoute*>(mem::allocZero(1, size));
  if (route == nullptr) return nullptr;
  route->dest = acquire(key, address, kind.defaultPath, kind.allowNetwork, kind.passLargeAsFile);
  if (route->dest == nullptr) {
    mem::free(route);
    return nullptr;
  }
  route->typeName = kind.typeName;
  trackRoute(route);
  return route;
}

void releaseRoutesOf(const char* typeName) ZAR_EXCLUDES(svc::gSvc.mutex) {
  svc::SvcLock lock;
  for (OpenRoute* r = gCol.routes; r != nullptr;) {
    OpenRoute* next = r->next;
    if (strcmp(r->typeName, typeName) == 0) {
      untrackRoute(r);
      mem::free(r);
    }
    r = next;
  }
}

void closeRoute(const char* typeName, void*, void* routeData, unsigned long*) {
  auto route = static_cast<OpenRoute*>(routeData);
  if (route == nullptr) {
    releaseRoutesOf(typeName);
    return;
  }
  untrackRoute(route);
  mem::free(route);
}

void countDropped(Destination* d) ZAR_REQUIRES(svc::gSvc.mutex) {
  adoptAfterFork(d);
  ++d->dropped;
  report(d, false);
}

void submit(Destination* d, const char* data, size_t len) ZAR_REQUIRES(svc::gSvc.mutex) {
  adoptAfterFork(d);
  noticePeerClose(d);
  if (d->head != nullptr) drain(d, nowNs() + kBudgetNs);
  if (d->head == nullptr) {
    size_t done = 0;
    Outcome o = sendOne(d, data, len, &done);
    if (o == Outcome::kSent) {
      ++d->sent;
      return;
    }
    if (o == Outcome::kRefused) {
      ++d->dropped;
      report(d, false);
      return;
    }
    if (done > 0) {  // partly written: the rest goes first, whatever comes after
      if (enqueue(d, data, len)) {
        d->headSent = done;
        return;
      }
      closeSocket(d);  // the stream would carry a torn frame
    }
  }
  if (!enqueue(d, data, len)) ++d->dropped;
  report(d, false);
}

size_t putUtf8(char* out, size_t outLen, const char* in, size_t len, const char* escapeSet) {
  static const char kReplacement[] = "\xEF\xBF\xBD";
  uint64_t escaped[2] = {0, 0};  // a bit for each US-ASCII character of escapeSet
  for (const char* e = escapeSet; e != nullptr && *e != '\0'; ++e) {
    unsigned char c = static_cast<unsigned char>(*e);
    if (c < 0x80) escaped[c >> 6] |= uint64_t{1} << (c & 63);
  }
  size_t w = 0;
  size_t i = 0;
  auto u = [in](size_t k) { return static_cast<unsigned char>(in[k]); };
  while (i < len) {
    unsigned char c = u(i);
    if (c < 0x80) {
      // A run of US-ASCII characters that need no escape goes in one copy.
      size_t run = i;
      if (escapeSet == nullptr) {  // eight bytes at a time while none has its high bit
        uint64_t word;
        while (run + 8 <= len && (memcpy(&word, in + run, 8), (word & 0x8080808080808080u) == 0))
          run += 8;
      }
      while (run < len && u(run) < 0x80 && ((escaped[u(run) >> 6] >> (u(run) & 63)) & 1) == 0)
        ++run;
      if (run > i) {
        size_t n = run - i < outLen - w ? run - i : outLen - w;
        memcpy(out + w, in + i, n);
        w += n;
        i += n;
        if (i < run) break;
        continue;
      }
      if (w + 2 > outLen) break;
      out[w++] = '\\';
      out[w++] = static_cast<char>(c);
      ++i;
      continue;
    }
    size_t n = 0;  // length of a valid sequence at i, 0 when invalid
    if (c >= 0xC2 && c <= 0xDF) {
      n = (i + 1 < len && (u(i + 1) & 0xC0) == 0x80) ? 2 : 0;
    } else if (c >= 0xE0 && c <= 0xEF) {
      bool ok = i + 2 < len && (u(i + 1) & 0xC0) == 0x80 && (u(i + 2) & 0xC0) == 0x80 &&
                !(c == 0xE0 && u(i + 1) < 0xA0) && !(c == 0xED && u(i + 1) >= 0xA0);
      n = ok ? 3 : 0;
    } else if (c >= 0xF0 && c <= 0xF4) {
      bool ok = i + 3 < len && (u(i + 1) & 0xC0) == 0x80 && (u(i + 2) & 0xC0) == 0x80 &&
                (u(i + 3) & 0xC0) == 0x80 && !(c == 0xF0 && u(i + 1) < 0x90) &&
                !(c == 0xF4 && u(i + 1) >= 0x90);
      n = ok ? 4 : 0;
    }
    const char* piece = n != 0 ? in + i : kReplacement;
    size_t pieceLen = n != 0 ? n : 3;
    if (w + pieceLen > outLen) break;
    memcpy(out + w, piece, pieceLen);
    w += pieceLen;
    i += n != 0 ? n : 1;
  }
  return w;
}

const char* givenText(const zar_svc_prolog* prolog, va_list args) {
  const char* f = prolog->format;
  if (f == nullptr || f[0] != '%' || f[1] != 's' || f[2] != '\0') return nullptr;
  va_list copy;
  va_copy(copy, args);
  const char* text = va_arg(copy, const char*);
  va_end(copy);
  return text != nullptr ? text : "";  // as the printf engine writes a null string
}

char* formatText(zar_svc_prolog* prolog, va_list args) {
  char* text = nullptr;
  va_list copy;
  va_copy(copy, args);
  int n = zar_vasprintf(&text, prolog->format != nullptr ? prolog->format : "", copy);
  va_end(copy);
  return n < 0 ? nullptr : text;
}

int syslogSeverity(uint32_t attributes) {
  static const int kBySeverity[svc::kNumSeverities] = {2, 3, 4, 5, 6};
  int index = svc::severityIndex(attributes);
  return index < 0 ? 7 : kBySeverity[index];
}

}  // namespace zar::collect

using zar::collect::gCol;

extern "C" {

ZAR_API void zar_svc_collector_counts_get(const char* route, zar_svc_collector_counts* counts,
                                          unsigned long* status) {
  zar_svc_collector_counts c = {0, 0, 0};
  unsigned long st = ZAR_S_SVC_BAD_ROUTE;
  if (route != nullptr) {
    zar::svc::SvcLock lock;
    for (uint32_t i = 0; i < gCol.count; ++i) {
      zar::collect::Destination* d = gCol.dests[i];
      if (strcmp(d->key, route) != 0) continue;
      zar::collect::adoptAfterFork(d);
      c.sent = d->sent;
      c.dropped = d->dropped;
      c.queued = d->queued;
      st = 0;
      break;
    }
  }
  if (counts != nullptr) *counts = c;
  zar::setStatus(status, st);
}

ZAR_API uint64_t zar_svc_collector_flush(int timeout_ms) {
  return zar::collect::flushFor(timeout_ms, false);
}

}  // extern "C"
