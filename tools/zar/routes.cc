// zar routes: shows the routes in effect for each severity and each product
// component's debug messages, as the library would fill them in for this
// environment (SVC_* variables) and routing file (KP_SVC_ROUTING_FILE), and
// where each comes from. zar routes --check TEXT checks a route string, a
// severity setting (SEVERITY:ROUTES) or a debug setting
// (COMPONENT:LEVELS[:ROUTES]) and says what is wrong and where.
#include <ctype.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/zar/command.h"
#include "zar/svc.h"

namespace zar::tool {
namespace {

constexpr const char* kSeverities[] = {"FATAL", "ERROR", "WARNING", "NOTICE", "NOTICE_VERBOSE"};
constexpr const char* kStreamKinds[] = {"STDOUT", "STDERR", "XMLSTDOUT", "XMLSTDERR", "DISCARD"};
constexpr const char* kFileKinds[] = {"TEXTFILE", "FILE", "UTF8FILE", "XMLFILE"};

struct Component {
  const char* name;
  const zar_svc_subcomp* table;
};
const Component kComponents[] = {
    {"wsc", zarsv_client_svc_table}, {"wsd", zarsv_deploy_svc_table}, {"wsi", zarsv_if_svc_table}};

const Component* componentNamed(const std::string& name) {
  for (const Component& c : kComponents) {
    if (name == c.name) return &c;
  }
  return nullptr;
}

bool isSeverity(const std::string& name) {
  for (const char* s : kSeverities) {
    if (name == s) return true;
  }
  return false;
}

bool oneOf(const std::string& word, const char* const* list, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (word == list[i]) return true;
  }
  return false;
}

// Findings of a check: errors make the text unusable as meant; notes say
// what the library will do with something legal but likely unintended.
struct Checker {
  std::string text;
  int errors = 0;
  std::vector<std::string> lines;

  void error(size_t at, const std::string& what) {
    ++errors;
    lines.push_back("error at column " + std::to_string(at + 1) + ": " + what);
    lines.push_back("  " + text);
    lines.push_back("  " + std::string(at, ' ') + "^");
  }
  void note(const std::string& what) { lines.push_back("  " + what); }

  bool decimal(const std::string& s, bool sign) {
    size_t i = sign && !s.empty() && s[0] == '-' ? 1 : 0;
    if (i >= s.size()) return false;
    for (; i < s.size(); ++i) {
      if (s[i] < '0' || s[i] > '9') return false;
    }
    return true;
  }

  // One route element at offset at of text.
  void element(const std::string& e, size_t at) {
    std::vector<std::string> f;
    std::vector<size_t> off;
    size_t start = 0;
    for (;;) {
      size_t c = e.find(':', start);
      f.push_back(e.substr(start, c == std::string::npos ? std::string::npos : c - start));
      off.push_back(at + start);
      if (c == std::string::npos) break;
      start = c + 1;
    }
    if (f.size() < 2) {
      error(at + e.size(), "a route needs ':' after its kind (for example \"STDERR:\")");
      return;
    }
    std::string kind = f[0];
    std::string rotation;
    size_t dot = kind.find('.');
    if (dot != std::string::npos) {
      std::string rest = kind.substr(dot + 1);
      kind.resize(dot);
      size_t dot2 = rest.find('.');
      if (dot2 == std::string::npos) {
        error(at + e.find(':'),
              "GENS without LIMIT: write KIND.GENS.LIMIT (for example TEXTFILE.5.1000)");
        return;
      }
      std::string gens = rest.substr(0, dot2), limit = rest.substr(dot2 + 1);
      if (!decimal(gens, true) || !decimal(limit, true)) {
        error(at + dot + 1, "GENS and LIMIT must be decimal numbers");
        return;
      }
      long g = atol(gens.c_str()), l = atol(limit.c_str());
      if (g < 0 || l < 1)
        rotation = "never rotated";
      else
        rotation = "rotated every " + limit + " messages, " + std::to_string(g > 99 ? 99 : g) +
                   " generations kept";
      if (g > 99) note("more than 99 generations: 99 are kept");
    }
    const std::string& where = f[1];
    if (oneOf(kind, kStreamKinds, 5)) {
      note(kind + (rotation.empty() ? "" : " (the rotation fields do not apply)"));
    } else if (oneOf(kind, kFileKinds, 4)) {
      if (where.empty()) {
        error(off[1], "a file route needs a file name");
        return;
      }
      for (size_t i = 0; i < where.size(); ++i) {
        if (where[i] != '%') continue;
        if (where.compare(i, 2, "%d") == 0 || where.compare(i, 2, "%%") == 0) {
          ++i;
        } else if (where.compare(i, 3, "%ld") == 0) {
          i += 2;
        } else {
          error(off[1] + i, "only %d, %ld (the process id) and %% may appear in a file name");
          return;
        }
      }
      if (where.size() > 500) {
        error(off[1], "the file name is longer than 511 bytes once the process id is in");
        return;
      }
      std::string dir =
          where.substr(0, where.rfind('/') == std::string::npos ? 0 : where.rfind('/'));
      struct stat st;
      note(kind + " " + where +
           (rotation.empty() ? ", appended to, never rotated" : ", " + rotation));
      if (!dir.empty() && dir.find('%') == std::string::npos && stat(dir.c_str(), &st) != 0)
        note("the directory " + dir + " does not exist: the route writes to its fallback instead");
    } else if (kind == "GOESTO") {
      if (!isSeverity(where) && componentNamed(where) == nullptr)
        note("GOESTO " + where +
             ": no severity or product component of that name; other "
             "registered components only");
      else
        note("GOESTO " + where + ": the routes of " + where + " instead of the rest of this list");
    } else {
      std::string up = kind;
      for (char& c : up) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
      if (oneOf(up, kStreamKinds, 5) || oneOf(up, kFileKinds, 4) || up == "GOESTO") {
        error(at, "kind words are upper case: " + up);
        return;
      }
      if (kind.empty()) {
        error(at, "no kind before ':'");
        return;
      }
      note(kind +
           ": a route type the program registers at run time; until then the "
           "fallback (standard error or nowhere)");
    }
    if (f.size() > 2 && !f[2].empty()) {
      bool octal = f[2].find_first_not_of("01234567") == std::string::npos;
      if (!octal) {
        error(off[2], "MODE must be octal permission bits (for example 640)");
        return;
      }
      if (strtol(f[2].c_str(), nullptr, 8) >= 01000)
        note("MODE " + f[2] + " is 1000 or more: ignored");
    }
    if (f.size() > 3 && !f[3].empty() && getpwnam(f[3].c_str()) == nullptr)
      note("no user " + f[3] + ": the owner is left unchanged");
    if (f.size() > 4 && !f[4].empty() && getgrnam(f[4].c_str()) == nullptr)
      note("no group " + f[4] + ": the group is left unchanged");
    if (f.size() > 5) error(off[5] - 1, "too many fields: KIND:WHERE[:MODE[:USER[:GROUP]]]");
  }

  // A route string starting at offset at of text.
  void routes(size_t at) {
    std::string s = text.substr(at);
    if (s.empty()) {
      note("no routes");
      return;
    }
    size_t i = 0;
    while (i < s.size()) {
      size_t semi = s.find(';', i);
      std::string e = s.substr(i, semi == std::string::npos ? std::string::npos : semi - i);
      if (!e.empty()) element(e, at + i);
      if (semi == std::string::npos) break;
      i = semi + 1;
    }
  }

  // A level list "SUB.N,..." of component comp at offset at.
  void levels(const std::string& list, size_t at, const Component* comp) {
    size_t i = 0;
    while (i < list.size()) {
      size_t comma = list.find(',', i);
      std::string item = list.substr(i, comma == std::string::npos ? std::string::npos : comma - i);
      size_t dot = item.find('.');
      if (dot == std::string::npos) {
        error(at + i, "a level item is SUB.LEVEL (for example *.9 or core.3)");
        return;
      }
      std::string sub = item.substr(0, dot), level = item.substr(dot + 1);
      if (level.size() != 1 || level[0] < '0' || level[0] > '9') {
        error(at + i + dot + 1, "a debug level is one digit, 0 to 9");
        return;
      }
      if (sub != "*" && comp != nullptr) {
        bool known = false;
        for (uint32_t k = 0; comp->table[k].name != nullptr; ++k)
          known = known || sub == comp->table[k].name;
        if (!known) {
          error(at + i, "the component " + std::string(comp->name) + " has no sub-component " +
                            sub + " (zar log --list shows them)");
          return;
        }
      }
      note("level " + level + " for " + (sub == "*" ? "every sub-component" : sub));
      if (comma == std::string::npos) break;
      i = comma + 1;
    }
  }

  void check() {
    size_t colon = text.find(':');
    std::string first = text.substr(0, colon);
    std::string firstKind = first.substr(0, first.find('.'));
    if (colon == std::string::npos) {
      error(text.size(),
            "no ':' in the text: a route needs one after its kind (\"STDERR:\"), a "
            "setting after its severity or component name");
      return;
    }
    auto isKind = [](const std::string& w) {
      return oneOf(w, kStreamKinds, 5) || oneOf(w, kFileKinds, 4) || w == "GOESTO";
    };
    std::string upper = firstKind;
    for (char& ch : upper) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    if (!isKind(firstKind) && isKind(upper)) {
      error(0, "kind words are upper case: " + upper);
      return;
    }
    if (isKind(firstKind)) {
      lines.push_back("a route string");
      routes(0);
      return;
    }
    std::string rest = text.substr(colon + 1);
    std::string restFirst = rest.substr(0, rest.find(':'));
    // A level list ends in a digit; so may a kind with its rotation fields.
    bool debug = !restFirst.empty() && restFirst.back() >= '0' && restFirst.back() <= '9' &&
                 !isKind(restFirst.substr(0, restFirst.find('.')));
    if (!debug) {
      // SEVERITY:ROUTES; the severity may be abbreviated, as zar_svc_routing takes it.
      std::string sev;
      for (const char* s : kSeverities) {
        if (sev.empty() && !first.empty() && strncmp(s, first.c_str(), first.size()) == 0) sev = s;
      }
      if (first == "*") sev = "every severity";
      if (sev.empty()) {
        error(0, "'" + first +
                     "' is no severity (FATAL, ERROR, WARNING, NOTICE, NOTICE_VERBOSE) "
                     "and what follows is no level list");
        return;
      }
      lines.push_back("routes of " + sev);
      routes(colon + 1);
      return;
    }
    const Component* comp = componentNamed(first);
    lines.push_back("debug setting of " + (first == "*" ? std::string("every component") : first) +
                    (comp == nullptr && first != "*" ? " (not a product component)" : ""));
    size_t colon2 = rest.find(':');
    levels(rest.substr(0, colon2), colon + 1, comp);
    if (colon2 == std::string::npos) {
      note("no routes: the levels only (zar_svc_debug_set_levels)");
      return;
    }
    routes(colon + 1 + colon2 + 1);
  }
};

const char* sourceName(int source) {
  switch (source) {
    case ZAR_SVC_SOURCE_SAVED:
      return "set by the program";
    case ZAR_SVC_SOURCE_ENVIRONMENT:
      return "environment";
    case ZAR_SVC_SOURCE_FILE:
      return "routing file";
    case ZAR_SVC_SOURCE_DEFAULT:
      return "default";
  }
  return "none";
}

int show(const std::vector<std::string>& names) {
  int bad = 0;
  for (const std::string& name : names) {
    char* spec = nullptr;
    unsigned long st = 0;
    int source = zar_svc_inq_routing(name.c_str(), &spec, &st);
    if (st != 0) {
      fprintf(stderr, "zar routes: %s: status 0x%8.8lx\n", name.c_str(), st);
      return 1;
    }
    bool severity = isSeverity(name);
    if (spec == nullptr) {
      printf("%-15s %-13s (none: %s)\n", name.c_str(), sourceName(source),
             severity ? "" : "debug messages go nowhere");
      continue;
    }
    printf("%-15s %-13s %s\n", name.c_str(), sourceName(source), spec);
    Checker c;
    c.text = severity ? name + ":" + spec : name + ":" + spec;
    c.check();
    for (size_t i = 1; i < c.lines.size(); ++i) printf("%16s%s\n", "", c.lines[i].c_str());
    bad += c.errors;
    free(spec);
  }
  return bad == 0 ? 0 : 1;
}

int run(const Command& self, int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "--check") == 0) {
    Checker c;
    c.text = argv[2];
    c.check();
    for (const std::string& l : c.lines) printf("%s\n", l.c_str());
    printf("%s\n", c.errors == 0 ? "ok" : "not usable");
    return c.errors == 0 ? 0 : 1;
  }
  std::vector<std::string> names(std::begin(kSeverities), std::end(kSeverities));
  for (const Component& c : kComponents) names.push_back(c.name);
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '-') return usageError(self, "unknown option '%s'", argv[i]);
    names.push_back(argv[i]);  // further components
  }
  printf("%-15s %-13s %s\n", "name", "source", "routes");
  return show(names);
}

}  // namespace

ZAR_TOOL_COMMAND("routes", "[COMPONENT...] | --check TEXT",
                 "show the routes in effect for each severity and component, or check a route "
                 "string or debug setting",
                 run);

}  // namespace zar::tool
