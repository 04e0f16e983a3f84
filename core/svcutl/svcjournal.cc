// The JOURNAL route type: records in the systemd journal's native protocol,
// one datagram of NAME=value fields per record to the journal's socket (where
// text empty) or to "unix,PATH". A value with a newline or a control byte
// goes in the protocol's length-prefixed form; a record larger than a
// datagram goes as a sealed memory file (svccollect.cc).
//
// MESSAGE_ID is kMessageIdPrefix followed by the status code in hex, so that
// journalctl MESSAGE_ID=... finds every record of one status code.
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/zarmem.h"
#include "core/svcutl/svccollect.h"
#include "core/svcutl/svcint.h"
#include "zar/printf.h"

namespace zar::collect {
namespace {

constexpr const char* kMessageIdPrefix = "7a61720de7c04f6e9b1c5d2a";  // 24 of 32 hex digits

struct JournalRoute {
  OpenRoute link;  // first: the record is freed through it
};

// A record being built; ok() false once an allocation failed.
class Fields {
 public:
  ~Fields() { mem::free(buf_); }
  Fields() = default;
  Fields(const Fields&) = delete;
  Fields& operator=(const Fields&) = delete;

  bool ok() const { return ok_; }
  const char* data() const { return buf_; }
  size_t size() const { return len_; }

  // NAME=value, or NAME, newline, 64-bit little-endian length, value, for a
  // value that a line cannot carry.
  void add(const char* name, const char* value, size_t valueLen) {
    bool binary = false;
    for (size_t i = 0; i < valueLen && !binary; ++i)
      binary = static_cast<unsigned char>(value[i]) < 32 && value[i] != '\t';
    append(name, strlen(name));
    if (binary) {
      append("\n", 1);
      unsigned char le[8];
      uint64_t v = valueLen;
      for (int i = 0; i < 8; ++i) le[i] = static_cast<unsigned char>(v >> (8 * i));
      append(reinterpret_cast<const char*>(le), 8);
    } else {
      append("=", 1);
    }
    append(value, valueLen);
    append("\n", 1);
  }
  void add(const char* name, const char* value) {
    add(name, value != nullptr ? value : "", value != nullptr ? strlen(value) : 0);
  }

 private:
  void append(const char* p, size_t n) {
    if (!ok_) return;
    if (len_ + n > cap_) {
      size_t cap = cap_ == 0 ? 1024 : cap_;
      while (cap < len_ + n) cap *= 2;
      auto grown = static_cast<char*>(mem::realloc(buf_, cap));
      if (grown == nullptr) {
        ok_ = false;
        return;
      }
      buf_ = grown;
      cap_ = cap;
    }
    memcpy(buf_ + len_, p, n);
    len_ += n;
  }

  char* buf_ = nullptr;
  size_t len_ = 0;
  size_t cap_ = 0;
  bool ok_ = true;
};

constexpr CollectorKind kJournalKind = {"JOURNAL", "/run/systemd/journal/socket", false, true};

void journalOpen(const char* name, const char* where, void*, void** routeData, int32_t* opened)
    ZAR_REQUIRES(svc::gSvc.mutex) {
  *opened = 0;
  auto route =
      static_cast<JournalRoute*>(openRoute(kJournalKind, name, where, where, sizeof(JournalRoute)));
  if (route == nullptr) return;
  *routeData = route;
  *opened = 1;
}

void journalPrint(void*, void* routeData, zar_svc_prolog* p, va_list args)
    ZAR_REQUIRES(svc::gSvc.mutex) {
  auto route = static_cast<JournalRoute*>(routeData);
  const char* given = givenText(p, args);
  char* formatted = given != nullptr ? nullptr : formatText(p, args);
  const char* text = given != nullptr ? given : formatted;
  if (text == nullptr) {
    countDropped(route->link.dest);
    return;
  }
  size_t textLen = strlen(text);
  // Valid UTF-8: each invalid byte may become three.
  auto clean = static_cast<char*>(mem::alloc(textLen * 3 + 1));
  Fields f;
  if (clean != nullptr) {
    f.add("MESSAGE", clean, putUtf8(clean, textLen * 3, text, textLen, nullptr));
    mem::free(clean);
  }
  zar_asprintf_free(formatted);
  if (clean == nullptr) {
    countDropped(route->link.dest);
    return;
  }
  char v[64];
  int sevIndex = svc::severityIndex(p->attributes);
  snprintf(v, sizeof v, "%d", syslogSeverity(p->attributes));
  f.add("PRIORITY", v);
  f.add("SYSLOG_IDENTIFIER", p->progname);
  snprintf(v, sizeof v, "%d", static_cast<int>(zar_svc__get_pid()));
  f.add("SYSLOG_PID", v);
  f.add("CODE_FILE", p->file);
  snprintf(v, sizeof v, "%d", p->line);
  f.add("CODE_LINE", v);
  snprintf(v, sizeof v, "%ld", static_cast<long>(syscall(SYS_gettid)));
  f.add("TID", v);
  if (sevIndex >= 0) {
    snprintf(v, sizeof v, "%s%08x", kMessageIdPrefix, p->message_index);
    f.add("MESSAGE_ID", v);
    snprintf(v, sizeof v, "0x%08X", p->message_index);
    f.add("ZAR_STATUS", v);
    f.add("ZAR_SEVERITY", svc::kCodeTable[sevIndex]);
  } else {
    snprintf(v, sizeof v, "DEBUG%u", p->attributes & svc_c_debug_mask);
    f.add("ZAR_SEVERITY", v);
  }
  f.add("ZAR_COMPONENT", p->handle->component);
  f.add("ZAR_SUBCOMPONENT",
        p->table_index < p->handle->table_size ? p->handle->table[p->table_index].name : nullptr);
  snprintf(v, sizeof v, "0x%08lx", zar_svc__mapthreadid(&p->thread_id));
  f.add("ZAR_THREAD", v);
  if (!f.ok()) {
    countDropped(route->link.dest);
    return;
  }
  submit(route->link.dest, f.data(), f.size());
}

}  // namespace

const BuiltinType kJournalType = {"JOURNAL", journalOpen, journalPrint, closeRoute};

}  // namespace zar::collect
