// Status-code layout, the registered message tables, the text of any status
// code, and printable error texts.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/msgint.h"
#include "core/svcutl/svcnls.h"
#include "platform/nlz.h"
#include "platform/qumbra.h"
#include "platform/secenv.h"
#include "zar/status.h"

zar::msg::MsgState zar::msg::gMsg;
using zar::msg::gMsg;

namespace {

constexpr char kComponentAlphabet[] = "abcdefghijklmnopqrstuvwxyz_0123456789-+@";
constexpr const char* kUnknownFormat = "Unknown message number 0x%8.8lx";

}  // namespace

void zar_msg__init_mutex(void) {
  const char* nox = zar::env::get("SVC_NOXPGCAT");
  if (nox != nullptr) gMsg.noXpgCat = static_cast<uint32_t>(strtol(nox, nullptr, 10));
  gMsg.debugMsg = zar::env::get("KPSVC_DEBUG_MSG") != nullptr;
  zar_svc_nls_init(nullptr);
  // Settles the catalog data directory so that installed catalogs are found
  // even when NLSPATH does not name them.
  qumbra_initialize();
  gMsg.setup = true;
  gMsg.ready.store(true, std::memory_order_release);
}

void zar_msg__cleanup_mutex(void) { pthread_mutex_unlock(&gMsg.mutex); }
void zar_msg__cleanup_cat_mutex(void) { pthread_mutex_unlock(&gMsg.catMutex); }

bool zar::msg::ensureInitSlow() {
  pthread_once(&gMsg.once, zar_msg__init_mutex);
  return gMsg.setup;
}

void zar::msg::copyCut(char* out, int max, const char* text, zar_codeset_t cs) {
  // Whole characters only; an invalid byte counts as one character.
  int len = static_cast<int>(strnlen(text, static_cast<size_t>(INT32_MAX)));
  int keep = 0;
  while (keep < len) {
    int n = nlz_mblen(cs, text + keep, len - keep);
    if (n <= 0) n = 1;
    if (keep + n > max - 1) break;
    keep += n;
  }
  memcpy(out, text, static_cast<size_t>(keep));
  out[keep] = '\0';
}

namespace {

// Writes "first (second / third)"-style text built by fmt into out, cut at a
// character boundary of cs when longer than ZAR_ERROR_STRING_LEN - 1 bytes.
void formatCut(char* out, zar_codeset_t cs, const char* fmt, const char* a, const char* b,
               const char* c) {
  int n = snprintf(out, ZAR_ERROR_STRING_LEN, fmt, a, b, c);
  if (n < ZAR_ERROR_STRING_LEN) return;
  char* full = static_cast<char*>(zar::mem::alloc(static_cast<size_t>(n) + 1));
  if (full == nullptr) {
    // No room to redo it whole: cut what fits, dropping a broken last character.
    char tail[ZAR_ERROR_STRING_LEN];
    memcpy(tail, out, ZAR_ERROR_STRING_LEN);
    zar::msg::copyCut(out, ZAR_ERROR_STRING_LEN - 8, tail, cs);
    return;
  }
  snprintf(full, static_cast<size_t>(n) + 1, fmt, a, b, c);
  zar::msg::copyCut(out, ZAR_ERROR_STRING_LEN, full, cs);
  zar::mem::free(full);
}

}  // namespace

void zar_msg__inq_tech(uint32_t code, char tag[4]) {
  switch (code >> 28) {
    case 1: strcpy(tag, "dce"); break;
    case 2: strcpy(tag, "dfs"); break;
    case 3: strcpy(tag, "kp"); break;
    case 4:
    case 5: tag[0] = '\0'; break;
    default: strcpy(tag, "???"); break;
  }
}

void zar_msg__inq_comp(uint32_t code, char name[4]) {
  uint32_t c = (code >> 12) & 0xFFFF;
  // Index 40 is the alphabet's terminator: codes from 64000 read as empty.
  name[0] = kComponentAlphabet[c / 1600];
  name[1] = kComponentAlphabet[(c / 40) % 40];
  name[2] = kComponentAlphabet[c % 40];
  name[3] = '\0';
}

void zar_msg_define_msg_table(const zar_msg_entry* entries, uint32_t count,
                              unsigned long* status) {
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return;
  }
  if (entries == nullptr && count > 0) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return;
  }
  zar::MutexLock lock(gMsg.mutex);
  // Each array starts with a link to the one it replaces, so that replaced
  // arrays stay reachable (they are never freed; see below).
  const uint32_t n = gMsg.tableCount.load(std::memory_order_relaxed);
  void* block = zar::mem::allocZero(1, sizeof(void*) + (n + 1) * sizeof(zar_msg_table));
  if (block == nullptr) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return;
  }
  *static_cast<void**>(block) = gMsg.lastBlock;
  gMsg.lastBlock = block;
  auto* tables = reinterpret_cast<zar_msg_table*>(static_cast<char*>(block) + sizeof(void*));
  memcpy(tables, gMsg.tables.load(std::memory_order_relaxed), n * sizeof(zar_msg_table));
  zar_msg_table& t = tables[n];
  t.entries = entries;
  t.count = count;
  // A table of no entries never matches: lowest above highest.
  t.lowest = count > 0 ? entries[0].code : 1;
  t.highest = count > 0 ? entries[0].code : 0;
  for (uint32_t i = 1; i < count; ++i) {
    if (entries[i].code < t.lowest) t.lowest = entries[i].code;
    if (entries[i].code > t.highest) t.highest = entries[i].code;
  }
  // The old array is kept, not freed: zar_msg_get_default_msg reads the
  // tables without the lock and may still be walking it.
  gMsg.tables.store(tables, std::memory_order_release);
  gMsg.tableCount.store(n + 1, std::memory_order_release);
  zar::setStatus(status, ZAR_S_OK);
}

const char* zar_msg_get_default_msg(uint32_t code, unsigned long* status) {
  if (code == 0) code = ZAR_S_MSG_SUCCESS_TEXT;
  const uint32_t n = gMsg.tableCount.load(std::memory_order_acquire);
  const zar_msg_table* tables = gMsg.tables.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < n; ++i) {
    const zar_msg_table& t = tables[i];
    if (code < t.lowest || code > t.highest) continue;
    for (uint32_t k = 0; k < t.count; ++k) {
      if (t.entries[k].code == code) {
        zar::setStatus(status, ZAR_S_OK);
        return t.entries[k].text;
      }
    }
  }
  zar::setStatus(status, ZAR_S_MSG_NOT_IN_TABLES);
  return nullptr;
}

namespace {

// A copy of text, or of the "Unknown message number" text for code: into buf
// when it fits in its cap bytes, else a new block.
char* copyOrUnknown(const char* text, uint32_t code, unsigned long* status, char* buf, size_t cap) {
  char unknown[48];
  if (text == nullptr) {
    snprintf(unknown, sizeof unknown, kUnknownFormat, static_cast<unsigned long>(code));
    text = unknown;
  }
  return zar::msg::copyInto(text, strlen(text), buf, cap, status);
}

}  // namespace

char* zar::msg::copyInto(const char* text, size_t len, char* buf, size_t cap,
                         unsigned long* status) {
  if (len < cap) {
    memcpy(buf, text, len);
    buf[len] = '\0';
    return buf;
  }
  char* copy = zar::mem::strDupLen(text, len);
  if (copy == nullptr) zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
  return copy;
}

char* zar::msg::getMsgInto(uint32_t code, unsigned long* status, char* buf, size_t cap) {
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  zar::MutexLock lock(gMsg.mutex);
  unsigned long st = ZAR_S_OK;
  char* text = zar::msg::copyCatalogText(code, &st, buf, cap);
  if (text != nullptr) {
    zar::setStatus(status, ZAR_S_OK);
    return text;
  }
  if (st == ZAR_S_MSG_NO_MEMORY) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  const char* found = zar_msg_get_default_msg(code, &st);
  zar::setStatus(status, static_cast<uint32_t>(st));
  return copyOrUnknown(found, code, status, buf, cap);
}

char* zar_msg_get_msg(uint32_t code, unsigned long* status) {
  return zar::msg::getMsgInto(code, status, nullptr, 0);
}

char* zar_msg_get_msg_utf8(uint32_t code, unsigned long* status) {
  if (!zar::msg::ensureInit()) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  unsigned long st = ZAR_S_OK;
  zarsvc_get_locale();  // fixes the locale name
  char* text = zar_msg_get_locale_cat_msg(code == 0 ? ZAR_S_MSG_SUCCESS_TEXT : code,
                                          zarsvc_get_locale_name(), zar_svc_utf8_cs, 4, &st);
  if (text != nullptr) {
    zar::setStatus(status, ZAR_S_OK);
    return text;
  }
  if (st == ZAR_S_MSG_NO_MEMORY) {
    zar::setStatus(status, ZAR_S_MSG_NO_MEMORY);
    return nullptr;
  }
  zar::MutexLock lock(gMsg.mutex);
  const char* found = zar_msg_get_default_msg(code, &st);
  zar::setStatus(status, static_cast<uint32_t>(st));
  return copyOrUnknown(found, code, status, nullptr, 0);
}

// ---- Error texts -------------------------------------------------------------------

namespace {

// Writes "%s (%s / %s)" of text, tag and comp into the error buffer when the
// whole of it fits, by copying the pieces (the same bytes as snprintf, at a
// fraction of its cost); false, with nothing written, when it would be cut.
bool joinFits(char* out, const char* text, const char* tag, const char* comp) {
  const size_t textLen = strlen(text), tagLen = strlen(tag), compLen = strlen(comp);
  if (textLen + tagLen + compLen + 6 >= ZAR_ERROR_STRING_LEN) return false;
  char* p = out;
  auto put = [&p](const char* s, size_t n) {
    memcpy(p, s, n);
    p += n;
  };
  put(text, textLen);
  put(" (", 2);
  put(tag, tagLen);
  put(" / ", 3);
  put(comp, compLen);
  put(")", 2);  // with the terminator
  return true;
}

void errorText(uint32_t code, char* buffer, int* status, bool utf8) {
  zar::setStatus(status, -1);
  if (buffer == nullptr) return;
  uint32_t tech = code >> 28;
  if (tech == 4 || tech == 5) {
    zar__error_inq_isv(code, buffer, status);
    return;
  }
  if (code == 0) code = ZAR_S_MSG_SUCCESS_TEXT;
  char tag[4];
  char comp[4];
  zar_msg__inq_tech(code, tag);
  zar_msg__inq_comp(code, comp);
  if (utf8 && strcmp(tag, "dce") == 0) strcpy(tag, "kp");
  unsigned long st = ZAR_S_OK;
  char* text = utf8 ? zar_msg_get_msg_utf8(code, &st) : zar_msg_get_msg(code, &st);
  if (text != nullptr && st == ZAR_S_OK && joinFits(buffer, text, tag, comp)) {
    zar::setStatus(status, 0);
  } else if (text != nullptr && st == ZAR_S_OK) {
    formatCut(buffer, utf8 ? zarsvc_get_utf8_code_page() : zarsvc_get_local_code_page(),
              "%s (%s / %s)", text, tag, comp);
    zar::setStatus(status, 0);
  } else {
    snprintf(buffer, ZAR_ERROR_STRING_LEN, "status 0x%8.8lx (%s / %s)",
             static_cast<unsigned long>(code), tag, comp);
  }
  free(text);
}

}  // namespace

void zar_error_inq_text(uint32_t code, char* buffer, int* status) {
  errorText(code, buffer, status, false);
}

void zar_error_inq_text_utf8(uint32_t code, char* buffer, int* status) {
  errorText(code, buffer, status, true);
}

void zar__error_inq_isv(uint32_t code, char* buffer, int* status) {
  unsigned long st = ZAR_S_OK;
  zar_msg_cat_handle_t cat = zar_msg_cat_open(code, &st);
  const char* text = cat != nullptr ? zar_msg_cat_get_msg(cat, code, &st) : nullptr;
  const char* facility =
      text != nullptr ? zar_msg_cat_get_msg(cat, (code & ~0x3FFFu) | 1u, &st) : nullptr;
  if (text != nullptr && facility != nullptr) {
    formatCut(buffer, zarsvc_get_local_code_page(), "%s (%s)%s", text, facility, "");
    zar::setStatus(status, 0);
  } else {
    snprintf(buffer, ZAR_ERROR_STRING_LEN, "status 0x%8.8lx", static_cast<unsigned long>(code));
  }
  zar_msg_cat_close(cat, nullptr);
}
