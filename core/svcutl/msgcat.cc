// Message catalogs named after status codes, kept open in a small cache with
// move-to-front replacement.
//
// The cache has 4 rows of 8 slots; the open flags choose the row. Entries are
// reference-counted: the cache holds one reference, and every lookup holds
// one while it reads, so eviction by another thread never frees a catalog
// someone is reading. A handle from zar_msg_cat_open holds its reference
// until zar_msg_cat_close. Texts handed out by zar_msg_get_cat_msg carry no
// handle; the entry is then pinned and, once evicted, kept on a list for the
// life of the process instead of being freed.
#include <errno.h>
#include <nl_types.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/msgint.h"
#include "core/svcutl/svcnls.h"
#include "platform/nlz.h"
#include "zar/status.h"

namespace {

constexpr int kRows = 4;
constexpr int kSlots = 8;
constexpr const char* kNope = "?NOPE?";

}  // namespace

// Invariants: everything but refs and pinned is fixed once the entry is in
// the cache; exactly one of cat and sysCat (!= -1) is set.
struct zar_msg_cat_s {
  uint32_t base;
  uint32_t mask;
  nl_catd sysCat;           // system catalog, or (nl_catd)-1
  nlz_cat_t cat;            // catalog of the internationalisation layer, or null
  char* locale;             // locale name it was opened for; null: the thread's current
  char* name;               // file name that was opened
  nlz_cs_t sysCs;           // code set of a system catalog's texts (shared handle)
  std::atomic<int> refs;    // the cache's reference plus one per reader
  std::atomic<bool> pinned;  // a text escaped without a handle: never freed
  zar_msg_cat_s* nextKept;  // on the kept list once evicted while pinned
};

namespace {

// The catalog cache. Invariants: rows fill from slot 0 with no gaps; slot 0
// is the most recently used entry; each entry is in at most one slot.
struct CatState {
  zar_msg_cat_s* cache[kRows][kSlots] ZAR_GUARDED_BY(zar::msg::gMsg.catMutex) = {};
  zar_msg_cat_s* kept ZAR_GUARDED_BY(zar::msg::gMsg.catMutex) = nullptr;  // pinned entries evicted
};
CatState gCat;

void destroyEntry(zar_msg_cat_s* e) {
  if (e->cat != nullptr) nlz_catclose(e->cat);
  if (e->sysCat != reinterpret_cast<nl_catd>(-1)) catclose(e->sysCat);
  zar::mem::free(e->locale);
  zar::mem::free(e->name);
  zar::mem::destroy(e);
}

void unref(zar_msg_cat_s* e) {
  if (e != nullptr && e->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroyEntry(e);
}

// Catalog file name and message mask of code; fallback gets the technology-1
// second name ("" when there is none).
void catalogName(uint32_t code, char* name, size_t len, char* fallback, size_t fbLen,
                 uint32_t* mask) {
  uint32_t tech = code >> 28;
  fallback[0] = '\0';
  char comp[4];
  zar_msg__inq_comp(code, comp);
  if (tech == 4 || tech == 5) {
    snprintf(name, len, "dce%6.6lx.cat", static_cast<unsigned long>(code >> 14));
    *mask = 0x3FFF;
    return;
  }
  *mask = 0xFFF;
  if (tech == 1) {
    snprintf(name, len, "kpb%s.cat", comp);
    snprintf(fallback, fbLen, "dce%s.cat", comp);
    return;
  }
  char tag[4];
  zar_msg__inq_tech(code, tag);
  snprintf(name, len, "%s%s.cat", tag, comp);
}

bool sameLocale(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return strcmp(a, b) == 0;
}

// Status for the errno of a failed open.
uint32_t openStatus(int err) {
  if (err == EPERM || err == EACCES) return ZAR_S_MSG_CAT_NO_PERMISSION;
  if (err == ENOENT) return ZAR_S_MSG_CAT_NOT_FOUND;
  return ZAR_S_MSG_CAT_OPEN_FAILED;
}

void debugLines(const char* name, uint32_t status) {
  if (!zar::msg::debugCatalogs()) return;
  zar::CancelDisabled noCancel;
  const char* nlspath = nlz_get_nlspath();
  fprintf(stderr, "NLSPATH=%s\n", nlspath != nullptr ? nlspath : "");
  fprintf(stderr, "QVNLZDIR=%s\n", nlz_get_dir());
  fprintf(stderr, "catopen(%s) status = %8.8lx\n", name, static_cast<unsigned long>(status));
}

// Copies a text out of an entry while the catalog lock is held: into buf
// when it fits there (cap bytes with the terminator), else into a new block.
struct Reader {
  nlz_cs_t cs;      // code set wanted (null: as it is)
  char* text;       // the copy (buf or a new block), or null
  char* buf;        // the caller's buffer, or null
  size_t cap;
};
char* copyText(zar_msg_cat_s* e, uint32_t code, Reader* reader, unsigned long* status);

// Opens the catalog of code for locale (null: the thread's current) and puts
// it in slot 0 of row, evicting slot 7. Called on a miss. Returns the new entry with refs references, or
// null with *st set; *tried is the last file name attempted.
zar_msg_cat_s* openIntoRow(zar_msg_cat_s** row, uint32_t code, const char* locale, int flags,
                           int refs, uint32_t* st, char* tried, size_t triedLen)
    ZAR_REQUIRES(zar::msg::gMsg.catMutex) {
  char name[32];
  char fallback[32];
  uint32_t mask;
  catalogName(code, name, sizeof name, fallback, sizeof fallback, &mask);
  const char* opened = name;
  nlz_loc_t made = nullptr;
  nlz_loc_t loc;
  if (locale != nullptr) {
    loc = made = nlz_loc_new(locale);
    if (made == nullptr) *st = ZAR_S_MSG_CAT_NOT_FOUND;
  } else {
    loc = zarsvc_get_locale();
  }
  nlz_cat_t cat = nullptr;
  nl_catd sys = reinterpret_cast<nl_catd>(-1);
  int err = ENOENT;
  if (*st == ZAR_S_OK) {
    const char* names[2] = {name, fallback};
    for (const char* n : names) {
      if (*n == '\0') break;
      opened = n;
      cat = nlz_catopen(n, flags | NLZ_CAT_LOCALE, loc);
      if (cat != nullptr) break;
      err = errno;
      // The system's catopen knows only the process's locale: it can
      // stand in for the thread's current locale, never for a named one.
      if (locale != nullptr) continue;
      sys = catopen(n, NL_CAT_LOCALE);
      if (sys != reinterpret_cast<nl_catd>(-1)) break;
      err = errno;
    }
    if (cat == nullptr && sys == reinterpret_cast<nl_catd>(-1)) *st = openStatus(err);
  }
  snprintf(tried, triedLen, "%s", opened);
  nlz_cs_t sysCs = nullptr;
  if (sys != reinterpret_cast<nl_catd>(-1))
    sysCs = nlz_cs_shared(loc != nullptr ? nlz_loc_cs_name(loc) : nlz_cs_name(nullptr));
  nlz_loc_free(made);
  if (*st != ZAR_S_OK) return nullptr;
  zar_msg_cat_s* e = zar::mem::make<zar_msg_cat_s>();
  char* nameCopy = zar::mem::strDup(opened);
  char* locCopy = locale != nullptr ? zar::mem::strDup(locale) : nullptr;
  if (e == nullptr || nameCopy == nullptr || (locale != nullptr && locCopy == nullptr)) {
    zar::mem::destroy(e);
    zar::mem::free(nameCopy);
    zar::mem::free(locCopy);
    if (cat != nullptr) nlz_catclose(cat);
    if (sys != reinterpret_cast<nl_catd>(-1)) catclose(sys);
    *st = ZAR_S_MSG_NO_MEMORY;
    return nullptr;
  }
  e->base = code & ~mask;
  e->mask = mask;
  e->cat = cat;
  e->sysCat = cat != nullptr ? reinterpret_cast<nl_catd>(-1) : sys;
  e->sysCs = sysCs;
  e->locale = locCopy;
  e->name = nameCopy;
  e->refs.store(refs, std::memory_order_relaxed);
  e->pinned.store(false, std::memory_order_relaxed);
  e->nextKept = nullptr;
  if (row[kSlots - 1] != nullptr) {
    zar_msg_cat_s* old = row[kSlots - 1];
    if (old->pinned.load(std::memory_order_acquire)) {
      old->nextKept = gCat.kept;
      gCat.kept = old;
    } else {
      unref(old);
    }
  }
  for (int j = kSlots - 1; j > 0; --j) row[j] = row[j - 1];
  row[0] = e;
  return e;
}

// Finds or opens the catalog of code for locale (null: the thread's current)
// in the row of flags. Without a reader, returns it with a reference for the
// caller; with one, copies the text of code out under the lock instead (no
// reference is taken, which keeps the common lookup short) and returns the
// entry only as a success mark, not to be used. Null on failure.
zar_msg_cat_s* openCatalog(uint32_t code, const char* locale, int flags, unsigned long* status,
                           Reader* reader = nullptr) {
  zar::setStatus(status, ZAR_S_OK);
  if (locale != nullptr && strcmp(locale, zarsvc_get_locale_name()) == 0) locale = nullptr;
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  // A hit needs only the mask; the names are made on a miss.
  uint32_t base = code & ~(((code >> 28) == 4 || (code >> 28) == 5) ? 0x3FFFu : 0xFFFu);
  zar_msg_cat_s* result = nullptr;
  uint32_t openSt = ZAR_S_OK;
  uint32_t st = ZAR_S_OK;
  char debugName[40];
  debugName[0] = '\0';
  {
    zar::MutexLock lock(zar::msg::gMsg.catMutex);
    zar_msg_cat_s** row = gCat.cache[(flags & 7) >> 1];
    for (int k = 0; k < kSlots && row[k] != nullptr; ++k) {
      zar_msg_cat_s* e = row[k];
      if (e->base != base || !sameLocale(e->locale, locale)) continue;
      for (int j = k; j > 0; --j) row[j] = row[j - 1];
      row[0] = e;
      if (reader == nullptr) e->refs.fetch_add(1, std::memory_order_relaxed);
      result = e;
      break;
    }
    if (result == nullptr) {
      result = openIntoRow(row, code, locale, flags, reader == nullptr ? 2 : 1, &openSt,
                           debugName, sizeof debugName);
      st = openSt;
    } else if (zar::msg::debugCatalogs()) {
      snprintf(debugName, sizeof debugName, "%s", result->name);
    }
    if (result != nullptr && reader != nullptr) {
      unsigned long readStatus = ZAR_S_OK;
      reader->text = copyText(result, code, reader, &readStatus);
      st = static_cast<uint32_t>(readStatus);
    }
  }
  if (reader != nullptr && st != ZAR_S_OK) result = nullptr;
  zar::setStatus(status, st);
  debugLines(debugName, openSt);
  return result;
}

// The raw text of code in an entry (no conversion), or null.
const char* rawText(zar_msg_cat_s* e, uint32_t code) {
  int num = static_cast<int>(code & e->mask);
  const char* t = e->cat != nullptr ? nlz_catgets(e->cat, 1, num, kNope, nullptr)
                                    : catgets(e->sysCat, 1, num, kNope);
  return (t == nullptr || t == kNope) ? nullptr : t;  // the default comes back as given
}

// A copy of the text of code in an entry converted into the reader's code
// set (null: as it is), in the reader's buffer when the text fits there, else
// a new block. Null with status 0x10652205 or 0x10652203.
char* copyText(zar_msg_cat_s* e, uint32_t code, Reader* reader, unsigned long* status) {
  nlz_cs_t cs = reader->cs;
  int num = static_cast<int>(code & e->mask);
  const char* t;
  size_t len = 0;
  char* converted = nullptr;
  if (e->cat != nullptr) {
    t = nlz_catgets_len(e->cat, 1, num, kNope, cs, &len);
  } else {
    // A catalog only the system could open: its texts are in the code set of
    // the locale it was opened for; convert through UTF-8 when asked.
    t = catgets(e->sysCat, 1, num, kNope);
    if (t != nullptr && t != kNope) len = strnlen(t, 1 << 20);
    if (t != nullptr && t != kNope && cs != nullptr && e->sysCs != nullptr &&
        !nlz_cs_same(cs, e->sysCs)) {
      int room = static_cast<int>(len) * 4 + 16;
      zar::mem::Unique<char> mid(static_cast<char*>(zar::mem::alloc(static_cast<size_t>(room))));
      converted = static_cast<char*>(zar::mem::alloc(static_cast<size_t>(room)));
      int n = (mid == nullptr || converted == nullptr)
                  ? -1 : nlz_to_utf8(e->sysCs, t, static_cast<int>(len), mid.get(), room);
      if (n >= 0) n = nlz_from_utf8(cs, mid.get(), n, converted, room - 1);
      if (n < 0) {
        zar::mem::free(converted);
        zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
        return nullptr;
      }
      converted[n] = '\0';
      return converted;
    }
  }
  if (t == nullptr || t == kNope) {
    zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
    return nullptr;
  }
  return zar::msg::copyInto(t, len, reader->buf, reader->cap, status);
}

}  // namespace

char* zar::msg::copyCatalogText(uint32_t code, unsigned long* status, char* buf, size_t cap) {
  if (zar::msg::gMsg.noXpgCat != 0) {
    zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
    return nullptr;
  }
  if (code == 0) code = ZAR_S_MSG_SUCCESS_TEXT;
  Reader reader{zarsvc_get_local_code_page(), nullptr, buf, buf != nullptr ? cap : 0};
  openCatalog(code, nullptr, 0, status, &reader);
  return reader.text;
}

zar_msg_cat_handle_t zar_msg_cat_open(uint32_t code, unsigned long* status) {
  zar::setStatus(status, ZAR_S_OK);
  return openCatalog(code, nullptr, 0, status);
}

const char* zar_msg_cat_get_msg(zar_msg_cat_handle_t catalog, uint32_t code,
                                unsigned long* status) {
  const char* t = catalog != nullptr ? rawText(catalog, code) : nullptr;
  if (t == nullptr) zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
  return t;
}

void zar_msg_cat_close(zar_msg_cat_handle_t catalog, unsigned long* status) {
  zar::setStatus(status, ZAR_S_OK);
  unref(catalog);
}

const char* zar_msg_get_cat_msg(uint32_t code, unsigned long* status) {
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  if (zar::msg::gMsg.noXpgCat != 0) {
    zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
    return nullptr;
  }
  if (code == 0) code = ZAR_S_MSG_SUCCESS_TEXT;
  zar_msg_cat_s* e = openCatalog(code, nullptr, 0, status);
  if (e == nullptr) return nullptr;
  const char* t = rawText(e, code);
  if (t == nullptr)
    zar::setStatus(status, ZAR_S_MSG_NOT_IN_CATALOG);
  else
    e->pinned.store(true, std::memory_order_release);  // the text outlives eviction
  unref(e);
  return t;
}

char* zar_msg_get_locale_cat_msg(uint32_t code, const char* locale, const char* csName,
                                 int openType, unsigned long* status) {
  static const int kFlags[] = {14, 12, 10, 8, 0};
  zar::setStatus(status, ZAR_S_OK);
  if (code == 0) return nullptr;
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  nlz_cs_t cs = nullptr;
  nlz_cs_t made = nullptr;
  if (csName == zar_svc_utf8_cs) {
    cs = zarsvc_get_utf8_code_page();
    if (cs == nullptr) {
      zar::setStatus(status, ZAR_S_MSG_CAT_OPEN_FAILED);
      return nullptr;
    }
  } else if (csName != nullptr) {
    cs = made = nlz_cs_new(csName);
    if (cs == nullptr) {
      zar::setStatus(status, ZAR_S_MSG_CAT_OPEN_FAILED);
      return nullptr;
    }
  }
  char* text = nullptr;
  if (openType < 0 || openType > 4) {
    zar::setStatus(status, ZAR_S_MSG_BAD_OPEN_TYPE);
  } else {
    zar::MutexLock lock(zar::msg::gMsg.mutex);
    Reader reader{cs, nullptr, nullptr, 0};
    openCatalog(code, locale, kFlags[openType], status, &reader);
    text = reader.text;
  }
  nlz_cs_free(made);
  return text;
}
