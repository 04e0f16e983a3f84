// Reading the serviceability's log files: the record forms (text and UTF-8
// lines with their prefix, XML elements), whole-record splitting of a byte
// stream that may end anywhere, the prefix fields of each record, and the
// merge of several files into one sequence ordered by record time.
//
// This is tooling: the zar command and the record-reader fuzz target use it;
// the library does not. It depends on the C++ standard library and the C
// library only.
//
// Lifetime: a Record's views point into the Splitter (or Source) that made
// it and stay valid until that object is advanced again.
#ifndef ZAR_TOOLS_LOGREAD_SVCLOGREAD_H_
#define ZAR_TOOLS_LOGREAD_SVCLOGREAD_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zar::logread {

// The forms a log file can have. kText: text records in the local code page;
// kUtf8: text records whose bytes are UTF-8; kXml: Message and Trace elements.
enum class Form { kUnknown, kText, kUtf8, kXml };
const char* formName(Form form);

// Ranks by importance: 1 FATAL ... 5 NOTICE_VERBOSE, then 5 + n for the debug
// level n (DEBUG1 is 6, DEBUG9 is 14). 0: unknown.
constexpr int kRankDebug1 = 6;
constexpr int kRankMax = 14;
// The rank of a severity or debug-level name (FATAL, ERROR, WARNING, NOTICE,
// NOTICE_VERBOSE, DEBUG1 ... DEBUG9; case-insensitive; WARN and VERBOSE too;
// DEBUG alone is DEBUG9); 0 for anything else.
int rankOf(std::string_view name);
// The name of a rank (the text prefix's spelling); "" for 0.
const char* rankName(int rank);

constexpr int64_t kNoTime = INT64_MIN;

struct Record {
  std::string_view raw;       // the whole record as written, with its final newline(s)
  std::string_view timeText;  // as written: the prefix's time text, or the XML Time element
  int64_t timeMs = kNoTime;   // milliseconds since 1970-01-01 00:00:00 UTC
  std::string_view program;
  int rank = 0;               // see rankOf; XML: ERROR, WARN -> WARNING, INFO -> NOTICE
  std::string_view severity;  // as written (ERROR, DEBUG3, WARN, MID ...)
  std::string_view component;
  std::string_view sub;
  std::string_view file;
  int line = 0;
  std::string_view thread;  // as written, 0x...
  bool hasStatus = false;   // severity records carry a status code
  uint32_t status = 0;
  std::string_view text;   // the message text, without the final newline
  std::string_view xmlId;  // XML Message records: the Id attribute
  long pid = -1;           // from a program name "PID#n"; -1 when unknown
  uint64_t lineNo = 0;     // 1-based line of the record's first line in its input
  Form form = Form::kUnknown;
};

// Milliseconds since 1970 of a time text "YYYY-MM-DD-HH:MM:SS.mmm+HH:MM" at
// the start of text (with offsetRequired false the offset may be absent, and
// the time is then taken as UTC). *used receives the length read. kNoTime
// when the text does not start with such a time.
int64_t parseTimeText(std::string_view text, bool offsetRequired, size_t* used);

// Parses one whole record that starts at the beginning of raw; false when raw
// is not a record of that form.
bool parseText(std::string_view raw, Record* out);
bool parseXml(std::string_view raw, Record* out);

// Whether a line (without its newline) opens a text record.
bool isTextRecordStart(std::string_view line);

// The form of a file from its first bytes: XML when the first non-blank byte
// opens an element, else text (kUtf8 when every byte is UTF-8 and at least
// one is not ASCII); kUnknown when no record starts in head at all.
Form detectForm(std::string_view head);

// Something wrong in the input, reported once where it starts.
struct Problem {
  uint64_t lineNo;
  std::string what;
};

// Cuts a byte stream into whole records. Feed bytes with space()/commit() or
// append(); next() returns the records that are complete. A record is
// complete when the next record starts, or, once finish() has said that no
// more bytes follow, when its last line is complete (XML: when its closing
// tag is there). A record whose end is missing at finish() is reported as
// truncated; lines that are part of no record, and binary junk, are reported
// (once per run of such lines) and skipped.
class Splitter {
 public:
  explicit Splitter(Form form) : form_(form) {}
  Form form() const { return form_; }
  // Room for n more bytes at the end of the buffer; commit() says how many
  // of them were filled.
  char* space(size_t n);
  void commit(size_t n);
  void append(const char* data, size_t len);
  // No more bytes come: the pending record is complete if its end is there.
  void finish() { finished_ = true; }
  // A pending text record whose last line is complete counts as complete
  // (its writer has left the file alone for a while); cleared by new bytes.
  void settle() { settled_ = true; }
  bool next(Record* out);
  // Problems found since the last call.
  std::vector<Problem> takeProblems() { return std::move(problems_); }
  bool hasProblems() const { return !problems_.empty(); }
  // Bytes held that belong to no returned record yet.
  size_t pending() const { return size_ - pos_; }

 private:
  bool nextText(Record* out);
  bool nextXml(Record* out);
  bool emit(size_t end, uint64_t lines, Record* out);
  void junk(uint64_t lineNo, const char* what);
  void compact();

  Form form_;
  std::unique_ptr<char[]> buf_;
  size_t size_ = 0;
  size_t cap_ = 0;
  size_t pos_ = 0;         // start of the bytes not consumed yet
  size_t scan_ = 0;        // where the search for the current record's end resumes
  uint64_t lineNo_ = 1;    // line number at pos_
  uint64_t scanLine_ = 1;  // line number at scan_
  bool inRecord_ = false;  // text: pos_ opens a record
  bool finished_ = false;
  bool settled_ = false;
  bool inJunk_ = false;  // the line before was junk already reported
  int reported_ = 0;     // problems reported so far (capped)
  Record head_;          // text: the prefix of the record at pos_ while inRecord_
  std::vector<Problem> problems_;
};

// One input: a file, or the files of one rotation set in the order they were
// written (oldest generation first, live file last). Reads them in chunks and
// yields records. Files that cannot be opened or that vanish are reported and
// skipped.
class Source {
 public:
  explicit Source(std::vector<std::string> files) : files_(std::move(files)) {}
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  // The next record; false at the end of the last file.
  bool next(Record* out);
  const std::string& currentFile() const { return current_; }
  // Problems as "FILE:LINE: what" or "FILE: what", since the last call.
  std::vector<std::string> takeProblems() { return std::move(problems_); }
  bool hasProblems() const { return !problems_.empty(); }
  // True when at least one file could be opened and read.
  bool readAny() const { return readAny_; }
  // The process id that the files' names carry (per-process files), or -1.
  long pid = -1;

 private:
  bool openNext();
  void collect();

  std::vector<std::string> files_;
  size_t nextFile_ = 0;
  int fd_ = -1;
  std::string current_;
  std::unique_ptr<Splitter> splitter_;
  std::vector<std::string> problems_;
  bool readAny_ = false;
};

// Merges sources by record time; records of equal time come in source order
// and, within a source, in file order.
class Merger {
 public:
  explicit Merger(std::vector<std::unique_ptr<Source>> sources);
  // The next record (valid until the next call) and the source it came
  // from; false when all are done.
  bool next(const Record** out, Source** from);
  std::vector<std::unique_ptr<Source>>& sources() { return sources_; }

 private:
  bool before(size_t a, size_t b) const;

  std::vector<std::unique_ptr<Source>> sources_;
  std::vector<Record> heads_;
  std::vector<size_t> heap_;   // sources with a head, earliest first
  size_t advance_ = SIZE_MAX;  // the source whose head was returned last
  bool started_ = false;
};

}  // namespace zar::logread

#endif  // ZAR_TOOLS_LOGREAD_SVCLOGREAD_H_
