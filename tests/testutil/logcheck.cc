#include "tests/testutil/logcheck.h"

#include <stdlib.h>

#include <algorithm>
#include <sstream>

namespace zar::test {
namespace {

void note(RecordTally* tally, const std::string& what, const std::string& record) {
  if (tally->bad.size() < 20) tally->bad.push_back(what + ": " + record.substr(0, 200));
}

void count(const std::smatch& m, RecordTally* tally) {
  tally->seqs[m[1].str()].push_back(strtol(m[2].str().c_str(), nullptr, 10));
  ++tally->records;
}

}  // namespace

const std::regex& sysRoutineMarker() {
  static const std::regex re(R"(The (\S+) system routine failed: system error code: (-?\d+))");
  return re;
}

void tallyTextRecords(const std::string& text, const std::regex& marker, RecordTally* tally) {
  static const std::regex prefix(
      R"(\d{4}-\d\d-\d\d-\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\dI----- 0x[0-9A-F]{8} \S+ [A-Z_]+ )"
      R"(\S+ \S+ \S+ \d+ 0x[0-9a-f]{8,} .*)");
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::smatch m;
    if (!std::regex_match(line, prefix)) {
      note(tally, "not a record line", line);
    } else if (!std::regex_search(line, m, marker)) {
      note(tally, "no marker", line);
    } else {
      count(m, tally);
    }
  }
  if (!text.empty() && text.back() != '\n') note(tally, "last record unterminated", "");
}

void tallyXmlRecords(const std::string& text, const std::regex& marker, RecordTally* tally) {
  static const std::regex record(
      R"re(<Message Id="[^"]*" Severity="(ERROR|WARN|INFO)">\n <Time Millis="\d+">[^<]{23}</Time>\n)re"
      R"re( <Component>[^<]+</Component>\n <LogAttribs>.*</LogAttribs>\n)re"
      R"re( <Source FileName="[^"]*" Method="unknown" Line="\d+"></Source>\n)re"
      R"re( <Process>[^<]*</Process>\n <Thread>0x[0-9a-f]{8,}</Thread>\n)re"
      R"re( <TranslationInfo Type="XPG4" Catalog="[^"]+" SetId="1" MsgKey="[0-9a-f]+">\n)re"
      R"re((  <Param><!\[CDATA\[[^\]]*\]\]></Param>\n)*)re"
      R"re( </TranslationInfo>\n <LogText><!\[CDATA\[[^\n]* \]\]></LogText>\n</Message>\n)re");
  const std::string end = "</Message>\n\n";
  size_t pos = 0;
  while (pos < text.size()) {
    size_t stop = text.find(end, pos);
    if (stop == std::string::npos) {
      note(tally, "unterminated record", text.substr(pos));
      break;
    }
    std::string one = text.substr(pos, stop + end.size() - 1 - pos);
    pos = stop + end.size();
    std::smatch m;
    if (one.compare(0, 9, "<Message ") != 0 || !std::regex_match(one, record)) {
      note(tally, "malformed record", one);
    } else if (!std::regex_search(one, m, marker)) {
      note(tally, "no marker", one);
    } else {
      count(m, tally);
    }
  }
}

std::string exactlyOnce(const RecordTally& tally, const std::vector<std::string>& keys,
                        long count) {
  std::ostringstream problems;
  for (const std::string& b : tally.bad) problems << b << "\n";
  for (const std::string& key : keys) {
    auto it = tally.seqs.find(key);
    std::vector<long> seen = it == tally.seqs.end() ? std::vector<long>() : it->second;
    std::sort(seen.begin(), seen.end());
    long expected = 0;
    for (long n : seen) {
      if (n != expected) {
        problems << key << ": " << (n < expected ? "duplicate " : "missing ") << expected << "\n";
        break;
      }
      ++expected;
    }
    if (expected == static_cast<long>(seen.size()) && expected != count)
      problems << key << ": " << seen.size() << " records, expected " << count << "\n";
  }
  for (const auto& [key, seqs] : tally.seqs) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end())
      problems << "unexpected writer " << key << " (" << seqs.size() << " records)\n";
  }
  return problems.str();
}

}  // namespace zar::test
