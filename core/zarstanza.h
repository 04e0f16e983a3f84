// Stanza files, internal interface shared by the opener and line reader
// (core/zarstanza.cc) and the cursor moves and edits (core/zarstzedit.cc).
//
// The record (zarStzFile, include/zar/stanza.h) is the whole state of an open
// file. In stream mode the stdio position of its stream is part of the
// cursor: the reader always continues from it; after a move it stands just
// after the current entry's line, or, when a walk stopped at the next header,
// where that walk began. The three cursor strings are owned by the record in
// stream mode and point into the tree in memory mode.
#ifndef ZAR_CORE_ZARSTANZA_H_
#define ZAR_CORE_ZARSTANZA_H_

#include <stdint.h>
#include <stdio.h>

#include "platform/nlz.h"
#include "zar/stanza.h"

namespace zar::stanza {

// Lines are read in pieces of at most kLineBytes - 1 bytes; a longer physical
// line is read as several lines. Written lines must fit the same buffer.
inline constexpr int kLineBytes = 2048;
// Wide units a line may take, terminator included.
inline constexpr int kWideUnits = 2048;

// What one reader step ended on.
enum class Step {
  kError,      // status set, cursor at the end with no stanza
  kEntry,      // an entry became current
  kStanzaEnd,  // the walk met the next header (stream) or ran out of entries
  kFileEnd,    // the end of the file (or of the tree)
};

// The reader. toStanza: skip entry lines to the next header, make that stanza
// current and go on to its first entry. Otherwise move to the next entry
// line; crossStanzas lets a header met on the way become current (the
// validation walk) instead of ending the walk. Clears status first.
Step moveLine(zarStzFile* file, bool toStanza, bool crossStanzas);

// moveLine as a 1 (positioned, also at the end) or 0 (failed) result.
int zar_zMoveNextLine(zarStzFile* file, int toStanza, int crossStanzas);

// Records status and puts the cursor at the end of the file with no stanza
// (stream mode: strings freed, stream at the end, bodyOffset and entryOffset
// the end offset; memory mode: strings and the tree's cursor cleared).
void zar_zSetError(zarStzFile* file, uint32_t status);

// Unlocks and closes the stream, leaving it null. Runs with cancellation
// disabled: a descriptor is never left half closed.
void zar_zFileCloseDescriptor(zarStzFile* file);

// Replaces the bytes from..to of the file at path, open as stream
// (read-write, locked exclusively), by textLen bytes of text, in place and
// crash-safe (core/zarstzjournal.h). 1 on success; 0 when the file could not
// be updated, in which case it holds its old text. Either way the stream
// stands at the file's end. Runs with cancellation disabled.
int zar_zReplaceText(FILE* stream, const char* path, int64_t from, int64_t to, const char* text,
                     int64_t textLen);

// Reads one line piece (at most bufLen - 1 bytes, up to and including a line
// feed) from the stream's position, which is the file offset start, into
// buf, NUL-terminated. Returns the bytes consumed (a NUL byte read counts but
// ends the text early), 0 at the end of the file, -1 on a read error.
int readPiece(FILE* stream, int64_t start, char* buf, int bufLen);

// Reads the line at offset and tells whether it is an entry line of that
// name (the line's length in *lineLen; the stream then stands after it). An
// edit checks this before it rewrites what it takes to be the current entry,
// so that a file changed behind the cursor is never rewritten blindly.
bool entryLineAt(FILE* stream, int64_t offset, const char* name, int* lineLen);

// The code set of names and values: the calling thread's local code page.
nlz_cs_t localCodeSet();

// Replaces a string owned by a stream-mode record (frees the old one).
void replaceOwned(char** field, char* text);

}  // namespace zar::stanza

#endif  // ZAR_CORE_ZARSTANZA_H_
