// The forms a record takes on its way out, shared by the sinks
// (svcsink.cc) and the pipeline (svcprint.cc): the text record in the local
// code set (svcrectext.cc), the UTF-8 record (svcrecutf8.cc) and the XML
// record (svcrecxml.cc), and the byte writers they share. Not for any other
// module.
#ifndef ZAR_CORE_SVCUTL_SVCRECORD_H_
#define ZAR_CORE_SVCUTL_SVCRECORD_H_

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "core/zardigits.h"
#include "platform/sysio.h"

namespace zar::svc {

// ---- Byte writers -------------------------------------------------------------

// Eight hexadecimal digits of v, most significant first, as the bytes of a
// word in memory order: the nibbles are spread one per byte and turned into
// digits all at once.
inline uint64_t hexWord(uint32_t v, bool upper) {
  uint64_t x = v;
  x = ((x & 0xFFFF0000ULL) << 16) | (x & 0xFFFFULL);
  x = ((x & 0x0000FF000000FF00ULL) << 8) | (x & 0x000000FF000000FFULL);
  x = ((x & 0x00F000F000F000F0ULL) << 4) | (x & 0x000F000F000F000FULL);
  // x now holds the nibbles, the most significant in the highest byte.
  uint64_t letters = ((x + 0x0606060606060606ULL) >> 4) & 0x0101010101010101ULL;
  x += 0x3030303030303030ULL + letters * (upper ? 7 : 39);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  x = __builtin_bswap64(x);
#endif
  return x;
}

// Writes v as at least eight hexadecimal digits ("%8.8lx", "%8.8lX") at w;
// returns the end (at most 16 bytes are written).
inline char* putHex8(char* w, unsigned long v, bool upper) {
  uint32_t high = static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32);
  if (high != 0) {
    int digits = (32 - __builtin_clz(high) + 3) / 4;
    char tmp[8];
    uint64_t x = hexWord(high, upper);
    memcpy(tmp, &x, 8);
    memcpy(w, tmp + 8 - digits, static_cast<size_t>(digits));
    w += digits;
  }
  uint64_t x = hexWord(static_cast<uint32_t>(v), upper);
  memcpy(w, &x, 8);
  return w + 8;
}

// Writes v in decimal at w; returns the end (at most 20 bytes are written).
inline char* putDec(char* w, long long v) {
  return digits::putSigned(w, v);
}

// Whether a stream is one of the library's log files. Only the library
// writes to those, and it leaves nothing in their stdio buffers, so a record
// goes straight to the file's descriptor; the standard streams, which the
// program writes too, are written through stdio.
inline bool isLogFile(FILE* stream) {
  return stream != stdout && stream != stderr;
}

// Collects a record's bytes in a stack buffer and hands them on in as few
// writes as possible: to the descriptor of a log file, or to a standard
// stream through stdio. Longer records go out in pieces, which the file lock
// keeps together. Lives only inside a StreamHold, so its writes (also the
// one of its destructor) run with cancellation disabled. A failed write to a
// log file sets *failed.
class OutBuf {
 public:
  OutBuf(FILE* stream, bool* failed)
      : stream_(stream), fd_(isLogFile(stream) ? fileno(stream) : -1), failed_(failed) {}
  ~OutBuf() { flush(); }
  OutBuf(const OutBuf&) = delete;
  OutBuf& operator=(const OutBuf&) = delete;

  void put(const char* p, size_t n) {
    if (n <= sizeof buf_ - len_) {
      memcpy(buf_ + len_, p, n);
      len_ += n;
      return;
    }
    while (n > 0) {
      if (len_ == sizeof buf_) flush();
      size_t k = sizeof buf_ - len_ < n ? sizeof buf_ - len_ : n;
      memcpy(buf_ + len_, p, k);
      len_ += k;
      p += k;
      n -= k;
    }
  }
  void put(const char* s) { put(s, strlen(s)); }
  void put(char c) {
    if (len_ == sizeof buf_) flush();
    buf_[len_++] = c;
  }
  void hex8(unsigned long v, bool upper) { len_ = putHex8(reserve(16), v, upper) - buf_; }
  void dec(long long v) { len_ = putDec(reserve(24), v) - buf_; }
  // Room for n bytes at the end of the buffer (flushing it first when
  // needed), to be filled and then committed; null when n exceeds the
  // buffer.
  char* reserve(size_t n) {
    if (n > sizeof buf_) return nullptr;
    if (sizeof buf_ - len_ < n) flush();
    return buf_ + len_;
  }
  void commit(size_t n) { len_ += n; }
  // Renders a parsed format; a text longer than the buffer is rendered into
  // a block of its own. False when the format cannot be rendered (or memory
  // for a long text cannot be had).
  bool render(format::Context* ctx) {
    size_t room = sizeof buf_ - len_;
    int n = zar_vsnprintf_render(ctx, buf_ + len_, room);
    if (n < 0) return false;
    if (static_cast<size_t>(n) < room) {
      len_ += static_cast<size_t>(n);
      return true;
    }
    mem::Unique<char> text(static_cast<char*>(mem::alloc(static_cast<size_t>(n) + 1)));
    if (!text || zar_vsnprintf_render(ctx, text.get(), static_cast<size_t>(n) + 1) != n)
      return false;
    put(text.get(), static_cast<size_t>(n));
    return true;
  }
  void flush() {
    if (len_ == 0) return;
    if (fd_ >= 0) {
      if (!sys::writeAll(fd_, buf_, len_)) *failed_ = true;
    } else {
      sys::fwrite(buf_, 1, len_, stream_);
    }
    len_ = 0;
  }

 private:
  FILE* stream_;
  int fd_;  // the log file's descriptor, or -1 for a standard stream
  bool* failed_;
  size_t len_ = 0;
  char buf_[2048];
};

// Whole-file write lock, then cancellation off; returns the previous
// cancellation state. A lock that cannot be had (a pipe) stops nothing.
int lockForWrite(int fd);
void unlockForWrite(int fd, int previousCancelState);

// A stream held for one record: the whole-file write lock (so that processes
// sharing the file never interleave records) and no cancellation; for a
// standard stream also its stdio lock (so that the program's own writes to it
// do not interleave either), and a flush when it lets go.
class StreamHold {
 public:
  explicit StreamHold(FILE* stream)
      : stream_(stream), fd_(fileno(stream)), logFile_(isLogFile(stream)) {
    previous_ = lockForWrite(fd_);
    if (!logFile_) flockfile(stream_);
  }
  ~StreamHold() {
    if (!logFile_) {
      sys::fflush(stream_);
      funlockfile(stream_);
    }
    unlockForWrite(fd_, previous_);
  }
  StreamHold(const StreamHold&) = delete;
  StreamHold& operator=(const StreamHold&) = delete;

 private:
  FILE* stream_;
  int fd_;
  bool logFile_;
  int previous_;
};

inline bool isDebug(const zar_svc_prolog& p) {
  return (p.attributes & svc_c_debug_mask) != 0;
}

// Whether a record has no text to show ("Unknown message 0x..." instead):
// a saved message without a text, another without a format.
inline bool unknownText(const zar_svc_record* record) {
  return record->saved() ? record->savedText() == nullptr : record->prolog.format == nullptr;
}

// Whether a record starts with its prefix (or XML head): not for a brief
// message, nor for a debug message while SVC_BRIEF is set.
inline bool wantsPrefix(const zar_svc_record* record) {
  const zar_svc_prolog& p = record->prolog;
  if (p.attributes & svc_c_action_brief) return false;
  return !(gSvc.brief != 0 && isDebug(p));
}

inline void putUnknown(OutBuf& out, uint32_t msgid) {
  out.put("Unknown message 0x");
  out.hex8(msgid, false);
}

// ---- Record forms ----------------------------------------------------------------

// Which text of the record a form writes: its own (in its own code set) or
// the one converted into the other code set.
enum class RecordText { kOwn, kConverted };

// The prefix of a text record (svcrectext.cc): "TIME 0xID PROGRAM SEVERITY
// COMPONENT SUB FILE LINE 0xTHREAD", ending in a line break when lineBreak,
// else a blank.
void putTextPrefix(OutBuf& out, zar_svc_record* record, bool lineBreak)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);

// A text record: the prefix (unless the record is brief) and the chosen text,
// its own text formatted in code set renderCs. False when a write to a log
// file failed.
bool writeLineRecord(FILE* stream, zar_svc_record* record, bool lineBreak, RecordText which,
                     nlz_cs_t renderCs, va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex);

// The text record in the local code set (svcrectext.cc), the UTF-8 record
// (svcrecutf8.cc) and the XML record (svcrecxml.cc) as routes write them.
// False when a write to a log file failed.
bool writeTextRecord(FILE* stream, zar_svc_record* record, bool lineBreak, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
bool writeUtf8Record(FILE* stream, zar_svc_record* record, bool lineBreak, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
bool writeXmlRecord(FILE* stream, zar_svc_record* record, va_list args)
    ZAR_REQUIRES(zar::svc::gSvc.mutex);
// An XML record with the chosen text; convertStrings puts the string
// arguments of its Param lines into UTF-8.
bool writeXml(FILE* stream, zar_svc_record* record, RecordText which, bool convertStrings,
              va_list args) ZAR_REQUIRES(zar::svc::gSvc.mutex);

}  // namespace zar::svc

#endif  // ZAR_CORE_SVCUTL_SVCRECORD_H_
