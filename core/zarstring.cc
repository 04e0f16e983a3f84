// ZARString and ZARStringRef: the owning string with its inline buffer and
// exact heap growth, and the non-owning reference with its lazily learnt
// length and terminated copy.
//
// Heap blocks of ZARString come from zar::mem (malloc), so that allocation
// failure can be made to happen in tests and is reported as false, never as an
// exception. The terminated copy of a reference is a new[] array.
#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <new>

#include "base/zarmem.h"
#include "platform/nlz.h"
#include "zar/nls.h"
#include "zar/string.hpp"

namespace {

constexpr int kInline = ZARString::kInlineSize;
// Largest content a string can hold: its length is a signed 32-bit count.
constexpr int64_t kMaxLen = INT32_MAX - 1;

// Length of a text argument: n < 0 means "up to the NUL".
int textLen(const char* s, int n) {
  if (s == nullptr) return 0;
  if (n >= 0) return n;
  size_t l = strlen(s);
  return l > static_cast<size_t>(kMaxLen) ? static_cast<int>(kMaxLen) : static_cast<int>(l);
}

// Room a conversion may need for n source bytes: its worst case.
int64_t roomFor(ZARString::conversion_e conv, int n) {
  switch (conv) {
    case ZARString::CONVERT_FROM_UTF8:
      return 3 * static_cast<int64_t>(n);
    case ZARString::CONVERT_TO_UTF8:
      return 2 * static_cast<int64_t>(n);
    case ZARString::CONVERT_NONE:
      break;
  }
  return n;
}

bool overlaps(const char* a, size_t aLen, const char* b, size_t bLen) {
  uintptr_t pa = reinterpret_cast<uintptr_t>(a);
  uintptr_t pb = reinterpret_cast<uintptr_t>(b);
  return pa < pb + bLen && pb < pa + aLen;
}

// Writes the n source bytes at s into dst (room bytes free), converted as conv
// says, and returns the count written. The local code page is asked anew on
// every call: it is per thread and the caller may be any thread. A converter
// that fails (negative count) adds nothing; a count above room cannot be
// trusted either and is cut to room.
int writeConverted(ZARString::conversion_e conv, const char* s, int n, char* dst, int room) {
  if (conv == ZARString::CONVERT_NONE) {
    memmove(dst, s, static_cast<size_t>(n));  // s may lie in the string itself
    return n;
  }
  if (n == 0) return 0;
  nlz_cs_t cs = zarsvc_get_local_code_page();
  int got = conv == ZARString::CONVERT_FROM_UTF8 ? nlz_from_utf8(cs, s, n, dst, room)
                                                 : nlz_to_utf8(cs, s, n, dst, room);
  if (got < 0) return 0;
  return got > room ? room : got;
}

}  // namespace

// ---------------------------------------------------------------------------
// ZARString
// ---------------------------------------------------------------------------

ZARString::ZARString(const char* s, int len, conversion_e conv) : ZARString() {
  append(s, len, conv);
}

ZARString::ZARString(const ZARStringRef& r) : ZARString() { append(r); }

ZARString::ZARString(const ZARString& o) : ZARString() { append(o); }

ZARString::ZARString(ZARString&& o) noexcept : ZARString() { moveFrom(o); }

void ZARString::freeHeap() noexcept { zar::mem::free(heap_); }

ZARString& ZARString::operator=(const ZARString& o) {
  if (this != &o) set(o);
  return *this;
}

ZARString& ZARString::operator=(ZARString&& o) noexcept {
  if (this != &o) {
    reset();
    moveFrom(o);
  }
  return *this;
}

// Takes o's content and heap block into this empty string without a heap
// block. Content in o's inline buffer is copied into this one's, since the
// data pointer must point into the object that holds it.
void ZARString::moveFrom(ZARString& o) noexcept {
  heap_ = o.heap_;
  heapCap_ = o.heapCap_;
  len_ = o.len_;
  if (o.data_ == o.inline_) {
    memcpy(inline_, o.inline_, static_cast<size_t>(o.len_) + 1);
    data_ = inline_;
  } else {
    data_ = heap_;
  }
  o.heap_ = nullptr;
  o.heapCap_ = 0;
  o.data_ = o.inline_;
  o.len_ = 0;
  o.inline_[0] = '\0';
}

unsigned ZARString::capacity() const {
  return heapCap_ > static_cast<uint32_t>(kInline) ? heapCap_ : static_cast<unsigned>(kInline);
}

char* ZARString::buffer() { return heapCap_ > static_cast<uint32_t>(kInline) ? heap_ : inline_; }

unsigned ZARString::hash() const {
  uint32_t h = 5381;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(data_); *p != 0; ++p)
    h = (h * 33) ^ *p;
  return h;
}

int ZARString::compare(const ZARString& o) const { return strcmp(data_, o.data_); }

int ZARString::compare(const ZARStringRef& r) const {
  int rLen = r.getLen();
  int m = len_ < rLen ? len_ : rLen;
  int c = strncmp(data_, r.getData(), static_cast<size_t>(m));
  if (c != 0) return c;
  if (m < len_) return 1;
  if (rLen > m) return -1;
  return 0;
}

int ZARString::compare(const char* s, int len) const {
  if (s == nullptr) s = "";
  if (len < 0) return strcmp(data_, s);
  return compare(ZARStringRef(s, len, false));
}

bool ZARString::expand(int n) {
  if (n < kInline || static_cast<int64_t>(n) + 1 <= heapCap_) return true;
  if (n > kMaxLen) return false;
  size_t size = static_cast<size_t>(n) + 1;
  char* block = static_cast<char*>(zar::mem::alloc(size));
  if (block == nullptr) return false;
  memcpy(block, data_, static_cast<size_t>(len_) + 1);
  zar::mem::free(heap_);
  heap_ = block;
  heapCap_ = static_cast<uint32_t>(size);
  data_ = block;
  return true;
}

void ZARString::reset() {
  zar::mem::free(heap_);
  heap_ = nullptr;
  heapCap_ = 0;
  len_ = 0;
  inline_[0] = '\0';
  data_ = inline_;
}

char* ZARString::assertBuffer(int len) {
  char* buf = buffer();
  size_t most = capacity() - 1;
  size_t n = len < 0 ? strnlen(buf, most) : static_cast<size_t>(len);
  if (n > most) n = most;
  buf[n] = '\0';
  data_ = buf;
  len_ = static_cast<int32_t>(n);
  return data_;
}

bool ZARString::append(const char* s, int len, conversion_e conv) {
  if (s == nullptr) return true;
  int n = textLen(s, len);
  // Bytes as they are that still fit the inline buffer in use: the usual
  // short append, which needs none of the steps below.
  if (conv == CONVERT_NONE && data_ == inline_ && n < kInline - len_) {
    zar::mem::moveBytes(inline_ + len_, s, static_cast<size_t>(n));  // s may lie in inline_
    len_ += n;
    inline_[len_] = '\0';
    return true;
  }
  // The general case stays out of line, so that the short append above
  // costs no more than its own work.
  auto general = [this](const char* s, int n, conversion_e conv) __attribute__((noinline)) {
    int64_t room = roomFor(conv, n);
    int64_t total = len_ + room;
    if (total > kMaxLen) return false;
    // A converter must not read what it writes: a source inside this string's
    // own buffers is converted from a private copy.
    zar::mem::Unique<char> copy;
    if (conv != CONVERT_NONE && n > 0 &&
        (overlaps(s, static_cast<size_t>(n), inline_, sizeof inline_) ||
         (heap_ != nullptr && overlaps(s, static_cast<size_t>(n), heap_, heapCap_)))) {
      copy.reset(static_cast<char*>(zar::mem::alloc(static_cast<size_t>(n))));
      if (copy == nullptr) return false;
      memcpy(copy.get(), s, static_cast<size_t>(n));
      s = copy.get();
    }
    zar::mem::Unique<char> oldHeap;
    if (total >= kInline) {
      if (total + 1 > heapCap_) {
        // Exact growth: a new block of exactly total + 1 bytes. The old block is
        // freed only after the new bytes are written, since s may point into it.
        char* block = static_cast<char*>(zar::mem::alloc(static_cast<size_t>(total) + 1));
        if (block == nullptr) return false;
        memcpy(block, data_, static_cast<size_t>(len_));
        oldHeap.reset(heap_);
        heap_ = block;
        heapCap_ = static_cast<uint32_t>(total + 1);
        data_ = block;
      } else if (data_ != heap_) {
        memcpy(heap_, data_, static_cast<size_t>(len_));
        data_ = heap_;
      }
    }
    len_ += writeConverted(conv, s, n, data_ + len_, static_cast<int>(room));
    data_[len_] = '\0';
    return true;
  };
  return general(s, n, conv);
}

bool ZARString::append(char c) {
  char text[2] = {c, '\0'};
  return append(text, -1, CONVERT_NONE);
}

bool ZARString::append(const ZARStringRef& r) {
  return append(r.getData(), r.getLen(), CONVERT_NONE);
}

bool ZARString::append(const ZARString& o) { return append(o.data_, o.len_, CONVERT_NONE); }

bool ZARString::set(const char* s, int len, conversion_e conv) {
  // A value as it is goes where append() would put it: a short one into the
  // inline buffer (a held heap block stays held), a longer one into a held
  // block that is large enough.
  if (conv == CONVERT_NONE) {
    const char* text = s == nullptr ? "" : s;
    int n = textLen(text, len);
    if (n < kInline) {
      zar::mem::moveBytes(inline_, text, static_cast<size_t>(n));  // text may lie in inline_
      inline_[n] = '\0';
      data_ = inline_;
      len_ = n;
      return true;
    }
    if (static_cast<int64_t>(n) + 1 <= heapCap_) {  // a held block that is large enough
      memmove(heap_, text, static_cast<size_t>(n));  // text may lie in heap_
      heap_[n] = '\0';
      data_ = heap_;
      len_ = n;
      return true;
    }
  }
  char* oldData = data_;
  int32_t oldLen = len_;
  len_ = 0;
  data_ = inline_;
  if (append(s == nullptr ? "" : s, len, conv)) return true;
  data_ = oldData;
  len_ = oldLen;
  return false;
}

bool ZARString::set(const ZARStringRef& r) { return set(r.getData(), r.getLen(), CONVERT_NONE); }

bool ZARString::set(const ZARString& o) {
  if (this == &o) return true;
  return set(o.data_, o.len_, CONVERT_NONE);
}

// ---------------------------------------------------------------------------
// ZARStringRef
// ---------------------------------------------------------------------------

const char* const ZARStringRef::emptyString = "";

ZARStringRef::ZARStringRef() : data_(emptyString), nullTerminated_(1), len_(0), termCopy_(nullptr) {}

ZARStringRef::ZARStringRef(const char* s, int len, bool nullTerminated)
    : data_(emptyString), nullTerminated_(1), len_(0), termCopy_(nullptr) {
  set(s, len, nullTerminated);
}

ZARStringRef::ZARStringRef(const ZARString& s)
    : data_(s.getData()), nullTerminated_(1), len_(s.getLen()), termCopy_(nullptr) {}

ZARStringRef::ZARStringRef(const ZARStringRef& o)
    : data_(o.data_), nullTerminated_(o.nullTerminated_), len_(o.getLen()), termCopy_(nullptr) {}

ZARStringRef& ZARStringRef::operator=(const ZARStringRef& o) {
  if (this != &o) set(o);
  return *this;
}

ZARStringRef::~ZARStringRef() { delete[] termCopy_; }

void ZARStringRef::freeCopy() {
  delete[] termCopy_;
  termCopy_ = nullptr;
}

int ZARStringRef::getLen() const {
  if (len_ < 0) {
    size_t l = strlen(data_);
    len_ = l > static_cast<size_t>(kMaxLen) ? static_cast<int32_t>(kMaxLen)
                                            : static_cast<int32_t>(l);
  }
  return len_;
}

const char* ZARStringRef::getNullTermData() const {
  if (nullTerminated_ != 0) return data_;
  if (termCopy_ != nullptr) return termCopy_;
  size_t n = static_cast<size_t>(getLen());
  char* copy = new (std::nothrow) char[n + 1];
  if (copy == nullptr) return nullptr;
  strncpy(copy, data_, n);  // bytes after an embedded NUL become NUL
  copy[n] = '\0';
  termCopy_ = copy;
  return copy;
}

int ZARStringRef::set(const ZARString& s) {
  freeCopy();
  data_ = s.getData();
  len_ = s.getLen();
  nullTerminated_ = 1;
  return 0;
}

int ZARStringRef::set(const ZARStringRef& o) {
  if (this == &o) return 0;  // its copy is its own; nothing changes
  freeCopy();
  data_ = o.data_;
  len_ = o.len_;
  nullTerminated_ = o.nullTerminated_;
  return 0;
}

int ZARStringRef::set(const char* s, int len, bool nullTerminated) {
  freeCopy();
  if (s == nullptr) {
    data_ = emptyString;
    len_ = 0;
    nullTerminated_ = 1;
    return 0;
  }
  data_ = s;
  len_ = len < 0 ? -1 : len;
  nullTerminated_ = (nullTerminated || len < 0) ? 1 : 0;
  return 0;
}

unsigned ZARStringRef::hash() const {
  uint32_t h = 5381;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data_);
  for (int i = 0, n = getLen(); i < n; ++i) h = (h * 33) ^ p[i];
  return h;
}

namespace {

using NCompare = int (*)(const char*, const char*, size_t);

int compareRefs(const ZARStringRef& a, const ZARStringRef& b, NCompare cmp) {
  int n = a.getLen();
  int m = b.getLen();
  if (a.getData() == b.getData() && n == m) return 0;
  int tie = 0;
  if (n > m) {
    tie = 1;
    n = m;
  } else if (n < m) {
    tie = -1;
  }
  int c = cmp(a.getData(), b.getData(), static_cast<size_t>(n));
  return c != 0 ? c : tie;
}

int compareRefString(const ZARStringRef& a, const ZARString& s, NCompare cmp) {
  int n = a.getLen();
  int m = s.getLen();
  if (a.getData() == s.getData() && n == m) return 0;
  int c = cmp(a.getData(), s.getData(), static_cast<size_t>(n));
  if (c == 0 && n < m) return -1;
  return c;
}

}  // namespace

int ZARStringRef::compare(const ZARStringRef& o) const { return compareRefs(*this, o, strncmp); }

int ZARStringRef::icompare(const ZARStringRef& o) const {
  return compareRefs(*this, o, strncasecmp);
}

int ZARStringRef::compare(const ZARString& s) const {
  return compareRefString(*this, s, strncmp);
}

int ZARStringRef::icompare(const ZARString& s) const {
  return compareRefString(*this, s, strncasecmp);
}

int ZARStringRef::compare(const char* s, int len) const {
  return compareRefs(*this, ZARStringRef(s, len, false), strncmp);
}

int ZARStringRef::icompare(const char* s, int len) const {
  return compareRefs(*this, ZARStringRef(s, len, false), strncasecmp);
}
