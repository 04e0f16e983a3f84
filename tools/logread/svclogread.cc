// Record forms, splitting, prefix parsing and merging of the serviceability's
// log files. See svclogread.h.
#include "tools/logread/svclogread.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>

namespace zar::logread {
namespace {

constexpr size_t kChunk = 1 << 20;       // bytes read at a time
constexpr size_t kMaxRecord = 64 << 20;  // a longer "record" is junk
constexpr int kMaxProblems = 20;         // per file; then one notice

constexpr const char* kRankNames[] = {
    "",       "FATAL",  "ERROR",  "WARNING", "NOTICE", "NOTICE_VERBOSE", "DEBUG1", "DEBUG2",
    "DEBUG3", "DEBUG4", "DEBUG5", "DEBUG6",  "DEBUG7", "DEBUG8",         "DEBUG9"};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Reads n decimal digits at p; -1 when one of them is not a digit.
int digits(const char* p, int n) {
  int v = 0;
  for (int i = 0; i < n; ++i) {
    if (!isDigit(p[i])) return -1;
    v = v * 10 + (p[i] - '0');
  }
  return v;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool lineIsBinary(std::string_view line) {
  for (char ch : line) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 && c != '\t' && c != '\r' && c != '\f' && c != 0x1b) return true;
    if (c == 0x7f) return true;
  }
  return false;
}

bool startsWith(std::string_view s, std::string_view p) {
  return s.size() >= p.size() && memcmp(s.data(), p.data(), p.size()) == 0;
}

// Cuts the next blank-separated token of a text prefix off *rest. The token
// ends at a blank or a newline, or at the end; empty when rest starts with
// one of them.
std::string_view token(std::string_view* rest) {
  const char* p = rest->data();
  const char* end = p + rest->size();
  while (p < end && *p != ' ' && *p != '\n') ++p;  // fields are short: no memchr
  size_t i = static_cast<size_t>(p - rest->data());
  std::string_view t = rest->substr(0, i);
  rest->remove_prefix(i);
  return t;
}

// Skips the one blank that separates two prefix fields.
bool blank(std::string_view* rest) {
  if (rest->empty() || rest->front() != ' ') return false;
  rest->remove_prefix(1);
  return true;
}

bool parseUnsignedField(std::string_view t, int base, uint64_t* out) {
  if (t.empty() || t.size() > 20) return false;
  uint64_t v = 0;
  for (char c : t) {
    int d;
    if (isDigit(c)) {
      d = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      d = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      d = c - 'A' + 10;
    } else {
      return false;
    }
    if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return false;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
  }
  *out = v;
  return true;
}

bool parseHex32(std::string_view t, uint32_t* out) {
  if (!startsWith(t, "0x") && !startsWith(t, "0X")) return false;
  uint64_t v = 0;
  if (!parseUnsignedField(t.substr(2), 16, &v) || v > 0xFFFFFFFFu) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool isHexToken(std::string_view t) {
  uint64_t v;
  return startsWith(t, "0x") && parseUnsignedField(t.substr(2), 16, &v);
}

// The time text and the inaccuracy after it: "I-----" or "I<sec>.<ms>".
// Returns the length of both, 0 when text does not start with them.
size_t timeAndInaccuracy(std::string_view text, int64_t* ms) {
  size_t used = 0;
  *ms = parseTimeText(text, true, &used);
  if (*ms == kNoTime || used >= text.size() || text[used] != 'I') return 0;
  size_t i = used + 1;
  if (text.substr(i, 5) == "-----") return i + 5;
  size_t start = i;
  while (i < text.size() && isDigit(text[i])) ++i;
  if (i == start || i + 4 > text.size() || text[i] != '.' || digits(text.data() + i + 1, 3) < 0)
    return 0;
  return i + 4;
}

long pidOfProgram(std::string_view program) {
  if (!startsWith(program, "PID#")) return -1;
  uint64_t v = 0;
  if (!parseUnsignedField(program.substr(4), 10, &v) || v > 0x7fffffff) return -1;
  return static_cast<long>(v);
}

// The rank of a severity name exactly as a prefix writes it; 0 otherwise.
int severityRank(std::string_view t) {
  switch (t.size()) {
    case 5:
      return t == "ERROR" ? 2 : t == "FATAL" ? 1 : 0;
    case 7:
      return t == "WARNING" ? 3 : 0;
    case 6:
      return t == "NOTICE" ? 4 : 0;
    case 14:
      return t == "NOTICE_VERBOSE" ? 5 : 0;
  }
  return 0;
}

// Parses the prefix fields after the time text; rest starts at the blank
// after the inaccuracy. On success rest starts at the separator (blank,
// newline) after the thread field, or is empty.
bool parsePrefixFields(std::string_view* rest, Record* r) {
  std::string_view t[8];
  int n = 0;
  for (; n < 8; ++n) {
    if (!blank(rest)) break;
    t[n] = token(rest);
    if (t[n].empty()) {
      // A debug record's text may start with a blank: its prefix ends here.
      if (n != 7) return false;
      *rest = std::string_view(rest->data() - 1, rest->size() + 1);
      break;
    }
  }
  std::string_view lineText;
  int sev = n == 8 ? severityRank(t[2]) : 0;
  if (sev != 0 && parseHex32(t[0], &r->status)) {
    r->hasStatus = true;
    r->program = t[1];
    r->severity = t[2];
    r->rank = sev;
    r->component = t[3];
    r->sub = t[4];
    r->file = t[5];
    lineText = t[6];
    r->thread = t[7];
  } else if (n >= 7 && t[1].size() == 6 && startsWith(t[1], "DEBUG") && t[1][5] >= '1' &&
             t[1][5] <= '9') {
    // A debug prefix has seven fields; what the eighth token took belongs to
    // the text.
    if (n == 8) {
      size_t back = t[7].size() + 1;
      *rest = std::string_view(t[7].data() - 1, back + rest->size());
    }
    r->hasStatus = false;
    r->program = t[0];
    r->severity = t[1];
    r->rank = kRankDebug1 + (t[1][5] - '1');
    r->component = t[2];
    r->sub = t[3];
    r->file = t[4];
    lineText = t[5];
    r->thread = t[6];
  } else {
    return false;
  }
  uint64_t line = 0;
  if (!parseUnsignedField(lineText, 10, &line) || line > 0x7fffffff || !isHexToken(r->thread))
    return false;
  r->line = static_cast<int>(line);
  r->pid = pidOfProgram(r->program);
  return true;
}

// Finds needle in hay from *at on; moves *at past it. False when absent.
bool skipTo(std::string_view hay, std::string_view needle, size_t* at) {
  size_t p = hay.find(needle, *at);
  if (p == std::string_view::npos) return false;
  *at = p + needle.size();
  return true;
}

// The text from *at up to the next end; moves *at past end.
bool cutUntil(std::string_view hay, std::string_view end, size_t* at, std::string_view* out) {
  size_t p = hay.find(end, *at);
  if (p == std::string_view::npos) return false;
  *out = hay.substr(*at, p - *at);
  *at = p + end.size();
  return true;
}

// Finds "\n" + tag + "\n" in [from, to) of data: the closing line of an XML
// element; returns the offset after its newline, or 0.
size_t findClosingLine(const char* data, size_t from, size_t to, std::string_view tag) {
  while (from < to) {
    const void* hit = memmem(data + from, to - from, tag.data(), tag.size());
    if (hit == nullptr) return 0;
    size_t p = static_cast<size_t>(static_cast<const char*>(hit) - data);
    size_t end = p + tag.size();
    if (p > 0 && data[p - 1] == '\n' && end < to && data[end] == '\n') return end + 1;
    from = p + 1;
  }
  return 0;
}

}  // namespace

const char* formName(Form form) {
  switch (form) {
    case Form::kText:
      return "text";
    case Form::kUtf8:
      return "utf8";
    case Form::kXml:
      return "xml";
    case Form::kUnknown:
      break;
  }
  return "unknown";
}

int rankOf(std::string_view name) {
  if (name.empty() || name.size() > 14) return 0;
  char up[16];
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    up[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  }
  std::string_view u(up, name.size());
  for (int r = 1; r <= kRankMax; ++r) {
    if (u == kRankNames[r]) return r;
  }
  if (u == "WARN") return 3;
  if (u == "VERBOSE") return 5;
  if (u == "DEBUG") return kRankMax;
  return 0;
}

const char* rankName(int rank) {
  return rank >= 0 && rank <= kRankMax ? kRankNames[rank] : "";
}

int64_t parseTimeText(std::string_view text, bool offsetRequired, size_t* used) {
  *used = 0;
  if (text.size() < 23) return kNoTime;
  const char* p = text.data();
  if (p[4] != '-' || p[7] != '-' || p[10] != '-' || p[13] != ':' || p[16] != ':' || p[19] != '.')
    return kNoTime;
  // Records come in runs of one date: its day number is kept.
  thread_local char lastDate[10] = {};
  thread_local int64_t lastDays = 0;
  const bool sameDate = memcmp(lastDate, p, 10) == 0;
  int y = 0, mo = 1, d = 1;
  if (!sameDate) {
    y = digits(p, 4), mo = digits(p + 5, 2), d = digits(p + 8, 2);
    if (y < 0 || mo < 1 || mo > 12 || d < 1 || d > 31) return kNoTime;
  }
  int h = digits(p + 11, 2), mi = digits(p + 14, 2), s = digits(p + 17, 2);
  int ms = digits(p + 20, 3);
  if (h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 60 || ms < 0) return kNoTime;
  int64_t offsetMin = 0;
  size_t n = 23;
  if (text.size() >= 29 && (p[23] == '+' || p[23] == '-') && p[26] == ':') {
    int oh = digits(p + 24, 2), om = digits(p + 27, 2);
    if (oh < 0 || om < 0 || om > 59) return kNoTime;
    offsetMin = (oh * 60 + om) * (p[23] == '-' ? -1 : 1);
    n = 29;
  } else if (offsetRequired) {
    return kNoTime;
  }
  *used = n;
  int64_t days;
  if (sameDate) {
    days = lastDays;
  } else {
    days = daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d));
    memcpy(lastDate, p, 10);
    lastDays = days;
  }
  int64_t secs = days * 86400 + h * 3600 + mi * 60 + s - offsetMin * 60;
  return secs * 1000 + ms;
}

namespace {

// Parses the prefix of a text record at the start of line (one line, without
// its newline, or more). On success out has every prefix field and an empty
// text placed where the text begins: after the blank that follows the
// thread, or at the end of the line (terminal records, text on the next line).
bool parseTextPrefix(std::string_view line, Record* out) {
  size_t n = timeAndInaccuracy(line, &out->timeMs);
  if (n == 0) return false;
  out->timeText = line.substr(0, n);
  std::string_view rest = line.substr(n);
  if (!parsePrefixFields(&rest, out)) return false;
  if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  out->text = rest.substr(0, 0);
  return true;
}

// Completes a record whose prefix was parsed: its raw bytes and its text.
void finishText(std::string_view raw, Record* r) {
  const char* textStart = r->text.data();
  if (textStart < raw.data() + raw.size() && *textStart == '\n') ++textStart;  // terminal form
  const char* end = raw.data() + raw.size();
  if (end > textStart && end[-1] == '\n') --end;
  r->text = std::string_view(textStart, static_cast<size_t>(end > textStart ? end - textStart : 0));
  r->raw = raw;
}

void rebase(Record* r, const char* from, const char* to) {
  for (std::string_view* v : {&r->timeText, &r->program, &r->severity, &r->component, &r->sub,
                              &r->file, &r->thread, &r->text}) {
    if (v->data() != nullptr) *v = std::string_view(to + (v->data() - from), v->size());
  }
}

// Whether line opens a text record; its prefix fields then go to *head.
bool opensRecord(std::string_view line, Record* head) {
  // The cheap test first: most lines that are not a record fail here.
  if (line.size() < 36 || line[4] != '-' || line[10] != '-' || line[13] != ':') return false;
  // Nothing of the record before may stay behind (a debug record has no status).
  *head = Record();
  return parseTextPrefix(line, head);
}

}  // namespace

bool isTextRecordStart(std::string_view line) {
  Record r;
  return opensRecord(line, &r);
}

bool parseText(std::string_view raw, Record* out) {
  Record r;
  size_t nl = raw.find('\n');
  if (!parseTextPrefix(raw.substr(0, nl == std::string_view::npos ? raw.size() : nl), &r))
    return false;
  finishText(raw, &r);
  r.lineNo = out->lineNo;
  r.form = out->form;
  *out = r;
  return true;
}

bool parseXml(std::string_view raw, Record* out) {
  Record r;
  size_t at = 0;
  bool message;
  if (startsWith(raw, "<Message Id=\"")) {
    message = true;
    at = 13;
    if (!cutUntil(raw, "\" Severity=\"", &at, &r.xmlId) || !cutUntil(raw, "\">", &at, &r.severity))
      return false;
    r.rank = r.severity == "ERROR" ? 2 : r.severity == "WARN" ? 3 : 4;
  } else if (startsWith(raw, "<Trace Level=\"")) {
    message = false;
    at = 14;
    if (!cutUntil(raw, "\">", &at, &r.severity)) return false;
  } else {
    return false;
  }
  std::string_view millis, component, line, value;
  if (!skipTo(raw, "<Time Millis=\"", &at) || !cutUntil(raw, "\">", &at, &millis) ||
      !cutUntil(raw, "</Time>", &at, &r.timeText) || !skipTo(raw, "<Component>", &at) ||
      !cutUntil(raw, "</Component>", &at, &component))
    return false;
  uint64_t ms = 0;
  if (!parseUnsignedField(millis, 10, &ms) || ms > static_cast<uint64_t>(INT64_MAX)) return false;
  r.timeMs = static_cast<int64_t>(ms);
  size_t slash = component.find('/');
  if (slash == std::string_view::npos) return false;
  r.component = component.substr(0, slash);
  r.sub = component.substr(slash + 1);
  if (message) {
    if (!skipTo(raw, "<Value><![CDATA[", &at) || !cutUntil(raw, "]]>", &at, &value) ||
        !parseHex32(value, &r.status))
      return false;
    r.hasStatus = true;
  }
  if (!skipTo(raw, "<Source FileName=\"", &at) || !cutUntil(raw, "\" Method=\"", &at, &r.file) ||
      !skipTo(raw, "Line=\"", &at) || !cutUntil(raw, "\"", &at, &line) ||
      !skipTo(raw, "<Process>", &at) || !cutUntil(raw, "</Process>", &at, &r.program) ||
      !skipTo(raw, "<Thread>", &at) || !cutUntil(raw, "</Thread>", &at, &r.thread))
    return false;
  uint64_t lineNo = 0;
  if (!parseUnsignedField(line, 10, &lineNo) || lineNo > 0x7fffffff) return false;
  r.line = static_cast<int>(lineNo);
  if (!message) {
    uint64_t level = 0;
    if (!skipTo(raw, "<Value><![CDATA[", &at) || !cutUntil(raw, "]]>", &at, &value) ||
        !parseUnsignedField(value, 10, &level) || level < 1 || level > 9)
      return false;
    r.rank = kRankDebug1 + static_cast<int>(level) - 1;
  }
  if (!skipTo(raw, "<LogText><![CDATA[", &at)) return false;
  size_t end = raw.rfind(" ]]></LogText>");
  if (end == std::string_view::npos || end < at) return false;
  r.text = raw.substr(at, end - at);
  r.pid = pidOfProgram(r.program);
  r.raw = raw;
  r.lineNo = out->lineNo;
  r.form = out->form;
  *out = r;
  return true;
}

Form detectForm(std::string_view head) {
  size_t i = 0;
  while (i < head.size() && (head[i] == ' ' || head[i] == '\n' || head[i] == '\t')) ++i;
  if (startsWith(head.substr(i), "<Message ") || startsWith(head.substr(i), "<Trace "))
    return Form::kXml;
  // Text: some line of the head must open a record.
  bool found = false;
  for (size_t at = 0; at < head.size();) {
    size_t nl = head.find('\n', at);
    if (nl == std::string_view::npos) nl = head.size();
    if (isTextRecordStart(head.substr(at, nl - at))) {
      found = true;
      break;
    }
    at = nl + 1;
  }
  if (!found) return Form::kUnknown;
  bool nonAscii = false;
  for (size_t k = 0; k < head.size();) {
    unsigned char c = static_cast<unsigned char>(head[k]);
    if (c < 0x80) {
      ++k;
      continue;
    }
    nonAscii = true;
    size_t len = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (len == 0 || (len == 2 && c < 0xC2)) return Form::kText;
    if (k + len > head.size()) break;  // cut by the end of the head
    for (size_t j = 1; j < len; ++j) {
      if ((static_cast<unsigned char>(head[k + j]) & 0xC0) != 0x80) return Form::kText;
    }
    k += len;
  }
  return nonAscii ? Form::kUtf8 : Form::kText;
}

// --- Splitter --------------------------------------------------------------

char* Splitter::space(size_t n) {
  compact();
  if (cap_ - size_ < n) {
    size_t cap = std::max(cap_ * 2, size_ + n);
    std::unique_ptr<char[]> grown(new char[cap]);
    if (size_ > 0) memcpy(grown.get(), buf_.get(), size_);
    if (inRecord_ && form_ != Form::kXml) rebase(&head_, buf_.get(), grown.get());
    buf_ = std::move(grown);
    cap_ = cap;
  }
  return buf_.get() + size_;
}

void Splitter::commit(size_t n) {
  size_ += n;
  if (n > 0) settled_ = false;
}

void Splitter::append(const char* data, size_t len) {
  memcpy(space(len), data, len);
  commit(len);
}

void Splitter::compact() {
  // Only consumed bytes go; what a returned record points at has been
  // consumed, which is why records live until the next call.
  if (pos_ == 0 || (pos_ < (1u << 20) && pos_ * 2 < size_)) return;
  memmove(buf_.get(), buf_.get() + pos_, size_ - pos_);
  if (inRecord_ && form_ != Form::kXml) rebase(&head_, buf_.get() + pos_, buf_.get());
  size_ -= pos_;
  scan_ -= pos_;
  pos_ = 0;
}

void Splitter::junk(uint64_t lineNo, const char* what) {
  if (inJunk_) return;
  inJunk_ = true;
  if (reported_ < kMaxProblems) {
    problems_.push_back({lineNo, what});
  } else if (reported_ == kMaxProblems) {
    problems_.push_back({lineNo, "further problems in this file are not reported"});
  }
  ++reported_;
}

bool Splitter::emit(size_t end, uint64_t lines, Record* out) {
  std::string_view raw(buf_.get() + pos_, end - pos_);
  out->lineNo = lineNo_;
  out->form = form_;
  bool ok = true;
  if (form_ == Form::kXml) {
    ok = parseXml(raw, out);
  } else {
    // The prefix was parsed when the record's first line was found.
    *out = head_;
    finishText(raw, out);
    out->lineNo = lineNo_;
    out->form = form_;
  }
  if (!ok) junk(lineNo_, "not a valid record");
  pos_ = end;
  lineNo_ += lines;
  if (ok) inJunk_ = false;
  return ok;
}

bool Splitter::next(Record* out) {
  if (pos_ > 0 && pos_ * 2 >= size_) compact();
  while (form_ == Form::kXml ? nextXml(out) : nextText(out)) {
    if (out->raw.data() != nullptr) return true;
  }
  return false;
}

// Returns true with out->raw set for a record, true with out->raw null when
// something was consumed and the caller should go on, false when more input
// is needed (or all is done).
bool Splitter::nextText(Record* out) {
  const char* data = buf_.get();
  out->raw = {};
  if (!inRecord_) {
    if (pos_ >= size_) return false;
    const char* nl = static_cast<const char*>(memchr(data + pos_, '\n', size_ - pos_));
    if (nl == nullptr) {
      if (finished_ && pos_ < size_) {
        std::string_view tail(data + pos_, size_ - pos_);
        junk(lineNo_, isTextRecordStart(tail) ? "truncated record"
                      : lineIsBinary(tail)    ? "binary data"
                                              : "not a record");
        pos_ = size_;
      }
      return false;
    }
    size_t end = static_cast<size_t>(nl - data);
    std::string_view line(data + pos_, end - pos_);
    if (opensRecord(line, &head_)) {
      inRecord_ = true;
      scan_ = end + 1;
      scanLine_ = lineNo_ + 1;
      return true;
    }
    if (!line.empty() && line != "\r")
      junk(lineNo_, lineIsBinary(line) ? "binary data" : "not a record");
    pos_ = end + 1;
    ++lineNo_;
    return true;
  }
  // Inside a record: its end is the start of the next one, a line of
  // binary junk, or the end of the input.
  for (;;) {
    const char* nl = static_cast<const char*>(memchr(data + scan_, '\n', size_ - scan_));
    if (nl == nullptr) {
      bool complete = scan_ == size_;
      if (!finished_ && !(settled_ && complete)) {
        if (size_ - pos_ > kMaxRecord) {
          junk(lineNo_, "record too long");
          inRecord_ = false;
          pos_ = scan_;
          lineNo_ = scanLine_;
          return true;
        }
        return false;
      }
      inRecord_ = false;
      if (!complete) {
        // A cut last line that opens a record leaves the record before it
        // whole; a cut continuation line cuts the record it belongs to.
        int64_t ms;
        std::string_view tail(data + scan_, size_ - scan_);
        if (scan_ > pos_ && timeAndInaccuracy(tail, &ms) != 0) {
          uint64_t tailLine = scanLine_;
          emit(scan_, scanLine_ - lineNo_, out);
          inJunk_ = false;
          junk(tailLine, "truncated record");
          pos_ = size_;
          return true;
        }
        junk(lineNo_, "truncated record");
        pos_ = size_;
        return false;
      }
      return emit(size_, scanLine_ - lineNo_, out) || true;
    }
    size_t end = static_cast<size_t>(nl - data);
    std::string_view line(data + scan_, end - scan_);
    Record next;
    bool starts = opensRecord(line, &next);
    if (starts || lineIsBinary(line)) {
      size_t recordEnd = scan_;
      uint64_t lines = scanLine_ - lineNo_;
      inRecord_ = starts;
      scan_ = end + 1;
      scanLine_ += 1;
      emit(recordEnd, lines, out);
      if (starts) head_ = next;
      if (!starts) {
        junk(lineNo_, "binary data");
        pos_ = scan_;
        lineNo_ = scanLine_;
      }
      return true;
    }
    scan_ = end + 1;
    ++scanLine_;
  }
}

bool Splitter::nextXml(Record* out) {
  const char* data = buf_.get();
  out->raw = {};
  if (pos_ >= size_) return false;
  const char* nl = static_cast<const char*>(memchr(data + pos_, '\n', size_ - pos_));
  if (nl == nullptr) {
    if (finished_) {
      std::string_view tail(data + pos_, size_ - pos_);
      junk(lineNo_, startsWith(tail, "<Message ") || startsWith(tail, "<Trace ")
                        ? "truncated record"
                        : "not a record");
      pos_ = size_;
    }
    return false;
  }
  size_t lineEnd = static_cast<size_t>(nl - data);
  std::string_view line(data + pos_, lineEnd - pos_);
  if (line.empty() || line == "\r") {
    pos_ = lineEnd + 1;
    ++lineNo_;
    return true;
  }
  bool message = startsWith(line, "<Message ");
  if (!message && !startsWith(line, "<Trace ")) {
    junk(lineNo_, lineIsBinary(line) ? "binary data" : "not a record");
    pos_ = lineEnd + 1;
    ++lineNo_;
    return true;
  }
  std::string_view tag = message ? "</Message>" : "</Trace>";
  if (scan_ < pos_ || !inRecord_) {
    scan_ = pos_;
    inRecord_ = true;
  }
  // The search resumes where the last one stopped, a tag's length back.
  size_t from = scan_ > pos_ + tag.size() + 2 ? scan_ - tag.size() - 2 : pos_;
  size_t end = findClosingLine(data, from, size_, tag);
  // Another element opening first means this one was cut short.
  size_t limit = end != 0 ? end : size_;
  size_t other = 0;
  for (std::string_view open : {std::string_view("\n<Message "), std::string_view("\n<Trace ")}) {
    const void* hit = memmem(data + lineEnd, limit - lineEnd, open.data(), open.size());
    if (hit != nullptr) {
      size_t at = static_cast<size_t>(static_cast<const char*>(hit) - data) + 1;
      if (other == 0 || at < other) other = at;
    }
  }
  if (other != 0) {
    junk(lineNo_, "truncated record");
    lineNo_ += static_cast<uint64_t>(std::count(data + pos_, data + other, '\n'));
    pos_ = other;
    inRecord_ = false;
    inJunk_ = false;  // the next record is reported on its own
    return true;
  }
  if (end == 0) {
    scan_ = size_;
    if (finished_) {
      junk(lineNo_, "truncated record");
      pos_ = size_;
      inRecord_ = false;
      return false;
    }
    if (size_ - pos_ > kMaxRecord) {
      junk(lineNo_, "record too long");
      lineNo_ += static_cast<uint64_t>(std::count(data + pos_, data + size_, '\n'));
      pos_ = size_;
      inRecord_ = false;
      return true;
    }
    return false;
  }
  inRecord_ = false;
  if (end < size_ && data[end] == '\n') ++end;  // the empty line that ends a record
  uint64_t lines = static_cast<uint64_t>(std::count(data + pos_, data + end, '\n'));
  emit(end, lines, out);
  return true;
}

// --- Source ----------------------------------------------------------------

Source::~Source() {
  if (fd_ >= 0) ::close(fd_);
}

void Source::collect() {
  if (!splitter_ || !splitter_->hasProblems()) return;
  for (Problem& p : splitter_->takeProblems())
    problems_.push_back(current_ + ":" + std::to_string(p.lineNo) + ": " + p.what);
}

bool Source::openNext() {
  while (nextFile_ < files_.size()) {
    current_ = files_[nextFile_++];
    fd_ = ::open(current_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      problems_.push_back(current_ + ": " + strerror(errno));
      continue;
    }
    // The form from the first chunk, which the splitter then keeps.
    std::unique_ptr<Splitter> s(new Splitter(Form::kText));
    char* buf = s->space(kChunk);
    ssize_t n;
    do {
      n = ::read(fd_, buf, kChunk);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
      problems_.push_back(current_ + ": " + strerror(errno));
      ::close(fd_);
      fd_ = -1;
      continue;
    }
    readAny_ = true;
    if (n == 0) {
      ::close(fd_);
      fd_ = -1;
      continue;
    }
    Form form = detectForm(std::string_view(buf, static_cast<size_t>(n)));
    if (form == Form::kUnknown) {
      problems_.push_back(current_ + ": not a log file of the serviceability");
      ::close(fd_);
      fd_ = -1;
      continue;
    }
    splitter_.reset(new Splitter(form));
    splitter_->append(buf, static_cast<size_t>(n));
    return true;
  }
  return false;
}

bool Source::next(Record* out) {
  for (;;) {
    if (!splitter_ && !openNext()) return false;
    bool got = splitter_->next(out);
    collect();
    if (got) return true;
    if (fd_ < 0) {
      splitter_.reset();
      continue;
    }
    char* buf = splitter_->space(kChunk);
    ssize_t n;
    do {
      n = ::read(fd_, buf, kChunk);
    } while (n < 0 && errno == EINTR);
    if (n > 0) {
      splitter_->commit(static_cast<size_t>(n));
      continue;
    }
    if (n < 0) problems_.push_back(current_ + ": " + strerror(errno));
    splitter_->finish();
    ::close(fd_);
    fd_ = -1;
  }
}

// --- Merger ----------------------------------------------------------------

Merger::Merger(std::vector<std::unique_ptr<Source>> sources)
    : sources_(std::move(sources)), heads_(sources_.size()) {}

bool Merger::before(size_t a, size_t b) const {
  if (heads_[a].timeMs != heads_[b].timeMs) return heads_[a].timeMs < heads_[b].timeMs;
  return a < b;
}

bool Merger::next(const Record** out, Source** from) {
  // The heap keeps the earliest head at its front; std::*_heap build a
  // max-heap, so the comparison is reversed.
  auto later = [this](size_t a, size_t b) { return before(b, a); };
  if (!started_) {
    started_ = true;
    for (size_t i = 0; i < sources_.size(); ++i) {
      if (sources_[i]->next(&heads_[i])) heap_.push_back(i);
    }
    std::make_heap(heap_.begin(), heap_.end(), later);
  } else if (advance_ != SIZE_MAX) {
    std::pop_heap(heap_.begin(), heap_.end(), later);
    heap_.pop_back();
    if (sources_[advance_]->next(&heads_[advance_])) {
      heap_.push_back(advance_);
      std::push_heap(heap_.begin(), heap_.end(), later);
    }
    advance_ = SIZE_MAX;
  }
  if (heap_.empty()) return false;
  advance_ = heap_.front();
  *out = &heads_[advance_];
  *from = sources_[advance_].get();
  return true;
}

}  // namespace zar::logread
