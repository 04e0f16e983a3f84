// zar log: prints one serviceability message by status code, routed as the
// environment (SVC_* variables) and the routing file (KP_SVC_ROUTING_FILE)
// configure, or with --debug one debug message of a component, whose level
// and routes come from SVC_<COMPONENT>_DBG or the routing file. Each ARG
// becomes an argument of the type that the matching conversion of the
// message's text (or the debug format) takes.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <string>
#include <vector>

#include "tools/zar/command.h"
#include "zar/msg.h"
#include "zar/msginit.h"
#include "zar/svc.h"

namespace zar::tool {
namespace {

constexpr const char* kRecordFile = "tools/zar/log";

// The most arguments a message can take here (the product's texts take at
// most four; '*' widths add one each).
constexpr int kMaxArgs = 5;

// How an argument is passed: the four kinds of the variadic call.
enum class Kind { kInt, kLong, kDouble, kPointer };

// What the text's conversion of one argument index asks for.
enum class Want { kNone, kSigned, kUnsigned, kChar, kString, kWide, kPointer, kDouble };

struct Slot {
  Want want = Want::kNone;
  bool longSize = false;  // l, ll, q, j, z, t
};

union Value {
  int i;
  long l;
  double d;
  const void* p;
};

// Reads the conversions of a message text: the argument each one takes (by
// index, counting n$ and '*' arguments as the formatting does). Returns the
// highest index, or -1 for a conversion this command cannot pass (long
// double), with the reason in *why.
int scanText(const char* text, Slot slots[kMaxArgs + 1], std::string* why) {
  int next = 0;
  int highest = 0;
  auto take = [&](int index, Want want, bool longSize) {
    if (index < 1 || index > kMaxArgs) return false;
    if (slots[index].want == Want::kNone) slots[index] = Slot{want, longSize};
    if (index > highest) highest = index;
    return true;
  };
  auto number = [](const char** p) {
    int n = 0;
    while (**p >= '0' && **p <= '9') n = n * 10 + (*(*p)++ - '0');
    return n;
  };
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    int named = 0;
    const char* q = p;
    int digits = number(&q);
    if (digits > 0 && *q == '$') {
      named = digits;
      p = q + 1;
    }
    while (*p != '\0' && strchr(" #'+-0", *p) != nullptr) ++p;
    for (int part = 0; part < 2; ++part) {  // width, then precision
      if (part == 1) {
        if (*p != '.') break;
        ++p;
      }
      if (*p == '*') {
        ++p;
        const char* r = p;
        int m = number(&r);
        int index = (m > 0 && *r == '$') ? m : ++next;
        if (m > 0 && *r == '$') p = r + 1;
        next = index;
        if (!take(index, Want::kSigned, false)) {
          *why = "too many arguments";
          return -1;
        }
      } else {
        number(&p);
      }
    }
    bool longSize = false;
    bool longDouble = false;
    while (*p != '\0' && strchr("hlLqjzt", *p) != nullptr) {
      if (*p == 'L') longDouble = true;
      if (*p != 'h') longSize = true;
      ++p;
    }
    Want want;
    switch (*p) {
      case 'd':
      case 'i':
        want = Want::kSigned;
        break;
      case 'o':
      case 'u':
      case 'x':
      case 'X':
        want = Want::kUnsigned;
        break;
      case 'c':
        want = Want::kChar;
        break;
      case 'C':
        want = Want::kSigned;
        break;
      case 's':
        want = Want::kString;
        break;
      case 'S':
        want = Want::kWide;
        break;
      case 'p':
        want = Want::kPointer;
        break;
      case 'e':
      case 'E':
      case 'f':
      case 'g':
      case 'G':
        want = Want::kDouble;
        break;
      default:  // not a conversion the formatting knows: it takes nothing
        if (*p == '\0') --p;
        continue;
    }
    if (want == Want::kDouble && longDouble) {
      *why = "long double conversions are not supported";
      return -1;
    }
    if (want == Want::kDouble || want == Want::kString || want == Want::kWide ||
        want == Want::kChar || want == Want::kPointer)
      longSize = false;
    int index = named > 0 ? named : ++next;
    next = index;
    if (!take(index, want, longSize)) {
      *why = "too many arguments";
      return -1;
    }
  }
  return highest;
}

// Converts arg as its slot asks; false (with *why) for a bad number.
bool convert(const char* arg, const Slot& slot, Kind* kind, Value* value,
             std::vector<std::u16string>* wide, std::string* why) {
  long long sv = 0;
  unsigned long long uv = 0;
  switch (slot.want) {
    case Want::kNone:  // an index no conversion uses: pass it as an int
    case Want::kSigned:
    case Want::kUnsigned:
    case Want::kChar: {
      if (slot.want == Want::kChar && arg[0] != '\0' && arg[1] == '\0') {
        *kind = Kind::kInt;
        value->i = static_cast<unsigned char>(arg[0]);
        return true;
      }
      bool isSigned = parseSigned(arg, &sv);
      if (!isSigned && (slot.want == Want::kSigned || !parseUnsigned(arg, ~0ull, &uv))) {
        *why = std::string("'") + arg + "' is not a number";
        return false;
      }
      if (isSigned) uv = static_cast<unsigned long long>(sv);
      if (slot.longSize) {
        *kind = Kind::kLong;
        value->l = static_cast<long>(uv);
        return true;
      }
      bool fits = isSigned ? (sv >= -2147483648LL && sv <= 4294967295LL) : uv <= 0xFFFFFFFFull;
      if (!fits) {
        *why = std::string("'") + arg + "' does not fit the message's int argument";
        return false;
      }
      *kind = Kind::kInt;
      value->i = static_cast<int>(static_cast<unsigned>(uv));
      return true;
    }
    case Want::kDouble: {
      char* end = nullptr;
      errno = 0;
      double d = strtod(arg, &end);
      if (end == arg || *end != '\0' || errno == ERANGE) {
        *why = std::string("'") + arg + "' is not a number";
        return false;
      }
      *kind = Kind::kDouble;
      value->d = d;
      return true;
    }
    case Want::kPointer:
      if (!parseUnsigned(arg, ~0ull, &uv)) {
        *why = std::string("'") + arg + "' is not an address";
        return false;
      }
      *kind = Kind::kPointer;
      value->p = reinterpret_cast<const void*>(static_cast<uintptr_t>(uv));
      return true;
    case Want::kString:
      *kind = Kind::kPointer;
      value->p = arg;
      return true;
    case Want::kWide: {
      // The argument in the locale's code set, as 16-bit units.
      std::u16string units;
      mbstate_t state = {};
      const char* s = arg;
      size_t left = strlen(arg);
      while (left > 0) {
        wchar_t wc;
        size_t n = mbrtowc(&wc, s, left, &state);
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) {
          *why = std::string("'") + arg + "' is not text of the locale's code set";
          return false;
        }
        if (n == 0) break;
        uint32_t c = static_cast<uint32_t>(wc);
        if (c >= 0x10000) {
          c -= 0x10000;
          units.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
          units.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
        } else {
          units.push_back(static_cast<char16_t>(c));
        }
        s += n;
        left -= n;
      }
      wide->push_back(units);
      *kind = Kind::kPointer;
      value->p = nullptr;  // set once the vector no longer moves
      return true;
    }
  }
  return false;
}

struct Call {
  zar_svc_handle handle;
  const char* argtypes;
  uint32_t subcomp;
  uint32_t attributes;
  uint32_t code;
  uint32_t debugLevel;  // 1 to 9: a debug message of format; 0: the message code
  const char* format;
};

// Calls the print function with the arguments as their kinds say: one
// instance per sequence of kinds, up to kMaxArgs arguments.
template <class... Ts>
void printWith(const Call& c, const Kind* kinds, const Value* values, int n, Ts... done) {
  if constexpr (sizeof...(Ts) < kMaxArgs) {
    if (n > 0) {
      switch (*kinds) {
        case Kind::kInt:
          return printWith(c, kinds + 1, values + 1, n - 1, done..., values->i);
        case Kind::kLong:
          return printWith(c, kinds + 1, values + 1, n - 1, done..., values->l);
        case Kind::kDouble:
          return printWith(c, kinds + 1, values + 1, n - 1, done..., values->d);
        case Kind::kPointer:
          return printWith(c, kinds + 1, values + 1, n - 1, done..., values->p);
      }
    }
  }
  if (c.debugLevel != 0) {
    zar_svc__debug_withfile(c.handle, kRecordFile, __LINE__, c.subcomp, c.debugLevel, c.format,
                            done...);
  } else {
    zar_svc_printf_withfile(c.handle, kRecordFile, __LINE__, c.argtypes, c.subcomp, c.attributes,
                            c.code, done...);
  }
}

// The conversion that describes an argument in the record's argument types.
const char* typeOf(const Slot& slot) {
  switch (slot.want) {
    case Want::kUnsigned:
      return slot.longSize ? "%lu" : "%u";
    case Want::kChar:
      return "%c";
    case Want::kString:
      return "%s";
    case Want::kWide:
      return "%S";
    case Want::kPointer:
      return "%p";
    case Want::kDouble:
      return "%f";
    case Want::kNone:
    case Want::kSigned:
      break;
  }
  return slot.longSize ? "%ld" : "%d";
}

uint32_t severityOf(const char* name) {
  static const struct {
    const char* name;
    uint32_t sev;
  } kSeverities[] = {{"fatal", svc_c_sev_fatal},
                     {"error", svc_c_sev_error},
                     {"warning", svc_c_sev_warning},
                     {"notice", svc_c_sev_notice},
                     {"verbose", svc_c_sev_notice_verbose}};
  for (const auto& s : kSeverities) {
    if (strcmp(name, s.name) == 0) return s.sev;
  }
  return 0;
}

// The product's components and their sub-components by index, as --comp and
// --sub take them and as records name them.
int listComponents() {
  static const struct {
    const char* name;
    const zar_svc_subcomp* table;
  } kComponents[] = {{"wsc", zarsv_client_svc_table},
                     {"wsd", zarsv_deploy_svc_table},
                     {"wsi", zarsv_if_svc_table}};
  printf("%-10s %5s  %-12s %s\n", "component", "index", "sub", "description");
  for (const auto& c : kComponents) {
    for (uint32_t i = 0; c.table[i].name != nullptr; ++i)
      printf("%-10s %5u  %-12s %s\n", c.name, i, c.table[i].name, c.table[i].description);
  }
  return 0;
}

int runLog(const Command& self, int argc, char** argv) {
  if (argc >= 2 && strcmp(argv[1], "show") == 0) return runLogShow(argc - 1, argv + 1);
  if (argc == 2 && strcmp(argv[1], "--list") == 0) return listComponents();
  uint32_t severity = 0;
  const char* comp = "wsc";
  const char* subText = "0";
  unsigned long long debugLevel = 0;
  uint32_t extra = 0;
  int i = 1;
  for (; i < argc; ++i) {
    const char* a = argv[i];
    bool hasValue = i + 1 < argc;
    if (strcmp(a, "--sev") == 0 && hasValue) {
      severity = severityOf(argv[++i]);
      if (severity == 0) return usageError(self, "unknown severity '%s'", argv[i]);
    } else if (strcmp(a, "--debug") == 0 && hasValue) {
      if (!parseUnsigned(argv[++i], 9, &debugLevel) || debugLevel == 0)
        return usageError(self, "'%s' is not a debug level (1 to 9)", argv[i]);
    } else if (strcmp(a, "--comp") == 0 && hasValue) {
      comp = argv[++i];
      if (strcmp(comp, "wsc") != 0 && strcmp(comp, "wsd") != 0 && strcmp(comp, "wsi") != 0)
        return usageError(self, "unknown component '%s'", comp);
    } else if (strcmp(a, "--sub") == 0 && hasValue) {
      subText = argv[++i];
    } else if (strcmp(a, "--brief") == 0) {
      extra |= svc_c_action_brief;
    } else if (strcmp(a, "--stderr") == 0) {
      extra |= svc_c_route_stderr;
    } else if (strcmp(a, "--") == 0) {
      ++i;
      break;
    } else if (a[0] == '-' && a[1] != '\0' && !(a[1] >= '0' && a[1] <= '9')) {
      return usageError(self, "unknown option '%s'", a);
    } else {
      break;
    }
  }
  if (debugLevel != 0 && (severity != 0 || extra != 0))
    return usageError(self, "--debug takes no --sev, --brief or --stderr");
  if (severity == 0) severity = svc_c_sev_error;
  if (i >= argc)
    return usageError(self, debugLevel != 0 ? "no format given" : "no status code given");
  unsigned long long code = 0;
  if (debugLevel == 0 && !parseUnsigned(argv[i], 0xFFFFFFFFull, &code))
    return usageError(self, "'%s' is not a status code (decimal, or hexadecimal with 0x)", argv[i]);
  const char* format = argv[i];
  ++i;

  if (!zarmsg_init("zar", 0)) return 1;
  zar_svc_handle handle = strcmp(comp, "wsd") == 0   ? zarsv_deploy_svc_handle
                          : strcmp(comp, "wsi") == 0 ? zarsv_if_svc_handle
                                                     : zarsv_client_svc_handle;
  if (handle == nullptr) {
    fprintf(stderr, "zar log: the component %s could not be registered\n", comp);
    return 1;
  }
  // A sub-component by index or by name.
  unsigned long long sub = 0;
  if (!parseUnsigned(subText, 0xFFFFFFFFull, &sub)) {
    while (sub < handle->table_size && strcmp(handle->table[sub].name, subText) != 0) ++sub;
  }
  if (sub >= handle->table_size)
    return usageError(self, "the component %s has no sub-component %s", comp, subText);

  // The arguments follow the conversions of the text the message prints, or
  // of the debug format.
  Slot slots[kMaxArgs + 1];
  std::string why;
  int wanted;
  std::string what;
  if (debugLevel != 0) {
    wanted = scanText(format, slots, &why);
    what = "the format";
  } else {
    unsigned long st = 0;
    char* text = zar_msg_get_msg(static_cast<uint32_t>(code), &st);
    if (text == nullptr) {
      fprintf(stderr, "zar log: no memory for the message text\n");
      return 1;
    }
    wanted = scanText(text, slots, &why);
    free(text);
    char name[32];
    snprintf(name, sizeof name, "message 0x%8.8llx", code);
    what = name;
  }
  if (wanted < 0) return usageError(self, "%s: %s", what.c_str(), why.c_str());
  int given = argc - i;
  if (given != wanted)
    return usageError(self, "%s takes %d argument%s, %d given", what.c_str(), wanted,
                      wanted == 1 ? "" : "s", given);
  Kind kinds[kMaxArgs];
  Value values[kMaxArgs];
  std::vector<std::u16string> wide;
  wide.reserve(kMaxArgs);
  std::string argtypes;
  for (int k = 0; k < wanted; ++k) {
    if (!convert(argv[i + k], slots[k + 1], &kinds[k], &values[k], &wide, &why))
      return usageError(self, "%s", why.c_str());
  }
  // Wide texts are pointed at once the vector holding them is complete.
  size_t w = 0;
  for (int k = 0; k < wanted; ++k) {
    const Slot& slot = slots[k + 1];
    if (slot.want == Want::kWide) values[k].p = wide[w++].c_str();
    argtypes += typeOf(slot);
  }
  printWith(Call{handle, argtypes.c_str(), static_cast<uint32_t>(sub), severity | extra,
                 static_cast<uint32_t>(code), static_cast<uint32_t>(debugLevel), format},
            kinds, values, wanted);
  return 0;
}

}  // namespace

ZAR_TOOL_COMMAND("log",
                 "show [OPTIONS] PATH... | --list | [--sev fatal|error|warning|notice|verbose] "
                 "[--comp wsc|wsd|wsi] [--sub N|NAME] "
                 "[--brief] [--stderr] CODE [ARG...] | --debug LEVEL [--comp C] [--sub N|NAME] "
                 "FORMAT [ARG...]",
                 "read, filter and follow log files (show); list the components (--list); print "
                 "a serviceability or debug message, routed as configured",
                 runLog);

}  // namespace zar::tool
