/*
 * libzar: stanza configuration files.
 *
 * A stanza file is a text file in the process's local code page made of
 * "[name]" header lines, each followed by "name = value" entry lines; blank
 * lines and lines whose first non-blank character is '#' are ignored. The
 * whole format is described in docs/stanza.md.
 *
 * Conventions of this header:
 * - Ownership: zarStzFileOpen allocates a zarStzFile; zarStzFileClose frees it
 *   with everything it owns. The strings of the record (stanzaName,
 *   entryName, value) belong to the record and stay valid until the next
 *   operation on it; copy them to keep them.
 * - Status: zarStzFileOpen writes its status (unsigned 32-bit, 0 on success)
 *   through its last argument; every other operation leaves the status of the
 *   last failure in the record's `status` field (0 when it succeeded), and
 *   operations with an int result also return 1 for success (or found) and 0
 *   otherwise. The codes are the ZAR_S_STZ_* names of zar/status.h and
 *   ZAR_S_NO_MEMORY. A failure puts the cursor at the end of the file with no
 *   current stanza. Parse and I/O failures are also logged as ERROR messages
 *   of the client component (standard error unless routed elsewhere).
 * - NULL: a null status pointer means the caller does not want the status; a
 *   null record makes every operation do nothing (int results 0); a null
 *   name gives ZAR_S_STZ_BAD_ARGUMENT; a null value means "no value".
 * - Threads: a record is used by one thread at a time; different records may
 *   be used from different threads at once, also while they edit. The file
 *   lock excludes other processes only (a POSIX record lock: within one
 *   process, closing any descriptor of a file drops the process's lock on it).
 */
#ifndef ZAR_STANZA_H
#define ZAR_STANZA_H

#include <stdint.h>
#include <stdio.h>

#include "zar/export.h"

/* Open flags (bits of an unsigned 32-bit word). */
#define ZAR_STZ_READ 1u   /* read only: shared lock */
#define ZAR_STZ_WRITE 2u  /* read and write: exclusive lock; needed for edits */
#define ZAR_STZ_NOWAIT 4u /* fail with ZAR_S_STZ_WOULD_BLOCK instead of waiting for the lock */
#define ZAR_STZ_MEMORY 8u /* load the file into memory, then release it (read only) */

/* One entry of a stanza loaded into memory. The tree owns its strings. */
typedef struct zarStzEntryNode {
  char* name;
  char* value; /* null when the entry has no value */
  struct zarStzEntryNode* next;
} zarStzEntryNode;

/* One stanza loaded into memory; its entries are in file order. */
typedef struct zarStzStanzaNode {
  char* name;
  zarStzEntryNode* entries;
  struct zarStzStanzaNode* next;
} zarStzStanzaNode;

/* A file loaded with ZAR_STZ_MEMORY. Stanzas are held in reverse file order,
 * so a walk meets the last stanza of the file first and a lookup by name
 * finds the last stanza of that name. */
typedef struct zarStzMemory {
  zarStzStanzaNode* stanzas;
  zarStzStanzaNode* currentStanza;
  zarStzEntryNode* currentEntry;
} zarStzMemory;

/* One open stanza file and its cursor. Callers read stanzaName, entryName,
 * value and status after each operation and never write the record. */
typedef struct zarStzFile {
  FILE* stream;         /* the open, locked file; null in memory mode */
  char* fileName;       /* copy of the path given to open */
  uint32_t flags;       /* the open flags */
  uint32_t status;      /* status of the last failed operation, 0 after a success */
  int64_t stanzaOffset; /* offset of the current stanza's header line (file length at the end) */
  int64_t bodyOffset;   /* offset just after the current stanza's header line */
  int64_t entryOffset;  /* offset of the current entry, or the insertion point when there is none */
  char* value;          /* value of the current entry; null for none or no value */
  char* stanzaName;     /* current stanza; null before the first, after the last, after an error */
  char* entryName;      /* current entry; null when there is none */
  zarStzMemory* memory; /* the loaded tree in memory mode, else null */
} zarStzFile;

ZAR_EXTERN_C_BEGIN

/* ---- Opening, closing, validation ------------------------------------- */

/* Opens path as a stanza file and puts the cursor on the first stanza and its
 * first entry. flags: ZAR_STZ_READ or ZAR_STZ_WRITE (not both), optionally
 * ZAR_STZ_NOWAIT, and ZAR_STZ_MEMORY with ZAR_STZ_READ only. The file must
 * be a regular file. The whole file is locked (shared for READ, exclusive
 * for WRITE), waiting for other processes unless ZAR_STZ_NOWAIT is given;
 * a memory-mode open holds the lock only while it loads.
 * Returns the record and status 0, or null and: ZAR_S_STZ_BAD_ARGUMENT (bad
 * flags or null path), ZAR_S_NO_MEMORY, ZAR_S_STZ_OPEN_FAILED (open or lock
 * failed; logged), ZAR_S_STZ_WOULD_BLOCK (NOWAIT and the file is locked
 * elsewhere). A format error met while reaching the first stanza (or while
 * loading) is logged and left in the record; the open still succeeds.
 * Thread safety: any thread; may block for the lock (a cancellation point). */
ZAR_API zarStzFile* zarStzFileOpen(const char* path, uint32_t flags, uint32_t* status);

/* Unlocks and closes the file and frees the record with all it owns. Null is
 * ignored. */
ZAR_API void zarStzFileClose(zarStzFile* file);

/* Checks every line of the file from its start: 1 when all are well formed,
 * 0 at the first bad line (status says why; the line is logged). A memory-mode
 * record re-reads its file by name under a shared lock. The cursor is left at
 * the end and must be re-positioned before further moves. */
ZAR_API int zarStzValidate(zarStzFile* file);

/* ---- Cursor moves -------------------------------------------------------- */

/* Cursor on the first stanza of the file and its first entry (memory mode:
 * the last stanza of the file, see zarStzMemory). */
ZAR_API void zarStzMoveFirstStanza(zarStzFile* file);
/* Cursor on the next stanza and its first entry; at the end stanzaName
 * becomes null and the result is still 1. 0 on a failure. */
ZAR_API int zarStzMoveNextStanza(zarStzFile* file);
/* Cursor on the first stanza called name (byte comparison) and its first
 * entry: 1; 0 when there is none (status 0) or on a failure. */
ZAR_API int zarStzMoveStanza(zarStzFile* file, const char* name);
/* Cursor on the current stanza's first entry (entryName null when it has
 * none). In memory mode with no current stanza, the first stanza of the tree
 * becomes current. 1, or 0 on a failure. */
ZAR_API int zarStzMoveFirstEntry(zarStzFile* file);
/* Cursor on the next entry of the current stanza; after the last entry
 * entryName becomes null and the result is still 1. 0 on a failure. */
ZAR_API int zarStzMoveNextEntry(zarStzFile* file);
/* Cursor on the first entry called name in the current stanza: 1; 0 when
 * there is none (status 0; the cursor then stands at the stanza's end) or
 * on a failure. */
ZAR_API int zarStzMoveEntryInStanza(zarStzFile* file, const char* name);
/* zarStzMoveStanza(stanza), then zarStzMoveEntryInStanza(entry). */
ZAR_API int zarStzMoveEntry(zarStzFile* file, const char* stanza, const char* entry);
/* Number of entries of the current stanza; 0 without a current entry or after
 * a failure. The cursor comes back to the first entry of the current entry's
 * name. */
ZAR_API uint32_t zarStzStanzaSize(zarStzFile* file);

/* ---- Edits ----------------------------------------------------------------
 * Edits need a stream-mode record opened with ZAR_STZ_WRITE (else
 * ZAR_S_STZ_NOT_OPEN for a memory-mode record, ZAR_S_STZ_READ_ONLY for a
 * read-only one). The file is rewritten in place under its lock, so its
 * inode, owner, permissions and lock stay; a temporary file in /tmp (made
 * exclusively, mode 0600, removed at once) holds the text after the edit
 * point meanwhile. A missing line feed at the end of the file is added before
 * text is written after it. Arguments that could not be read back
 * as written give ZAR_S_STZ_BAD_ARGUMENT and write nothing: names or values
 * holding a line feed, a written line longer than 2047 bytes, text that does
 * not convert to the local code page, an entry name that is empty, holds '=',
 * starts with '[' or '#' or with or ends in white space, a stanza name that
 * holds ']', a comment that is not a comment line. A value loses any text
 * from '#' on, and its surrounding white space, when read back; an empty
 * value reads back as no value. A failed rewrite gives ZAR_S_STZ_UPDATE_FAILED
 * and leaves the file as it was. */

/* zarStzAddStanzaWithComment without a comment. */
ZAR_API void zarStzAddStanza(zarStzFile* file, const char* name);
/* Appends "[name]" at the end of the file, after the comment line when one is
 * given (written as it stands: it must begin with '#'), unless a stanza of
 * that name exists, in which case the cursor goes to it and nothing is
 * written. The new stanza becomes current with no entry, ready for
 * zarStzAddEntry. */
ZAR_API void zarStzAddStanzaWithComment(zarStzFile* file, const char* name, const char* comment);
/* Removes the first stanza called name with all its lines up to the next
 * header line (blank and comment lines before that header go with it). 1 also
 * when there is no such stanza; 0 on a failure. The cursor is then on the
 * stanza that followed, and the next entry move reports no further entry. */
ZAR_API int zarStzDeleteStanza(zarStzFile* file, const char* name);
/* Sets an entry of the current stanza: changes the first entry called name,
 * or inserts "name = value" after the stanza's last entry (before the blank
 * and comment lines that precede the next header). The entry becomes current. */
ZAR_API void zarStzAddEntry(zarStzFile* file, const char* name, const char* value);
/* Inserts "name = value" at the insertion point: before the current entry, or
 * at the stanza's end when there is none. No check for an existing name. */
ZAR_API void zarStzInsertEntry(zarStzFile* file, const char* name, const char* value);
/* Rewrites the current entry's line as "name = value" (spacing and any
 * comment after the old value are gone). */
ZAR_API void zarStzChangeValue(zarStzFile* file, const char* value);
/* Removes the entry called entry from the stanza called stanza: 1, or 0 with
 * ZAR_S_STZ_BAD_FORMAT when it does not exist. Needs a current stanza (any).
 * Afterwards stanzaName, entryName and value still name what was deleted; the
 * next entry move reports no further entry. Re-position (by name, or with
 * zarStzMoveFirstStanza) before editing again. */
ZAR_API int zarStzDeleteEntry(zarStzFile* file, const char* stanza, const char* entry);
/* Removes the current entry's line: 1, or 0 (ZAR_S_STZ_BAD_ARGUMENT without a
 * current entry). The cursor is then as after zarStzDeleteEntry. */
ZAR_API int zarStzDeleteCurrentEntry(zarStzFile* file);

ZAR_EXTERN_C_END

#endif /* ZAR_STANZA_H */
