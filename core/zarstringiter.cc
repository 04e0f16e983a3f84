// ZARStringIter: splits a text at a delimiter byte into ZARStringRef tokens
// that point into the text.
#include <string.h>

#include "zar/string.hpp"

namespace {

// The token after cursor, by the tokenizer's rules: leading spaces (0x20
// only) skipped, the token ending before the next delimiter or at the end of
// the text. Advances cursor and remaining past the token and its delimiter.
// Returns false when no token is left. *delim is the delimiter that ended
// the token, or null when the token ran to the end of the text.
bool scanToken(char delimiter, const char*& cursor, int& remaining, const char** tokenStart,
               int* tokenLen, const char** delim) {
  if (remaining <= 0) return false;
  while (*cursor == ' ') {
    ++cursor;
    if (--remaining == 0) return false;
  }
  const char* d =
      static_cast<const char*>(memchr(cursor, delimiter, static_cast<size_t>(remaining)));
  int len = d != nullptr ? static_cast<int>(d - cursor) : remaining;
  *tokenStart = cursor;
  *tokenLen = len;
  *delim = d;
  cursor += len + 1;
  remaining -= len + 1;
  return true;
}

}  // namespace

ZARStringIter::ZARStringIter()
    : delimiter_(','),
      readOnly_(true),
      count_(-1),
      start_(nullptr),
      total_(0),
      cursor_(nullptr),
      writeCursor_(nullptr),
      remaining_(0) {}

ZARStringIter::ZARStringIter(const ZARStringRef& text, char delimiter) : ZARStringIter() {
  initialize(text, delimiter);
}

ZARStringIter::ZARStringIter(ZARString& text, char delimiter, bool readOnly) : ZARStringIter() {
  initialize(text, delimiter, readOnly);
}

ZARStringIter::~ZARStringIter() = default;

void ZARStringIter::initialize(const ZARStringRef& text, char delimiter) {
  delimiter_ = delimiter;
  readOnly_ = true;
  writeCursor_ = nullptr;
  start_ = cursor_ = text.getData();
  total_ = remaining_ = text.getLen();
  count_ = -1;
}

void ZARStringIter::initialize(ZARString& text, char delimiter, bool readOnly) {
  delimiter_ = delimiter;
  readOnly_ = readOnly;
  start_ = cursor_ = text.getData();
  // The string is the caller's and is handed over as modifiable: writing
  // through its content pointer is writing into storage it owns.
  writeCursor_ = readOnly ? nullptr : const_cast<char*>(text.getData());
  total_ = remaining_ = text.getLen();
  count_ = -1;
}

bool ZARStringIter::next(ZARStringRef& token) {
  const char* before = cursor_;
  const char* start;
  const char* delim;
  int len;
  if (!scanToken(delimiter_, cursor_, remaining_, &start, &len, &delim)) {
    // Skipped spaces are consumed even when no token follows them.
    if (writeCursor_ != nullptr) writeCursor_ += cursor_ - before;
    return false;
  }
  if (writeCursor_ != nullptr) {
    char* tokenAt = writeCursor_ + (start - before);
    if (delim != nullptr) tokenAt[len] = '\0';
    writeCursor_ = tokenAt + len + 1;
  }
  token.set(start, len, false);
  return true;
}

int ZARStringIter::entries() const {
  if (count_ != -1) return count_;
  int c = 0;
  if (start_ != nullptr) {
    const char* p = start_;
    const char* end = start_ + total_;
    for (;;) {
      while (p < end && *p == ' ') ++p;
      if (p >= end || *p == '\0') break;
      const char* d =
          static_cast<const char*>(memchr(p, delimiter_, static_cast<size_t>(end - p)));
      ++c;
      if (d == nullptr) break;
      p = d + 1;
    }
  }
  count_ = c;
  return c;
}

bool ZARStringIter::contains(const ZARStringRef& text) const {
  const char* cursor = cursor_;
  int remaining = remaining_;
  const char* start;
  const char* delim;
  int len;
  while (scanToken(delimiter_, cursor, remaining, &start, &len, &delim)) {
    if (text.compare(ZARStringRef(start, len, false)) == 0) return true;
  }
  return false;
}
