// Differential checks against the C library: local time of every zone file
// and of POSIX rule strings against localtime_r, generated formats against
// snprintf, base64 against the RFC 4648 vectors. A difference counts as
// explained only when a rule of the library accounts for it; each rule's
// count is printed, unexplained ones fail the line.
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "core/svcutl/utczone.h"
#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/printf.h"
#include "zar/utc.h"
#include "zar/util.h"

namespace zar::stress {
namespace {

// ---- Local time ---------------------------------------------------------------

struct Local {
  long offset;
  int isdst;
  std::string abbr;
  bool operator==(const Local& o) const {
    return offset == o.offset && isdst == o.isdst && abbr == o.abbr;
  }
};

// The library's and the C library's answers for t under the TZ now set
// (tzset() done).
Local library(time_t t) {
  utc_t u;
  struct timespec when = {t, 0}, inacc = {0, 0};
  zar_utc_mkbintime(&u, &when, &inacc, 0);
  char name[64] = {};
  long tdf = 0;
  int isdst = 0;
  if (zar_utc_localzone(name, sizeof name - 1, &tdf, &isdst, &u) != 0) return {0, -1, "(failed)"};
  return {tdf, isdst, name};
}

Local glibc(time_t t) {
  struct tm tm;
  if (localtime_r(&t, &tm) == nullptr) return {0, -1, "(failed)"};
  return {tm.tm_gmtoff, tm.tm_isdst, tm.tm_zone != nullptr ? tm.tm_zone : ""};
}

constexpr time_t kFirst1902 = -2145916800;  // 1902-01-01
constexpr time_t kLast2037 = 2145916799;    // 2037-12-31 23:59:59

// Counts mismatches by the rule that explains them (or "unexplained").
class Tally {
 public:
  void compare(Run& run, const std::string& what, time_t t, const char* rule) {
    ++compared_;
    Local a = library(t), b = glibc(t);
    if (a == b) return;
    std::string key = rule != nullptr ? rule : "unexplained";
    if (++byRule_[key] <= 3 && rule == nullptr)
      run.fail(what + named(" at ", static_cast<long>(t)) + named(": library ", a.offset) + " " +
               a.abbr + named(" dst ", a.isdst) + named(", C library ", b.offset) + " " + b.abbr +
               named(" dst ", b.isdst));
  }
  void report(Run& run) {
    run.figure("instants", static_cast<double>(compared_));
    long explained = 0;
    for (const auto& [rule, n] : byRule_)
      if (rule != "unexplained") {
        run.figure("explained:" + rule, static_cast<double>(n));
        explained += n;
      }
    run.figure("explained", static_cast<double>(explained));
    run.faults("mismatches", byRule_["unexplained"]);
  }

 private:
  long compared_ = 0;
  std::map<std::string, long> byRule_;
};

void setZone(const std::string& tz) {
  setenv("TZ", tz.c_str(), 1);
  tzset();
}

// Every compiled zone file under the zone directory, by relative name.
std::vector<std::string> zoneFiles() {
  static std::vector<std::string>* found;
  std::vector<std::string> names;
  found = &names;
  nftw(zar::utc::kZoneDir, [](const char* path, const struct stat* st, int type, struct FTW*) {
    if (type != FTW_F || !S_ISREG(st->st_mode)) return 0;
    std::ifstream in(path, std::ios::binary);
    char magic[4] = {};
    in.read(magic, 4);
    if (memcmp(magic, "TZif", 4) == 0) found->push_back(path + strlen(zar::utc::kZoneDir) + 1);
    return 0;
  }, 16, FTW_PHYS);
  std::sort(names.begin(), names.end());
  return names;
}

// The instants zdump lists for a zone from 1902 to 2037 (each transition and
// the second before it). Leap-second zones count seconds the way their own
// UTC does, so their times are converted under right/UTC.
std::set<time_t> zdumpInstants(const std::string& zone) {
  std::set<time_t> out;
  bool leaps = zone.compare(0, 6, "right/") == 0;
  if (leaps) setZone("right/UTC");
  std::string cmd = "zdump -v -c 1902,2037 '" + zone + "' 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char line[512];
  while (fgets(line, sizeof line, p) != nullptr) {
    const char* ut = strstr(line, "  ");
    if (ut == nullptr || strstr(line, " UT = ") == nullptr) continue;
    struct tm tm = {};
    if (strptime(ut + 2, "%a %b %d %H:%M:%S %Y", &tm) == nullptr) continue;
    out.insert(leaps ? mktime(&tm) : timegm(&tm));
  }
  pclose(p);
  return out;
}

// Item: every zone file at every transition (and a second either side) and
// at random instants, 1902 to 2037.
Scenario zones("diff-zones", [](Run& run) {
  long random = run.size("random_per_zone", 200, 5000);
  Tally tally;
  std::vector<std::string> names = zoneFiles();
  long unreadable = 0;
  for (const std::string& zone : names) {
    std::set<time_t> instants = zdumpInstants(zone);
    // Explanations: a file beyond the reader's limits (370 transitions, 10
    // types, 3,740 bytes) is not loaded, the zone falls back to the rule
    // reading of its name; before its first transition (of the 32-bit data)
    // the library takes the first standard type.
    std::string bytes = zar::test::readFile(std::string(zar::utc::kZoneDir) + "/" + zone);
    auto zd = std::make_unique<zar::utc::ZoneData>();
    bool loads = zar::utc::tzloadBuffer(zd.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                        std::min(bytes.size(), zar::utc::kMaxZoneFile)) == 0;
    unreadable += !loads;
    time_t first = loads && zd->timecnt > 0 ? static_cast<time_t>(zd->ats[0]) : kFirst1902;
    for (long i = 0; i < random; ++i) instants.insert(run.random(kFirst1902, kLast2037));
    setZone(zone);
    for (time_t t : instants) {
      for (time_t d : {-1, 0, 1}) {
        time_t at = t + d;
        const char* rule = !loads ? "beyond-reader-limits" : at < first ? "before-first-transition" : nullptr;
        tally.compare(run, zone, at, rule);
      }
    }
  }
  unsetenv("TZ");
  run.figure("zones", static_cast<double>(names.size()));
  run.figure("zones_beyond_limits", static_cast<double>(unreadable));
  tally.report(run);
});

// ---- POSIX rule strings ------------------------------------------------------------

// A rule string in the library's grammar: names of 3 to 5 letters, offsets
// of up to 24 hours, rules Jn, n or Mm.w.d with an optional time.
std::string randomRule(Run& run) {
  auto name = [&] {
    std::string s;
    for (long i = run.random(3, 5); i > 0; --i) s += static_cast<char>('A' + run.random(0, 25));
    return s;
  };
  auto offset = [&](bool sign) {
    std::string s = sign ? std::string(run.random(0, 2) == 0 ? "-" : run.random(0, 1) ? "+" : "") : "";
    s += std::to_string(run.random(0, 24));
    if (run.random(0, 2) == 0) s += named(":", run.random(0, 59));
    if (run.random(0, 4) == 0) s += named(":", run.random(0, 59));
    return s;
  };
  auto date = [&] {
    std::string s;
    switch (run.random(0, 2)) {
      case 0: s = named("J", run.random(1, 365)); break;
      case 1: s = std::to_string(run.random(0, 365)); break;
      default: s = named("M", run.random(1, 12)) + named(".", run.random(1, 5)) + named(".", run.random(0, 6));
    }
    if (run.random(0, 1) == 0) {
      s += '/';
      s += offset(false);
    }
    return s;
  };
  std::string s = name() + offset(true);
  if (run.random(0, 4) == 0) return s;
  s += name();
  if (run.random(0, 2) == 0) s += offset(true);
  return s + "," + date() + "," + date();
}

// Item: the rule strings at the end of every zone file and generated ones,
// at each transition the library computes (and a second either side) and at
// random instants, 1970 to 2037.
Scenario rules("diff-rules", [](Run& run) {
  long generated = run.size("generated", 2000, 50000);
  long random = run.size("random_per_rule", 50, 500);
  std::set<std::string> strings;
  for (const std::string& zone : zoneFiles()) {
    std::string bytes = zar::test::readFile(std::string(zar::utc::kZoneDir) + "/" + zone);
    size_t end = bytes.size() > 0 && bytes.back() == '\n' ? bytes.size() - 1 : std::string::npos;
    size_t start = end == std::string::npos ? end : bytes.rfind('\n', end - 1);
    if (start != std::string::npos && end > start + 1) strings.insert(bytes.substr(start + 1, end - start - 1));
  }
  size_t footers = strings.size();
  for (long i = 0; i < generated; ++i) strings.insert(randomRule(run));
  Tally tally;
  long outside = 0;
  auto zd = std::make_unique<zar::utc::ZoneData>();
  for (const std::string& s : strings) {
    // A string the rule reader refuses (a quoted name "<+03>", an hour
    // beyond 24) makes the library name a zone of offset 0 after it.
    bool parses = zar::utc::tzparse(zd.get(), s.c_str(), false) == 0;
    outside += !parses;
    std::set<time_t> instants;
    for (int i = 0; parses && i < zd->timecnt; ++i) instants.insert(static_cast<time_t>(zd->ats[i]));
    for (long i = 0; i < random; ++i) instants.insert(run.random(0, kLast2037));
    time_t first = parses && zd->timecnt > 0 ? static_cast<time_t>(zd->ats[0]) : 0;
    // Rules whose start falls after their end in some years and before it in
    // others: the library keeps each year's two transitions in date order and
    // answers with the last one passed, the C library decides year by year.
    // Likewise rules whose date and time, moved to UTC, fall into the year
    // before or after the one they were computed for.
    bool swaps = false, leaves = false;
    for (int i = 1; parses && i < zd->timecnt; ++i) swaps = swaps || zd->types[i] == zd->types[i - 1];
    for (int i = 0; parses && i < zd->timecnt; ++i) {
      struct tm jan = {};
      jan.tm_year = 70 + i / 2;
      jan.tm_mday = 1;
      time_t from = timegm(&jan);
      ++jan.tm_year;
      leaves = leaves || zd->ats[i] < from || zd->ats[i] >= timegm(&jan);
    }
    setZone(s);
    for (time_t t : instants) {
      for (time_t d : {-1, 0, 1}) {
        time_t at = t + d;
        if (at < 0) continue;
        const char* rule = !parses             ? "outside-rule-grammar"
                           : at < first        ? "before-first-transition"
                           : swaps             ? "start-end-order-changes"
                           : leaves            ? "transition-leaves-its-year"
                                               : nullptr;
        tally.compare(run, "TZ=" + s, at, rule);
      }
    }
  }
  unsetenv("TZ");
  run.figure("rule_strings", static_cast<double>(strings.size()));
  run.figure("from_zone_files", static_cast<double>(footers));
  run.figure("outside_grammar", static_cast<double>(outside));
  tally.report(run);
});

// ---- Formats ------------------------------------------------------------------------

// One argument in the class the calling convention passes it in: integers and
// pointers in general registers, doubles in vector registers, long doubles
// in memory. va_arg takes each class in order independently of the others,
// so calling both engines with eight words, eight doubles (and, when a
// format has long doubles and at most three words, four long doubles) hands
// them the same arguments whatever the format's order.
struct Args {
  uint64_t w[8] = {};
  double d[8] = {};
  long double l[4] = {};
  int nw = 0, nd = 0, nl = 0;
};

template <class F>
int callWith(F f, char* buf, size_t size, const char* fmt, const Args& a) {
  if (a.nl > 0)
    return f(buf, size, fmt, a.w[0], a.w[1], a.w[2], a.d[0], a.d[1], a.d[2], a.d[3], a.d[4],
             a.d[5], a.d[6], a.d[7], a.l[0], a.l[1], a.l[2], a.l[3]);
  return f(buf, size, fmt, a.w[0], a.w[1], a.w[2], a.w[3], a.w[4], a.w[5], a.w[6], a.w[7],
           a.d[0], a.d[1], a.d[2], a.d[3], a.d[4], a.d[5], a.d[6], a.d[7]);
}

// The rules by which the library's engine differs from the C library's in
// the conversions both have.
const char* const kPctWidth = "percent-takes-width";          // "%5%" pads the '%'
const char* const kNilPointer = "null-pointer-empty";         // %p of null prints nothing
const char* const kNullString = "null-string-empty";          // %s of null prints nothing
const char* const kNegWidth = "negative-width-is-none";       // '*' width below 0
const char* const kNegPrecision = "negative-precision-empty";  // '*' precision below 0 on %s
const char* const kZeroPrecision = "precision-clears-zero";   // %08.3f pads with blanks
const char* const kOctalZero = "alt-octal-zero-empty";        // %#.0o of 0 prints nothing

// Appends one random conversion (and its argument) to fmt. strict leaves out
// everything a rule above covers. Returns the rule the conversion may fall
// under, or null.
const char* addConversion(Run& run, bool strict, std::string* fmt, Args* a,
                          std::vector<std::string>* strings) {
  const Args saved = *a;
  auto again = [&] {  // this draw falls under a rule: draw another
    *a = saved;
    return addConversion(run, strict, fmt, a, strings);
  };
  static const char kConv[] = "cdiouxXsfeEgGp%";
  char conv = kConv[run.random(0, sizeof kConv - 2)];
  bool isFloat = strchr("feEgG", conv) != nullptr, isInt = strchr("diouxX", conv) != nullptr;
  if (conv == '%' && strict) conv = 'd', isInt = true;
  const char* rule = nullptr;
  std::string spec = "%";
  for (char f : std::string("-+ #0'"))
    if (run.random(0, 4) == 0 && !(f == '#' && strchr("dics", conv))) spec += f;
  bool zero = spec.find('0') != std::string::npos && spec.find('-') == std::string::npos;
  if (conv == '%') {
    if (spec.size() > 1 || run.random(0, 1)) rule = kPctWidth, spec += std::to_string(run.random(0, 9));
    *fmt += spec + "%";
    return rule;
  }
  if (conv == 'c' || conv == 's' || conv == 'p') spec.erase(std::remove(spec.begin(), spec.end(), '0'), spec.end());
  if (conv == 'p') spec.erase(std::remove_if(spec.begin(), spec.end(), [](char c) { return c == '+' || c == ' '; }), spec.end());
  bool wantWidth = run.random(0, 2) == 0, wantPrec = run.random(0, 2) == 0 && conv != 'c' && conv != 'p';
  bool negPrec = false;
  // Words left: four long doubles go with three words at most.
  auto wordFree = [a] { return a->nw < (a->nl > 0 ? 3 : 8); };
  if (wantWidth && wordFree() && run.random(0, 3) == 0) {
    spec += "*";
    long w = run.random(strict ? 0 : -20, 20);
    if (w < 0 && !isFloat) rule = kNegWidth;
    a->w[a->nw++] = static_cast<uint64_t>(static_cast<int64_t>(w));
  } else if (wantWidth) {
    spec += std::to_string(run.random(1, 30));
  }
  long precision = -1;
  if (wantPrec && wordFree() && run.random(0, 3) == 0) {
    spec += ".*";
    precision = run.random(strict || conv != 's' ? 0 : -3, 20);
    negPrec = precision < 0;
    a->w[a->nw++] = static_cast<uint64_t>(static_cast<int64_t>(precision));
  } else if (wantPrec) {
    precision = run.random(0, 20);
    spec += named(".", precision);
  }
  if (negPrec) rule = kNegPrecision;
  if (isFloat && zero && precision >= 0) {
    if (strict) return again();
    rule = kZeroPrecision;
  }
  if (rule != nullptr && strict) return again();
  bool longDouble = isFloat && a->nw <= 3 && a->nl < 4 && run.random(0, 5) == 0;
  if (isFloat) {
    static const double kSpecial[] = {0.0, -0.0, 1.0 / 0.0, -1.0 / 0.0, 1e300, -1e-300, 123456789.125};
    double v = run.random(0, 3) == 0 ? kSpecial[run.random(0, 6)]
                                     : static_cast<double>(static_cast<int64_t>(run.rng()())) / 1e9;
    if (longDouble) {
      spec += "L";
      a->l[a->nl++] = static_cast<long double>(v) / 3;
    } else if (a->nd < 8) {
      a->d[a->nd++] = v;
    } else {
      return again();
    }
    *fmt += spec + conv;
    return rule;
  }
  if (!wordFree()) return again();
  static const char* const kLength[] = {"", "h", "l", "ll", "q", "L"};
  uint64_t v = run.rng()() >> run.random(0, 63);
  if (run.random(0, 9) == 0) v = 0;
  // The bits of v that the conversion reads.
  uint64_t mask = 0xFFFFFFFFu;
  if (isInt) {
    std::string length = kLength[run.random(0, 5)];
    spec += length;
    mask = length.empty() ? 0xFFFFFFFFu : length == "h" ? 0xFFFFu : ~uint64_t{0};
  }
  if (conv == 's') {
    if (!strict && run.random(0, 50) == 0) {
      rule = kNullString;
      v = 0;
    } else {
      std::string text;
      for (long i = run.random(0, 40); i > 0; --i) text += static_cast<char>(run.random(32, 126));
      strings->push_back(text);
      v = 0;  // set once the strings stop moving
      spec += "\x01";  // marks a string argument for fixing up
    }
  } else if (conv == 'p') {
    if (!strict && run.random(0, 5) == 0) {
      rule = kNilPointer;
      v = 0;
    } else if (v == 0) {
      v = 1;
    }
  } else if (conv == 'o' && spec.find('#') != std::string::npos && precision == 0 &&
             (v & mask) == 0) {
    if (strict) v = 1;
    else rule = kOctalZero;
  }
  a->w[a->nw++] = v;
  *fmt += spec + conv;
  return rule;
}

// Item: about a million generated formats of the shared subset, each with
// its arguments, into a buffer of random size.
Scenario formats("diff-printf", [](Run& run) {
  long count = run.size("formats", 1000000, 20000000);
  long mismatches = 0, explained = 0;
  std::map<std::string, long> byRule;
  char mine[1024], theirs[1024];
  for (long i = 0; i < count; ++i) {
    Args a;
    std::string fmt;
    std::vector<std::string> strings;
    std::vector<size_t> stringArgs;
    // Either one conversion (which may fall under a rule) or several from
    // the strict subset, with literal text between them.
    bool single = run.random(0, 9) < 7;
    const char* rule = nullptr;
    for (long k = single ? 1 : run.random(2, 6); k > 0; --k) {
      if (run.random(0, 2) == 0) fmt += "ab ";
      const char* r = addConversion(run, !single, &fmt, &a, &strings);
      rule = rule != nullptr ? rule : r;
      size_t mark = fmt.find('\x01');
      if (mark != std::string::npos) {
        fmt.erase(mark, 1);
        stringArgs.push_back(static_cast<size_t>(a.nw) - 1);
      }
    }
    for (size_t s = 0; s < stringArgs.size(); ++s)
      a.w[stringArgs[s]] = reinterpret_cast<uintptr_t>(strings[s].c_str());
    size_t size = run.random(0, 4) == 0 ? static_cast<size_t>(run.random(0, 40)) : sizeof mine;
    memset(mine, 0x55, sizeof mine);
    memset(theirs, 0x55, sizeof theirs);
    int n1 = callWith([](char* b, size_t s, const char* f, auto... x) { return zar_snprintf(b, static_cast<int>(s), f, x...); },
                      mine, size, fmt.c_str(), a);
    int n2 = callWith([](char* b, size_t s, const char* f, auto... x) { return snprintf(b, s, f, x...); },
                      theirs, size, fmt.c_str(), a);
    size_t written = size == 0 ? 0 : std::min(static_cast<size_t>(std::max(n2, 0)), size - 1) + 1;
    if (n1 == n2 && memcmp(mine, theirs, std::max<size_t>(written, 1)) == 0) continue;
    if (rule != nullptr) {
      ++explained;
      ++byRule[rule];
      continue;
    }
    if (++mismatches <= 5)
      run.fail("format \"" + fmt + named("\": library ", n1) + " \"" + std::string(mine, std::min<size_t>(written, 80)) +
               named("\", C library ", n2) + " \"" + std::string(theirs, std::min<size_t>(written, 80)) + "\"");
  }
  run.figure("explained", static_cast<double>(explained));
  for (const auto& [r, n] : byRule) run.figure(std::string("explained:") + r, static_cast<double>(n));
  run.faults("mismatches", mismatches);
});

// ---- Base64 --------------------------------------------------------------------------

// Item: the test vectors of RFC 4648 (section 10) both ways, with the
// standard alphabet.
Scenario base64("diff-base64", [](Run& run) {
  static const char* const kVectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                                           {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
                                           {"foobar", "Zm9vYmFy"}};
  long mismatches = 0;
  for (const auto& v : kVectors) {
    size_t len = strlen(v[0]);
    char text[32] = {};
    zar_base64_std_encode(v[0], len, text, sizeof text);
    unsigned char back[32] = {};
    uint64_t got = 0;
    zar_base64_std_decode(v[1], strlen(v[1]), back, &got);
    if (strcmp(text, v[1]) != 0 || got != len || memcmp(back, v[0], len) != 0) {
      ++mismatches;
      run.fail(std::string("vector \"") + v[0] + "\": encoded \"" + text + "\"");
    }
  }
  run.figure("vectors", static_cast<double>(sizeof kVectors / sizeof kVectors[0]));
  run.faults("mismatches", mismatches);
});

}  // namespace
}  // namespace zar::stress
