// The record of one print call: its texts made on first use and kept for
// every route of the call (formatted, converted, parsed, the local time
// text), and the write lock the record forms take.
#include <ctype.h>
#include <endian.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"
#include "platform/sysio.h"

namespace zar::svc {
namespace {

// Converts length bytes of text from code set source into other (UTF-8 into
// the local code set when source is UTF-8, else into UTF-8); a new
// terminated text, or null (length 0) on failure.
char* localConvert(nlz_cs_t source, nlz_cs_t other, bool sourceIsUtf8, size_t length,
                   const char* text, size_t* outLength) {
  *outLength = 0;
  if (source == other) {
    char* copy = static_cast<char*>(mem::alloc(length + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    *outLength = length;
    return copy;
  }
  size_t room = length * (sourceIsUtf8 ? 2 : 3) + 1 + 4;
  if (room > INT32_MAX) return nullptr;
  char* out = static_cast<char*>(mem::alloc(room));
  if (out == nullptr) return nullptr;
  int n =
      sourceIsUtf8
          ? nlz_from_utf8(other, text, static_cast<int>(length), out, static_cast<int>(room) - 1)
          : nlz_to_utf8(source, text, static_cast<int>(length), out, static_cast<int>(room) - 1);
  if (n < 1) {
    mem::free(out);
    return nullptr;
  }
  out[n] = '\0';
  *outLength = static_cast<size_t>(n);
  return out;
}

// Parses format with args in code set cs, through the kept parse of the
// last text when format is that text.
int parseText(format::Context* ctx, nlz_cs_t cs, const char* format, va_list args)
    ZAR_REQUIRES(gSvc.mutex) {
  ParsedTextCache& cache = gSvc.parsedCache;
  size_t length = strlen(format);
  if (cache.length != 0 && length == cache.length && cache.model.cs == cs &&
      memcmp(cache.text, format, length) == 0)
    return zar_vsnprintf_parse_as(ctx, &cache.model, format, args);
  int rc = zar_vsnprintf_parse(ctx, cs, format, args);
  if (rc == 0 && length < sizeof cache.text) {
    cache.length = 0;
    memcpy(cache.text, format, length + 1);
    if (zar_vsnprintf_parse_as(&cache.model, ctx, cache.text, args) == 0) cache.length = length;
  }
  return rc;
}

}  // namespace

char* localSprintf(nlz_cs_t cs, const char* fmt, int32_t* length, va_list args) {
  *length = 0;
  format::Context ctx;
  va_list copy;
  va_copy(copy, args);
  int rc = zar_vsnprintf_parse(&ctx, cs, fmt, copy);
  va_end(copy);
  if (rc != 0) return nullptr;
  char stackBuf[1024];
  int n = zar_vsnprintf_render(&ctx, stackBuf, sizeof stackBuf);
  char* text = nullptr;
  if (n >= 1) {
    text = static_cast<char*>(mem::alloc(static_cast<size_t>(n) + 1));
    if (text != nullptr && static_cast<size_t>(n) < sizeof stackBuf) {
      memcpy(text, stackBuf, static_cast<size_t>(n) + 1);
    } else if (text != nullptr &&
               zar_vsnprintf_render(&ctx, text, static_cast<size_t>(n) + 1) != n) {
      mem::free(text);
      text = nullptr;
    }
  }
  zar_vsnprintf_done(&ctx);
  if (text != nullptr) *length = n;
  return text;
}

int lockForWrite(int fd) {
  sys::fileLock(fd, F_WRLCK, true);
  int previous = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
  return previous;
}

void unlockForWrite(int fd, int previousCancelState) {
  sys::fileLock(fd, F_UNLCK, true);
  if (previousCancelState == PTHREAD_CANCEL_ENABLE)
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

}  // namespace zar::svc

using zar::svc::gSvc;

zar_svc_record::~zar_svc_record() {
  if (parseState_ == 1) zar_vsnprintf_done(&parsed_);
  zar::mem::free(converted_);
  if (!saved_) zar::mem::free(text_);
  if (formatOwned_) zar::mem::free(const_cast<char*>(prolog.format));
}

nlz_cs_t zar_svc_record::sourceCs() {
  if (!codeSetsMade_) {
    nlz_cs_t local = zar::svc::localCodePage();
    nlz_cs_t utf8 = zar::svc::utf8CodeSet();
    sourceCs_ = utf8Source ? utf8 : local;
    otherCs_ = utf8Source ? local : utf8;
    codeSetsMade_ = true;
  }
  return sourceCs_;
}

nlz_cs_t zar_svc_record::otherCs() {
  sourceCs();
  return otherCs_;
}

const char* zar_svc_record::text(va_list args, size_t* length) {
  if (!textMade_) {
    textMade_ = true;
    if (prolog.format != nullptr) {
      int32_t n = 0;
      text_ = zar::svc::localSprintf(sourceCs(), prolog.format, &n, args);
      textLength_ = static_cast<size_t>(n);
    }
  }
  *length = textLength_;
  return text_;
}

const char* zar_svc_record::convertedText(va_list args, size_t* length) {
  if (!convertedMade_) {
    convertedMade_ = true;
    size_t n = 0;
    const char* own = text(args, &n);
    if (own != nullptr) {
      if (n == 0) n = strlen(own);
      converted_ =
          zar::svc::localConvert(sourceCs(), otherCs(), utf8Source, n, own, &convertedLength_);
    }
  }
  *length = convertedLength_;
  return converted_;
}

zar::format::Context* zar_svc_record::parsed(va_list args, nlz_cs_t cs) {
  if (parseState_ == 0 || parsedCs_ != cs) {
    if (parseState_ == 1) zar_vsnprintf_done(&parsed_);
    va_list copy;
    va_copy(copy, args);
    int rc = zar::svc::parseText(&parsed_, cs, prolog.format, copy);
    va_end(copy);
    parseState_ = rc == 0 ? 1 : -1;
    parsedCs_ = cs;
  }
  return parseState_ == 1 ? &parsed_ : nullptr;
}

// The text of a whole second is made once and kept; records within that
// second only put in their milliseconds, taken straight from the UTC value
// (its time in 100 ns units, as mkcomptime stores it). (Zone offsets change
// at whole seconds, so the kept text is right for the whole second; a
// changed TZ shows from the next second on.)
const char* zar_svc_record::timeText() {
  if (timeMade_) return timeText_;
  timeMade_ = true;
  constexpr uint64_t kPerSecond100 = 10'000'000;
  zar::svc::TimeTextCache& cache = gSvc.timeCache;
  const unsigned char* b = prolog.t.char_array;
  uint64_t t100 = 0;
  const bool plain = (b[15] & 0xF0) == 0x10;  // the form of a time made by this library
  if (plain) {
    memcpy(&t100, b, 8);
    t100 = le64toh(t100);
  }
  if (plain && cache.msAt != 0 && t100 - cache.from100 < kPerSecond100) {
    memcpy(timeText_, cache.text, sizeof timeText_);
    uint64_t ms = (t100 - cache.from100) / 10'000;
    timeText_[cache.msAt] = static_cast<char>('0' + ms / 100);
    timeText_[cache.msAt + 1] = static_cast<char>('0' + ms / 10 % 10);
    timeText_[cache.msAt + 2] = static_cast<char>('0' + ms % 10);
    timeLength_ = cache.length;
    return timeText_;
  }
  if (zar_utc_asclocaltime(timeText_, sizeof timeText_, &prolog.t) != 0) {
    timeText_[0] = '\0';
    return timeText_;
  }
  timeLength_ = strlen(timeText_);
  // Keep it when the milliseconds are where the form puts them: three
  // digits after the first '.'.
  const char* dot = strchr(timeText_, '.');
  cache.msAt = 0;
  struct timespec ts = {};
  if (plain && zar_utc_bintime(&ts, nullptr, nullptr, &prolog.t) == 0 && dot != nullptr &&
      isdigit(static_cast<unsigned char>(dot[1])) && isdigit(static_cast<unsigned char>(dot[2])) &&
      isdigit(static_cast<unsigned char>(dot[3]))) {
    memcpy(cache.text, timeText_, sizeof cache.text);
    cache.from100 = t100 - static_cast<uint64_t>(ts.tv_nsec / 100);
    cache.msAt = static_cast<size_t>(dot + 1 - timeText_);
    cache.length = timeLength_;
  }
  return timeText_;
}
