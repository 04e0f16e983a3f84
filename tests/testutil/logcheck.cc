#include "tests/testutil/logcheck.h"

#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

namespace zar::test {
namespace {

void note(RecordTally* tally, const std::string& what, std::string_view record) {
  ++tally->torn;
  if (tally->bad.size() < 20)
    tally->bad.push_back(what + ": " + std::string(record.substr(0, 200)));
}

// Matches s whole against pattern p: '*' any run of bytes, '#' one or more
// digits, '@' one or more non-blank bytes, '?' one byte, anything else itself.
bool glob(std::string_view p, std::string_view s) {
  size_t pi = 0, si = 0, starP = std::string_view::npos, starS = 0;
  while (pi < p.size() || si < s.size()) {
    if (pi < p.size() && p[pi] == '*') {
      starP = pi++;
      starS = si;
      continue;
    }
    if (pi < p.size() && si < s.size()) {
      char c = p[pi];
      size_t n = 0;
      if (c == '#' || c == '@') {
        while (si + n < s.size() &&
               (c == '#' ? s[si + n] >= '0' && s[si + n] <= '9' : s[si + n] != ' '))
          ++n;
      } else if (c == '?' || c == s[si]) {
        n = 1;
      }
      if (n > 0) {
        si += n;
        ++pi;
        continue;
      }
    }
    if (starP == std::string_view::npos || starS >= s.size()) return false;
    pi = starP + 1;
    si = ++starS;
  }
  return true;
}

uint32_t fnv1a(std::string_view a, std::string_view b) {
  uint32_t h = 2166136261u;
  for (std::string_view part : {a, b})
    for (char c : part) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
  return h;
}

void count(const Marker& marker, std::string_view text, std::string_view record,
           RecordTally* tally) {
  std::string key;
  long seq = 0;
  int found = marker(text, &key, &seq);
  if (found <= 0) {
    note(tally, found == 0 ? "no marker" : "damaged marker", record);
  } else {
    tally->seqs[key].push_back(seq);
    ++tally->records;
  }
}

}  // namespace

void RecordTally::add(const RecordTally& other) {
  for (const auto& [key, s] : other.seqs) seqs[key].insert(seqs[key].end(), s.begin(), s.end());
  bad.insert(bad.end(), other.bad.begin(), other.bad.end());
  records += other.records;
  torn += other.torn;
}

void Loss::add(const Loss& other) {
  lost += other.lost;
  duplicated += other.duplicated;
  unordered += other.unordered;
  unexpected += other.unexpected;
  if (detail.size() < 2000) detail += other.detail;
}

const Marker& sysRoutineMarker() {
  static const Marker marker = [](std::string_view text, std::string* key, long* seq) {
    static constexpr std::string_view kMid = " system routine failed: system error code: ";
    for (size_t at = text.find(kMid); at != std::string_view::npos; at = text.find(kMid, at + 1)) {
      size_t the = text.rfind("The ", at);
      std::string word(the == std::string_view::npos ? "" : text.substr(the + 4, at - the - 4));
      std::string number(text.substr(at + kMid.size(), 24));
      char* end = nullptr;
      *seq = strtol(number.c_str(), &end, 10);
      if (!word.empty() && word.find_first_of(" \t\n") == std::string::npos &&
          isdigit(static_cast<unsigned char>(number[number[0] == '-'])) && end != number.c_str()) {
        *key = word;
        return 1;
      }
    }
    return 0;
  };
  return marker;
}

std::string stressBody(const std::string& writer, long seq, size_t length) {
  std::string head = "@" + writer + ":" + std::to_string(seq) + ":";
  size_t fixed = head.size() + 9;  // the checksum and its ':'
  std::string lenText;
  for (;;) {  // the length field counts itself
    lenText = std::to_string(length) + ":";
    if (length >= fixed + lenText.size()) break;
    length = fixed + lenText.size();
  }
  head += lenText;
  std::string filler(length - head.size() - 9, 'a');
  for (size_t i = 0; i < filler.size(); ++i)
    filler[i] = static_cast<char>('a' + (i * 7 + static_cast<size_t>(seq)) % 26);
  char sum[16];
  snprintf(sum, sizeof sum, "%08x:", fnv1a(head, filler));
  return head + sum + filler;
}

const Marker& stressMarker() {
  static const Marker marker = [](std::string_view text, std::string* key, long* seq) {
    size_t at = text.find('@');
    if (at == std::string_view::npos) return 0;
    std::string body(text.substr(at, text.find(' ', at) - at));
    char writer[256];
    size_t length = 0;
    unsigned sum = 0;
    int head = 0;  // the bytes up to the checksum's ':'
    if (sscanf(body.c_str(), "@%255[^:]:%ld:%zu:%8x:%n", writer, seq, &length, &sum, &head) != 4 ||
        head == 0 || length != body.size() ||
        sum !=
            fnv1a(std::string_view(body).substr(0, head - 9), std::string_view(body).substr(head)))
      return -1;
    *key = writer;
    return 1;
  };
  return marker;
}

void tallyTextRecords(const std::string& text, const Marker& marker, RecordTally* tally) {
  // Severity records, then debug records (no message id); the prefix alone
  // is the first line of a record on standard output and error.
  static constexpr std::string_view kPrefix[] = {"#-#-#-#:#:#.#?#:#I----- 0x@ @ @ @ @ @ # 0x@",
                                                 "#-#-#-#:#:#.#?#:#I----- @ DEBUG# @ @ @ # 0x@"};
  static const std::string kRecord[] = {std::string(kPrefix[0]) + " *",
                                        std::string(kPrefix[1]) + " *"};
  std::string_view all(text);
  size_t pos = 0;
  while (pos < all.size()) {
    size_t end = all.find('\n', pos);
    if (end != std::string_view::npos && (glob(kPrefix[0], all.substr(pos, end - pos)) ||
                                          glob(kPrefix[1], all.substr(pos, end - pos))))
      end = all.find('\n', end + 1);
    if (end == std::string_view::npos) {
      note(tally, "last record unterminated", all.substr(pos));
      break;
    }
    if (end == pos) {  // an empty line carries no record
      ++pos;
      continue;
    }
    std::string line(all.substr(pos, end - pos));
    std::replace(line.begin(), line.end(), '\n', ' ');
    pos = end + 1;
    int fields = glob(kRecord[0], line) ? 9 : glob(kRecord[1], line) ? 8 : 0;
    if (fields == 0) {
      note(tally, "not a record line", line);
      continue;
    }
    size_t textStart = 0;
    for (int blanks = 0; blanks < fields; ++blanks) textStart = line.find(' ', textStart) + 1;
    count(marker, std::string_view(line).substr(textStart), line, tally);
  }
}

void tallyXmlRecords(const std::string& text, const Marker& marker, RecordTally* tally) {
  // The lines of a record; the Param lines ([8]) may repeat or be absent.
  static constexpr std::string_view kLines[] = {
      "<Message Id=\"*\" Severity=\"*\">",
      " <Time Millis=\"#\">#-#-#-#:#:#.#</Time>",
      " <Component>*</Component>",
      " <LogAttribs>*</LogAttribs>",
      " <Source FileName=\"*\" Method=\"unknown\" Line=\"#\"></Source>",
      " <Process>*</Process>",
      " <Thread>0x*</Thread>",
      " <TranslationInfo Type=\"XPG4\" Catalog=\"*\" SetId=\"1\" MsgKey=\"*\">",
      "  <Param><![CDATA[*]]></Param>",
      " </TranslationInfo>",
      " <LogText><![CDATA[* ]]></LogText>",
      "</Message>"};
  std::string_view all(text), end = "</Message>\n\n";
  for (size_t pos = 0; pos < all.size();) {
    size_t stop = all.find(end, pos);
    if (stop == std::string_view::npos) {
      note(tally, "unterminated record", all.substr(pos));
      break;
    }
    std::string_view one = all.substr(pos, stop + end.size() - 1 - pos), logText;
    pos = stop + end.size();
    size_t p = 0;
    bool ok = true;
    for (size_t at = 0, nl; ok && at < one.size(); at = nl + 1) {
      nl = one.find('\n', at);
      std::string_view line = one.substr(at, nl - at);
      if (p == 8 && glob(kLines[8], line)) continue;
      p += p == 8;
      if (p == 10) logText = line;
      ok = p < std::size(kLines) && glob(kLines[p++], line);
    }
    if ((ok = ok && p == std::size(kLines))) {  // the severity, behind the last '=' of the head
      std::string_view sev = one.substr(0, one.find('\n'));
      sev = sev.substr(sev.rfind('=') + 2);
      ok = sev == "ERROR\">" || sev == "WARN\">" || sev == "INFO\">";
    }
    if (!ok)
      note(tally, "malformed record", one);
    else
      count(marker, logText.substr(19, logText.size() - 19 - 14), one, tally);
  }
}

Loss judge(const RecordTally& tally, const std::map<std::string, std::pair<long, long>>& expected) {
  Loss loss;
  std::ostringstream detail;
  auto problem = [&detail](const std::string& key, const char* what, long seq) {
    if (detail.tellp() < 2000) detail << key << ": " << what << " " << seq << "\n";
  };
  for (const auto& [key, seqs] : tally.seqs) {
    auto it = expected.find(key);
    if (it == expected.end()) {
      loss.unexpected += static_cast<long>(seqs.size());
      problem(key, "unexpected writer, records:", static_cast<long>(seqs.size()));
      continue;
    }
    auto [first, last] = it->second;
    std::vector<int> seen(static_cast<size_t>(last - first), 0);
    long prev = first - 1;
    for (long s : seqs) {
      if (s < prev) {
        ++loss.unordered;
        problem(key, "out of order:", s);
      }
      prev = s;
      if (s < first || s >= last) {
        ++loss.unexpected;
        problem(key, "unexpected number", s);
      } else if (++seen[static_cast<size_t>(s - first)] == 2) {
        problem(key, "duplicate", s);
      }
    }
    for (size_t i = 0; i < seen.size(); ++i) {
      if (seen[i] == 0 && loss.lost++ < 5) problem(key, "missing", first + static_cast<long>(i));
      if (seen[i] > 1) loss.duplicated += seen[i] - 1;
    }
  }
  for (const auto& [key, range] : expected) {
    if (tally.seqs.count(key) == 0) {
      loss.lost += range.second - range.first;
      problem(key, "no records, expected", range.second - range.first);
    }
  }
  loss.detail = detail.str();
  return loss;
}

}  // namespace zar::test
