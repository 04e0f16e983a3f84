// Checks of serviceability log files written by several threads or
// processes: every record complete and on its own lines, and every expected
// record found exactly once. Used by the multi-process tests and the
// reliability suite.
#ifndef ZAR_TESTS_TESTUTIL_LOGCHECK_H_
#define ZAR_TESTS_TESTUTIL_LOGCHECK_H_

#include <map>
#include <regex>
#include <string>
#include <vector>

namespace zar::test {

// Records found in log text, by writer: each record's text carries a writer
// key and a sequence number, found by a pattern with two groups (key, number).
struct RecordTally {
  std::map<std::string, std::vector<long>> seqs;  // key -> numbers in file order
  std::vector<std::string> bad;                   // records that are torn or malformed
  size_t records = 0;
};

// The pattern that finds key and number in the text of message 0x38C5209C
// ("The %s system routine failed: system error code: %d").
const std::regex& sysRoutineMarker();

// Text records: one line each, "TIME 0xID PROGRAM SEVERITY COMPONENT SUB FILE
// LINE 0xTHREAD TEXT" with the marker in TEXT.
void tallyTextRecords(const std::string& text, const std::regex& marker, RecordTally* tally);
// XML records: "<Message ...>" to "</Message>" and an empty line, each with
// its head, its Param lines and a LogText holding the marker.
void tallyXmlRecords(const std::string& text, const std::regex& marker, RecordTally* tally);

// Empty when every key of keys has the numbers 0 to count-1 exactly once (in
// any order) and no record was bad; otherwise a description of what is wrong.
std::string exactlyOnce(const RecordTally& tally, const std::vector<std::string>& keys,
                        long count);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_LOGCHECK_H_
