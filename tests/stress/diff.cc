// Differential checks against the C library. A difference counts as
// explained only under one of the rules named in docs/reliability.md.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <memory>
#include <set>

#include "core/svcutl/utczone.h"
#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/printf.h"
#include "zar/utc.h"
#include "zar/util.h"

namespace zar::stress {
namespace {

// Differences from the C library, by the rule that explains them; the first
// unexplained ones are described.
struct Differences {
  long instants = 0;  // compared, for the local-time checks
  long mismatches = 0;
  std::map<std::string, long> byRule;

  void add(Run& run, const char* rule, const std::function<std::string()>& describe) {
    if (rule != nullptr)
      ++byRule[rule];
    else if (++mismatches <= 5)
      run.fail(describe());
  }
  void report(Run& run) {
    if (instants != 0) run.figure("instants", instants);
    long explained = 0;
    for (const auto& [rule, n] : byRule) {
      run.figure("explained:" + rule, n);
      explained += n;
    }
    run.figure("explained", explained);
    run.faults("mismatches", mismatches);
  }
};

struct Local {
  long offset;
  int isdst;
  std::string abbr;
  bool operator==(const Local&) const = default;
  std::string text() const { return named("", offset, " ") + abbr + named(" dst ", isdst); }
};

constexpr time_t kFirst1902 = -2145916800;  // 1902-01-01
constexpr time_t kLast2037 = 2145916799;    // 2037-12-31 23:59:59

void setZone(const std::string& tz) {
  setenv("TZ", tz.c_str(), 1);
  tzset();
}

// The library's local time against localtime_r's under TZ=tz at each of
// instants and a second either side, from `from` on; rule(at) names the rule
// that explains a difference at at (null: none).
void compareZone(Run& run, Differences* d, const std::string& tz, const std::set<time_t>& instants,
                 time_t from, const std::function<const char*(time_t)>& rule) {
  setZone(tz);
  for (time_t t : instants) {
    for (time_t at : {t - 1, t, t + 1}) {
      if (at < from) continue;
      ++d->instants;
      utc_t u;
      struct timespec when = {at, 0}, inacc = {0, 0};
      zar_utc_mkbintime(&u, &when, &inacc, 0);
      char name[64] = {};
      long tdf = 0;
      int isdst = 0;
      struct tm tm;
      Local mine = zar_utc_localzone(name, sizeof name - 1, &tdf, &isdst, &u) == 0
                       ? Local{tdf, isdst, name}
                       : Local{0, -1, "(failed)"};
      Local theirs = localtime_r(&at, &tm) != nullptr
                         ? Local{tm.tm_gmtoff, tm.tm_isdst, tm.tm_zone ? tm.tm_zone : ""}
                         : Local{0, -1, "(failed)"};
      if (mine == theirs) continue;
      d->add(run, rule(at), [&] {
        return tz + named(" at ", at) + ": library " + mine.text() + ", C library " + theirs.text();
      });
    }
  }
}

std::string zoneBytes(const std::string& zone) {
  return zar::test::readFile(std::string(zar::utc::kZoneDir) + "/" + zone);
}

// Every compiled zone file (links not followed), by relative name.
std::vector<std::string> zoneFiles() {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::recursive_directory_iterator(zar::utc::kZoneDir)) {
    std::string name = e.path().lexically_relative(zar::utc::kZoneDir);
    if (!e.is_symlink() && e.is_regular_file() && zoneBytes(name).compare(0, 4, "TZif") == 0)
      names.push_back(name);
  }
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
  FILE* p = popen(("zdump -v -c 1902,2037 '" + zone + "' 2>/dev/null").c_str(), "r");
  char line[512];
  while (p != nullptr && fgets(line, sizeof line, p) != nullptr) {
    const char* ut = strstr(line, "  ");
    struct tm tm = {};
    if (ut == nullptr || strstr(line, " UT = ") == nullptr ||
        strptime(ut + 2, "%a %b %d %H:%M:%S %Y", &tm) == nullptr)
      continue;
    out.insert(leaps ? mktime(&tm) : timegm(&tm));
  }
  if (p != nullptr) pclose(p);
  return out;
}

Scenario zones("diff-zones", [](Run& run) {
  long random = run.size("random_per_zone", 200, 5000);
  Differences d;
  std::vector<std::string> names = zoneFiles();
  long unreadable = 0;
  auto zd = std::make_unique<zar::utc::ZoneData>();
  for (const std::string& zone : names) {
    std::set<time_t> instants = zdumpInstants(zone);
    std::string bytes = zoneBytes(zone);
    bool loads =
        zar::utc::tzloadBuffer(zd.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                               std::min(bytes.size(), zar::utc::kMaxZoneFile)) == 0;
    unreadable += !loads;
    time_t first = loads && zd->timecnt > 0 ? zd->ats[0] : kFirst1902;
    for (long i = 0; i < random; ++i) instants.insert(run.random(kFirst1902, kLast2037));
    compareZone(run, &d, zone, instants, std::numeric_limits<time_t>::min(), [&](time_t at) {
      return !loads ? "beyond-reader-limits" : at < first ? "before-first-transition" : nullptr;
    });
  }
  unsetenv("TZ");
  run.figure("zones", names.size());
  run.figure("zones_beyond_limits", unreadable);
  d.report(run);
});

// A rule string in the library's grammar: names of 3 to 5 letters, offsets
// of up to 24 hours, rules Jn, n or Mm.w.d with an optional time.
std::string randomRule(Run& run) {
  auto name = [&] {
    std::string s;
    for (long i = run.random(3, 5); i > 0; --i) s += static_cast<char>('A' + run.random(0, 25));
    return s;
  };
  auto offset = [&](bool sign) {
    std::string s = !sign ? "" : run.random(0, 2) == 0 ? "-" : run.random(0, 1) ? "+" : "";
    s += std::to_string(run.random(0, 24));
    if (run.random(0, 2) == 0) s += named(":", run.random(0, 59));
    if (run.random(0, 4) == 0) s += named(":", run.random(0, 59));
    return s;
  };
  auto date = [&] {
    long kind = run.random(0, 2);
    std::string s = kind == 0   ? named("J", run.random(1, 365))
                    : kind == 1 ? std::to_string(run.random(0, 365))
                                : named("M", run.random(1, 12)) + named(".", run.random(1, 5)) +
                                      named(".", run.random(0, 6));
    return run.random(0, 1) == 0 ? s + "/" + offset(false) : s;
  };
  std::string s = name() + offset(true);
  if (run.random(0, 4) == 0) return s;
  s += name();
  if (run.random(0, 2) == 0) s += offset(true);
  return s + "," + date() + "," + date();
}

Scenario rules("diff-rules", [](Run& run) {
  long generated = run.size("generated", 2000, 50000);
  long random = run.size("random_per_rule", 50, 500);
  std::set<std::string> strings;
  for (const std::string& zone : zoneFiles()) {
    std::string bytes = zoneBytes(zone);
    size_t start = bytes.size() > 1 && bytes.back() == '\n' ? bytes.rfind('\n', bytes.size() - 2)
                                                            : std::string::npos;
    if (start != std::string::npos && start + 2 < bytes.size())
      strings.insert(bytes.substr(start + 1, bytes.size() - start - 2));
  }
  size_t footers = strings.size();
  for (long i = 0; i < generated; ++i) strings.insert(randomRule(run));
  Differences d;
  long outside = 0;
  auto zd = std::make_unique<zar::utc::ZoneData>();
  for (const std::string& s : strings) {
    bool parses = zar::utc::tzparse(zd.get(), s.c_str(), false) == 0;
    int count = parses ? zd->timecnt : 0;
    outside += !parses;
    std::set<time_t> instants(zd->ats, zd->ats + count);
    for (long i = 0; i < random; ++i) instants.insert(run.random(0, kLast2037));
    time_t first = count > 0 ? zd->ats[0] : 0;
    // Start after end in some years (same type twice in a row), or a
    // transition outside the year it was computed for.
    bool swaps = false, leaves = false;
    for (int i = 0; i < count; ++i) {
      swaps = swaps || (i > 0 && zd->types[i] == zd->types[i - 1]);
      struct tm jan = {};
      jan.tm_year = 70 + i / 2;
      jan.tm_mday = 1;
      time_t from = timegm(&jan);
      ++jan.tm_year;
      leaves = leaves || zd->ats[i] < from || zd->ats[i] >= timegm(&jan);
    }
    compareZone(run, &d, s, instants, 0, [&](time_t at) {
      return !parses      ? "outside-rule-grammar"
             : at < first ? "before-first-transition"
             : swaps      ? "start-end-order-changes"
             : leaves     ? "transition-leaves-its-year"
                          : nullptr;
    });
  }
  unsetenv("TZ");
  run.figure("rule_strings", strings.size());
  run.figure("from_zone_files", footers);
  run.figure("outside_grammar", outside);
  d.report(run);
});

// The arguments of a format in the class the calling convention passes them
// in: integers and pointers in general registers, doubles in vector
// registers, long doubles in memory. va_arg takes each class in order
// independently of the others, so calling both engines with eight words,
// eight doubles (and, when a format has long doubles and at most three
// words, four long doubles) hands them the same arguments in any order.
struct Args {
  uint64_t w[8] = {};
  double d[8] = {};
  long double l[4] = {};
  int nw = 0, nd = 0, nl = 0;
  std::vector<std::string> strings;  // what %s arguments point to
  std::vector<int> stringWords;

  template <class F>
  int call(F f, char* buf, size_t size, const char* fmt) const {
    if (nl > 0)
      return f(buf, size, fmt, w[0], w[1], w[2], d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7],
               l[0], l[1], l[2], l[3]);
    return f(buf, size, fmt, w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], d[0], d[1], d[2], d[3],
             d[4], d[5], d[6], d[7]);
  }
};

// Appends one random conversion and its argument to fmt; returns the rule it
// falls under (null: none). strict leaves out everything a rule covers.
const char* addConversion(Run& run, bool strict, std::string* fmt, Args* a) {
  const Args saved = *a;
  auto again = [&] {  // this draw falls under a rule: draw another
    *a = saved;
    return addConversion(run, strict, fmt, a);
  };
  static const char kConv[] = "cdiouxXsfeEgGp%";
  char conv = kConv[run.random(0, sizeof kConv - 2)];
  if (conv == '%' && strict) conv = 'd';
  bool isFloat = strchr("feEgG", conv) != nullptr, isInt = strchr("diouxX", conv) != nullptr;
  const char* rule = nullptr;
  std::string spec = "%";
  for (char f : std::string("-+ #0'"))
    if (run.random(0, 4) == 0 && !(f == '#' && strchr("dics", conv))) spec += f;
  bool zero = spec.find('0') != std::string::npos && spec.find('-') == std::string::npos;
  if (conv == '%') {
    if (spec.size() > 1 || run.random(0, 1))
      rule = "percent-takes-width", spec += std::to_string(run.random(0, 9));
    *fmt += spec + "%";
    return rule;
  }
  if (strchr("csp", conv)) std::erase(spec, '0');
  if (conv == 'p') std::erase_if(spec, [](char c) { return c == '+' || c == ' '; });
  bool wantWidth = run.random(0, 2) == 0,
       wantPrec = run.random(0, 2) == 0 && conv != 'c' && conv != 'p';
  auto wordFree = [a] {
    return a->nw < (a->nl > 0 ? 3 : 8);
  };  // four long doubles take three words at most
  if (wantWidth && wordFree() && run.random(0, 3) == 0) {
    long w = run.random(strict ? 0 : -20, 20);
    if (w < 0 && !isFloat) rule = "negative-width-is-none";
    spec += "*";
    a->w[a->nw++] = static_cast<uint64_t>(w);
  } else if (wantWidth) {
    spec += std::to_string(run.random(1, 30));
  }
  long precision = -1;
  if (wantPrec && wordFree() && run.random(0, 3) == 0) {
    precision = run.random(strict || conv != 's' ? 0 : -3, 20);
    if (precision < 0) rule = "negative-precision-empty";
    spec += ".*";
    a->w[a->nw++] = static_cast<uint64_t>(precision);
  } else if (wantPrec) {
    precision = run.random(0, 20);
    spec += named(".", precision);
  }
  if (isFloat && zero && precision >= 0) rule = "precision-clears-zero";
  if (rule != nullptr && strict) return again();
  if (isFloat) {
    static const double kSpecial[] = {0.0,   -0.0,    1.0 / 0.0,    -1.0 / 0.0,
                                      1e300, -1e-300, 123456789.125};
    double v = run.random(0, 3) == 0 ? kSpecial[run.random(0, 6)]
                                     : static_cast<int64_t>(run.rng()()) / 1e9;
    if (a->nw <= 3 && a->nl < 4 && run.random(0, 5) == 0) {
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
  uint64_t v = run.random(0, 9) == 0 ? 0 : run.rng()() >> run.random(0, 63);
  uint64_t mask = 0xFFFFFFFFu;  // the bits of v that the conversion reads
  if (isInt) {
    std::string length = kLength[run.random(0, 5)];
    spec += length;
    mask = length.empty() ? 0xFFFFFFFFu : length == "h" ? 0xFFFFu : ~uint64_t{0};
  }
  if (conv == 's' && !strict && run.random(0, 50) == 0) {
    rule = "null-string-empty";
    v = 0;
  } else if (conv == 's') {
    std::string& text = a->strings.emplace_back();
    for (long i = run.random(0, 40); i > 0; --i) text += static_cast<char>(run.random(32, 126));
    a->stringWords.push_back(a->nw);  // pointed to once the strings stop moving
  } else if (conv == 'p' && !strict && run.random(0, 5) == 0) {
    rule = "null-pointer-empty";
    v = 0;
  } else if (conv == 'p') {
    v = std::max<uint64_t>(v, 1);
  } else if (conv == 'o' && spec.find('#') != std::string::npos && precision == 0 &&
             (v & mask) == 0) {
    if (strict)
      v = 1;
    else
      rule = "alt-octal-zero-empty";
  }
  a->w[a->nw++] = v;
  *fmt += spec + conv;
  return rule;
}

// Formats of one conversion (which may fall under a rule) or of several of
// the strict subset, into buffers of random size.
Scenario formats("diff-printf", [](Run& run) {
  long count = run.size("formats", 1000000, 20000000);
  Differences d;
  char mine[1024], theirs[1024];
  for (long i = 0; i < count; ++i) {
    Args a;
    std::string fmt;
    bool single = run.random(0, 9) < 7;
    const char* rule = nullptr;
    for (long k = single ? 1 : run.random(2, 6); k > 0; --k) {
      if (run.random(0, 2) == 0) fmt += "ab ";
      const char* r = addConversion(run, !single, &fmt, &a);
      rule = rule != nullptr ? rule : r;
    }
    for (size_t s = 0; s < a.strings.size(); ++s)
      a.w[a.stringWords[s]] = reinterpret_cast<uintptr_t>(a.strings[s].c_str());
    size_t size = run.random(0, 4) == 0 ? run.random(0, 40) : sizeof mine;
    memset(mine, 0x55, sizeof mine);
    memset(theirs, 0x55, sizeof theirs);
    int n1 = a.call(
        [](char* b, size_t s, const char* f, auto... x) { return zar_snprintf(b, s, f, x...); },
        mine, size, fmt.c_str());
    int n2 =
        a.call([](char* b, size_t s, const char* f, auto... x) { return snprintf(b, s, f, x...); },
               theirs, size, fmt.c_str());
    size_t written = size == 0 ? 0 : std::min<size_t>(std::max(n2, 0), size - 1) + 1;
    if (n1 == n2 && memcmp(mine, theirs, std::max<size_t>(written, 1)) == 0) continue;
    d.add(run, rule, [&] {
      return "format \"" + fmt + named("\": library ", n1) + " \"" +
             std::string(mine, std::min<size_t>(written, 80)) + named("\", C library ", n2) +
             " \"" + std::string(theirs, std::min<size_t>(written, 80)) + "\"";
    });
  }
  d.report(run);
});

// RFC 4648's vectors: the prefixes of "foobar".
Scenario base64("diff-base64", [](Run& run) {
  static const char* const kEncoded[] = {"",         "Zg==",     "Zm8=",    "Zm9v",
                                         "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  Differences d;
  for (size_t len = 0; len < std::size(kEncoded); ++len) {
    char text[32] = {};
    unsigned char back[32] = {};
    uint64_t got = 0;
    zar_base64_std_encode("foobar", len, text, sizeof text);
    zar_base64_std_decode(kEncoded[len], strlen(kEncoded[len]), back, &got);
    if (strcmp(text, kEncoded[len]) != 0 || got != len || memcmp(back, "foobar", len) != 0)
      d.add(run, nullptr, [&] { return named("length ", len, ": encoded \"") + text + "\""; });
  }
  run.figure("vectors", std::size(kEncoded));
  d.report(run);
});

}  // namespace
}  // namespace zar::stress
