/*
 * libzar: small file utilities that report failures as status codes.
 *
 * Conventions of this header:
 * - Status: functions return a status code (zar/status.h), 0 on success,
 *   unless stated otherwise. System error numbers map as: ENOENT
 *   ZAR_S_NOT_AVAILABLE, ENOMEM and ENOSPC ZAR_S_NO_MEMORY, EACCES
 *   ZAR_S_ACCESS_DENIED, ENOTDIR and EINVAL ZAR_S_INVALID_INPUT; any other is
 *   logged (message XKJSC0156E with the error number) and gives
 *   ZAR_S_SYSCALL_FAILED.
 * - Ownership: buffers handed in by pointer-to-pointer are heap blocks
 *   (malloc) that the functions may grow or free; whatever they hold on
 *   return belongs to the caller, who frees it with free(3).
 * - NULL: a null required argument gives ZAR_S_INVALID_INPUT (null, or 0,
 *   for the functions that return a pointer or a flag).
 * - Threads: the functions keep no state. zar_file_chown looks names up with
 *   getpwnam and getgrnam, which are not reentrant: serialise its callers.
 */
#ifndef ZAR_FILE_H
#define ZAR_FILE_H

#include <stdint.h>
#include <stdio.h>

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* Mode and ownership of a file. */
typedef struct zarFileProperties {
  uint32_t mode; /* st_mode bits */
  uint32_t uid;
  uint32_t gid;
} zarFileProperties;

/* Creates the directory path with mode 0777 less the umask. An existing file
 * of any kind at path is success. On failure the error number is stored in
 * *error when error is not null. */
ZAR_API uint32_t zar_create_directory(const char* path, uint32_t* error);

/* Reads one whole line of any length from stream into *buffer, growing it in
 * steps of 100 bytes; *size is the buffer's size, *length receives the
 * line's length including its line feed (a last line may have none).
 * *buffer may be null (with *size 0); otherwise it must be a heap block of
 * *size bytes. At the end of the file the result is 0 with *length 0, and the
 * buffer is freed (*buffer null, *size 0). A read error gives its mapped
 * status; an allocation failure frees the buffer (null, 0, 0) and gives
 * ZAR_S_NO_MEMORY. */
ZAR_API uint32_t zar_file_readline(FILE* stream, char** buffer, int32_t* size, int32_t* length);

/* Collects the last lines of the file path into lines[0..count-1]: each gets
 * a newly allocated 512-byte buffer (the caller frees all of them, whatever
 * the result). The result holds at most the last count - 1 lines, oldest
 * first, each without its last character (the line feed; a line longer than
 * 511 bytes is read in pieces, each losing its last character), followed by
 * empty strings. ZAR_S_FILE_TAIL_OPEN when the file cannot be opened (the
 * buffers then hold empty strings); ZAR_S_NO_MEMORY when buffers cannot be
 * allocated (those allocated stay with the caller, the others are null). */
ZAR_API uint32_t zar_file_tail(const char* path, int32_t count, char** lines);

/* 1 when path can be opened for reading, else 0. */
ZAR_API int zar_file_exists(const char* path);

/* Gives path to the user and group of the given names (ZAR_S_SYSCALL_FAILED
 * when either name is unknown). */
ZAR_API uint32_t zar_file_chown(const char* path, const char* user, const char* group);

/* Sets owner and group, then mode; any failure gives ZAR_S_SYSCALL_FAILED. */
ZAR_API uint32_t zar_set_file_properties(const char* path, const zarFileProperties* properties);

/* Reads mode, owner and group (following symbolic links); failure gives
 * ZAR_S_SYSCALL_FAILED. */
ZAR_API uint32_t zar_get_file_properties(const char* path, zarFileProperties* properties);

/* symlink(2), rename(2) and remove(3) with mapped failures. */
ZAR_API uint32_t zar_file_symlink(const char* target, const char* linkPath);
ZAR_API uint32_t zar_file_rename(const char* oldPath, const char* newPath);
ZAR_API uint32_t zar_file_remove(const char* path);

/* Copies the bytes of source to destination (created or emptied); mode and
 * ownership are not copied. A source that cannot be opened leaves the
 * destination untouched. Copying a file onto itself gives
 * ZAR_S_INVALID_INPUT and changes nothing. A failed write, or a failed final
 * flush of the destination, gives its mapped status. */
ZAR_API uint32_t zar_file_copy(const char* source, const char* destination);

/* Creates a new file (mode 0600) from template, whose last six characters
 * must be "XXXXXX" and are replaced to name it. Returns template, or null on
 * failure. */
ZAR_API char* zar_mktemp(char* templ);

ZAR_EXTERN_C_END

#endif /* ZAR_FILE_H */
