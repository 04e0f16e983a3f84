// Locale objects, the process's locale names, canonical locale names and the
// settings of the internationalisation layer (data directory, default code
// set, message path).
#include <errno.h>
#include <langinfo.h>
#include <locale.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/nlz.h"
#include "platform/nlzint.h"
#include "platform/secenv.h"

namespace {

// Locale names longer than this are refused; real ones are a few dozen bytes.
constexpr size_t kLocaleNameMax = 255;

}  // namespace

// Invariants: immutable after nlz_loc_new.
struct zar_locale_s {
  locale_t loc;   // from newlocale(LC_ALL_MASK)
  char* name;     // the name asked for ("" resolved to the environment's)
  char* msgName;  // the LC_MESSAGES name of loc
  char csName[64];  // normalised code set of LC_CTYPE
};

// ---- Locale objects -------------------------------------------------------------

nlz_loc_t nlz_loc_new(const char* name) {
  if (name == nullptr || strlen(name) > kLocaleNameMax) {
    errno = EINVAL;
    return nullptr;
  }
  locale_t loc = newlocale(LC_ALL_MASK, name, static_cast<locale_t>(nullptr));
  if (loc == static_cast<locale_t>(nullptr)) {
    if (errno != ENOMEM) errno = ENOENT;
    return nullptr;
  }
  zar_locale_s* l = zar::mem::make<zar_locale_s>();
  const char* msg = nl_langinfo_l(_NL_LOCALE_NAME(LC_MESSAGES), loc);
  if (msg == nullptr || *msg == '\0') msg = *name != '\0' ? name : "C";
  if (l == nullptr) {
    freelocale(loc);
    errno = ENOMEM;
    return nullptr;
  }
  l->loc = loc;
  l->name = zar::mem::strDup(*name != '\0' ? name : msg);
  l->msgName = zar::mem::strDup(msg);
  if (l->name == nullptr || l->msgName == nullptr) {
    nlz_loc_free(l);
    errno = ENOMEM;
    return nullptr;
  }
  const char* cs = nl_langinfo_l(CODESET, loc);
  nlz_cs_t shared = nlz_cs_shared(cs != nullptr ? cs : "US-ASCII");
  snprintf(l->csName, sizeof l->csName, "%s", shared != nullptr ? nlz_cs_name(shared) : cs);
  return l;
}

void nlz_loc_free(nlz_loc_t loc) {
  if (loc == nullptr) return;
  if (loc->loc != static_cast<locale_t>(nullptr)) freelocale(loc->loc);
  zar::mem::free(loc->name);
  zar::mem::free(loc->msgName);
  zar::mem::destroy(loc);
}

const char* nlz_loc_name(nlz_loc_t loc) { return loc != nullptr ? loc->name : ""; }

const char* nlz_loc_cs_name(nlz_loc_t loc) { return loc != nullptr ? loc->csName : ""; }

// The LC_MESSAGES name of a locale object (internal to the layer).
const char* nlzLocMessagesName(nlz_loc_t loc) { return loc != nullptr ? loc->msgName : "C"; }

// ---- The process's locale --------------------------------------------------------

namespace {

int copyOut(const char* text, char* buf, int len) {
  if (text == nullptr || buf == nullptr || len <= 0) return -1;
  size_t n = strlen(text);
  if (n >= static_cast<size_t>(len)) return -1;
  memcpy(buf, text, n + 1);
  return 0;
}

}  // namespace

int nlz_os_lang_name(char* buf, int len) {
  return copyOut(setlocale(LC_MESSAGES, nullptr), buf, len);
}

int nlz_os_cs_name(char* buf, int len) {
  // nl_langinfo reads the thread's locale; switch to the global one briefly.
  locale_t old = uselocale(LC_GLOBAL_LOCALE);
  int rc = copyOut(nl_langinfo(CODESET), buf, len);
  uselocale(old);
  return rc;
}

char nlz_decimal_point(void) {
  const char* point = nl_langinfo(RADIXCHAR);
  return point[0] != '\0' && point[1] == '\0' ? point[0] : '\0';
}

// ---- Canonical names ----------------------------------------------------------------

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
char upperC(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// Splits a locale name into language (2 or 3 letters, lower case) and
// territory (2 letters upper case, or 3 digits; may be empty). "C" and
// "POSIX" (with any code set) give language "C". False when not a locale name.
bool parseLocale(const char* name, char lang[4], char terr[4]) {
  lang[0] = terr[0] = '\0';
  if (name == nullptr) return false;
  size_t n = strcspn(name, ".@");
  if ((n == 1 && name[0] == 'C') || (n == 5 && strncmp(name, "POSIX", 5) == 0)) {
    strcpy(lang, "C");
    return true;
  }
  size_t i = 0;
  while (i < n && i < 4 && isAlpha(name[i])) ++i;
  if (i < 2 || i > 3) return false;
  for (size_t k = 0; k < i; ++k) lang[k] = lower(name[k]);
  lang[i] = '\0';
  if (i == n) return true;
  if (name[i] != '_' && name[i] != '-') return false;
  size_t t = i + 1;
  size_t tl = n - t;
  if (tl == 2 && isAlpha(name[t]) && isAlpha(name[t + 1])) {
    terr[0] = upperC(name[t]);
    terr[1] = upperC(name[t + 1]);
    terr[2] = '\0';
    return true;
  }
  if (tl == 3 && isDigit(name[t]) && isDigit(name[t + 1]) && isDigit(name[t + 2])) {
    memcpy(terr, name + t, 3);
    terr[3] = '\0';
    return true;
  }
  return false;
}

}  // namespace

int nlz_canonical_loc(const char* name, char* buf, int len) {
  char lang[4];
  char terr[4];
  if (!parseLocale(name, lang, terr) || buf == nullptr || len <= 0) return -1;
  char out[8];
  if (terr[0] != '\0')
    snprintf(out, sizeof out, "%s_%s", lang, terr);
  else
    snprintf(out, sizeof out, "%s", lang);
  return copyOut(out, buf, len);
}

int nlz_canonical_lang(const char* name, char* buf, int len) {
  char lang[4];
  char terr[4];
  if (!parseLocale(name, lang, terr) || buf == nullptr || len <= 0) return -1;
  return copyOut(lang, buf, len);
}

// ---- Settings ------------------------------------------------------------------------

namespace {

// Texts handed out by nlz_get_dir and default code-set handles that were
// replaced are never released: another thread may still be reading them. They
// stay on a list (so that leak checkers see them as reachable).
struct Kept {
  Kept* next;
  nlz_cs_t cs;
  char text[1];
};

// Invariants: dir is never null. dir and defCs are stored under mu and read
// without it.
struct LocaleState {
  zar::Mutex mu;
  pthread_once_t dirOnce;  // QVNLZDIR, read once
  std::atomic<const char*> dir;
  std::atomic<nlz_cs_t> defCs;
  Kept* kept ZAR_GUARDED_BY(mu);
};
LocaleState gLoc = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_ONCE_INIT, {""}, {nullptr}, nullptr};

// A new kept record holding a copy of text (null on no memory).
Kept* keep(const char* text, nlz_cs_t cs) ZAR_REQUIRES(gLoc.mu) {
  size_t n = strlen(text);
  Kept* k = static_cast<Kept*>(zar::mem::alloc(sizeof(Kept) + n));
  if (k == nullptr) return nullptr;
  memcpy(k->text, text, n + 1);
  k->cs = cs;
  k->next = gLoc.kept;
  gLoc.kept = k;
  return k;
}

void initDir() ZAR_EXCLUDES(gLoc.mu) {
  const char* env = zar::env::get("QVNLZDIR");
  if (env == nullptr || *env == '\0') return;
  zar::MutexLock lock(gLoc.mu);
  if (Kept* k = keep(env, nullptr)) gLoc.dir.store(k->text, std::memory_order_release);
}

}  // namespace

const char* nlz_get_nlspath(void) {
  return zar::env::get("NLSPATH");
}

const char* nlz_get_dir(void) {
  pthread_once(&gLoc.dirOnce, initDir);
  return gLoc.dir.load(std::memory_order_acquire);
}

int nlz_set_dir(const char* dir) {
  pthread_once(&gLoc.dirOnce, initDir);
  if (dir == nullptr) dir = "";
  zar::MutexLock lock(gLoc.mu);
  if (strcmp(gLoc.dir.load(std::memory_order_relaxed), dir) == 0) return 0;
  Kept* k = keep(dir, nullptr);
  if (k == nullptr) return -1;
  gLoc.dir.store(k->text, std::memory_order_release);
  return 0;
}

int nlz_set_def_cs(nlz_cs_t cs) {
  zar::MutexLock lock(gLoc.mu);
  if (cs != nullptr && keep("", cs) == nullptr) return -1;
  gLoc.defCs.store(cs, std::memory_order_release);
  return 0;
}

nlz_cs_t nlz_get_def_cs(void) {
  return gLoc.defCs.load(std::memory_order_acquire);
}
