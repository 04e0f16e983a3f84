// libzar: strings for C++ programs — an owning string with code-set
// conversion (ZARString), a non-owning reference to bytes somebody else owns
// (ZARStringRef) and a tokenizer that splits a text at a delimiter byte
// (ZARStringIter). Usable from C++17.
//
// Conventions of this header:
// - Ownership: a ZARString owns its bytes. A ZARStringRef and the tokens of a
//   ZARStringIter point into bytes that the caller owns; those bytes must
//   outlive the reference, the iterator and every pointer they hand out. The
//   only memory a reference owns is the NUL-terminated copy made by
//   getNullTermData().
// - Status: nothing throws. Operations that may allocate return bool: true on
//   success, false when memory could not be obtained, and then the object is
//   unchanged. Comparisons return an int whose sign alone is meaningful.
// - Lengths are int byte counts; a length of -1 (any negative length) given
//   with a text means "up to its NUL byte".
// - NULL: a null text pointer is taken as the empty text.
// - Threads: no object here has an internal lock. One object is used by one
//   thread at a time, or under the caller's lock.
#ifndef ZAR_STRING_HPP
#define ZAR_STRING_HPP

#include <stdint.h>

#include "zar/export.h"

class ZARStringRef;

// An owning, growable byte string that keeps a NUL byte after its content.
//
// Storage: content of up to 29 bytes lives in a buffer inside the object and
// never touches the heap. Longer content lives in one heap block (malloc)
// sized exactly to fit: there is no growth factor, so a value built in many
// steps should be expand()ed first. set() of a short value after a long one
// keeps the heap block for reuse; only reset() and the destructor free it.
//
// Invariants:
// - The byte at getData() + getLen() is always 0.
// - getData() points either at the inline buffer or at the heap block; content
//   longer than 29 bytes always lies in the heap block.
// - A heap block, when held, is at least 31 bytes (kInlineSize + 1).
class ZAR_API ZARString {
 public:
  // The conversion applied by append() and set().
  enum conversion_e {
    CONVERT_NONE = 0,       // bytes copied as they are
    CONVERT_FROM_UTF8 = 1,  // source is UTF-8; converted into the local code page
    CONVERT_TO_UTF8 = 2     // source is in the local code page; converted into UTF-8
  };

  // Size of the inline buffer: 29 content bytes and the NUL.
  static constexpr int kInlineSize = 30;

  // The empty string; no heap block. The constructor and the destructor are
  // inline so that a short string on the stack costs no calls.
  ZARString() : heap_(nullptr), heapCap_(0), data_(inline_), len_(0) { inline_[0] = '\0'; }
  // The empty string, then append(s, len, conv); stays empty if that fails.
  ZARString(const char* s, int len = -1, conversion_e conv = CONVERT_NONE);
  // A copy of the referenced bytes; empty if memory could not be obtained.
  explicit ZARString(const ZARStringRef& r);
  // A deep copy; a heap block, if needed, is sized exactly to the content.
  ZARString(const ZARString& o);
  // Takes o's content and heap block; o is left empty without a heap block.
  ZARString(ZARString&& o) noexcept;
  // Frees the heap block.
  virtual ~ZARString() {
    if (heap_ != nullptr) freeHeap();
  }

  // As set(o). When memory cannot be obtained the content stays as it was;
  // call set() instead to learn of that.
  ZARString& operator=(const ZARString& o);
  // Frees this string's heap block, then takes o's content and heap block; o
  // is left empty without a heap block.
  ZARString& operator=(ZARString&& o) noexcept;

  // The content, NUL-terminated. Valid until the next change of the string.
  const char* getData() const { return data_; }
  // Content bytes, not counting the NUL.
  int getLen() const { return len_; }
  // Usable bytes: the larger of the heap block's size and kInlineSize.
  unsigned capacity() const;
  // Where the write-in protocol writes: the heap block if one larger than
  // kInlineSize is held, else the inline buffer. May differ from getData().
  char* buffer();

  // djb2 hash (XOR form) of the content up to its first NUL byte; 5381 for
  // the empty string. Equals ZARStringRef::hash() for text without NULs.
  unsigned hash() const;
  // strcmp of the two contents.
  int compare(const ZARString& o) const;
  // Compares the first min(getLen(), r.getLen()) bytes with strncmp; when they
  // are equal the longer one orders after the other.
  int compare(const ZARStringRef& r) const;
  // len < 0: strcmp against the NUL-terminated s. Otherwise compares against
  // the len bytes at s (not necessarily terminated) as compare(ZARStringRef).
  int compare(const char* s, int len = -1) const;

  // Makes room for n content bytes and the NUL, keeping the content. Content
  // that must move goes into a new heap block of exactly n + 1 bytes.
  // Returns false (nothing changed) when memory could not be obtained.
  bool expand(int n);
  // Frees the heap block and empties the string.
  void reset();
  // Ends the write-in protocol: expand(n), write a whole new content of at
  // most n bytes and its NUL into buffer(), then assertBuffer(count written),
  // or assertBuffer(-1) to take the length with strlen. The content is
  // replaced, not added to. A length beyond the buffer is cut to it, and a NUL
  // is kept after the content. Returns getData().
  char* assertBuffer(int len);

  // Appends len bytes of s (len < 0: up to its NUL), converted as conv says.
  // A conversion reserves its worst case (three bytes per source byte into
  // the local code page, two into UTF-8); the converter's count is what is
  // added, and a failed conversion adds nothing. False, with the string
  // unchanged, when memory could not be obtained.
  bool append(const char* s, int len = -1, conversion_e conv = CONVERT_NONE);
  // Appends one byte; the byte 0 adds nothing.
  bool append(char c);
  bool append(const ZARStringRef& r);
  bool append(const ZARString& o);

  // Replaces the content by append()ing to an emptied string. A held heap
  // block is reused when the new value fits; a value of up to 29 bytes goes
  // into the inline buffer and the heap block stays held. On failure the old
  // content is kept.
  bool set(const char* s, int len = -1, conversion_e conv = CONVERT_NONE);
  bool set(const ZARStringRef& r);
  bool set(const ZARString& o);

 private:
  char inline_[kInlineSize];  // content of up to 29 bytes and its NUL
  char* heap_;                // malloc'd block or null; freed only by reset()/destructor
  uint32_t heapCap_;          // size of heap_ in bytes; 0 when none, else >= 31
  char* data_;                // inline_ or heap_; data_[len_] == 0
  int32_t len_;               // content bytes, not counting the NUL

  void moveFrom(ZARString& o) noexcept;
  void freeHeap() noexcept;
};

// A reference to a run of bytes that somebody else owns: a NUL-terminated
// text, a slice of a longer text, or the content of a ZARString.
//
// Invariants:
// - getData() is never null; a default reference points at emptyString.
// - A stored length of -1 (not yet known) always goes with the NUL-terminated
//   flag set; once learnt, the length is kept even if the bytes change.
// - The terminated copy belongs to this reference alone: copies and
//   assignments never share it.
//
// Threads: getLen() and getNullTermData() fill the length and the copy, so a
// reference read by several threads must have both filled before it is shared.
class ZAR_API ZARStringRef {
 public:
  // The empty text that default references point at.
  static const char* const emptyString;

  // A reference to emptyString: length 0, NUL-terminated.
  ZARStringRef();
  // A reference to len bytes at s. len < 0 means "up to the NUL", learnt on
  // the first getLen(), and always sets the NUL-terminated flag. A null s
  // refers to emptyString.
  ZARStringRef(const char* s, int len = -1, bool nullTerminated = false);
  // A reference to the content of s (NUL-terminated). s must outlive it.
  ZARStringRef(const ZARString& s);
  // Refers to o's bytes with o's flag and length (o learns its length if it
  // had not); the terminated copy is not shared.
  ZARStringRef(const ZARStringRef& o);
  // As set(o).
  ZARStringRef& operator=(const ZARStringRef& o);
  // Frees the terminated copy.
  virtual ~ZARStringRef();

  // The first referenced byte, terminated or not.
  const char* getData() const { return data_; }
  bool isNullTerminated() const { return nullTerminated_ != 0; }
  // The length, learnt with strlen when it was not known.
  int getLen() const;
  // A NUL-terminated text of the referenced bytes: getData() when the flag is
  // set, else a copy made once (bytes after an embedded NUL read as NUL) that
  // stays valid until the next set() or the destruction of the reference.
  // Null only when memory for the copy could not be obtained.
  const char* getNullTermData() const;

  // Each set() frees the terminated copy and returns 0.
  // Refers to the content of s.
  int set(const ZARString& s);
  // Takes o's data, length and flag exactly as stored (-1 stays -1).
  int set(const ZARStringRef& o);
  // As the constructor of the same shape.
  int set(const char* s, int len = -1, bool nullTerminated = false);

  // djb2 hash (XOR form) of all getLen() bytes, embedded NULs included.
  unsigned hash() const;

  // Reference against reference: 0 at once for the same address and length;
  // otherwise strncmp over the shorter length, and when that is equal the
  // shorter text orders first. icompare ignores ASCII case.
  int compare(const ZARStringRef& o) const;
  int icompare(const ZARStringRef& o) const;
  // Reference against string: strncmp over this reference's length (the
  // string's NUL takes part), and a proper prefix of the string orders first.
  int compare(const ZARString& s) const;
  int icompare(const ZARString& s) const;
  // Against the len bytes at s (len < 0: up to its NUL) by the
  // reference-against-reference rule.
  int compare(const char* s, int len = -1) const;
  int icompare(const char* s, int len = -1) const;

 private:
  const char* data_;           // never null
  int32_t nullTerminated_;     // non-zero: a NUL follows the referenced bytes
  mutable int32_t len_;        // -1 until learnt by getLen()
  mutable char* termCopy_;     // new[]'d by getNullTermData(); null until needed

  void freeCopy();
};

// Splits a text into tokens at a single delimiter byte, without copying:
// each token is a ZARStringRef into the text (never flagged NUL-terminated).
//
// Rules: spaces (0x20 only) at the start of a token are skipped, spaces at its
// end stay; two adjacent delimiters, or one at the very start, give an empty
// token; a delimiter at the very end gives none; an empty or all-space text
// gives no token. In modifying mode (a ZARString with readOnly false) the
// delimiter after each returned token is overwritten with NUL, so the token
// is also a NUL-terminated text in place; the string's length is unchanged.
//
// The text belongs to the caller and must outlive the iterator and its
// tokens. A default-constructed iterator yields nothing until initialised.
class ZAR_API ZARStringIter {
 public:
  ZARStringIter();
  ZARStringIter(const ZARStringRef& text, char delimiter);
  ZARStringIter(ZARString& text, char delimiter, bool readOnly);
  virtual ~ZARStringIter();

  // Restarts on a new text, read-only, and forgets the token count.
  void initialize(const ZARStringRef& text, char delimiter);
  // Restarts on the content of text; with readOnly false the delimiters after
  // returned tokens are overwritten with NUL in the string.
  void initialize(ZARString& text, char delimiter, bool readOnly);

  // Sets token to the next token and returns true; false when there is none.
  bool next(ZARStringRef& token);
  // Tokens in the whole text from its start, whatever next() has returned,
  // counted once at the first call and cached. A token that begins with a NUL
  // byte ends the count (so overwritten delimiters hide the tokens after them).
  int entries() const;
  // True when one of the tokens not yet returned equals text exactly
  // (case-sensitive). Moves nothing and writes nothing.
  bool contains(const ZARStringRef& text) const;

 private:
  char delimiter_;
  bool readOnly_;          // false: the delimiter after each token becomes NUL
  mutable int32_t count_;  // cached entries(); -1 while not counted
  const char* start_;      // first byte of the text; null before initialize()
  int32_t total_;          // length of the text
  const char* cursor_;     // next byte to look at
  char* writeCursor_;      // writable twin of cursor_ in modifying mode, else null
  int32_t remaining_;      // bytes from cursor_ to the end; -1 after the last token
};

#endif  // ZAR_STRING_HPP
