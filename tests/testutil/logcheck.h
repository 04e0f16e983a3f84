// Checks of serviceability log files written by several threads or
// processes: every record whole and on its own lines, every expected record
// found once and in order. Used by the multi-process tests and tests/stress/.
#ifndef ZAR_TESTS_TESTUTIL_LOGCHECK_H_
#define ZAR_TESTS_TESTUTIL_LOGCHECK_H_

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zar::test {

// Records found in log text: each writer's sequence numbers in file order.
struct RecordTally {
  std::map<std::string, std::vector<long>> seqs;
  std::vector<std::string> bad;  // the first torn or malformed records
  size_t records = 0;            // records with a marker
  size_t torn = 0;               // records torn, malformed or with a damaged marker
  void add(const RecordTally& other);
};

// Finds writer and sequence number in a record's text: 1 when found, 0 when
// the text has no marker, -1 when it has a damaged one.
using Marker = std::function<int(std::string_view text, std::string* key, long* seq)>;

// "The KEY system routine failed: system error code: SEQ" (message 0x38C5209C).
const Marker& sysRoutineMarker();

// Stress record bodies, printed as the %s of message 0x38C5209C:
// "@WRITER:SEQ:LENGTH:SUM:" and filler letters up to LENGTH bytes in all, SUM
// being the checksum of every other byte in hexadecimal. A body holds no
// blank, ']' or '%', so it stays one token of a text line and of a CDATA
// section. WRITER must not contain ':'.
std::string stressBody(const std::string& writer, long seq, size_t length);
// The marker of stress bodies: checks the length and the checksum.
const Marker& stressMarker();

// Text records: one line each, "TIME 0xID PROGRAM SEVERITY COMPONENT SUB FILE
// LINE 0xTHREAD TEXT" (debug records: "TIME PROGRAM DEBUGn COMPONENT SUB FILE
// LINE 0xTHREAD TEXT"); on standard output and error the prefix and TEXT are
// two lines. Empty lines are skipped: a record whose write failed before its
// first byte may leave one behind.
void tallyTextRecords(const std::string& text, const Marker& marker, RecordTally* tally);
// XML records: "<Message ...>" to "</Message>" and an empty line, each with
// its head, its Param lines and a LogText holding the marker.
void tallyXmlRecords(const std::string& text, const Marker& marker, RecordTally* tally);

// What a tally lacks against the records expected: lost (expected, not
// found), duplicated (found more than once), unordered (a writer's number
// lower than the one before it in the file), unexpected (writers or numbers
// not expected); detail describes the first problems.
struct Loss {
  long lost = 0, duplicated = 0, unordered = 0, unexpected = 0;
  std::string detail;
  void add(const Loss& other);
};
// expected maps each writer to the numbers it wrote, [first, end).
Loss judge(const RecordTally& tally, const std::map<std::string, std::pair<long, long>>& expected);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_LOGCHECK_H_
