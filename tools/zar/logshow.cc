// zar log show: reads the serviceability's log files (text, UTF-8 and XML
// records; rotation sets; per-process families; directories), merges their
// records by time, filters them, and prints them as written, as JSON lines or
// as counts; with --follow it goes on printing whole records as they are
// written, across rotations and new per-process files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <regex.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tools/logread/svclogread.h"
#include "tools/zar/command.h"

namespace zar::tool {
namespace {

using logread::Form;
using logread::Record;

constexpr int kPollMs = 200;
constexpr int kQuietPolls = 2;  // a text file unchanged this long ends its last record

const Command kShow = {
    "log show",
    "[--since TIME] [--until TIME] [--now TIME] [--severity LEVEL] [--component NAME] "
    "[--sub NAME] [--status CODE]... [--program NAME] [--pid PID] [--grep REGEX] "
    "[--json | --count] [--follow] PATH...",
    "read, merge, filter and follow log files", nullptr};

// --- Inputs ----------------------------------------------------------------

// One rotation set: the live name and the process id its name carries.
struct SetName {
  std::string live;
  long pid = -1;
};

bool allDigits(const std::string& s, size_t from, size_t to) {
  if (from >= to) return false;
  for (size_t i = from; i < to; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  return true;
}

// The generation number of name as an archive of live ("live.N"), or -1.
long generationOf(const std::string& name, const std::string& live) {
  if (name.size() <= live.size() + 1 || name.compare(0, live.size(), live) != 0 ||
      name[live.size()] != '.' || !allDigits(name, live.size() + 1, name.size()))
    return -1;
  return atol(name.c_str() + live.size() + 1);
}

void globInto(const std::string& pattern, std::vector<std::string>* out) {
  glob_t g;
  if (glob(pattern.c_str(), 0, nullptr, &g) == 0) {
    for (size_t i = 0; i < g.gl_pathc; ++i) out->push_back(g.gl_pathv[i]);
  }
  globfree(&g);
}

bool isRegular(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Groups candidate files into rotation sets: "x.N" belongs to "x" when "x"
// is a candidate too (or its archives are all that is left of it).
std::vector<SetName> groupSets(std::vector<std::string> files) {
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  std::set<std::string> all(files.begin(), files.end());
  std::vector<SetName> sets;
  std::set<std::string> seen;
  for (const std::string& f : files) {
    std::string live = f;
    size_t dot = f.rfind('.');
    if (dot != std::string::npos && allDigits(f, dot + 1, f.size())) {
      std::string base = f.substr(0, dot);
      // An archive whose live file is gone still joins its set.
      if (all.count(base) != 0 || !isRegular(base)) live = base;
    }
    if (seen.insert(live).second) sets.push_back({live, -1});
  }
  return sets;
}

// A route file name with %d or %ld: a glob with '*' for the process id, and
// the text around it, so that the id can be read back from a name.
struct Family {
  std::string glob, before, after;
};

bool familyOf(const std::string& path, Family* out) {
  std::string g, before, after;
  bool found = false;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '%' && i + 1 < path.size()) {
      size_t len = path[i + 1] == 'd' ? 2 : path.compare(i + 1, 2, "ld") == 0 ? 3 : 0;
      if (len != 0 && !found) {
        found = true;
        g += '*';
        i += len - 1;
        continue;
      }
      if (path[i + 1] == '%') {
        (found ? after : before) += '%';
        g += '%';
        ++i;
        continue;
      }
    }
    (found ? after : before) += path[i];
    g += path[i];
  }
  if (!found) return false;
  *out = {g, before, after};
  return true;
}

long pidFromName(const Family& f, const std::string& name) {
  if (name.size() <= f.before.size() + f.after.size() ||
      name.compare(0, f.before.size(), f.before) != 0 ||
      name.compare(name.size() - f.after.size(), f.after.size(), f.after) != 0 ||
      !allDigits(name, f.before.size(), name.size() - f.after.size()))
    return -1;
  return atol(name.c_str() + f.before.size());
}

// Expands one PATH argument into rotation sets; false when it names nothing.
bool expand(const std::string& path, std::vector<SetName>* out) {
  std::vector<std::string> files;
  Family family;
  bool isFamily = familyOf(path, &family);
  struct stat st;
  if (isFamily) {
    globInto(family.glob, &files);
    globInto(family.glob + ".[0-9]*", &files);
  } else if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      while (struct dirent* e = readdir(d)) {
        std::string full = path + "/" + e->d_name;
        if (e->d_name[0] != '.' && isRegular(full)) files.push_back(full);
      }
      closedir(d);
    }
  } else if (stat(path.c_str(), &st) == 0) {
    files.push_back(path);
    globInto(path + ".[0-9]*", &files);
  } else if (path.find_first_of("*?[") != std::string::npos) {
    globInto(path, &files);
    globInto(path + ".[0-9]*", &files);
  } else {
    globInto(path + ".[0-9]*", &files);  // a live file just rotated away
  }
  // Only the names of the set itself: "x.1" for "x", not "x.1.tmp".
  std::vector<SetName> sets = groupSets(files);
  if (sets.empty()) return false;
  for (SetName& s : sets) {
    if (isFamily) s.pid = pidFromName(family, s.live);
    out->push_back(s);
  }
  return true;
}

struct FileInfo {
  std::string path;
  struct stat st;
  long generation;  // 0 for the live file
};

// Milliseconds to pause between the steps of reading a rotation set while
// following (ZAR_LOG_SHOW_PAUSE_MS), polling without rest in between: keeps
// the reader inside the windows in which writers rotate under it, so that
// tests meet those interleavings every run. 0 normally.
int gPauseMs = 0;

void pause() {
  if (gPauseMs > 0) usleep(static_cast<useconds_t>(gPauseMs) * 1000);
}

// The files of a set in the order they were written: archives by age (the
// generation numbers are reused round-robin), then the live file. The live
// file is looked at first: when it is renamed before the archives are
// listed, it shows among them, and every file written before the live file
// seen is listed.
std::vector<FileInfo> filesOf(const SetName& set) {
  struct stat live;
  bool hasLive = stat(set.live.c_str(), &live) == 0 && S_ISREG(live.st_mode);
  pause();
  std::vector<std::string> names;
  globInto(set.live + ".[0-9]*", &names);
  std::vector<FileInfo> files;
  for (const std::string& n : names) {
    long gen = generationOf(n, set.live);
    struct stat st;
    if (gen > 0 && stat(n.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back({n, st, gen});
  }
  std::sort(files.begin(), files.end(), [](const FileInfo& a, const FileInfo& b) {
    if (a.st.st_mtim.tv_sec != b.st.st_mtim.tv_sec)
      return a.st.st_mtim.tv_sec < b.st.st_mtim.tv_sec;
    if (a.st.st_mtim.tv_nsec != b.st.st_mtim.tv_nsec)
      return a.st.st_mtim.tv_nsec < b.st.st_mtim.tv_nsec;
    return a.generation < b.generation;
  });
  if (hasLive) files.push_back({set.live, live, 0});
  return files;
}

// --- Filters ---------------------------------------------------------------

struct Filter {
  int64_t since = logread::kNoTime;
  int64_t until = logread::kNoTime;
  int maxRank = logread::kRankMax;
  std::vector<std::string> components, subs, programs;
  std::vector<uint32_t> statuses;
  std::vector<long> pids;
  bool useRegex = false;
  regex_t regex;
  std::string scratch;

  bool matches(const Record& r, long sourcePid) {
    if (since != logread::kNoTime && r.timeMs < since) return false;
    if (until != logread::kNoTime && r.timeMs > until) return false;
    if (r.rank == 0 || r.rank > maxRank) return false;
    if (!statuses.empty() &&
        (!r.hasStatus || std::find(statuses.begin(), statuses.end(), r.status) == statuses.end()))
      return false;
    if (!anyOf(components, r.component) || !anyOf(subs, r.sub) || !anyOf(programs, r.program))
      return false;
    if (!pids.empty()) {
      long pid = r.pid >= 0 ? r.pid : sourcePid;
      if (std::find(pids.begin(), pids.end(), pid) == pids.end()) return false;
    }
    if (useRegex) {
      scratch.assign(r.text.data(), r.text.size());
      if (regexec(&regex, scratch.c_str(), 0, nullptr, 0) != 0) return false;
    }
    return true;
  }

  static bool anyOf(const std::vector<std::string>& wanted, std::string_view v) {
    if (wanted.empty()) return true;
    for (const std::string& w : wanted) {
      if (v == w) return true;
    }
    return false;
  }
};

// A time for --since, --until and --now: the record's own time text (with
// or without its offset and inaccuracy), ISO 8601 ("2024-02-29T13:00:00",
// with fraction, "Z" or an offset; without one it is local time; a date
// alone is its midnight), or seconds since 1970 as "@SECONDS". Relative:
// "15m", "1h", "2d", "30s" before now.
bool parseWhen(const char* text, int64_t nowMs, int64_t* out) {
  std::string t = text;
  if (t.empty()) return false;
  char* end = nullptr;
  if (t[0] == '@') {
    errno = 0;
    long long s = strtoll(t.c_str() + 1, &end, 10);
    if (errno != 0 || end == t.c_str() + 1 || *end != '\0') return false;
    *out = s * 1000;
    return true;
  }
  if (t.size() >= 2 && t[0] >= '0' && t[0] <= '9' && t.find('-') == std::string::npos) {
    errno = 0;
    long long n = strtoll(t.c_str(), &end, 10);
    if (errno != 0 || n < 0 || end[0] == '\0' || end[1] != '\0') return false;
    long long unit = *end == 's'   ? 1
                     : *end == 'm' ? 60
                     : *end == 'h' ? 3600
                     : *end == 'd' ? 86400
                                   : 0;
    if (unit == 0 || n > 1000000000LL / unit) return false;
    *out = nowMs - n * unit * 1000;
    return true;
  }
  // ISO 8601 into the record form: date '-' time '.' millis.
  int y, mo, d, h = 0, mi = 0, s = 0, consumed = 0;
  if (sscanf(t.c_str(), "%4d-%2d-%2d%n", &y, &mo, &d, &consumed) != 3 || consumed != 10)
    return false;
  size_t at = 10;
  int ms = 0;
  if (at < t.size() && (t[at] == 'T' || t[at] == ' ' || t[at] == '-')) {
    int n2 = 0;
    if (sscanf(t.c_str() + at + 1, "%2d:%2d%n", &h, &mi, &n2) != 2 || n2 != 5) return false;
    at += 1 + 5;
    if (at < t.size() && t[at] == ':') {
      if (sscanf(t.c_str() + at + 1, "%2d%n", &s, &n2) != 1 || n2 != 2) return false;
      at += 3;
      if (at < t.size() && (t[at] == '.' || t[at] == ',')) {
        ++at;
        int scale = 100;
        while (at < t.size() && t[at] >= '0' && t[at] <= '9') {
          ms += (t[at] - '0') * scale;
          scale /= 10;
          ++at;
        }
      }
    }
  }
  char norm[64];
  snprintf(norm, sizeof norm, "%04d-%02d-%02d-%02d:%02d:%02d.%03d", y, mo, d, h, mi, s, ms);
  std::string zone = t.substr(at);
  size_t inacc = zone.find('I');  // the record form's inaccuracy
  if (inacc != std::string::npos) zone.resize(inacc);
  std::string full = norm;
  bool local = zone.empty();
  if (zone == "Z") {
    full += "+00:00";
  } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
    full += zone;
  } else if (zone.size() == 5 && (zone[0] == '+' || zone[0] == '-')) {
    full += zone.substr(0, 3) + ":" + zone.substr(3);
  } else if (!local) {
    return false;
  }
  size_t used = 0;
  int64_t ms64 = logread::parseTimeText(full, !local, &used);
  if (ms64 == logread::kNoTime || used != full.size()) return false;
  if (local) {
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    tm.tm_isdst = -1;
    time_t secs = mktime(&tm);
    if (secs == static_cast<time_t>(-1)) return false;
    ms64 = static_cast<int64_t>(secs) * 1000 + ms;
  }
  *out = ms64;
  return true;
}

// --- Output ----------------------------------------------------------------

enum class Mode { kRaw, kJson, kCount };

// Appends s as the body of a JSON string. UTF-8 passes through; bytes that
// are not UTF-8 (text files in a single-byte code page) are taken as
// ISO 8859-1.
void jsonString(std::string* o, std::string_view s) {
  o->push_back('"');
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      o->push_back('\\');
      o->push_back(static_cast<char>(c));
    } else if (c == '\n') {
      o->append("\\n");
    } else if (c == '\t') {
      o->append("\\t");
    } else if (c == '\r') {
      o->append("\\r");
    } else if (c < 0x20 || c == 0x7f) {
      char u[8];
      snprintf(u, sizeof u, "\\u%04x", c);
      o->append(u);
    } else if (c >= 0x80) {
      size_t len = (c & 0xE0) == 0xC0 && c >= 0xC2   ? 2
                   : (c & 0xF0) == 0xE0              ? 3
                   : (c & 0xF8) == 0xF0 && c <= 0xF4 ? 4
                                                     : 0;
      bool ok = len != 0 && i + len <= s.size();
      for (size_t j = 1; ok && j < len; ++j)
        ok = (static_cast<unsigned char>(s[i + j]) & 0xC0) == 0x80;
      if (ok) {
        o->append(s.data() + i, len);
        i += len;
        continue;
      }
      o->push_back(static_cast<char>(0xC0 | (c >> 6)));
      o->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      o->push_back(static_cast<char>(c));
    }
    ++i;
  }
  o->push_back('"');
}

void jsonField(std::string* o, const char* name, std::string_view value) {
  o->append(",\"").append(name).append("\":");
  jsonString(o, value);
}

void jsonNumber(std::string* o, const char* name, long long value) {
  o->append(",\"").append(name).append("\":").append(std::to_string(value));
}

void appendJson(std::string* o, const Record& r, const std::string& file, long sourcePid) {
  int64_t ms = r.timeMs;
  time_t secs = static_cast<time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
  struct tm tm;
  gmtime_r(&secs, &tm);
  char iso[48];
  snprintf(iso, sizeof iso, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
           static_cast<int>(ms - static_cast<int64_t>(secs) * 1000));
  o->append("{\"time\":");
  jsonString(o, iso);
  jsonNumber(o, "time_ms", ms);
  jsonField(o, "time_text", r.timeText);
  jsonField(o, "severity", logread::rankName(r.rank));
  if (r.rank >= logread::kRankDebug1) jsonNumber(o, "level", r.rank - logread::kRankDebug1 + 1);
  if (r.hasStatus) {
    jsonNumber(o, "status", r.status);
    char hex[16];
    snprintf(hex, sizeof hex, "0x%8.8X", r.status);
    jsonField(o, "status_hex", hex);
  }
  jsonField(o, "program", r.program);
  long pid = r.pid >= 0 ? r.pid : sourcePid;
  if (pid >= 0) jsonNumber(o, "pid", pid);
  jsonField(o, "component", r.component);
  jsonField(o, "sub", r.sub);
  jsonField(o, "file", r.file);
  jsonNumber(o, "line", r.line);
  jsonField(o, "thread", r.thread);
  if (!r.xmlId.empty()) jsonField(o, "id", r.xmlId);
  jsonField(o, "form", logread::formName(r.form));
  jsonField(o, "log", file);
  jsonNumber(o, "log_line", static_cast<long long>(r.lineNo));
  jsonField(o, "text", r.text);
  o->append("}\n");
}

class Output {
 public:
  explicit Output(Mode mode) : mode_(mode) {}
  void put(const Record& r, const std::string& file, long sourcePid) {
    ++matched_;
    if (mode_ == Mode::kCount) {
      ++byRank_[r.rank];
      if (r.hasStatus) ++byStatus_[r.status];
      return;
    }
    if (mode_ == Mode::kJson) {
      appendJson(&buf_, r, file, sourcePid);
    } else {
      buf_.append(r.raw.data(), r.raw.size());
      // A last record without its newline (a settled file) still ends a line.
      if (r.raw.empty() || r.raw.back() != '\n') buf_.push_back('\n');
    }
    if (buf_.size() >= (1u << 20)) flush();
  }
  void flush() {
    if (!buf_.empty()) fwrite(buf_.data(), 1, buf_.size(), stdout);
    buf_.clear();
    fflush(stdout);
  }
  void finish() {
    if (mode_ == Mode::kCount) {
      for (auto& [rank, n] : byRank_) printf("%-16s %llu\n", logread::rankName(rank), n);
      for (auto& [code, n] : byStatus_) printf("0x%8.8X       %llu\n", code, n);
      printf("%-16s %llu\n", "total", matched_);
    }
    flush();
  }
  unsigned long long matched() const { return matched_; }

 private:
  Mode mode_;
  std::string buf_;
  unsigned long long matched_ = 0;
  std::map<int, unsigned long long> byRank_;
  std::map<uint32_t, unsigned long long> byStatus_;
};

void report(const std::vector<std::string>& problems) {
  for (const std::string& p : problems) fprintf(stderr, "zar log show: %s\n", p.c_str());
}

// --- One pass --------------------------------------------------------------

int showOnce(const std::vector<SetName>& sets, Filter* filter, Output* out) {
  std::vector<std::unique_ptr<logread::Source>> sources;
  for (const SetName& s : sets) {
    std::vector<std::string> paths;
    for (const FileInfo& f : filesOf(s)) paths.push_back(f.path);
    auto src = std::make_unique<logread::Source>(paths);
    src->pid = s.pid;
    sources.push_back(std::move(src));
  }
  logread::Merger merger(std::move(sources));
  const Record* r = nullptr;
  logread::Source* from = nullptr;
  while (merger.next(&r, &from)) {
    if (from->hasProblems()) report(from->takeProblems());
    if (filter->matches(*r, from->pid)) out->put(*r, from->currentFile(), from->pid);
  }
  bool any = false;
  for (auto& s : merger.sources()) {
    report(s->takeProblems());
    any = any || s->readAny();
  }
  out->finish();
  if (!any) return 2;
  return out->matched() > 0 ? 0 : 1;
}

// --- Follow ----------------------------------------------------------------

volatile sig_atomic_t gStop = 0;

// One file being followed, known by its device and inode, so that a renamed
// generation is finished from where it was left.
struct Cursor {
  dev_t dev;
  ino_t ino;
  off_t offset = 0;
  std::string head;  // its first bytes: a reused inode shows as a new file
  std::unique_ptr<logread::Splitter> splitter;
  int quiet = 0;
  int missing = 0;  // polls in a row that did not list it
  bool finished = false;
};

// Polls a file may go unlisted before its cursor is dropped: a rename while
// the directory is listed can hide it once.
constexpr int kMissingPolls = 5;

struct FollowSet {
  SetName name;
  std::vector<std::unique_ptr<Cursor>> cursors;
};

struct Pending {
  int64_t timeMs;
  uint64_t seq;
  std::string raw;
  Form form;
  std::string file;
  long pid;
  uint64_t lineNo;
};

// Reads what is new in one file of a set and takes out the complete records.
// False when the name no longer holds the file listed (renamed or replaced
// since): the files after it in the set must wait for the next listing, or
// their records would come before the ones this file still holds. A file
// that cannot be read is passed over.
bool pollFile(FollowSet* set, const FileInfo& f, bool live, Filter* filter,
              std::vector<Pending>* batch, uint64_t* seq) {
  Cursor* c = nullptr;
  for (auto& k : set->cursors) {
    if (k->dev == f.st.st_dev && k->ino == f.st.st_ino) c = k.get();
  }
  int fd = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno != ENOENT;
  struct stat st;
  if (fstat(fd, &st) != 0 || st.st_ino != f.st.st_ino || st.st_dev != f.st.st_dev) {
    close(fd);
    return false;
  }
  if (c != nullptr && !c->head.empty()) {
    char head[64];
    ssize_t n = pread(fd, head, c->head.size(), 0);
    if (n != static_cast<ssize_t>(c->head.size()) ||
        memcmp(head, c->head.data(), c->head.size()) != 0)
      c = nullptr;  // truncated or a new file on an old inode
    if (c == nullptr) {
      for (auto& k : set->cursors) {
        if (k->dev == st.st_dev && k->ino == st.st_ino) k->ino = 0;
      }
    }
  }
  if (c == nullptr) {
    set->cursors.push_back(std::make_unique<Cursor>());
    c = set->cursors.back().get();
    c->dev = st.st_dev;
    c->ino = st.st_ino;
  }
  bool grew = false;
  for (;;) {
    if (!c->splitter) {
      char probe[65536];
      ssize_t n = pread(fd, probe, sizeof probe, 0);
      if (n <= 0) break;
      Form form = logread::detectForm(std::string_view(probe, static_cast<size_t>(n)));
      if (form == Form::kUnknown) {
        // Perhaps not a record yet (a first line still being written).
        if (!live || memchr(probe, '\n', static_cast<size_t>(n)) != nullptr) {
          if (!c->finished)
            fprintf(stderr, "zar log show: %s: not a log file of the serviceability\n",
                    f.path.c_str());
          c->finished = true;
          c->offset = st.st_size;
        }
        break;
      }
      c->splitter = std::make_unique<logread::Splitter>(form);
      c->head.assign(probe, static_cast<size_t>(std::min<ssize_t>(n, 64)));
    }
    if (c->finished) break;
    char* buf = c->splitter->space(1 << 20);
    ssize_t n = pread(fd, buf, 1 << 20, c->offset);
    if (n <= 0) break;
    c->splitter->commit(static_cast<size_t>(n));
    c->offset += n;
    grew = true;
  }
  close(fd);
  if (!c->splitter || c->finished) return true;
  c->quiet = grew ? 0 : c->quiet + 1;
  if (!live) {
    c->splitter->finish();  // a renamed generation is written no more
  } else if (c->quiet >= kQuietPolls) {
    c->splitter->settle();
  }
  Record r;
  while (c->splitter->next(&r)) {
    if (filter->matches(r, set->name.pid))
      batch->push_back(
          {r.timeMs, (*seq)++, std::string(r.raw), r.form, f.path, set->name.pid, r.lineNo});
  }
  for (logread::Problem& p : c->splitter->takeProblems())
    fprintf(stderr, "zar log show: %s:%llu: %s\n", f.path.c_str(),
            static_cast<unsigned long long>(p.lineNo), p.what.c_str());
  if (!live) c->finished = true;
  return true;
}

int follow(const std::vector<std::string>& paths, Filter* filter, Output* out) {
  struct sigaction sa = {};
  sa.sa_handler = [](int) { gStop = 1; };
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  if (const char* p = getenv("ZAR_LOG_SHOW_PAUSE_MS"))
    gPauseMs = static_cast<int>(std::clamp(strtol(p, nullptr, 10), 0L, 1000L));
  std::vector<FollowSet> sets;
  uint64_t seq = 0;
  bool first = true;
  while (!gStop) {
    // New per-process files and directory entries join as they appear.
    std::vector<SetName> names;
    bool any = false;
    for (const std::string& p : paths) any = expand(p, &names) || any;
    if (first && !any) {
      for (const std::string& p : paths)
        fprintf(stderr, "zar log show: %s: no such log file\n", p.c_str());
    }
    for (const SetName& n : names) {
      bool known = false;
      for (const FollowSet& s : sets) known = known || s.name.live == n.live;
      if (!known) sets.push_back({n, {}});
    }
    std::vector<Pending> batch;
    for (FollowSet& s : sets) {
      std::vector<FileInfo> files = filesOf(s.name);
      for (auto& c : s.cursors) {
        ++c->missing;
        for (const FileInfo& f : files) {
          if (c->dev == f.st.st_dev && c->ino == f.st.st_ino) c->missing = 0;
        }
      }
      pause();
      for (const FileInfo& f : files) {
        if (!pollFile(&s, f, f.generation == 0, filter, &batch, &seq)) break;
      }
      // Files that are gone are forgotten (their inode may come back).
      s.cursors.erase(std::remove_if(s.cursors.begin(), s.cursors.end(),
                                     [](const std::unique_ptr<Cursor>& c) {
                                       return c->missing > kMissingPolls;
                                     }),
                      s.cursors.end());
    }
    std::stable_sort(batch.begin(), batch.end(), [](const Pending& a, const Pending& b) {
      return a.timeMs != b.timeMs ? a.timeMs < b.timeMs : a.seq < b.seq;
    });
    for (const Pending& p : batch) {
      Record r;
      r.lineNo = p.lineNo;
      r.form = p.form;
      bool ok = p.form == Form::kXml ? logread::parseXml(p.raw, &r) : logread::parseText(p.raw, &r);
      if (ok) out->put(r, p.file, p.pid);
    }
    out->flush();
    first = false;
    struct timespec ts = {0, (gPauseMs > 0 ? 1 : kPollMs) * 1000000L};
    while (!gStop && nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
  }
  out->finish();
  return out->matched() > 0 ? 0 : 1;
}

}  // namespace

int runLogShow(int argc, char** argv) {
  Filter filter;
  Mode mode = Mode::kRaw;
  bool followMode = false;
  const char* since = nullptr;
  const char* until = nullptr;
  int64_t nowMs;
  {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    nowMs = static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  }
  std::vector<std::string> paths;
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto needs = [&](const char* opt) { return a == opt && v != nullptr; };
    if (needs("--since")) {
      since = argv[++i];
    } else if (needs("--until")) {
      until = argv[++i];
    } else if (needs("--now")) {
      if (!parseWhen(argv[++i], nowMs, &nowMs))
        return usageError(kShow, "'%s' is not a time", argv[i]);
    } else if (needs("--severity")) {
      filter.maxRank = logread::rankOf(argv[++i]);
      if (filter.maxRank == 0) return usageError(kShow, "unknown severity '%s'", argv[i]);
    } else if (needs("--component")) {
      filter.components.push_back(argv[++i]);
    } else if (needs("--sub")) {
      filter.subs.push_back(argv[++i]);
    } else if (needs("--program")) {
      filter.programs.push_back(argv[++i]);
    } else if (needs("--status")) {
      unsigned long long code;
      if (!parseUnsigned(argv[++i], 0xFFFFFFFFull, &code))
        return usageError(kShow, "'%s' is not a status code", argv[i]);
      filter.statuses.push_back(static_cast<uint32_t>(code));
    } else if (needs("--pid")) {
      unsigned long long pid;
      if (!parseUnsigned(argv[++i], 0x7fffffff, &pid))
        return usageError(kShow, "'%s' is not a process id", argv[i]);
      filter.pids.push_back(static_cast<long>(pid));
    } else if (needs("--grep")) {
      if (filter.useRegex) return usageError(kShow, "--grep is given twice");
      int rc = regcomp(&filter.regex, argv[++i], REG_EXTENDED | REG_NOSUB);
      if (rc != 0) {
        char why[256];
        regerror(rc, &filter.regex, why, sizeof why);
        return usageError(kShow, "bad regular expression '%s': %s", argv[i], why);
      }
      filter.useRegex = true;
    } else if (a == "--json" || a == "--count") {
      Mode m = a == "--json" ? Mode::kJson : Mode::kCount;
      if (mode != Mode::kRaw && mode != m)
        return usageError(kShow, "--json and --count exclude each other");
      mode = m;
    } else if (a == "--follow" || a == "-f") {
      followMode = true;
    } else if (a == "--") {
      ++i;
      break;
    } else if (a.size() > 1 && a[0] == '-') {
      return usageError(kShow, "unknown option or missing value: '%s'", a.c_str());
    } else {
      paths.push_back(a);
    }
  }
  for (; i < argc; ++i) paths.push_back(argv[i]);
  struct RegexFree {
    Filter* f;
    ~RegexFree() {
      if (f->useRegex) regfree(&f->regex);
    }
  } regexFree{&filter};
  if (paths.empty()) return usageError(kShow, "no log file given");
  if (since != nullptr && !parseWhen(since, nowMs, &filter.since))
    return usageError(kShow, "'%s' is not a time", since);
  if (until != nullptr && !parseWhen(until, nowMs, &filter.until))
    return usageError(kShow, "'%s' is not a time", until);
  if (followMode && mode == Mode::kCount) return usageError(kShow, "--count does not follow");

  Output out(mode);
  if (followMode) return follow(paths, &filter, &out);
  std::vector<SetName> sets;
  bool any = false;
  for (const std::string& p : paths) {
    if (expand(p, &sets)) {
      any = true;
    } else {
      fprintf(stderr, "zar log show: %s: no such log file\n", p.c_str());
    }
  }
  if (!any) return 2;
  return showOnce(sets, &filter, &out);
}

}  // namespace zar::tool
