// Log files: the shared file records, lazy opening, rotation through
// numbered generations, archiving, closing routes, and the fork handlers
// that give a child of fork its own per-process files.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/rawlog.h"
#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcdiag.h"
#include "core/svcutl/svcint.h"
#include "core/zarlinks.h"
#include "platform/sysio.h"
#include "zar/status.h"

namespace zar::svc {
namespace {

// Decimal text to int32 (strtol semantics, clamped): "" and junk give 0.
int32_t toInt32(const char* text) {
  long v = strtol(text, nullptr, 10);
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// Permission bits from octal text; 0 when absent, not octal, or 01000 and up.
int32_t toMode(const char* text) {
  if (text == nullptr || *text == '\0') return 0;
  char* end = nullptr;
  long v = strtol(text, &end, 8);
  if (end == text || v < 0 || v >= 01000) return 0;
  return static_cast<int32_t>(v);
}

int32_t lookUpUser(const char* name) {
  if (name == nullptr) return -1;
  char buf[4096];
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwnam_r(name, &pw, buf, sizeof buf, &found) != 0 || found == nullptr) return -1;
  return static_cast<int32_t>(found->pw_uid);
}

int32_t lookUpGroup(const char* name) {
  if (name == nullptr) return -1;
  char buf[4096];
  struct group gr;
  struct group* found = nullptr;
  if (getgrnam_r(name, &gr, buf, sizeof buf, &found) != 0 || found == nullptr) return -1;
  return static_cast<int32_t>(found->gr_gid);
}

// Opens a record's file for writing (truncated with a limit, else appended),
// never through a link another user planted in a shared directory. "e": the
// descriptor is not inherited by programs the process runs.
FILE* openLogFile(svc_file_route* record, bool* refused, int* err) {
  const bool truncate = record->limit != 0;
  int fd = links::openUnplanted(record->name,
                                O_WRONLY | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND),
                                0666, refused);
  FILE* f = fd >= 0 ? fdopen(fd, truncate ? "w" : "a") : nullptr;
  *err = errno;
  if (f == nullptr && fd >= 0) close(fd);
  return f;
}

bool olderThan(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// Closes a record's stream. fclose is a cancellation point; a record is never
// left half-closed.
void closeStream(svc_file_route* record) {
  CancelDisabled noCancel;
  fclose(record->stream);
  record->stream = nullptr;
}

svc_file_route* findRecord(const char* name) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  for (uint32_t i = 0; i < gSvc.numFileroutes; ++i) {
    svc_file_route* r = gSvc.fileroutes[i];
    if (r->name != nullptr && strcmp(r->name, name) == 0) return r;
  }
  return nullptr;
}

svc_file_route* newRecord(const char* name) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  auto grown = static_cast<svc_file_route**>(
      mem::realloc(gSvc.fileroutes, (gSvc.numFileroutes + 1) * sizeof(svc_file_route*)));
  if (grown == nullptr) return nullptr;
  gSvc.fileroutes = grown;
  auto record = static_cast<svc_file_route*>(mem::allocZero(1, sizeof(svc_file_route)));
  if (record == nullptr) return nullptr;
  record->name = mem::strDup(name);
  if (record->name == nullptr) {
    mem::free(record);
    return nullptr;
  }
  record->owner = -1;
  record->group = -1;
  gSvc.fileroutes[gSvc.numFileroutes++] = record;
  return record;
}

void flushRoute(svc_route* route, bool) {
  if (auto flush = sinkOf(route->kind).flush) flush(route);
}

// Before fork: no thread is in the middle of a record or a route change,
// and nothing buffered is written twice (once by each process).
void forkPrepare() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  ensureInit();
  pthread_mutex_lock(&gSvc.mutex);
  gSvc.owner.store(pthread_self(), std::memory_order_relaxed);
  // The route-type registry is not caught half changed either.
  dynRouteForkPrepare();
  CancelDisabled noCancel;
  forEachRoute(flushRoute);
}

void forkParent() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  dynRouteForkRelease();
  zar_svc__cleanup_mutex();
}

// In the child: the new process id, and a file of its own for every TEXTFILE
// whose name holds the process id. The file opens under the new name with
// the route's next message.
void forkChild() ZAR_NO_THREAD_SAFETY_ANALYSIS {
  gSvc.pid.store(getpid(), std::memory_order_relaxed);
  dynRouteForkRelease();
  forEachRoute([](svc_route* route, bool) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
    if (route->kind != kRouteTextFile) return;
    svc_file_route* record = route->file;
    if (record == nullptr || record->nameFormat == nullptr) return;
    char name[kMaxRouteText + 1];
    if (!expandFileName(record->nameFormat, gSvc.pid.load(std::memory_order_relaxed), name))
      return;
    if (strcmp(name, record->name) == 0) return;
    char* copy = mem::strDup(name);
    if (copy == nullptr) return;  // keeps writing the inherited file
    if (record->stream != nullptr) closeStream(record);
    route->opened = 0;
    mem::free(record->name);
    record->name = copy;
  });
  zar_svc__cleanup_mutex();
}

}  // namespace

bool expandFileName(const char* format, pid_t pid, char* out) {
  size_t n = 0;
  for (const char* p = format; *p != '\0';) {
    if (*p != '%') {
      if (n >= kMaxRouteText) return false;
      out[n++] = *p++;
      continue;
    }
    ++p;
    if (*p == '%') {
      if (n >= kMaxRouteText) return false;
      out[n++] = '%';
      ++p;
      continue;
    }
    // "%" [-0]* [width] [l] (d|i|u): the process id.
    char conv[16] = "%";
    size_t s = 1;
    while ((*p == '-' || *p == '0') && s < 4) conv[s++] = *p++;
    int width = 0;
    while (*p >= '0' && *p <= '9') {
      width = width * 10 + (*p++ - '0');
      if (width > static_cast<int>(kMaxRouteText)) return false;
    }
    if (*p == 'l') ++p;
    if (*p != 'd' && *p != 'i' && *p != 'u') return false;
    ++p;
    snprintf(conv + s, sizeof conv - s, "*ld");
    char digits[kMaxRouteText + 24];
    int len = snprintf(digits, sizeof digits, conv, width, static_cast<long>(pid));
    if (len < 0 || n + static_cast<size_t>(len) > kMaxRouteText) return false;
    memcpy(out + n, digits, static_cast<size_t>(len));
    n += static_cast<size_t>(len);
  }
  out[n] = '\0';
  return true;
}

bool attachFileRoute(svc_route* route, const char* name, const char* where, const char* gens,
                     const char* limit, const char* mode, const char* user, const char* group,
                     unsigned long* status) {
  svc_file_route* record = findRecord(name);
  if (record == nullptr) record = newRecord(name);
  if (record == nullptr) {
    setStatus(status, ZAR_S_SVC_NO_MEMORY);
    return false;
  }
  if (record->references == 0) {
    // The first route of the record (or the first since all its routes were
    // closed) sets it up from its element.
    char* format = mem::strDup(where);
    if (format == nullptr) {
      setStatus(status, ZAR_S_SVC_NO_MEMORY);
      return false;
    }
    mem::free(record->nameFormat);
    record->nameFormat = format;
    record->nextGeneration = 0;
    record->count = 0;
    record->generations = 0;
    record->limit = 0;
    if (gens != nullptr && limit != nullptr) {
      int32_t g = toInt32(gens);
      record->generations = g > 99 ? 99 : g;
      record->limit = toInt32(limit);
      if (record->limit > 0) archiveLogFile(record);
      if (record->generations < 0 || record->limit < 1) {
        record->generations = 0;
        record->limit = 0;
      }
    }
    record->mode = toMode(mode);
    record->owner = lookUpUser(user);
    record->group = lookUpGroup(group);
  }
  ++record->references;
  route->file = record;
  return true;
}

void archiveLogFile(svc_file_route* record) {
  if (record->generations == 0 || record->name == nullptr) return;
  struct stat st;
  if (::stat(record->name, &st) != 0) return;
  size_t room = strlen(record->name) + 16;
  mem::Unique<char> archive(static_cast<char*>(mem::alloc(room)));
  if (!archive) return;
  if (record->nextGeneration == 0) {
    // The first archive since set-up continues at the first free number, or,
    // when every number is taken, overwrites the oldest generation (the
    // lowest number among equally old ones).
    int32_t firstFree = 0;
    int32_t oldest = 0;
    struct timespec oldestTime = {};
    for (int32_t n = 1; n <= record->generations; ++n) {
      snprintf(archive.get(), room, "%s.%d", record->name, n);
      if (::stat(archive.get(), &st) != 0) {
        firstFree = n;
        break;
      }
      if (oldest == 0 || olderThan(st.st_mtim, oldestTime)) {
        oldest = n;
        oldestTime = st.st_mtim;
      }
    }
    record->nextGeneration = firstFree != 0 ? firstFree : (oldest != 0 ? oldest : 1);
  } else if (record->nextGeneration > record->generations) {
    record->nextGeneration = 1;
  }
  snprintf(archive.get(), room, "%s.%d", record->name, record->nextGeneration);
  ++record->nextGeneration;
  // A planted link is neither moved nor replaced; the open that follows
  // refuses a planted file name in its turn.
  if (links::planted(record->name)) return;
  if (links::planted(archive.get())) {
    rawLog(
        "libzar: log generation %s is a symbolic link that another user made in a shared "
        "directory; refused, %s is not archived\n",
        archive.get(), record->name);
    return;
  }
  ::unlink(archive.get());
  sys::rename(record->name, archive.get());
}

}  // namespace zar::svc

using zar::svc::gSvc;

namespace zar::svc {

void openLogRoute(svc_route* route) {
  svc_file_route* record = route->file;
  if (record->limit != 0 && ++record->count > record->limit) {
    record->count = 1;
    if (route->opened && record->stream != nullptr) {
      closeStream(record);
      route->opened = 0;
      archiveLogFile(record);
    }
  }
  if (record->stream == nullptr) {
    bool refused = false;
    int err = 0;
    FILE* f = record->name != nullptr ? openLogFile(record, &refused, &err) : nullptr;
    if (f != nullptr) {
      if (record->owner != -1 || record->group != -1) {
        if (fchown(fileno(f), static_cast<uid_t>(record->owner),
                   static_cast<gid_t>(record->group)) != 0) {
          // An owner that cannot be given leaves the file as created.
        }
      }
      if (record->mode != 0 && fchmod(fileno(f), static_cast<mode_t>(record->mode)) != 0) {
        // Likewise for permissions.
      }
      record->stream = f;
      record->cutShort = 0;
    } else {
      // The file cannot be had: the route writes as its fallback kind from
      // now on, and the record is stripped of its name for good. Where that
      // loses the messages, or a planted link was refused, it is said.
      if (record->name != nullptr &&
          (refused || (route->fallback == kRouteDiscard && fromSetting(route))))
        reportLogFileUnusable(record->name, err, refused, route->fallback == kRouteDiscard);
      zar::mem::free(record->name);
      zar::mem::free(record->nameFormat);
      record->name = nullptr;
      record->nameFormat = nullptr;
      route->kind = route->fallback;
    }
  }
}

void flushLogRoute(svc_route* route) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  svc_file_route* record = route->file;
  if (record != nullptr && record->stream != nullptr) sys::fflush(record->stream);
}

void closeLogRoute(svc_route* route) {
  svc_file_route* record = route->file;
  if (record != nullptr && record->references > 0 && --record->references == 0 &&
      record->stream != nullptr) {
    closeStream(record);
    route->opened = 0;
  }
}

}  // namespace zar::svc

extern "C" {

pid_t zar_svc__get_pid(void) {
  zar_svc__register_fork_handler_once();
  pid_t pid = gSvc.pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    gSvc.pid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

void zar_svc__register_fork_handler_once(void) {
  pthread_once(&zar::svc::gSvc.forkOnce, [] {
    pthread_atfork(zar::svc::forkPrepare, zar::svc::forkParent, zar::svc::forkChild);
  });
}

}  // extern "C"
