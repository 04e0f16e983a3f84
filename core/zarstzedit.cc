// Stanza files: cursor moves by position and by name, counting, and the edits
// (add, insert, change, delete entries; add and delete stanzas). Every edit
// reaches the file through zar_zReplaceText (core/zarstanza.cc), in place and
// under the record's exclusive lock.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/zarmem.h"
#include "core/zarstanza.h"
#include "zar/stanza.h"
#include "zar/status.h"

namespace zar::stanza {
namespace {

// What an argument of an edit must be to read back as written.
enum class TextKind { kEntryName, kStanzaName, kValue, kComment };

bool readsBack(const char* text, TextKind kind) {
  if (text == nullptr) return kind == TextKind::kValue;
  if (strlen(text) >= static_cast<size_t>(kLineBytes)) return false;
  nlz_wchar_t wide[kWideUnits];
  const int len = nlz_mbstowcs(localCodeSet(), wide, text, kWideUnits);
  if (len < 0) return false;
  for (int i = 0; i < len; ++i) {
    if (wide[i] == '\n') return false;  // would become a line of its own
  }
  switch (kind) {
    case TextKind::kEntryName:
      // Leading blanks are skipped and trailing ones cut; '#' and '[' would
      // make a comment or a header of the line; '=' would split the name.
      if (len == 0 || nlz_iswspace(wide[0]) || nlz_iswspace(wide[len - 1])) return false;
      if (wide[0] == '#' || wide[0] == '[') return false;
      for (int i = 0; i < len; ++i) {
        if (wide[i] == '=') return false;
      }
      return true;
    case TextKind::kStanzaName:
      for (int i = 0; i < len; ++i) {
        if (wide[i] == ']') return false;
      }
      return true;
    case TextKind::kValue:
      return true;
    case TextKind::kComment: {
      int i = 0;
      while (i < len && nlz_iswspace(wide[i])) ++i;
      return i == len || wide[i] == '#';
    }
  }
  return false;
}

// True when "name = value\n" fits the line buffer.
bool entryFits(const char* name, const char* value) {
  size_t len = strlen(name) + 3 + (value != nullptr ? strlen(value) : 0) + 1;
  return len < static_cast<size_t>(kLineBytes);
}

// The checks every edit starts with, in this order: an open stream, good
// arguments and cursor, write access. On success the status is cleared.
bool mayEdit(zarStzFile* f, bool argumentsOk) {
  if (f->stream == nullptr) {
    zar_zSetError(f, ZAR_S_STZ_NOT_OPEN);
    return false;
  }
  if (!argumentsOk) {
    zar_zSetError(f, ZAR_S_STZ_BAD_ARGUMENT);
    return false;
  }
  if ((f->flags & ZAR_STZ_WRITE) == 0) {
    zar_zSetError(f, ZAR_S_STZ_READ_ONLY);
    return false;
  }
  f->status = 0;
  return true;
}

// True when off is the start of a line (or the file): a missing final line
// feed, or a line longer than the buffer split at off, would otherwise join
// the written text to the line before.
bool atLineStart(FILE* stream, int64_t off) {
  if (off <= 0) return true;
  char c = '\n';
  if (pread(fileno(stream), &c, 1, off - 1) != 1) return true;
  return c == '\n';
}

int64_t fileLength(FILE* stream) {
  struct stat st;
  if (fstat(fileno(stream), &st) != 0) return -1;
  return st.st_size;
}

// Reads the current entry's line: its length in *len, the stream standing
// after it. False (status set) when the line there is not that entry.
bool readCurrentEntry(zarStzFile* f, int* len) {
  if (entryLineAt(f->stream, f->entryOffset, f->entryName, len)) return true;
  zar_zSetError(f, ZAR_S_STZ_READ_FAILED);
  return false;
}

// Makes name and value the current entry's strings (copies).
bool takeEntryStrings(zarStzFile* f, const char* name, const char* value) {
  char* n = name != nullptr ? mem::strDup(name) : nullptr;
  char* v = value != nullptr ? mem::strDup(value) : nullptr;
  if ((name != nullptr && n == nullptr) || (value != nullptr && v == nullptr)) {
    mem::free(n);
    mem::free(v);
    zar_zSetError(f, ZAR_S_NO_MEMORY);
    return false;
  }
  replaceOwned(&f->entryName, n);
  replaceOwned(&f->value, v);
  return true;
}

// Replaces from..to by text, then reads the line at entryOffset back so that
// the stream stands after it. False (status set) on failure.
bool rewriteEntryLine(zarStzFile* f, int64_t from, int64_t to, const char* text, int len) {
  if (!zar_zReplaceText(f->stream, from, to, text, len)) {
    zar_zSetError(f, ZAR_S_STZ_UPDATE_FAILED);
    return false;
  }
  int readLen = 0;
  return readCurrentEntry(f, &readLen);
}

// Inserts "name = value" at the insertion point; the new entry is current.
void insertEntry(zarStzFile* f, const char* name, const char* value) {
  char line[kLineBytes + 1];
  const int64_t at = f->entryOffset;
  const int lf = atLineStart(f->stream, at) ? 0 : 1;
  line[0] = '\n';
  const int len = snprintf(line + 1, kLineBytes, "%s = %s\n", name, value != nullptr ? value : "");
  if (!takeEntryStrings(f, name, value)) return;
  f->entryOffset = at + lf;
  rewriteEntryLine(f, at, at, line + 1 - lf, len + lf);
}

// Rewrites the current entry's line with a new value.
void changeValue(zarStzFile* f, const char* value) {
  int oldLen = 0;
  if (!readCurrentEntry(f, &oldLen)) return;
  char line[kLineBytes];
  const int len =
      snprintf(line, sizeof(line), "%s = %s\n", f->entryName, value != nullptr ? value : "");
  char* v = nullptr;
  if (value != nullptr && (v = mem::strDup(value)) == nullptr) {
    zar_zSetError(f, ZAR_S_NO_MEMORY);
    return;
  }
  replaceOwned(&f->value, v);
  rewriteEntryLine(f, f->entryOffset, f->entryOffset + oldLen, line, len);
}

// Removes the current entry's line: 1, or 0 with the status set.
int deleteCurrentLine(zarStzFile* f) {
  int len = 0;
  if (!readCurrentEntry(f, &len)) return 0;
  if (!zar_zReplaceText(f->stream, f->entryOffset, f->entryOffset + len, "", 0)) {
    zar_zSetError(f, ZAR_S_STZ_UPDATE_FAILED);
    return 0;
  }
  // The entry is gone: it is no longer current (an edit by its name must not
  // land on the line that took its place). The stanza stays current, and
  // entryOffset, where the line was, is its insertion point.
  replaceOwned(&f->entryName, nullptr);
  replaceOwned(&f->value, nullptr);
  return 1;
}

}  // namespace
}  // namespace zar::stanza

using namespace zar::stanza;

extern "C" {

// ---- Moves -------------------------------------------------------------------

void zarStzMoveFirstStanza(zarStzFile* file) {
  if (file == nullptr) return;
  file->status = 0;
  if (zarStzMemory* m = file->memory) {
    m->currentStanza = m->stanzas;
    if (m->currentStanza == nullptr) return;
    file->stanzaName = m->currentStanza->name;
    m->currentEntry = m->currentStanza->entries;
    file->entryName = m->currentEntry != nullptr ? m->currentEntry->name : nullptr;
    file->value = m->currentEntry != nullptr ? m->currentEntry->value : nullptr;
    return;
  }
  if (file->stream == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_NOT_OPEN);
    return;
  }
  if (fseeko(file->stream, 0, SEEK_SET) != 0) {
    zar_zSetError(file, ZAR_S_STZ_READ_FAILED);
    return;
  }
  moveLine(file, true, true);
}

int zarStzMoveNextStanza(zarStzFile* file) {
  if (file == nullptr) return 0;
  return zar_zMoveNextLine(file, 1, 1);
}

int zarStzMoveStanza(zarStzFile* file, const char* name) {
  if (file == nullptr) return 0;
  if (name == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_BAD_ARGUMENT);
    return 0;
  }
  file->status = 0;
  if (file->stanzaName != nullptr && strcmp(file->stanzaName, name) == 0)
    return zarStzMoveFirstEntry(file);
  zarStzMoveFirstStanza(file);
  for (;;) {
    if (file->status != 0 || file->stanzaName == nullptr) return 0;
    if (strcmp(file->stanzaName, name) == 0) return 1;
    zarStzMoveNextStanza(file);
  }
}

int zarStzMoveFirstEntry(zarStzFile* file) {
  if (file == nullptr) return 0;
  file->status = 0;
  if (zarStzMemory* m = file->memory) {
    if (m->currentStanza == nullptr) {
      // Take the tree's first stanza and name it, so that the entries shown
      // are never without their stanza.
      m->currentStanza = m->stanzas;
      file->stanzaName = m->stanzas != nullptr ? m->stanzas->name : nullptr;
    }
    m->currentEntry = nullptr;
    return zar_zMoveNextLine(file, 0, 0);
  }
  if (file->stream == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_NOT_OPEN);
    return 0;
  }
  if (fseeko(file->stream, file->bodyOffset, SEEK_SET) != 0) {
    zar_zSetError(file, ZAR_S_STZ_READ_FAILED);
    return 0;
  }
  return zar_zMoveNextLine(file, 0, 0);
}

int zarStzMoveNextEntry(zarStzFile* file) {
  if (file == nullptr) return 0;
  return zar_zMoveNextLine(file, 0, 0);
}

int zarStzMoveEntryInStanza(zarStzFile* file, const char* name) {
  if (file == nullptr) return 0;
  if (name == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_BAD_ARGUMENT);
    return 0;
  }
  file->status = 0;
  if (file->entryName != nullptr && strcmp(file->entryName, name) == 0) return 1;
  if (!zarStzMoveFirstEntry(file)) return 0;
  while (file->entryName != nullptr) {
    if (strcmp(file->entryName, name) == 0) return 1;
    if (!zar_zMoveNextLine(file, 0, 0)) return 0;
  }
  return 0;
}

int zarStzMoveEntry(zarStzFile* file, const char* stanza, const char* entry) {
  if (file == nullptr) return 0;
  if (stanza == nullptr || entry == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_BAD_ARGUMENT);
    return 0;
  }
  if (!zarStzMoveStanza(file, stanza)) return 0;
  return zarStzMoveEntryInStanza(file, entry);
}

uint32_t zarStzStanzaSize(zarStzFile* file) {
  if (file == nullptr || file->stanzaName == nullptr || file->entryName == nullptr ||
      file->status != 0)
    return 0;
  char* keep = zar::mem::strDup(file->entryName);
  if (keep == nullptr) return 0;
  uint32_t count = 0;
  if (zarStzMoveFirstEntry(file)) {
    while (file->entryName != nullptr) {
      ++count;
      if (!zar_zMoveNextLine(file, 0, 0)) break;
    }
    if (file->status == 0) zarStzMoveEntryInStanza(file, keep);
  }
  zar::mem::free(keep);
  return count;
}

// ---- Edits -------------------------------------------------------------------

void zarStzAddStanza(zarStzFile* file, const char* name) {
  zarStzAddStanzaWithComment(file, name, nullptr);
}

void zarStzAddStanzaWithComment(zarStzFile* file, const char* name, const char* comment) {
  if (file == nullptr) return;
  const bool ok = name != nullptr && readsBack(name, TextKind::kStanzaName) &&
                  strlen(name) + 3 < static_cast<size_t>(kLineBytes) &&
                  (comment == nullptr || (readsBack(comment, TextKind::kComment) &&
                                          strlen(comment) + 1 < static_cast<size_t>(kLineBytes)));
  if (!mayEdit(file, ok)) return;
  if (zarStzMoveStanza(file, name)) return;

  // Comment line, then header, appended on a line of their own.
  const int64_t end = fileLength(file->stream);
  if (end < 0) {
    zar_zSetError(file, ZAR_S_STZ_UPDATE_FAILED);
    return;
  }
  char text[2 * kLineBytes + 1];
  int len = 0;
  if (!atLineStart(file->stream, end)) text[len++] = '\n';
  if (comment != nullptr) len += snprintf(text + len, sizeof(text) - len, "%s\n", comment);
  const int64_t headerAt = end + len;
  len += snprintf(text + len, sizeof(text) - len, "[%s]\n", name);
  char* copy = zar::mem::strDup(name);
  if (copy == nullptr) {
    zar_zSetError(file, ZAR_S_NO_MEMORY);
    return;
  }
  if (!zar_zReplaceText(file->stream, end, end, text, len)) {
    zar::mem::free(copy);
    zar_zSetError(file, ZAR_S_STZ_UPDATE_FAILED);
    return;
  }
  replaceOwned(&file->stanzaName, copy);
  replaceOwned(&file->entryName, nullptr);
  replaceOwned(&file->value, nullptr);
  file->stanzaOffset = headerAt;
  file->bodyOffset = end + len;
  file->entryOffset = end + len;
}

int zarStzDeleteStanza(zarStzFile* file, const char* name) {
  if (file == nullptr) return 0;
  if (!mayEdit(file, name != nullptr)) return 0;
  zarStzMoveFirstStanza(file);
  zarStzMoveStanza(file, name);
  if (file->status != 0) return 0;
  const int64_t start = file->stanzaOffset;
  if (!zar_zMoveNextLine(file, 1, 1)) return 0;
  const int64_t end = file->stanzaOffset;
  if (start == end) return 1;  // no such stanza: nothing to remove
  if (!zar_zReplaceText(file->stream, start, end, "", 0)) {
    zar_zSetError(file, ZAR_S_STZ_UPDATE_FAILED);
    return 0;
  }
  // The cursor is on the stanza that followed; its offsets move up with it,
  // so that a move back to it by name finds its lines.
  file->stanzaOffset -= end - start;
  file->bodyOffset -= end - start;
  file->entryOffset -= end - start;
  return 1;
}

void zarStzAddEntry(zarStzFile* file, const char* name, const char* value) {
  if (file == nullptr) return;
  const bool ok = name != nullptr && readsBack(name, TextKind::kEntryName) &&
                  readsBack(value, TextKind::kValue) && entryFits(name, value) &&
                  file->stanzaName != nullptr;
  if (!mayEdit(file, ok)) return;
  if (zarStzMoveEntryInStanza(file, name)) {
    changeValue(file, value);
    return;
  }
  if (file->status != 0) return;
  // The search stopped at the stanza's end: its insertion point.
  insertEntry(file, name, value);
}

void zarStzInsertEntry(zarStzFile* file, const char* name, const char* value) {
  if (file == nullptr) return;
  const bool ok = name != nullptr && readsBack(name, TextKind::kEntryName) &&
                  readsBack(value, TextKind::kValue) && entryFits(name, value) &&
                  file->stanzaName != nullptr;
  if (!mayEdit(file, ok)) return;
  insertEntry(file, name, value);
}

void zarStzChangeValue(zarStzFile* file, const char* value) {
  if (file == nullptr) return;
  const bool ok = file->stanzaName != nullptr && file->entryName != nullptr &&
                  readsBack(value, TextKind::kValue) && entryFits(file->entryName, value);
  if (!mayEdit(file, ok)) return;
  changeValue(file, value);
}

int zarStzDeleteEntry(zarStzFile* file, const char* stanza, const char* entry) {
  if (file == nullptr) return 0;
  if (!mayEdit(file, entry != nullptr && file->stanzaName != nullptr)) return 0;
  if (!zarStzMoveEntry(file, stanza, entry)) {
    // A missing stanza or entry is reported as such; a failed search keeps
    // its own reason.
    if (stanza == nullptr || file->status == 0) zar_zSetError(file, ZAR_S_STZ_BAD_FORMAT);
    return 0;
  }
  return deleteCurrentLine(file);
}

int zarStzDeleteCurrentEntry(zarStzFile* file) {
  if (file == nullptr) return 0;
  if (!mayEdit(file, file->stanzaName != nullptr && file->entryName != nullptr)) return 0;
  return deleteCurrentLine(file);
}

}  // extern "C"
