// Code-set handles and conversions of the internationalisation layer, over
// glibc's iconv.
//
// A handle holds its normalised name, a few properties found once when it is
// made (UTF-8 or not, ASCII-transparent or not, the class of every lead byte)
// and one small pool of iconv descriptors per direction. An iconv descriptor
// carries conversion state and must not be used by two threads at once: a
// conversion takes a descriptor out of the pool (or opens a new one when the
// pool is empty), resets it, converts and puts it back. The pool lock is held
// only to pop or push a pointer.
//
// UTF-8 to and from UTF-8, UTF-8 to and from UTF-16 and ASCII characters of
// ASCII-transparent code sets never reach iconv.
#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <pthread.h>
#include <string.h>

#include "base/faultinj.h"
#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/nlz.h"

namespace {

constexpr int kPoolSize = 4;
constexpr int kNameMax = 64;

// Descriptors for one direction of one code set.
// Invariants: free_[0..count_) are open descriptors in the initial state or in
// any state (they are reset before use).
struct DescriptorPool {
  zar::Mutex mu = PTHREAD_MUTEX_INITIALIZER;
  iconv_t free_[kPoolSize] ZAR_GUARDED_BY(mu);
  int count_ ZAR_GUARDED_BY(mu) = 0;
  const char* to = nullptr;  // iconv names, owned by the handle
  const char* from = nullptr;

  iconv_t acquire() ZAR_EXCLUDES(mu) {
    {
      zar::MutexLock lock(mu);
      if (count_ > 0) return free_[--count_];
    }
    return iconv_open(to, from);
  }
  void release(iconv_t cd) ZAR_EXCLUDES(mu) {
    {
      zar::MutexLock lock(mu);
      if (count_ < kPoolSize) {
        free_[count_++] = cd;
        return;
      }
    }
    iconv_close(cd);
  }
  void closeAll() ZAR_EXCLUDES(mu) {
    zar::MutexLock lock(mu);
    for (int i = 0; i < count_; ++i) iconv_close(free_[i]);
    count_ = 0;
  }
};

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr const char* kUtf16Host = "UTF-16LE";
#else
constexpr const char* kUtf16Host = "UTF-16BE";
#endif

}  // namespace

// Invariants: immutable after nlz_cs_new except the pools, which lock
// themselves. lead[b] is 1 when byte b alone is a whole character, 0 when it
// starts a longer one, -1 when no character starts with it.
struct zar_codeset_s {
  char name[kNameMax];       // normalised name shown to callers
  const char* id;            // interned copy of name: equal names, equal pointers
  char iconvName[kNameMax];  // name iconv is asked for
  bool utf8;
  bool asciiTransparent;     // bytes 0x01..0x7F are the ASCII characters
  signed char lead[256];
  DescriptorPool toUtf8, fromUtf8, toUtf16, fromUtf16;
};

namespace {

// ---- Names ---------------------------------------------------------------------

struct Alias {
  const char* key;   // upper case, without '-', '_', '.', blanks
  const char* name;  // normalised name
};

constexpr Alias kAliases[] = {
    {"UTF8", "UTF-8"},           {"646", "US-ASCII"},       {"ASCII", "US-ASCII"},
    {"USASCII", "US-ASCII"},     {"ANSIX341968", "US-ASCII"}, {"ISO646US", "US-ASCII"},
    {"LATIN1", "ISO-8859-1"},    {"LATIN9", "ISO-8859-15"},   {"EUCJP", "EUC-JP"},
    {"UJIS", "EUC-JP"},          {"SJIS", "SHIFT_JIS"},       {"SHIFTJIS", "SHIFT_JIS"},
    {"EUCKR", "EUC-KR"},         {"EUCTW", "EUC-TW"},         {"EUCCN", "GB2312"},
    {"GB2312", "GB2312"},        {"GBK", "GBK"},              {"GB18030", "GB18030"},
    {"BIG5", "BIG5"},            {"BIG5HKSCS", "BIG5-HKSCS"}, {"KOI8R", "KOI8-R"},
    {"KOI8U", "KOI8-U"},         {"TIS620", "TIS-620"},
};

// Code sets that are not byte-oriented text and cannot stand for char strings.
constexpr const char* kRefused[] = {"UTF16", "UTF16LE", "UTF16BE", "UTF32", "UTF32LE",
                                    "UTF32BE", "UCS2", "UCS2LE", "UCS2BE", "UCS4",
                                    "UCS4LE", "UCS4BE", "UNICODE", "WCHART", "UTF7"};

char upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// Squashes name into key (upper case, separators dropped); false if too long.
bool squash(const char* name, char* key, size_t keyLen) {
  size_t n = 0;
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p == '-' || *p == '_' || *p == '.' || *p == ' ') continue;
    if (n + 1 >= keyLen) return false;
    key[n++] = upper(*p);
  }
  key[n] = '\0';
  return true;
}

// Fills the normalised and the iconv name; false when refused or too long.
bool normalise(const char* name, char* norm, char* forIconv) {
  size_t len = strlen(name);
  if (len == 0 || len >= kNameMax) return false;
  char key[kNameMax];
  if (!squash(name, key, sizeof key) || key[0] == '\0') return false;
  for (const char* r : kRefused)
    if (strcmp(key, r) == 0) return false;
  for (const Alias& a : kAliases) {
    if (strcmp(key, a.key) == 0) {
      strcpy(norm, a.name);
      strcpy(forIconv, a.name);
      return true;
    }
  }
  // ISO8859N / ISO88591N and CPnnnn / WINDOWSnnnn get the usual spelling.
  // (Part numbers have at most two digits; a longer run is no ISO 8859 name.)
  if (strncmp(key, "ISO8859", 7) == 0 && key[7] != '\0' && strlen(key + 7) <= 2 &&
      strspn(key + 7, "0123456789") == strlen(key + 7)) {
    snprintf(norm, kNameMax, "ISO-8859-%s", key + 7);
    strcpy(forIconv, norm);
    return true;
  }
  if (strncmp(key, "WINDOWS", 7) == 0 && key[7] != '\0' &&
      strspn(key + 7, "0123456789") == strlen(key + 7)) {
    snprintf(norm, kNameMax, "CP%s", key + 7);
    strcpy(forIconv, norm);
    return true;
  }
  // Anything else: iconv decides; shown in upper case as given.
  size_t i = 0;
  for (; name[i] != '\0'; ++i) norm[i] = upper(name[i]);
  norm[i] = '\0';
  strcpy(forIconv, name);
  return true;
}

// ---- UTF-8 by hand ---------------------------------------------------------------

// Decodes one UTF-8 character of at most n bytes: its length, or -1 when it
// is invalid or incomplete (overlong forms, surrogates, values past U+10FFFF).
int utf8Decode(const unsigned char* s, int n, uint32_t* cp) {
  if (n <= 0) return -1;
  unsigned char b = s[0];
  if (b < 0x80) {
    *cp = b;
    return 1;
  }
  int len;
  uint32_t v;
  uint32_t min;
  if (b >= 0xC2 && b <= 0xDF) {
    len = 2, v = b & 0x1F, min = 0x80;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3, v = b & 0x0F, min = 0x800;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4, v = b & 0x07, min = 0x10000;
  } else {
    return -1;
  }
  if (n < len) return -1;
  for (int i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return -1;
    v = (v << 6) | (s[i] & 0x3F);
  }
  if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return -1;
  *cp = v;
  return len;
}

int utf8Encode(uint32_t cp, char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

bool validUnicode(uint32_t cp) { return cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF); }

// Validated copy of UTF-8 text.
int copyUtf8(const char* in, int inLen, char* out, int outLen) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(in);
  int i = 0;
  while (i < inLen) {
    uint64_t word;  // US-ASCII needs no decoding: eight bytes at a time while none has its high bit
    while (i + 8 <= inLen && (memcpy(&word, s + i, 8), (word & 0x8080808080808080u) == 0)) i += 8;
    if (i == inLen) break;
    if (s[i] < 0x80) {
      ++i;
      continue;
    }
    uint32_t cp;
    int n = utf8Decode(s + i, inLen - i, &cp);
    if (n < 0) {
      errno = EILSEQ;
      return -1;
    }
    i += n;
  }
  if (inLen > outLen) {
    errno = E2BIG;
    return -1;
  }
  if (inLen > 0) memcpy(out, in, static_cast<size_t>(inLen));
  return inLen;
}

bool injected() {
  int err = zar::fault::check(zar::fault::Op::kIconv);
  if (err == 0) return false;
  errno = err;
  return true;
}

// Runs one whole conversion through a descriptor of the pool: at most outLen
// bytes, shift state flushed at the end. Bytes written, or -1 with errno.
int convert(DescriptorPool& pool, const char* in, size_t inLen, char* out, size_t outLen) {
  iconv_t cd = pool.acquire();
  if (cd == reinterpret_cast<iconv_t>(-1)) {
    if (errno != ENOMEM) errno = EINVAL;
    return -1;
  }
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char* ip = const_cast<char*>(in);
  size_t il = inLen;
  char* op = out;
  size_t ol = outLen;
  size_t r = iconv(cd, &ip, &il, &op, &ol);
  int err = errno;
  if (r != static_cast<size_t>(-1)) {
    r = iconv(cd, nullptr, nullptr, &op, &ol);
    err = errno;
  }
  pool.release(cd);
  if (r == static_cast<size_t>(-1)) {
    errno = (err == EINVAL) ? EILSEQ : err;  // an incomplete tail is invalid input
    return -1;
  }
  size_t written = outLen - ol;
  if (written > static_cast<size_t>(INT32_MAX)) {
    errno = E2BIG;
    return -1;
  }
  return static_cast<int>(written);
}

int inputLength(const char* in, int inLen) {
  if (inLen >= 0) return inLen;
  size_t n = strlen(in);
  return n > static_cast<size_t>(INT32_MAX) ? -1 : static_cast<int>(n);
}

// Fills the properties that are found by trying conversions.
bool probe(zar_codeset_s* cs) {
  if (cs->utf8) {
    cs->asciiTransparent = true;
    for (int b = 0; b < 256; ++b)
      cs->lead[b] = b < 0x80 ? 1 : (b >= 0xC2 && b <= 0xF4) ? 0 : -1;
    return true;
  }
  iconv_t cd = iconv_open("UTF-8", cs->iconvName);
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  cs->asciiTransparent = true;
  cs->lead[0] = 1;
  for (int b = 1; b < 256; ++b) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char in = static_cast<char>(b);
    char outBuf[8];
    char* ip = &in;
    size_t il = 1;
    char* op = outBuf;
    size_t ol = sizeof outBuf;
    size_t r = iconv(cd, &ip, &il, &op, &ol);
    if (r != static_cast<size_t>(-1) && il == 0) {
      cs->lead[b] = 1;
      if (b < 0x80 && !(sizeof outBuf - ol == 1 && outBuf[0] == in)) cs->asciiTransparent = false;
    } else {
      cs->lead[b] = (errno == EINVAL) ? 0 : -1;
      if (b < 0x80) cs->asciiTransparent = false;
    }
  }
  iconv_close(cd);
  return true;
}

// ---- Interned names and shared handles ----------------------------------------------

// Normalised names are interned so that two handles of one code set compare
// by pointer; the shared handles are made once per code set for all callers.
// Invariants: names[0..nameCount) are never changed or freed;
// shared[0..sharedCount) are handles made by nlz_cs_new, never freed, and a
// handle is published only after it is complete.
constexpr int kNamesMax = 128;
constexpr int kSharedMax = 64;
struct CodeSetState {
  zar::Mutex namesMu;
  char names[kNamesMax][kNameMax] ZAR_GUARDED_BY(namesMu);
  int nameCount ZAR_GUARDED_BY(namesMu);
  zar::Mutex sharedMu;
  nlz_cs_t shared[kSharedMax] ZAR_GUARDED_BY(sharedMu);
  int sharedCount ZAR_GUARDED_BY(sharedMu);
};
CodeSetState gCs = {PTHREAD_MUTEX_INITIALIZER, {}, 0, PTHREAD_MUTEX_INITIALIZER, {}, 0};

// The interned copy of a normalised name, or null when the table is full.
const char* intern(const char* name) ZAR_EXCLUDES(gCs.namesMu) {
  zar::MutexLock lock(gCs.namesMu);
  for (int i = 0; i < gCs.nameCount; ++i)
    if (strcmp(gCs.names[i], name) == 0) return gCs.names[i];
  if (gCs.nameCount == kNamesMax) return nullptr;
  strcpy(gCs.names[gCs.nameCount], name);
  return gCs.names[gCs.nameCount++];
}

// The shared handle named norm, or null when there is none yet.
nlz_cs_t findShared(const char* norm) ZAR_REQUIRES(gCs.sharedMu) {
  for (int i = 0; i < gCs.sharedCount; ++i)
    if (strcmp(gCs.shared[i]->name, norm) == 0) return gCs.shared[i];
  return nullptr;
}

// The calling thread's locale code set, cached by its name.
struct ThreadCs {
  char name[kNameMax];
  nlz_cs_t cs;
};
thread_local ThreadCs tThreadCs = {{0}, nullptr};

nlz_cs_t threadCs() {
  const char* name = nl_langinfo(CODESET);
  if (name == nullptr || *name == '\0') name = "US-ASCII";
  if (tThreadCs.cs != nullptr && strcmp(tThreadCs.name, name) == 0) return tThreadCs.cs;
  nlz_cs_t cs = nlz_cs_shared(name);
  if (cs != nullptr && strlen(name) < kNameMax) {
    strcpy(tThreadCs.name, name);
    tThreadCs.cs = cs;
  }
  return cs;
}

nlz_cs_t resolve(nlz_cs_t cs) { return cs != nullptr ? cs : threadCs(); }

}  // namespace

// ---- Handles -----------------------------------------------------------------------

nlz_cs_t nlz_cs_new(const char* name) {
  if (name == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  char norm[kNameMax];
  char forIconv[kNameMax];
  if (!normalise(name, norm, forIconv)) {
    errno = EINVAL;
    return nullptr;
  }
  if (injected()) return nullptr;
  zar_codeset_s* cs = zar::mem::make<zar_codeset_s>();
  if (cs == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  strcpy(cs->name, norm);
  cs->id = intern(norm);
  strcpy(cs->iconvName, forIconv);
  cs->utf8 = strcmp(norm, "UTF-8") == 0;
  if (!probe(cs)) {
    zar::mem::destroy(cs);
    errno = EINVAL;
    return nullptr;
  }
  cs->toUtf8.to = "UTF-8";
  cs->toUtf8.from = cs->iconvName;
  cs->fromUtf8.to = cs->iconvName;
  cs->fromUtf8.from = "UTF-8";
  cs->toUtf16.to = kUtf16Host;
  cs->toUtf16.from = cs->iconvName;
  cs->fromUtf16.to = cs->iconvName;
  cs->fromUtf16.from = kUtf16Host;
  return cs;
}

void nlz_cs_free(nlz_cs_t cs) {
  if (cs == nullptr) return;
  cs->toUtf8.closeAll();
  cs->fromUtf8.closeAll();
  cs->toUtf16.closeAll();
  cs->fromUtf16.closeAll();
  zar::mem::destroy(cs);
}

const char* nlz_cs_name(nlz_cs_t cs) {
  cs = resolve(cs);
  return cs != nullptr ? cs->name : "";
}

int nlz_cs_is_utf8(nlz_cs_t cs) {
  cs = resolve(cs);
  return cs != nullptr && cs->utf8 ? 1 : 0;
}

int nlz_cs_ascii_transparent(nlz_cs_t cs) {
  cs = resolve(cs);
  return cs != nullptr && cs->asciiTransparent ? 1 : 0;
}

int nlz_cs_same(nlz_cs_t a, nlz_cs_t b) {
  a = resolve(a);
  b = resolve(b);
  if (a == b) return 1;
  if (a == nullptr || b == nullptr) return 0;
  if (a->id != nullptr && b->id != nullptr) return a->id == b->id ? 1 : 0;
  return strcmp(a->name, b->name) == 0 ? 1 : 0;
}

nlz_cs_t nlz_cs_shared(const char* name) {
  if (name == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  char norm[kNameMax];
  char forIconv[kNameMax];
  if (!normalise(name, norm, forIconv)) {
    errno = EINVAL;
    return nullptr;
  }
  {
    zar::MutexLock lock(gCs.sharedMu);
    if (nlz_cs_t found = findShared(norm)) return found;
  }
  nlz_cs_t made = nlz_cs_new(name);
  if (made == nullptr) return nullptr;
  zar::MutexLock lock(gCs.sharedMu);
  if (nlz_cs_t found = findShared(norm)) {  // another thread was first
    nlz_cs_free(made);
    return found;
  }
  if (gCs.sharedCount == kSharedMax) {
    nlz_cs_free(made);
    errno = ENOMEM;
    return nullptr;
  }
  gCs.shared[gCs.sharedCount++] = made;
  return made;
}

// ---- Conversions ---------------------------------------------------------------------

namespace {

// The two directions of UTF-8 conversion differ only in the descriptor pool;
// a UTF-8 handle copies (after checking) in both.
int convertUtf8(nlz_cs_t cs, bool toUtf8, const char* in, int inLen, char* out, int outLen) {
  cs = resolve(cs);
  if (cs == nullptr || in == nullptr || (out == nullptr && outLen > 0) || outLen < 0) {
    errno = EINVAL;
    return -1;
  }
  inLen = inputLength(in, inLen);
  if (inLen < 0) {
    errno = E2BIG;
    return -1;
  }
  if (injected()) return -1;
  if (cs->utf8) return copyUtf8(in, inLen, out, outLen);
  return convert(toUtf8 ? cs->toUtf8 : cs->fromUtf8, in, static_cast<size_t>(inLen), out,
                 static_cast<size_t>(outLen));
}

}  // namespace

int nlz_to_utf8(nlz_cs_t cs, const char* in, int inLen, char* out, int outLen) {
  return convertUtf8(cs, true, in, inLen, out, outLen);
}

int nlz_from_utf8(nlz_cs_t cs, const char* in, int inLen, char* out, int outLen) {
  return convertUtf8(cs, false, in, inLen, out, outLen);
}

int nlz_mbstowcs(nlz_cs_t cs, nlz_wchar_t* out, const char* in, int outCount) {
  cs = resolve(cs);
  if (cs == nullptr || in == nullptr || out == nullptr || outCount <= 0) {
    errno = EINVAL;
    return -1;
  }
  if (injected()) return -1;
  size_t inLen = strlen(in);
  const unsigned char* s = reinterpret_cast<const unsigned char*>(in);
  // ASCII needs no decoding in an ASCII-transparent code set: the common
  // case of configuration files and messages takes a byte-to-unit loop.
  size_t ascii = 0;
  if (cs->asciiTransparent) {
    while (ascii < inLen && s[ascii] < 0x80) ++ascii;
    if (ascii >= static_cast<size_t>(outCount)) {
      errno = E2BIG;
      return -1;
    }
    for (size_t i = 0; i < ascii; ++i) out[i] = s[i];
    if (ascii == inLen) {
      out[ascii] = 0;
      return static_cast<int>(ascii);
    }
  }
  if (cs->utf8) {
    int n = static_cast<int>(ascii);
    size_t i = ascii;
    while (i < inLen) {
      if (s[i] < 0x80) {
        if (n + 1 >= outCount) {
          errno = E2BIG;
          return -1;
        }
        out[n++] = s[i++];
        continue;
      }
      uint32_t cp;
      int len = utf8Decode(s + i, static_cast<int>(inLen - i > 8 ? 8 : inLen - i), &cp);
      if (len < 0) {
        errno = EILSEQ;
        return -1;
      }
      int units = cp >= 0x10000 ? 2 : 1;
      if (n + units >= outCount) {
        errno = E2BIG;
        return -1;
      }
      if (units == 2) {
        cp -= 0x10000;
        out[n++] = static_cast<nlz_wchar_t>(0xD800 | (cp >> 10));
        out[n++] = static_cast<nlz_wchar_t>(0xDC00 | (cp & 0x3FF));
      } else {
        out[n++] = static_cast<nlz_wchar_t>(cp);
      }
      i += static_cast<size_t>(len);
    }
    out[n] = 0;
    return n;
  }
  size_t room = (static_cast<size_t>(outCount) - 1) * sizeof(nlz_wchar_t);
  int bytes = convert(cs->toUtf16, in, inLen, reinterpret_cast<char*>(out), room);
  if (bytes < 0) return -1;
  int n = bytes / static_cast<int>(sizeof(nlz_wchar_t));
  out[n] = 0;
  return n;
}

int nlz_wcstombs(nlz_cs_t cs, char* out, const nlz_wchar_t* in, int outLen) {
  cs = resolve(cs);
  if (cs == nullptr || in == nullptr || out == nullptr || outLen <= 0) {
    errno = EINVAL;
    return -1;
  }
  if (injected()) return -1;
  size_t units = 0;
  bool allAscii = true;
  for (; in[units] != 0; ++units) allAscii = allAscii && in[units] < 0x80;
  if (allAscii && cs->asciiTransparent) {
    if (units >= static_cast<size_t>(outLen)) {
      errno = E2BIG;
      return -1;
    }
    for (size_t i = 0; i < units; ++i) out[i] = static_cast<char>(in[i]);
    out[units] = '\0';
    return static_cast<int>(units);
  }
  if (cs->utf8) {
    int n = 0;
    for (size_t i = 0; i < units; ++i) {
      uint32_t cp = in[i];
      if (cp < 0x80) {
        if (n + 1 >= outLen) {
          errno = E2BIG;
          return -1;
        }
        out[n++] = static_cast<char>(cp);
        continue;
      }
      if (cp >= 0xD800 && cp <= 0xDBFF) {
        if (i + 1 >= units || in[i + 1] < 0xDC00 || in[i + 1] > 0xDFFF) {
          errno = EILSEQ;
          return -1;
        }
        cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
        ++i;
      } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
        errno = EILSEQ;
        return -1;
      }
      char buf[4];
      int len = utf8Encode(cp, buf);
      if (n + len >= outLen) {
        errno = E2BIG;
        return -1;
      }
      memcpy(out + n, buf, static_cast<size_t>(len));
      n += len;
    }
    out[n] = '\0';
    return n;
  }
  int n = convert(cs->fromUtf16, reinterpret_cast<const char*>(in), units * sizeof(nlz_wchar_t),
                  out, static_cast<size_t>(outLen) - 1);
  if (n < 0) return -1;
  out[n] = '\0';
  return n;
}

int nlz_wctomb(nlz_cs_t cs, char* out, uint32_t wc) {
  cs = resolve(cs);
  if (cs == nullptr || out == nullptr || !validUnicode(wc)) {
    errno = cs == nullptr || out == nullptr ? EINVAL : EILSEQ;
    return -1;
  }
  if (cs->utf8) return utf8Encode(wc, out);
  if (wc < 0x80 && cs->asciiTransparent) {
    out[0] = static_cast<char>(wc);
    return 1;
  }
  if (injected()) return -1;
  char u8[4];
  int len = utf8Encode(wc, u8);
  return convert(cs->fromUtf8, u8, static_cast<size_t>(len), out, 8);
}

int nlz_mblen(nlz_cs_t cs, const char* s, int n) {
  if (s == nullptr) return 0;  // stateless code sets only
  cs = resolve(cs);
  if (cs == nullptr || n <= 0) {
    errno = cs == nullptr ? EINVAL : EILSEQ;
    return -1;
  }
  unsigned char b = static_cast<unsigned char>(s[0]);
  if (b == 0) return 0;
  signed char cls = cs->lead[b];
  if (cls == 1) return 1;
  if (cls < 0) {
    errno = EILSEQ;
    return -1;
  }
  if (cs->utf8) {
    uint32_t cp;
    int len = utf8Decode(reinterpret_cast<const unsigned char*>(s), n > 4 ? 4 : n, &cp);
    if (len < 0) errno = EILSEQ;
    return len;
  }
  // A lead byte: the character is the shortest prefix iconv takes whole.
  iconv_t cd = cs->toUtf8.acquire();
  if (cd == reinterpret_cast<iconv_t>(-1)) return -1;
  int result = -1;
  int maxLen = n > 8 ? 8 : n;
  for (int k = 2; k <= maxLen; ++k) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char* ip = const_cast<char*>(s);
    size_t il = static_cast<size_t>(k);
    char outBuf[16];
    char* op = outBuf;
    size_t ol = sizeof outBuf;
    size_t r = iconv(cd, &ip, &il, &op, &ol);
    if (r != static_cast<size_t>(-1) && il == 0) {
      result = k;
      break;
    }
    if (errno != EINVAL) break;  // invalid, not merely incomplete
  }
  cs->toUtf8.release(cd);
  if (result < 0) errno = EILSEQ;
  return result;
}

// ---- Character classes and search ----------------------------------------------------

int nlz_iswspace(nlz_wchar_t wc) {
  switch (wc) {
    case 0x09: case 0x0A: case 0x0B: case 0x0C: case 0x0D: case 0x20:
    case 0x85: case 0xA0: case 0x1680: case 0x2028: case 0x2029:
    case 0x202F: case 0x205F: case 0x3000:
      return 1;
    default:
      return (wc >= 0x2000 && wc <= 0x200A) ? 1 : 0;
  }
}

const char* nlz_strstr(nlz_cs_t cs, const char* haystack, const char* needle) {
  if (haystack == nullptr || needle == nullptr) return nullptr;
  size_t nlen = strlen(needle);
  if (nlen == 0) return haystack;
  cs = resolve(cs);
  const char* p = haystack;
  while (*p != '\0') {
    if (strncmp(p, needle, nlen) == 0) return p;
    int step = 1;
    if (cs != nullptr && cs->lead[static_cast<unsigned char>(*p)] == 0) {
      int len = nlz_mblen(cs, p, static_cast<int>(strnlen(p, 8)));
      if (len > 0) step = len;  // an invalid byte is passed over on its own
    }
    p += step;
  }
  return nullptr;
}
