// Stanza files: opening and locking, the line reader and parser, validation,
// closing, and the in-place rewrite through which every edit reaches the file.
// The cursor moves and the edits themselves are in core/zarstzedit.cc.
#include "core/zarstanza.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "base/zarstatus.h"
#include "core/svcutl/svcprod.h"
#include "core/zarstzjournal.h"
#include "platform/sysio.h"
#include "zar/nls.h"
#include "zar/status.h"
#include "zar/svc.h"

namespace zar::stanza {
namespace {

constexpr char kRecordName[] = "core/zarstanza";

// Logs one of the stanza messages as an ERROR of the client component,
// sub-component "core", with this file's record name and the caller's line.
// The client handle is made on demand, so a program that never initialised
// its messages still sees why its configuration file failed.
#define ZAR_STZ_LOG(code, argTypes, ...)                                                       \
  zar_svc_printf_withfile(::zar::svc::clientHandle(), kRecordName, __LINE__, argTypes, 0, \
                          svc_c_sev_error, code, __VA_ARGS__)

// ---- Record helpers --------------------------------------------------------

void clearEntry(zarStzFile* f) {
  replaceOwned(&f->entryName, nullptr);
  replaceOwned(&f->value, nullptr);
}

void freeTree(zarStzMemory* m) {
  if (m == nullptr) return;
  for (zarStzStanzaNode* s = m->stanzas; s != nullptr;) {
    for (zarStzEntryNode* e = s->entries; e != nullptr;) {
      zarStzEntryNode* nextEntry = e->next;
      mem::free(e->name);
      mem::free(e->value);
      mem::free(e);
      e = nextEntry;
    }
    zarStzStanzaNode* nextStanza = s->next;
    mem::free(s->name);
    mem::free(s);
    s = nextStanza;
  }
  mem::free(m);
}

// Frees a record and everything it owns, closing its file first.
void destroyRecord(zarStzFile* f) {
  zar_zFileCloseDescriptor(f);
  if (f->memory != nullptr) {
    freeTree(f->memory);
  } else {
    mem::free(f->value);
    mem::free(f->entryName);
    mem::free(f->stanzaName);
  }
  mem::free(f->fileName);
  mem::free(f);
}

// Owns a record while it is being opened: a failure or a cancellation
// (the lock wait is a cancellation point) releases it.
class RecordGuard {
 public:
  explicit RecordGuard(zarStzFile* f) : f_(f) {}
  ~RecordGuard() {
    if (f_ != nullptr) destroyRecord(f_);
  }
  zarStzFile* release() {
    zarStzFile* f = f_;
    f_ = nullptr;
    return f;
  }
  RecordGuard(const RecordGuard&) = delete;
  RecordGuard& operator=(const RecordGuard&) = delete;

 private:
  zarStzFile* f_;
};

struct TreeDeleter {
  void operator()(zarStzMemory* m) const { freeTree(m); }
};
using TreeOwner = std::unique_ptr<zarStzMemory, TreeDeleter>;

// Closes a descriptor with cancellation disabled (close is a cancellation
// point, and a descriptor must never be left in doubt).
void closeQuietly(int fd) {
  CancelDisabled noCancel;
  ::close(fd);
}

// ---- Opening ---------------------------------------------------------------

bool validFlags(uint32_t flags) {
  const uint32_t all = ZAR_STZ_READ | ZAR_STZ_WRITE | ZAR_STZ_NOWAIT | ZAR_STZ_MEMORY;
  if ((flags & ~all) != 0) return false;
  const uint32_t access = flags & (ZAR_STZ_READ | ZAR_STZ_WRITE);
  // Both would open read-only while letting edits pass their check: an edit
  // could then be lost without a word, so the pair is refused.
  if (access != ZAR_STZ_READ && access != ZAR_STZ_WRITE) return false;
  if ((flags & ZAR_STZ_WRITE) != 0 && (flags & ZAR_STZ_MEMORY) != 0) return false;
  return true;
}

// A reader settles an interrupted edit under the exclusive lock, which its
// read-only descriptor cannot take; closing a second descriptor of the file
// would drop the process's locks, so the record's stream is traded for a
// read-write descriptor that keeps a shared lock once the file is settled.
// 0, or an errno value (EAGAIN: the lock is held elsewhere and the open must
// not wait).
int reopenToRecover(zarStzFile* f, const char* path, uint32_t flags) {
  int fd = sys::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return errno;
  {
    CancelDisabled noCancel;
    fclose(f->stream);  // and with it the shared lock
    f->stream = nullptr;
  }
  struct stat st;
  int err = 0;
  if (fstat(fd, &st) != 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
    err = errno;
  else if (!S_ISREG(st.st_mode))
    err = EINVAL;
  else if (sys::fileLock(fd, F_WRLCK, (flags & ZAR_STZ_NOWAIT) == 0) != 0)
    err = errno;
  else if ((err = recoverJournal(fd, path)) == 0 && sys::fileLock(fd, F_RDLCK, true) != 0)
    err = errno;  // turning an exclusive lock into a shared one never waits
  if (err == 0 && (f->stream = fdopen(fd, "r")) == nullptr) err = errno;
  if (err != 0) closeQuietly(fd);
  return err;
}

// Opens and locks path; the record has no cursor yet. Null with *status set
// on failure (messages logged as the status requires).
zarStzFile* openLocked(const char* path, uint32_t flags, uint32_t* status) {
  if (path == nullptr || !validFlags(flags)) {
    *status = ZAR_S_STZ_BAD_ARGUMENT;
    return nullptr;
  }
  auto* f = static_cast<zarStzFile*>(mem::allocZero(1, sizeof(zarStzFile)));
  if (f == nullptr) {
    *status = ZAR_S_NO_MEMORY;
    return nullptr;
  }
  RecordGuard guard(f);
  f->fileName = mem::strDup(path);
  if (f->fileName == nullptr) {
    *status = ZAR_S_NO_MEMORY;
    return nullptr;
  }
  f->flags = flags;
  const bool readOnly = (flags & ZAR_STZ_READ) != 0;

  // O_NONBLOCK keeps the open of a FIFO from waiting for a writer; anything
  // but a regular file is refused before it is read.
  int fd = sys::open(path, (readOnly ? O_RDONLY : O_RDWR) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  int err = errno;
  if (fd >= 0) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
      err = errno;
    } else if (!S_ISREG(st.st_mode)) {
      err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    } else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
      err = errno;
    } else {
      f->stream = fdopen(fd, readOnly ? "r" : "r+");
      err = errno;
    }
    if (f->stream == nullptr) closeQuietly(fd);
  }
  if (f->stream == nullptr) {
    ZAR_STZ_LOG(ZAR_S_FILE_OPEN_FAILED, "%s%d", path, err);
    *status = ZAR_S_STZ_OPEN_FAILED;
    return nullptr;
  }

  if (sys::fileLock(fileno(f->stream), readOnly ? F_RDLCK : F_WRLCK,
                    (flags & ZAR_STZ_NOWAIT) == 0) != 0) {
    err = errno;
    if (err == EAGAIN || err == EACCES) {
      *status = ZAR_S_STZ_WOULD_BLOCK;
    } else {
      ZAR_STZ_LOG(ZAR_S_STZ_LOCK_FAILED, "%d", err);
      *status = ZAR_S_STZ_OPEN_FAILED;
    }
    return nullptr;
  }
  // An edit that was interrupted left its journal: the file is settled
  // before anything of it is read.
  if (journalPresent(path)) {
    err = readOnly ? reopenToRecover(f, path, flags) : recoverJournal(fileno(f->stream), path);
    if (err != 0) {
      if (err == EAGAIN || err == EACCES) {
        *status = ZAR_S_STZ_WOULD_BLOCK;
      } else if (err == ENOMEM) {
        *status = ZAR_S_NO_MEMORY;
      } else {
        ZAR_STZ_LOG(ZAR_S_FILE_OPEN_FAILED, "%s%d", path, err);
        *status = ZAR_S_STZ_OPEN_FAILED;
      }
      return nullptr;
    }
  }
  *status = 0;
  return guard.release();
}

// Loads every stanza and entry into m through the stream reader. Entries are
// read across headers, so that the end of a stanza costs no seek back to its
// header: a new stanza shows as a new header offset, with its first entry
// already read (or none when it is empty). A format error ends the load where
// it happened (what was read stays); false only when memory ran out.
bool loadTree(zarStzFile* f, zarStzMemory* m) {
  zarStzMoveFirstStanza(f);
  while (f->stanzaName != nullptr) {
    // Nodes are set field by field: calloc costs more than the whole node.
    auto* node = static_cast<zarStzStanzaNode*>(mem::alloc(sizeof(zarStzStanzaNode)));
    if (node == nullptr) return false;
    node->entries = nullptr;
    node->next = m->stanzas;
    m->stanzas = node;
    node->name = mem::strDup(f->stanzaName);
    if (node->name == nullptr) return false;
    const int64_t header = f->stanzaOffset;
    Step step = Step::kEntry;
    zarStzEntryNode** tail = &node->entries;
    while (f->entryName != nullptr && f->stanzaOffset == header) {
      auto* e = static_cast<zarStzEntryNode*>(mem::alloc(sizeof(zarStzEntryNode)));
      if (e == nullptr) return false;
      e->name = f->entryName;
      e->value = f->value;
      e->next = nullptr;
      f->entryName = nullptr;
      f->value = nullptr;
      *tail = e;
      tail = &e->next;
      step = moveLine(f, false, true);
      if (step == Step::kError) return f->status != ZAR_S_NO_MEMORY;
    }
    if (f->stanzaOffset != header) continue;  // the next stanza is current already
    if (step == Step::kFileEnd) break;
    if (moveLine(f, true, true) == Step::kError) return f->status != ZAR_S_NO_MEMORY;
  }
  return f->status != ZAR_S_NO_MEMORY;
}

// ---- The reader --------------------------------------------------------------

enum class LineKind {
  kSkip,         // blank or comment
  kHeader,       // "[name]": name in nameBegin..nameEnd
  kOpenHeader,   // '[' without ']': the text after '[' from nameBegin
  kEntry,        // "name = value": value in valueBegin..valueEnd, or valueBegin -1
  kNoSeparator,  // no name or no '=': the line from nameBegin
};

struct Line {
  LineKind kind;
  int nameBegin = 0;
  int nameEnd = 0;
  int valueBegin = -1;
  int valueEnd = -1;
};

inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }  // 7-bit only
inline bool isSpace(nlz_wchar_t w) { return w < 0x80 ? isSpace(static_cast<char>(w)) : nlz_iswspace(w) != 0; }

// Classifies one line of len units (line feed already removed): wide units,
// or the bytes of a 7-bit line, which are the same characters.
template <class Unit>
Line classify(const Unit* wide, int len) {
  int i = 0;
  while (i < len && isSpace(wide[i])) ++i;
  if (i == len || wide[i] == '#') return Line{LineKind::kSkip};
  if (wide[i] == '[') {
    int close = i + 1;
    while (close < len && wide[close] != ']') ++close;
    if (close == len) return Line{LineKind::kOpenHeader, i + 1, len};
    return Line{LineKind::kHeader, i + 1, close};
  }
  // An entry: the name runs to the first '=', the value after it to a '#'.
  int eq = i;
  while (eq < len && wide[eq] != '=') ++eq;
  if (eq == i || eq == len) return Line{LineKind::kNoSeparator, i, len};
  Line l{LineKind::kEntry, i, eq};
  while (l.nameEnd > i && isSpace(wide[l.nameEnd - 1])) --l.nameEnd;
  int v = eq + 1;
  while (v < len && isSpace(wide[v])) ++v;
  if (v < len && wide[v] != '#') {
    int end = v;
    while (end < len && wide[end] != '#') ++end;
    while (end > v && isSpace(wide[end - 1])) --end;
    l.valueBegin = v;
    l.valueEnd = end;
  }
  return l;
}

// Converts the 0-terminated wide text back to the local code page into a new
// string. On failure the reason is logged and recorded, and false returned.
bool narrowCopy(zarStzFile* f, nlz_cs_t cs, const nlz_wchar_t* wide, char* scratch, char** out) {
  if (nlz_wcstombs(cs, scratch, wide, kLineBytes) < 0) {
    ZAR_STZ_LOG(ZAR_S_WCS_TO_MBS_FAILED, "%S", wide);
    zar_zSetError(f, ZAR_S_STZ_INTERNAL);
    return false;
  }
  *out = mem::strDup(scratch);
  if (*out == nullptr) {
    zar_zSetError(f, ZAR_S_NO_MEMORY);
    return false;
  }
  return true;
}

Step streamMove(zarStzFile* f, bool toStanza, bool crossStanzas) {
  FILE* s = f->stream;
  off_t resume = ftello(s);
  if (resume < 0) {
    zar_zSetError(f, ZAR_S_STZ_READ_FAILED);
    return Step::kError;
  }
  const nlz_cs_t cs = localCodeSet();
  const bool asciiCs = nlz_cs_ascii_transparent(cs) != 0;
  char line[kLineBytes];
  nlz_wchar_t wide[kWideUnits];
  int64_t pos = resume;
  for (;;) {
    const int64_t lineStart = pos;
    const int n = readPiece(s, pos, line, kLineBytes);
    if (n < 0) {
      zar_zSetError(f, ZAR_S_STZ_READ_FAILED);
      return Step::kError;
    }
    if (n == 0) {
      if (toStanza) {
        replaceOwned(&f->stanzaName, nullptr);
        f->stanzaOffset = pos;
        f->bodyOffset = pos;
      }
      f->entryOffset = pos;
      clearEntry(f);
      return Step::kFileEnd;
    }
    pos += n;

    // A 7-bit line in a code set that keeps ASCII as it is would convert to
    // the same characters and back to the same bytes: it is parsed as read.
    // Its faults are reported from the wide text, as any other line's.
    int len = 0;
    bool narrow = asciiCs;
    for (; line[len] != '\0'; ++len)
      if (line[len] & 0x80) narrow = false;
    Line l{LineKind::kSkip};
    if (narrow) {
      if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
      l = classify(line, len);
      narrow = l.kind != LineKind::kOpenHeader && l.kind != LineKind::kNoSeparator;
    }
    if (!narrow) {
      len = nlz_mbstowcs(cs, wide, line, kWideUnits);
      if (len < 0) {
        size_t raw = strlen(line);
        if (raw > 0 && line[raw - 1] == '\n') line[raw - 1] = '\0';
        ZAR_STZ_LOG(ZAR_S_MBS_TO_WCS_FAILED, "%s", line);
        zar_zSetError(f, ZAR_S_STZ_INTERNAL);
        return Step::kError;
      }
      if (len > 0 && wide[len - 1] == '\n') wide[--len] = 0;
      l = classify(wide, len);
    }
    if (l.kind == LineKind::kSkip) continue;
    // The text of units begin..end as a new string in the local code page.
    auto take = [&](int begin, int end, char** out) {
      if (!narrow) {
        wide[end] = 0;
        return narrowCopy(f, cs, &wide[begin], line, out);
      }
      *out = mem::strDupLen(line + begin, static_cast<size_t>(end - begin));
      if (*out != nullptr) return true;
      zar_zSetError(f, ZAR_S_NO_MEMORY);
      return false;
    };

    if (l.kind == LineKind::kHeader || l.kind == LineKind::kOpenHeader) {
      clearEntry(f);
      f->entryOffset = lineStart;
      if (!toStanza && !crossStanzas) {
        // The stanza has no further entries; the header stays unread.
        if (fseeko(s, resume, SEEK_SET) != 0) {
          zar_zSetError(f, ZAR_S_STZ_READ_FAILED);
          return Step::kError;
        }
        return Step::kStanzaEnd;
      }
      f->stanzaOffset = lineStart;
      if (l.kind == LineKind::kOpenHeader) {
        ZAR_STZ_LOG(ZAR_S_STZ_NO_BRACKET, "%S", &wide[l.nameBegin]);
        zar_zSetError(f, ZAR_S_STZ_BAD_FORMAT);
        return Step::kError;
      }
      char* name = nullptr;
      if (!take(l.nameBegin, l.nameEnd, &name)) return Step::kError;
      replaceOwned(&f->stanzaName, name);
      f->bodyOffset = pos;
      f->entryOffset = pos;
      resume = pos;
      toStanza = false;
      crossStanzas = false;
      continue;
    }
    if (toStanza) continue;

    if (l.kind == LineKind::kNoSeparator) {
      ZAR_STZ_LOG(ZAR_S_STZ_NO_SEPARATOR, "%S%s", &wide[l.nameBegin],
                  f->stanzaName != nullptr ? f->stanzaName : "");
      zar_zSetError(f, ZAR_S_STZ_BAD_FORMAT);
      return Step::kError;
    }
    char* name = nullptr;
    char* value = nullptr;
    if (!take(l.nameBegin, l.nameEnd, &name)) return Step::kError;
    if (l.valueBegin >= 0 && !take(l.valueBegin, l.valueEnd, &value)) {
      mem::free(name);
      return Step::kError;
    }
    replaceOwned(&f->entryName, name);
    replaceOwned(&f->value, value);
    f->entryOffset = lineStart;
    return Step::kEntry;
  }
}

void showEntry(zarStzFile* f, const zarStzEntryNode* e) {
  f->entryName = e->name;
  f->value = e->value;
}

// The reader over the tree: never fails and never reads the file.
Step memoryMove(zarStzFile* f, bool toStanza, bool crossStanzas) {
  zarStzMemory* m = f->memory;
  f->entryName = nullptr;
  f->value = nullptr;
  if (toStanza) {
    f->stanzaName = nullptr;
    if (m->currentStanza == nullptr) return Step::kFileEnd;
    m->currentStanza = m->currentStanza->next;
    m->currentEntry = nullptr;
    if (m->currentStanza == nullptr) return Step::kFileEnd;
    f->stanzaName = m->currentStanza->name;
    m->currentEntry = m->currentStanza->entries;
    if (m->currentEntry == nullptr) return Step::kStanzaEnd;
    showEntry(f, m->currentEntry);
    return Step::kEntry;
  }
  if (m->currentStanza == nullptr) return Step::kFileEnd;
  if (!crossStanzas) {
    // After the end has been reported, the next move starts again at the top.
    m->currentEntry =
        m->currentEntry != nullptr ? m->currentEntry->next : m->currentStanza->entries;
    if (m->currentEntry == nullptr) return Step::kStanzaEnd;
    showEntry(f, m->currentEntry);
    return Step::kEntry;
  }
  if (m->currentEntry != nullptr && m->currentEntry->next != nullptr) {
    m->currentEntry = m->currentEntry->next;
    showEntry(f, m->currentEntry);
    return Step::kEntry;
  }
  for (;;) {
    m->currentStanza = m->currentStanza->next;
    m->currentEntry = nullptr;
    if (m->currentStanza == nullptr) {
      f->stanzaName = nullptr;
      return Step::kFileEnd;
    }
    f->stanzaName = m->currentStanza->name;
    if (m->currentStanza->entries != nullptr) {
      m->currentEntry = m->currentStanza->entries;
      showEntry(f, m->currentEntry);
      return Step::kEntry;
    }
  }
}

// Validates a stream-mode record from the start of its file.
int validateStream(zarStzFile* f) {
  if (f->stream == nullptr) {
    zar_zSetError(f, ZAR_S_STZ_NOT_OPEN);
    return 0;
  }
  f->status = 0;
  // Lines before the first header belong to no stanza.
  replaceOwned(&f->stanzaName, nullptr);
  clearEntry(f);
  f->bodyOffset = 0;
  f->entryOffset = 0;
  if (fseeko(f->stream, 0, SEEK_SET) != 0) {
    zar_zSetError(f, ZAR_S_STZ_READ_FAILED);
    return 0;
  }
  for (;;) {
    switch (moveLine(f, false, true)) {
      case Step::kError:
        return 0;
      case Step::kFileEnd:
        return 1;
      case Step::kEntry:
      case Step::kStanzaEnd:
        break;
    }
  }
}

}  // namespace

// ---- Internal interface ------------------------------------------------------------

nlz_cs_t localCodeSet() { return zarsvc_get_local_code_page(); }

void replaceOwned(char** field, char* text) {
  mem::free(*field);
  *field = text;
}

int readPiece(FILE* stream, int64_t start, char* buf, int bufLen) {
  clearerr_unlocked(stream);
  if (fgets_unlocked(buf, bufLen, stream) == nullptr) {
    buf[0] = '\0';
    return ferror_unlocked(stream) ? -1 : 0;
  }
  const size_t n = strlen(buf);
  if (n == static_cast<size_t>(bufLen) - 1 || (n > 0 && buf[n - 1] == '\n'))
    return static_cast<int>(n);
  // Short and without a line feed: the end of the file, or a NUL byte that
  // ended the text early; the stream's position tells what was consumed.
  const off_t end = ftello(stream);
  return end < 0 ? -1 : static_cast<int>(end - start);
}

bool entryLineAt(FILE* stream, int64_t offset, const char* name, int* lineLen) {
  char line[kLineBytes];
  nlz_wchar_t wide[kWideUnits];
  if (fseeko(stream, offset, SEEK_SET) != 0) return false;
  *lineLen = readPiece(stream, offset, line, kLineBytes);
  if (*lineLen <= 0) return false;
  const nlz_cs_t cs = localCodeSet();
  int len = nlz_mbstowcs(cs, wide, line, kWideUnits);
  if (len < 0) return false;
  if (len > 0 && wide[len - 1] == '\n') wide[--len] = 0;
  Line l = classify(wide, len);
  if (l.kind != LineKind::kEntry) return false;
  wide[l.nameEnd] = 0;
  return nlz_wcstombs(cs, line, &wide[l.nameBegin], kLineBytes) >= 0 && strcmp(line, name) == 0;
}

Step moveLine(zarStzFile* file, bool toStanza, bool crossStanzas) {
  file->status = 0;
  if (file->memory != nullptr) return memoryMove(file, toStanza, crossStanzas);
  if (file->stream == nullptr) {
    zar_zSetError(file, ZAR_S_STZ_NOT_OPEN);
    return Step::kError;
  }
  return streamMove(file, toStanza, crossStanzas);
}

int zar_zMoveNextLine(zarStzFile* file, int toStanza, int crossStanzas) {
  return moveLine(file, toStanza != 0, crossStanzas != 0) == Step::kError ? 0 : 1;
}

void zar_zSetError(zarStzFile* file, uint32_t status) {
  if (file->memory != nullptr) {
    file->value = nullptr;
    file->stanzaName = nullptr;
    file->entryName = nullptr;
    file->memory->currentStanza = nullptr;
    file->memory->currentEntry = nullptr;
  } else {
    replaceOwned(&file->value, nullptr);
    replaceOwned(&file->stanzaName, nullptr);
    replaceOwned(&file->entryName, nullptr);
    if (file->stream != nullptr && fseeko(file->stream, 0, SEEK_END) == 0) {
      off_t end = ftello(file->stream);
      if (end >= 0) {
        file->bodyOffset = end;
        file->entryOffset = end;
      }
    }
  }
  file->status = status;
}

void zar_zFileCloseDescriptor(zarStzFile* file) {
  if (file->stream == nullptr) return;
  CancelDisabled noCancel;
  sys::fileLock(fileno(file->stream), F_UNLCK, false);
  fclose(file->stream);
  file->stream = nullptr;
}

int zar_zReplaceText(FILE* stream, const char* path, int64_t from, int64_t to, const char* text,
                     int64_t textLen) {
  CancelDisabled noCancel;
  if (stream == nullptr || path == nullptr || from < 0 || to < from || textLen < 0 ||
      (textLen > 0 && text == nullptr))
    return 0;
  // Every write goes to the descriptor; the stream's read-ahead is dropped
  // first and the stream is set anew afterwards.
  if (sys::fflush(stream) != 0) return 0;
  const int fd = fileno(stream);
  struct stat st;
  if (fstat(fd, &st) != 0) return 0;
  const bool ok = journaledReplace(fd, path, from, to, text, textLen);
  struct stat now;
  ::fflush(stream);
  if (fstat(fd, &now) != 0 || fseeko(stream, now.st_size, SEEK_SET) != 0) return 0;
  return ok ? 1 : 0;
}

}  // namespace zar::stanza

using namespace zar::stanza;

extern "C" {

zarStzFile* zarStzFileOpen(const char* path, uint32_t flags, uint32_t* status) {
  uint32_t st = 0;
  zarStzFile* f = openLocked(path, flags, &st);
  if (f == nullptr) {
    zar::setStatus(status, st);
    return nullptr;
  }
  RecordGuard guard(f);
  if ((flags & ZAR_STZ_MEMORY) == 0) {
    zarStzMoveFirstStanza(f);
    zar::setStatus(status, 0);
    return guard.release();
  }
  TreeOwner tree(static_cast<zarStzMemory*>(zar::mem::allocZero(1, sizeof(zarStzMemory))));
  if (tree == nullptr || !loadTree(f, tree.get())) {
    zar::setStatus(status, ZAR_S_NO_MEMORY);
    return nullptr;
  }
  // The tree now holds everything; the record's own strings go, and with the
  // stream the lock.
  replaceOwned(&f->value, nullptr);
  replaceOwned(&f->entryName, nullptr);
  replaceOwned(&f->stanzaName, nullptr);
  zar_zFileCloseDescriptor(f);
  f->memory = tree.release();
  zarStzMoveFirstStanza(f);
  zar::setStatus(status, 0);
  return guard.release();
}

void zarStzFileClose(zarStzFile* file) {
  if (file != nullptr) destroyRecord(file);
}

int zarStzValidate(zarStzFile* file) {
  if (file == nullptr) return 0;
  if (file->memory == nullptr) return validateStream(file);
  // The tree holds only what parsed; the file itself is checked again.
  zar_zSetError(file, 0);
  uint32_t st = 0;
  zarStzFile* again = openLocked(file->fileName, ZAR_STZ_READ | (file->flags & ZAR_STZ_NOWAIT), &st);
  if (again == nullptr) {
    file->status = st;
    return 0;
  }
  RecordGuard guard(again);
  int ok = validateStream(again);
  file->status = again->status;
  return ok;
}

}  // extern "C"
