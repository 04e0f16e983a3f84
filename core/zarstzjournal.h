// The journal that makes an edit of a stanza file crash-safe.
//
// An edit replaces the bytes from..to of the file by a text, in place (the
// file keeps its inode, owner, mode and lock). Before the file is touched,
// the journal "<file>.zarjournal" is put beside it, holding the file's old
// bytes from `from` to its end and the new text: enough to finish the edit
// (roll forward) from any state the file was left in. The journal is built
// in an unnamed file (or, where the file system has none, an exclusively
// created one of an unpredictable name), flushed to disk, and only then
// linked under its name, so that a journal found under that name is always
// complete. Durability points, in order: fsync of the journal, of the
// directory (the journal's name), of the file (the edit), of the directory
// (the journal removed).
//
// The next open of the file, under its lock, finds a journal only when an edit
// was interrupted: a complete one is rolled forward, one that does not check
// out (or names another file) is removed, the file being then untouched. A
// journal that is not a regular file, or belongs to a user other than root,
// the process's user and the file's owner, is not trusted and left alone; the
// file's edits then fail until it is removed. A file in a directory that the
// process may not write gets no journal: its edits are made in place as
// before, without the crash guarantee.
#ifndef ZAR_CORE_ZARSTZJOURNAL_H_
#define ZAR_CORE_ZARSTZJOURNAL_H_

#include <stdint.h>

namespace zar::stanza {

// Replaces bytes [from, to) of the file at path, open read-write on fd and
// locked exclusively, by textLen bytes of text, through the journal. True
// when the edit is on disk; false when it could not be made (the file then
// holds its old bytes, or, when even undoing failed, the journal stays and
// the next open completes the edit). Runs with cancellation disabled.
bool journaledReplace(int fd, const char* path, int64_t from, int64_t to, const char* text,
                      int64_t textLen);

// True when a journal stands beside the file at path.
bool journalPresent(const char* path);

// Settles the journal an interrupted edit of the file at path left behind.
// fd is the file open read-write and locked exclusively. 0 when the file is
// settled (also when there was no journal), else an errno value.
int recoverJournal(int fd, const char* path);

}  // namespace zar::stanza

#endif  // ZAR_CORE_ZARSTZJOURNAL_H_
