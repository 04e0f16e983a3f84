// File utilities: thin wrappers over the system's file calls whose failures
// become the library's status codes through one error-number mapping.
#include <errno.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/report.h"
#include "base/zarlock.h"
#include "base/zarmem.h"
#include "platform/sysio.h"
#include "zar/file.h"
#include "zar/status.h"

namespace zar::file {
namespace {

constexpr char kRecordName[] = "core/zarfile";
constexpr int kLineStep = 100;      // growth of zar_file_readline's buffer
constexpr int kTailLine = 512;      // buffer of one zar_file_tail line
constexpr size_t kCopyBlock = 512;  // block of zar_file_copy

// The one mapping of error numbers to status codes. Numbers without a status
// of their own are logged, so that the cause is not lost.
uint32_t sysStatus(int err) {
  switch (err) {
    case 0:
      return ZAR_S_OK;
    case ENOENT:
      return ZAR_S_NOT_AVAILABLE;
    case ENOMEM:
    case ENOSPC:
      return ZAR_S_NO_MEMORY;
    case EACCES:
      return ZAR_S_ACCESS_DENIED;
    case ENOTDIR:
    case EINVAL:
      return ZAR_S_INVALID_INPUT;
    default:
      report::error(kRecordName, __LINE__, ZAR_S_SYSCALL_FAILED_CODE, "%s%d", "<unknown>", err);
      return ZAR_S_SYSCALL_FAILED;
  }
}

// Closes a stream with cancellation disabled (fclose is a cancellation
// point, and this runs in destructors); returns fclose's result.
int closeStream(FILE* f) {
  CancelDisabled noCancel;
  return fclose(f);
}

struct StreamCloser {
  void operator()(FILE* f) const { closeStream(f); }
};
using Stream = std::unique_ptr<FILE, StreamCloser>;

// Moves lines[0] to the end, the others down by one; returns the moved buffer.
char* rotate(char** lines, int32_t n) {
  char* first = lines[0];
  memmove(lines, lines + 1, sizeof(char*) * static_cast<size_t>(n - 1));
  lines[n - 1] = first;
  return first;
}

}  // namespace
}  // namespace zar::file

using zar::file::sysStatus;

extern "C" {

ZAR_API uint32_t zar_create_directory(const char* path, uint32_t* error) {
  if (path == nullptr) return ZAR_S_INVALID_INPUT;
  if (mkdir(path, 0777) == 0 || errno == EEXIST) return ZAR_S_OK;
  int err = errno;
  if (error != nullptr) *error = static_cast<uint32_t>(err);
  return sysStatus(err);
}

ZAR_API uint32_t zar_file_readline(FILE* stream, char** buffer, int32_t* size, int32_t* length) {
  if (stream == nullptr || buffer == nullptr || size == nullptr || length == nullptr)
    return ZAR_S_INVALID_INPUT;
  *length = 0;
  auto fail = [&]() {
    zar::mem::free(*buffer);
    *buffer = nullptr;
    *size = 0;
    *length = 0;
    return ZAR_S_NO_MEMORY;
  };
  // Grows the caller's buffer by one step; false (buffer freed) on failure.
  auto grow = [&](int32_t newSize) {
    char* p = static_cast<char*>(zar::mem::realloc(*buffer, static_cast<size_t>(newSize)));
    if (p == nullptr) return false;
    *buffer = p;
    *size = newSize;
    return true;
  };
  char local[zar::file::kLineStep];
  bool inLocal = *buffer == nullptr || *size < 1;
  char* pos = inLocal ? local : *buffer;
  int room = inLocal ? static_cast<int>(sizeof local) : *size;
  for (;;) {
    if (room < 2) {  // fgets cannot read into less than two bytes
      if (*size > INT32_MAX - zar::file::kLineStep) return fail();
      if (!grow(*size + zar::file::kLineStep)) return fail();
      pos = *buffer + *length;
      room = *size - *length;
    }
    if (fgets(pos, room, stream) == nullptr) break;
    int n = static_cast<int>(strlen(pos));
    if (n == 0) break;
    if (inLocal) {
      if (!grow(zar::file::kLineStep)) return fail();
      memcpy(*buffer, local, static_cast<size_t>(n) + 1);
      inLocal = false;
    }
    *length += n;
    if ((*buffer)[*length - 1] == '\n' || feof(stream)) return ZAR_S_OK;
    if (*size - *length < zar::file::kLineStep) {
      if (*size > INT32_MAX - zar::file::kLineStep) return fail();
      if (!grow(*size + zar::file::kLineStep)) return fail();
    }
    pos = *buffer + *length;
    room = *size - *length;
  }
  int err = errno;
  if (*length == 0 && feof(stream)) {
    zar::mem::free(*buffer);
    *buffer = nullptr;
    *size = 0;
  }
  return ferror(stream) ? sysStatus(err != 0 ? err : EIO) : ZAR_S_OK;
}

ZAR_API uint32_t zar_file_tail(const char* path, int32_t count, char** lines) {
  if (path == nullptr || lines == nullptr || count < 1) return ZAR_S_INVALID_INPUT;
  for (int32_t i = 0; i < count; ++i) lines[i] = nullptr;
  for (int32_t i = 0; i < count; ++i) {
    lines[i] = static_cast<char*>(zar::mem::alloc(zar::file::kTailLine));
    if (lines[i] == nullptr) return ZAR_S_NO_MEMORY;
    lines[i][0] = '\0';
  }
  zar::file::Stream f(zar::sys::fopen(path, "r"));
  if (!f) return ZAR_S_FILE_TAIL_OPEN;
  int32_t read = 0;
  for (;;) {
    char* line = zar::file::rotate(lines, count);
    line[0] = '\0';
    if (fgets(line, zar::file::kTailLine, f.get()) == nullptr) {
      line[0] = '\0';
      break;
    }
    ++read;
    size_t len = strlen(line);
    if (len > 0) line[len - 1] = '\0';
  }
  if (read > 0) {
    for (int32_t i = 0; i < count && lines[0][0] == '\0'; ++i) zar::file::rotate(lines, count);
  }
  return ZAR_S_OK;
}

ZAR_API int zar_file_exists(const char* path) {
  if (path == nullptr) return 0;
  FILE* f = zar::sys::fopen(path, "r");
  if (f == nullptr) return 0;
  zar::file::closeStream(f);
  return 1;
}

ZAR_API uint32_t zar_file_chown(const char* path, const char* user, const char* group) {
  if (path == nullptr || user == nullptr || group == nullptr) return ZAR_S_INVALID_INPUT;
  struct passwd* pw = getpwnam(user);
  if (pw == nullptr) return ZAR_S_SYSCALL_FAILED;
  uid_t uid = pw->pw_uid;
  struct group* gr = getgrnam(group);
  if (gr == nullptr) return ZAR_S_SYSCALL_FAILED;
  if (chown(path, uid, gr->gr_gid) != 0) return sysStatus(errno);
  return ZAR_S_OK;
}

ZAR_API uint32_t zar_set_file_properties(const char* path, const zarFileProperties* properties) {
  if (path == nullptr || properties == nullptr) return ZAR_S_INVALID_INPUT;
  if (chown(path, properties->uid, properties->gid) != 0 ||
      chmod(path, static_cast<mode_t>(properties->mode)) != 0)
    return ZAR_S_SYSCALL_FAILED;
  return ZAR_S_OK;
}

ZAR_API uint32_t zar_get_file_properties(const char* path, zarFileProperties* properties) {
  if (path == nullptr || properties == nullptr) return ZAR_S_INVALID_INPUT;
  struct stat st;
  if (stat(path, &st) != 0) return ZAR_S_SYSCALL_FAILED;
  properties->mode = st.st_mode;
  properties->uid = st.st_uid;
  properties->gid = st.st_gid;
  return ZAR_S_OK;
}

ZAR_API uint32_t zar_file_symlink(const char* target, const char* linkPath) {
  if (target == nullptr || linkPath == nullptr) return ZAR_S_INVALID_INPUT;
  return symlink(target, linkPath) == 0 ? ZAR_S_OK : sysStatus(errno);
}

ZAR_API uint32_t zar_file_rename(const char* oldPath, const char* newPath) {
  if (oldPath == nullptr || newPath == nullptr) return ZAR_S_INVALID_INPUT;
  return zar::sys::rename(oldPath, newPath) == 0 ? ZAR_S_OK : sysStatus(errno);
}

ZAR_API uint32_t zar_file_remove(const char* path) {
  if (path == nullptr) return ZAR_S_INVALID_INPUT;
  return remove(path) == 0 ? ZAR_S_OK : sysStatus(errno);
}

ZAR_API uint32_t zar_file_copy(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) return ZAR_S_INVALID_INPUT;
  zar::file::Stream in(zar::sys::fopen(source, "rb"));
  if (!in) return sysStatus(errno);
  // Opening the source itself for writing would empty it before the copy.
  struct stat src, dst;
  if (fstat(fileno(in.get()), &src) == 0 && stat(destination, &dst) == 0 &&
      src.st_dev == dst.st_dev && src.st_ino == dst.st_ino)
    return ZAR_S_INVALID_INPUT;
  FILE* out = zar::sys::fopen(destination, "wb");
  if (out == nullptr) return sysStatus(errno);
  uint32_t rc = ZAR_S_OK;
  char block[zar::file::kCopyBlock];
  {
    zar::file::Stream outGuard(out);
    for (;;) {
      size_t n = fread(block, 1, sizeof block, in.get());
      if (n == 0) break;
      if (zar::sys::fwrite(block, 1, n, out) < n) {
        rc = sysStatus(errno);
        break;
      }
      if (n < sizeof block) break;
    }
    out = outGuard.release();
  }
  // The last bytes reach the file only when the stream is closed: a failure
  // there is a failed copy.
  int closeRc = zar::file::closeStream(out);
  if (closeRc != 0 && rc == ZAR_S_OK) rc = sysStatus(errno);
  return rc;
}

ZAR_API char* zar_mktemp(char* templ) {
  if (templ == nullptr) return nullptr;
  int fd = mkstemp(templ);
  if (fd < 0) return nullptr;
  zar::CancelDisabled noCancel;
  close(fd);
  return templ;
}

}  // extern "C"
