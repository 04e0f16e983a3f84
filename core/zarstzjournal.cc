#include "core/zarstzjournal.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/sysio.h"

namespace zar::stanza {
namespace {

constexpr char kMagic[8] = {'Z', 'A', 'R', 'S', 'T', 'Z', 'J', '1'};
constexpr char kSuffix[] = ".zarjournal";
constexpr size_t kChunk = 64 * 1024;
constexpr uint64_t kFnvBasis = 0xcbf29ce484222325ull;

// The journal: this header, the file's old bytes from `from` to its old end,
// then the new text. Read back only on the machine that wrote it.
//
// Invariants: 0 <= from <= to <= oldLen, textLen >= 0; the journal's size is
// sizeof(Header) + (oldLen - from) + textLen; sum is FNV-1a over the header's
// bytes before it and every byte after the header.
struct Header {
  char magic[8];
  uint64_t dev;  // the stanza file's device and inode: a journal names its file
  uint64_t ino;
  int64_t from;
  int64_t to;
  int64_t oldLen;
  int64_t textLen;
  uint64_t sum;
};
static_assert(sizeof(Header) == 64, "the journal header has no padding");

uint64_t fnv(uint64_t h, const void* data, size_t len) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < len; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

// Closes a descriptor on every path; close is a cancellation point.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      CancelDisabled noCancel;
      ::close(fd_);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// The copy buffer: a large one when memory allows, else a small one.
class Buffer {
 public:
  Buffer() : heap_(static_cast<char*>(mem::alloc(kChunk))) {}
  ~Buffer() { mem::free(heap_); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  char* data() { return heap_ != nullptr ? heap_ : small_; }
  size_t size() const { return heap_ != nullptr ? kChunk : sizeof small_; }

 private:
  char* heap_;
  char small_[2048];
};

// The journal's name ("<path>.zarjournal") and its directory's.
struct Names {
  explicit Names(const char* path) {
    size_t len = strlen(path);
    journal.reset(static_cast<char*>(mem::alloc(len + sizeof kSuffix)));
    const char* slash = strrchr(path, '/');
    size_t dirLen = slash == nullptr ? 1 : (slash == path ? 1 : static_cast<size_t>(slash - path));
    dir.reset(static_cast<char*>(mem::alloc(dirLen + 1)));
    if (!journal || !dir) return;
    memcpy(journal.get(), path, len);
    memcpy(journal.get() + len, kSuffix, sizeof kSuffix);
    memcpy(dir.get(), slash == nullptr ? "." : path, dirLen);
    dir.get()[dirLen] = '\0';
  }
  bool ok() const { return journal && dir; }
  mem::Unique<char> journal;
  mem::Unique<char> dir;
};

bool readAt(int fd, int64_t off, void* buf, size_t len) {
  char* p = static_cast<char*>(buf);
  while (len > 0) {
    if (lseek(fd, off, SEEK_SET) != off) return false;
    ssize_t got = sys::read(fd, p, len);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    off += got;
    len -= static_cast<size_t>(got);
  }
  return true;
}

bool writeAt(int fd, int64_t off, const void* data, size_t len) {
  if (len == 0) return true;
  if (lseek(fd, off, SEEK_SET) != off) return false;
  return sys::writeAll(fd, data, len);
}

// Copies len bytes from src at srcOff to dst at dstOff (dst -1: reads only),
// adding them to *sum when given.
bool copy(int src, int64_t srcOff, int dst, int64_t dstOff, int64_t len, Buffer& buf,
          uint64_t* sum) {
  while (len > 0) {
    size_t n = len < static_cast<int64_t>(buf.size()) ? static_cast<size_t>(len) : buf.size();
    if (!readAt(src, srcOff, buf.data(), n)) return false;
    if (sum != nullptr) *sum = fnv(*sum, buf.data(), n);
    if (dst >= 0 && !writeAt(dst, dstOff, buf.data(), n)) return false;
    srcOff += static_cast<int64_t>(n);
    dstOff += static_cast<int64_t>(n);
    len -= static_cast<int64_t>(n);
  }
  return true;
}

bool syncDir(const char* dir) {
  Fd fd(sys::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd.get() >= 0 && sys::fsync(fd.get()) == 0;
}

// A file for the journal in dir, private to this process: unnamed where the
// file system allows, else created exclusively under an unpredictable name
// (then in *tmpName).
int makeJournalFile(const char* dir, mem::Unique<char>* tmpName) {
  int fd = sys::open(dir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  static const char kTemplate[] = "/.zarjournal.XXXXXX";
  size_t len = strlen(dir);
  tmpName->reset(static_cast<char*>(mem::alloc(len + sizeof kTemplate)));
  if (!*tmpName) return -1;
  memcpy(tmpName->get(), dir, len);
  memcpy(tmpName->get() + len, kTemplate, sizeof kTemplate);
  return mkostemp(tmpName->get(), O_CLOEXEC);
}

// Gives the complete journal its name; an existing journal is never replaced.
bool linkJournal(int fd, const char* tmpName, const char* journal) {
  if (tmpName != nullptr) {
    bool linked = sys::link(tmpName, journal) == 0;
    int err = errno;
    ::unlink(tmpName);
    errno = err;
    return linked;
  }
  char self[64];
  snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
  return sys::linkAt(self, journal, AT_SYMLINK_FOLLOW) == 0;
}

// Writes the edit the journal holds into the file and makes it durable. The
// file's bytes before `from` are never touched, so this finishes the edit
// from whatever state an interrupted one left.
bool rollForward(int fd, int journal, const Header& h, Buffer& buf) {
  const int64_t data = static_cast<int64_t>(sizeof(Header));
  return copy(journal, data + (h.oldLen - h.from), fd, h.from, h.textLen, buf, nullptr) &&
         copy(journal, data + (h.to - h.from), fd, h.from + h.textLen, h.oldLen - h.to, buf,
              nullptr) &&
         sys::ftruncate(fd, h.from + h.textLen + (h.oldLen - h.to)) == 0 && sys::fsync(fd) == 0;
}

// Puts the old bytes back.
bool rollBack(int fd, int journal, const Header& h, Buffer& buf) {
  return copy(journal, sizeof(Header), fd, h.from, h.oldLen - h.from, buf, nullptr) &&
         sys::ftruncate(fd, h.oldLen) == 0 && sys::fsync(fd) == 0;
}

// True when the journal open on fd is whole and consistent, its header in *h.
bool journalChecksOut(int fd, const struct stat& st, Header* h, Buffer& buf) {
  if (!readAt(fd, 0, h, sizeof *h) || memcmp(h->magic, kMagic, sizeof kMagic) != 0) return false;
  if (h->from < 0 || h->to < h->from || h->oldLen < h->to || h->textLen < 0) return false;
  const int64_t body = (h->oldLen - h->from) + h->textLen;
  if (body < 0 || st.st_size != static_cast<off_t>(sizeof *h) + body) return false;
  uint64_t sum = fnv(kFnvBasis, h, offsetof(Header, sum));
  return copy(fd, sizeof *h, -1, 0, body, buf, &sum) && sum == h->sum;
}

}  // namespace

bool journaledReplace(int fd, const char* path, int64_t from, int64_t to, const char* text,
                      int64_t textLen) {
  CancelDisabled noCancel;
  struct stat st;
  if (fstat(fd, &st) != 0 || from < 0 || to < from || to > st.st_size || textLen < 0) return false;
  Names names(path);
  if (!names.ok()) return false;
  Buffer buf;
  mem::Unique<char> tmpName;
  int made = makeJournalFile(names.dir.get(), &tmpName);
  // A directory the process may not write takes no journal: the edit is then
  // made in place as before, its old bytes kept in a private temporary file,
  // without the crash guarantee.
  const bool journaled = made >= 0 || (errno != EACCES && errno != EPERM && errno != EROFS);
  if (!journaled) {
    made = makeJournalFile("/tmp", &tmpName);
    if (made >= 0 && tmpName) {
      ::unlink(tmpName.get());
      tmpName.reset();
    }
  }
  Fd journal(made);
  if (journal.get() < 0) return false;

  Header h = {};
  memcpy(h.magic, kMagic, sizeof kMagic);
  h.dev = st.st_dev;
  h.ino = st.st_ino;
  h.from = from;
  h.to = to;
  h.oldLen = st.st_size;
  h.textLen = textLen;
  uint64_t sum = fnv(kFnvBasis, &h, offsetof(Header, sum));
  const int64_t saved = h.oldLen - from;
  bool written = copy(fd, from, journal.get(), sizeof h, saved, buf, &sum) &&
                 writeAt(journal.get(), sizeof h + saved, text, static_cast<size_t>(textLen));
  if (written) {
    h.sum = fnv(sum, text, static_cast<size_t>(textLen));
    written = writeAt(journal.get(), 0, &h, sizeof h) && sys::fsync(journal.get()) == 0;
  }
  if (!written) {
    if (tmpName) ::unlink(tmpName.get());
    return false;
  }
  if (!journaled) {
    if (rollForward(fd, journal.get(), h, buf)) return true;
    rollBack(fd, journal.get(), h, buf);
    return false;
  }
  if (!linkJournal(journal.get(), tmpName.get(), names.journal.get())) return false;
  if (!syncDir(names.dir.get())) {
    // The journal's name may not be on disk: the edit does not start.
    sys::unlink(names.journal.get());
    return false;
  }

  bool done = rollForward(fd, journal.get(), h, buf);
  // A failed edit is undone from the journal's copy; when even that fails the
  // journal stays, and the next open finishes the edit.
  if (!done && !rollBack(fd, journal.get(), h, buf)) return false;
  if (sys::unlink(names.journal.get()) == 0) syncDir(names.dir.get());
  return done;
}

bool journalPresent(const char* path) {
  Names names(path);
  struct stat st;
  return !names.ok() || lstat(names.journal.get(), &st) == 0;
}

int recoverJournal(int fd, const char* path) {
  CancelDisabled noCancel;
  Names names(path);
  if (!names.ok()) return ENOMEM;
  Fd journal(sys::open(names.journal.get(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (journal.get() < 0) return errno == ENOENT || errno == ELOOP ? 0 : errno;
  struct stat js, fs;
  if (fstat(journal.get(), &js) != 0 || fstat(fd, &fs) != 0) return errno;
  // Only a journal that one of the file's trusted writers made is applied.
  if (!S_ISREG(js.st_mode) || (js.st_uid != 0 && js.st_uid != geteuid() && js.st_uid != fs.st_uid))
    return 0;
  Buffer buf;
  Header h;
  // A journal that does not check out, or names another file, was never
  // acted on: the file is as before the edit, and the journal goes.
  if (journalChecksOut(journal.get(), js, &h, buf) && h.dev == fs.st_dev && h.ino == fs.st_ino &&
      fs.st_size >= h.from && !rollForward(fd, journal.get(), h, buf))
    return errno != 0 ? errno : EIO;
  if (sys::unlink(names.journal.get()) != 0 && errno != ENOENT) return errno;
  syncDir(names.dir.get());
  return 0;
}

}  // namespace zar::stanza
