// XPG message catalogs of the internationalisation layer: the search along
// NLSPATH for a locale, a checked reader of the catalog files that gencat
// writes, and texts converted into the code set a caller asks for.
//
// Catalog file (as written by gencat): a 12-byte header (magic 0x960408de,
// plane size, plane depth, in the byte order of the magic), the table of
// plane size x plane depth entries of three 32-bit words (set + 1, message
// number, offset of the text) in that byte order, the same table in the other
// byte order, then the NUL-terminated texts. An entry whose set word is 0 is
// empty. The reader takes nothing on trust: a file whose tables do not fit, or
// whose texts start or end outside the file, is refused (EINVAL).
//
// A handle is immutable after opening except its table of converted texts,
// which its own mutex guards; texts handed out live until nlz_catclose.
#include <errno.h>
#include <fcntl.h>
#include <langinfo.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/nlz.h"
#include "platform/nlzint.h"
#include "platform/secenv.h"
#include "platform/sysio.h"

namespace {

constexpr uint32_t kMagic = 0x960408deU;
constexpr size_t kMaxCatalogBytes = 64u << 20;  // larger files are refused
constexpr const char* kCharsetPrefix = "charset=";

struct Entry {
  uint32_t set;
  uint32_t msg;
  uint32_t off;  // offset into the text area
  uint32_t len;  // of the text, without its terminator
  bool ascii;    // the text is 7-bit: the same in every code set the layer knows
};

// One text converted into another code set.
struct Converted {
  Converted* next;
  size_t len;
  char csName[64];
  char text[1];  // allocated to the text's length
};

uint32_t swap32(uint32_t v) { return __builtin_bswap32(v); }

}  // namespace

// Invariants: data, index, count, texts, textsLen, path and cs never change
// after nlz_catopen; every index entry's text lies NUL-terminated inside
// [texts, texts + textsLen).
struct nlz_cat_s {
  char* data = nullptr;  // the whole file
  const char* texts = nullptr;
  size_t textsLen = 0;
  Entry* index = nullptr;  // sorted by (set, msg)
  uint32_t count = 0;
  // Direct index of set 1 (where every message text is): set1[msg] is the
  // position in index plus 1, 0 when absent; set1Len entries.
  uint32_t* set1 = nullptr;
  uint32_t set1Len = 0;
  char* path = nullptr;
  nlz_cs_t cs = nullptr;  // shared handle of the catalog's code set, or null
  zar::Mutex mu = PTHREAD_MUTEX_INITIALIZER;
  Converted** converted ZAR_GUARDED_BY(mu) = nullptr;  // per index entry
};

namespace {

// Frees a catalog that no other thread can reach any more.
void destroyCat(nlz_cat_s* c) ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (c == nullptr) return;
  if (c->converted != nullptr) {
    for (uint32_t i = 0; i < c->count; ++i) {
      Converted* p = c->converted[i];
      while (p != nullptr) {
        Converted* next = p->next;
        zar::mem::free(p);
        p = next;
      }
    }
    zar::mem::free(c->converted);
  }
  zar::mem::free(c->data);
  zar::mem::free(c->index);
  zar::mem::free(c->set1);
  zar::mem::free(c->path);
  pthread_mutex_destroy(&c->mu);
  zar::mem::destroy(c);
}

// Reads the whole file at path. Returns the buffer (size in *len) or null
// with errno.
char* readWhole(const char* path, size_t* len) {
  int fd = zar::sys::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  char* buf = nullptr;
  int err = 0;
  if (fstat(fd, &st) != 0) {
    err = errno;
  } else if (!S_ISREG(st.st_mode)) {
    err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  } else if (static_cast<uint64_t>(st.st_size) > kMaxCatalogBytes) {
    err = EFBIG;
  } else {
    size_t want = static_cast<size_t>(st.st_size);
    buf = static_cast<char*>(zar::mem::alloc(want + 1));
    if (buf == nullptr) {
      err = ENOMEM;
    } else {
      size_t got = 0;
      while (got < want) {
        ssize_t n = zar::sys::read(fd, buf + got, want - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          err = n < 0 ? errno : EINVAL;  // shrank while being read
          break;
        }
        got += static_cast<size_t>(n);
      }
      *len = got;
    }
  }
  {
    zar::CancelDisabled noCancel;
    ::close(fd);
  }
  if (err != 0) {
    zar::mem::free(buf);
    errno = err;
    return nullptr;
  }
  return buf;
}

bool isAscii(const char* s, const char* end) {
  for (; s < end; ++s)
    if (static_cast<unsigned char>(*s) >= 0x80) return false;
  return true;
}

uint32_t word(const char* p, bool swap) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return swap ? swap32(v) : v;
}

// Checks and indexes a catalog image; false with errno EINVAL or ENOMEM.
bool parse(nlz_cat_s* c, size_t len) {
  errno = EINVAL;
  if (len < 12) return false;
  uint32_t magic = word(c->data, false);
  bool swap;
  if (magic == kMagic)
    swap = false;
  else if (swap32(magic) == kMagic)
    swap = true;
  else
    return false;
  uint64_t planeSize = word(c->data + 4, swap);
  uint64_t planeDepth = word(c->data + 8, swap);
  uint64_t entries = planeSize * planeDepth;  // both < 2^32: no overflow
  if (entries > len / 24) return false;
  uint64_t tableBytes = entries * 12;
  uint64_t textsAt = 12 + 2 * tableBytes;
  if (textsAt > len) return false;
  c->texts = c->data + textsAt;
  c->textsLen = len - static_cast<size_t>(textsAt);
  Entry* idx = static_cast<Entry*>(zar::mem::allocZero(entries == 0 ? 1 : entries, sizeof(Entry)));
  if (idx == nullptr) {
    errno = ENOMEM;
    return false;
  }
  uint32_t n = 0;
  for (uint64_t i = 0; i < entries; ++i) {
    const char* e = c->data + 12 + i * 12;
    uint32_t set = word(e, swap);
    if (set == 0) continue;  // empty slot
    uint32_t off = word(e + 8, swap);
    const char* text = c->texts + off;
    const void* end = off < c->textsLen ? memchr(text, '\0', c->textsLen - off) : nullptr;
    if (end == nullptr) {
      zar::mem::free(idx);
      errno = EINVAL;
      return false;
    }
    idx[n++] = Entry{set - 1, word(e + 4, swap), off,
                     static_cast<uint32_t>(static_cast<const char*>(end) - text),
                     isAscii(text, static_cast<const char*>(end))};
  }
  std::sort(idx, idx + n, [](const Entry& a, const Entry& b) {
    return a.set != b.set ? a.set < b.set : a.msg < b.msg;
  });
  c->index = idx;
  c->count = n;
  // Set 1 gets a direct index when its numbers are those of status codes.
  uint32_t maxNum = 0;
  for (uint32_t i = 0; i < n && idx[i].set <= 1; ++i)
    if (idx[i].set == 1 && idx[i].msg > maxNum) maxNum = idx[i].msg;
  if (maxNum > 0 && maxNum <= 0x3FFF) {
    c->set1 = static_cast<uint32_t*>(zar::mem::allocZero(maxNum + 1, sizeof(uint32_t)));
    if (c->set1 == nullptr) {
      errno = ENOMEM;
      return false;
    }
    c->set1Len = maxNum + 1;
    for (uint32_t i = n; i-- > 0;)  // the first of duplicates wins
      if (idx[i].set == 1) c->set1[idx[i].msg] = i + 1;
  }
  return true;
}

const Entry* find(const nlz_cat_s* c, uint32_t set, uint32_t msg) {
  if (set == 1 && c->set1 != nullptr) {
    if (msg >= c->set1Len || c->set1[msg] == 0) return nullptr;
    return &c->index[c->set1[msg] - 1];
  }
  uint32_t lo = 0;
  uint32_t hi = c->count;
  while (lo < hi) {
    uint32_t mid = lo + (hi - lo) / 2;
    const Entry& e = c->index[mid];
    if (e.set < set || (e.set == set && e.msg < msg))
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo < c->count && c->index[lo].set == set && c->index[lo].msg == msg) return &c->index[lo];
  return nullptr;
}

// Why the candidates failed, most telling first.
struct OpenErrors {
  bool access = false;
  bool invalid = false;
  bool noMemory = false;
  void note(int err) {
    if (err == EACCES || err == EPERM) access = true;
    else if (err == ENOMEM) noMemory = true;
    else if (err == EINVAL || err == EISDIR || err == EFBIG || err == EIO) invalid = true;
  }
  int errnoValue() const {
    return access ? EACCES : invalid ? EINVAL : noMemory ? ENOMEM : ENOENT;
  }
};

// Opens and checks one candidate file; csHint names the code set the
// directory implies (may be empty).
nlz_cat_s* tryOpen(const char* path, const char* csHint, OpenErrors* errs) {
  size_t len = 0;
  char* data = readWhole(path, &len);
  if (data == nullptr) {
    errs->note(errno);
    return nullptr;
  }
  nlz_cat_s* c = zar::mem::make<nlz_cat_s>();
  if (c == nullptr) {
    zar::mem::free(data);
    errs->note(ENOMEM);
    return nullptr;
  }
  c->data = data;
  c->path = zar::mem::strDup(path);
  if (c->path == nullptr || !parse(c, len)) {
    errs->note(c->path == nullptr ? ENOMEM : errno);
    destroyCat(c);
    return nullptr;
  }
  const Entry* marker = find(c, NLZ_CAT_CODESET_SET, 1);
  const char* csName = csHint;
  if (marker != nullptr) {
    const char* t = c->texts + marker->off;
    if (strncmp(t, kCharsetPrefix, strlen(kCharsetPrefix)) == 0) csName = t + strlen(kCharsetPrefix);
  }
  if (csName != nullptr && *csName != '\0') c->cs = nlz_cs_shared(csName);
  return c;
}

// ---- NLSPATH expansion ------------------------------------------------------------

// One form of the locale name tried for %L, with its parts for %l %t %c.
struct LocaleForm {
  char name[256];
  char lang[64];
  char terr[64];
  char codeset[64];
};

// Copies the n bytes at src into dst (dstLen bytes), cut to fit, terminated.
void copyPart(char* dst, size_t dstLen, const char* src, size_t n) {
  if (n >= dstLen) n = dstLen - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
}

void splitForm(LocaleForm* f) {
  const char* n = f->name;
  size_t l = strcspn(n, "_.@");
  copyPart(f->lang, sizeof f->lang, n, l);
  f->terr[0] = f->codeset[0] = '\0';
  const char* p = n + l;
  if (*p == '_') {
    size_t t = strcspn(p + 1, ".@");
    copyPart(f->terr, sizeof f->terr, p + 1, t);
    p += 1 + t;
  }
  if (*p == '.') {
    size_t cl = strcspn(p + 1, "@");
    copyPart(f->codeset, sizeof f->codeset, p + 1, cl);
  }
}

constexpr int kMaxForms = 6;

// Fills the forms of locale name tried in order; returns their count.
int localeForms(const char* locName, const char* locCs, int flags, LocaleForm* forms) {
  int n = 0;
  auto add = [&](const char* text) {
    if (text == nullptr || *text == '\0' || strlen(text) >= sizeof forms[0].name) return;
    for (int i = 0; i < n; ++i)
      if (strcmp(forms[i].name, text) == 0) return;
    strcpy(forms[n].name, text);
    splitForm(&forms[n]);
    ++n;
  };
  add(locName);
  char buf[256];
  const char* at = strchr(locName, '@');
  if (at != nullptr && static_cast<size_t>(at - locName) < sizeof buf) {
    snprintf(buf, sizeof buf, "%.*s", static_cast<int>(at - locName), locName);
    add(buf);
  }
  char canon[16];
  char lang[16];
  if (nlz_canonical_loc(locName, canon, sizeof canon) == 0 &&
      nlz_canonical_lang(locName, lang, sizeof lang) == 0) {
    if (strcmp(lang, "C") != 0) {
      if (strchr(canon, '_') != nullptr) {
        if (locCs != nullptr && *locCs != '\0') {
          snprintf(buf, sizeof buf, "%s.%s", canon, locCs);
          add(buf);
        }
        add(canon);
      }
      if ((flags & NLZ_CAT_NO_LANG_FALLBACK) == 0) add(lang);
    }
  }
  if ((flags & NLZ_CAT_NO_C_FALLBACK) == 0) add("C");
  return n;
}

bool localeDependent(const char* elem, size_t len) {
  for (size_t i = 0; i + 1 < len; ++i) {
    if (elem[i] != '%') continue;
    char c = elem[i + 1];
    if (c == 'L' || c == 'l' || c == 't' || c == 'c') return true;
    ++i;  // "%%" and others consume their second character
  }
  return false;
}

// Expands one template into out (PATH_MAX bytes); false when too long.
bool expand(const char* elem, size_t len, const char* name, const LocaleForm& f, char* out) {
  size_t o = 0;
  auto put = [&](const char* s, size_t n) {
    if (o + n >= PATH_MAX) return false;
    memcpy(out + o, s, n);
    o += n;
    return true;
  };
  for (size_t i = 0; i < len; ++i) {
    bool ok;
    if (elem[i] != '%' || i + 1 == len) {
      ok = put(elem + i, 1);
    } else {
      char c = elem[++i];
      const char* s = c == 'N' ? name : c == 'L' ? f.name : c == 'l' ? f.lang
                    : c == 't' ? f.terr : c == 'c' ? f.codeset : nullptr;
      if (s != nullptr)
        ok = put(s, strlen(s));
      else if (c == '%')
        ok = put("%", 1);
      else
        ok = put(elem + i - 1, 2);
    }
    if (!ok) return false;
  }
  out[o] = '\0';
  return true;
}

}  // namespace

nlz_cat_t nlz_catopen(const char* name, int flags, nlz_loc_t loc) {
  if (name == nullptr || *name == '\0') {
    errno = EINVAL;
    return nullptr;
  }
  OpenErrors errs;
  if (strchr(name, '/') != nullptr) {
    const char* hint = loc != nullptr ? nlz_loc_cs_name(loc) : "";
    nlz_cat_s* c = tryOpen(name, hint, &errs);
    if (c == nullptr) errno = errs.errnoValue();
    return c;
  }
  // The locale the templates are expanded for.
  const char* locName;
  const char* locCs;
  if ((flags & NLZ_CAT_LOCALE) != 0) {
    if (loc != nullptr) {
      locName = nlzLocMessagesName(loc);
      locCs = nlz_loc_cs_name(loc);
    } else {
      locName = nl_langinfo(_NL_LOCALE_NAME(LC_MESSAGES));
      locCs = nlz_cs_name(nullptr);
    }
  } else {
    locName = zar::env::get("LANG");
    locCs = nlz_cs_name(nullptr);
  }
  if (locName == nullptr || *locName == '\0') locName = "C";
  char csNorm[64];
  snprintf(csNorm, sizeof csNorm, "%s", locCs != nullptr ? locCs : "");

  LocaleForm forms[kMaxForms];
  int nForms = localeForms(locName, csNorm, flags, forms);

  const char* nlspath = zar::env::get("NLSPATH");
  const char* dir = (flags & NLZ_CAT_NO_DATADIR) != 0 ? "" : nlz_get_dir();
  // The data directory's templates, expanded like NLSPATH elements.
  char dirTemplates[4 * PATH_MAX + 32];
  dirTemplates[0] = '\0';
  if (dir != nullptr && *dir != '\0' && strlen(dir) < PATH_MAX) {
    // '%' in the directory itself must not be taken for a sequence.
    char esc[2 * PATH_MAX];
    size_t o = 0;
    for (const char* p = dir; *p != '\0'; ++p) {
      if (*p == '%') esc[o++] = '%';
      esc[o++] = *p;
    }
    esc[o] = '\0';
    // Two copies of at most 2 * PATH_MAX bytes each and 16 of template: fits.
    char* t = dirTemplates;
    memcpy(t, esc, o);
    memcpy(t + o, "/%L/%N:", 7);
    memcpy(t + o + 7, esc, o);
    memcpy(t + 2 * o + 7, "/%L/%N.cat", 11);
  }
  const char* lists[2] = {nlspath, dirTemplates};

  char path[PATH_MAX];
  for (int fi = 0; fi < nForms; ++fi) {
    const LocaleForm& f = forms[fi];
    const char* hint = f.codeset[0] != '\0' ? f.codeset : csNorm;
    for (const char* list : lists) {
      if (list == nullptr) continue;
      const char* p = list;
      while (*p != '\0') {
        size_t len = strcspn(p, ":");
        bool dependent = localeDependent(p, len);
        if (len > 0 && (fi == 0 || dependent) && expand(p, len, name, f, path)) {
          nlz_cat_s* c = tryOpen(path, dependent ? hint : csNorm, &errs);
          if (c != nullptr) return c;
        }
        p += len;
        if (*p == ':') ++p;
      }
    }
  }
  errno = errs.errnoValue();
  return nullptr;
}

namespace {

// Converts text from one code set into another through UTF-8. Returns an
// allocated Converted record, or null.
Converted* convertText(const char* text, nlz_cs_t from, nlz_cs_t to) {
  size_t len = strlen(text);
  if (len > (INT32_MAX - 16) / 4) return nullptr;
  int room = static_cast<int>(len * 4 + 16);
  Converted* out = static_cast<Converted*>(zar::mem::alloc(sizeof(Converted) + static_cast<size_t>(room)));
  if (out == nullptr) return nullptr;
  int n;
  if (nlz_cs_is_utf8(from)) {
    n = nlz_from_utf8(to, text, static_cast<int>(len), out->text, room);
  } else if (nlz_cs_is_utf8(to)) {
    n = nlz_to_utf8(from, text, static_cast<int>(len), out->text, room);
  } else {
    zar::mem::Unique<char> mid(static_cast<char*>(zar::mem::alloc(static_cast<size_t>(room))));
    n = mid == nullptr ? -1 : nlz_to_utf8(from, text, static_cast<int>(len), mid.get(), room);
    if (n >= 0) n = nlz_from_utf8(to, mid.get(), n, out->text, room);
  }
  if (n < 0) {
    zar::mem::free(out);
    return nullptr;
  }
  out->text[n] = '\0';
  out->len = static_cast<size_t>(n);
  snprintf(out->csName, sizeof out->csName, "%s", nlz_cs_name(to));
  out->next = nullptr;
  return out;
}

}  // namespace

const char* nlz_catgets(nlz_cat_t cat, int set, int num, const char* def, nlz_cs_t cs) {
  size_t len;
  return nlz_catgets_len(cat, set, num, def, cs, &len);
}

const char* nlz_catgets_len(nlz_cat_t cat, int set, int num, const char* def, nlz_cs_t cs,
                            size_t* len) {
  auto fallback = [def, len] {
    *len = def != nullptr ? strlen(def) : 0;
    return def;
  };
  if (cat == nullptr || set < 0 || num < 0) return fallback();
  const Entry* e = find(cat, static_cast<uint32_t>(set), static_cast<uint32_t>(num));
  if (e == nullptr) return fallback();
  const char* text = cat->texts + e->off;
  *len = e->len;
  // Settled at open: a 7-bit text needs no conversion, which spares the
  // code-set comparison on the common path.
  if (e->ascii || cs == nullptr || cat->cs == nullptr || cs == cat->cs ||
      nlz_cs_same(cs, cat->cs))
    return text;
  const char* target = nlz_cs_name(cs);
  size_t i = static_cast<size_t>(e - cat->index);
  zar::MutexLock lock(cat->mu);
  if (cat->converted == nullptr) {
    cat->converted =
        static_cast<Converted**>(zar::mem::allocZero(cat->count, sizeof(Converted*)));
    if (cat->converted == nullptr) return fallback();
  }
  for (Converted* p = cat->converted[i]; p != nullptr; p = p->next) {
    if (strcmp(p->csName, target) == 0) {
      *len = p->len;
      return p->text;
    }
  }
  Converted* made = convertText(text, cat->cs, cs);
  if (made == nullptr) return fallback();
  made->next = cat->converted[i];
  cat->converted[i] = made;
  *len = made->len;
  return made->text;
}

int nlz_catclose(nlz_cat_t cat) {
  if (cat == nullptr) return -1;
  destroyCat(cat);
  return 0;
}

const char* nlz_cat_path(nlz_cat_t cat) { return cat != nullptr ? cat->path : ""; }

const char* nlz_cat_cs_name(nlz_cat_t cat) {
  return cat != nullptr && cat->cs != nullptr ? nlz_cs_name(cat->cs) : "";
}
