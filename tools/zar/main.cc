// zar: the administration tool of libzar. Dispatches to the subcommands that
// the other files of this directory register.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "tools/zar/command.h"

namespace zar::tool {
namespace {

std::vector<Command>& registry() {
  static std::vector<Command> commands;
  return commands;
}

void printHelp(FILE* out) {
  fprintf(out,
          "usage: zar COMMAND [ARGS...]\n       zar COMMAND --help\n       zar --version\n\n"
          "commands:\n");
  std::vector<Command> sorted = registry();
  std::sort(sorted.begin(), sorted.end(),
            [](const Command& a, const Command& b) { return strcmp(a.name, b.name) < 0; });
  for (const Command& c : sorted) fprintf(out, "  %-10s %s\n", c.name, c.summary);
}

}  // namespace

bool registerCommand(const Command& cmd) {
  registry().push_back(cmd);
  return true;
}

void printUsage(const Command& cmd) {
  printf("usage: zar %s %s\n", cmd.name, cmd.synopsis);
}

int usageError(const Command& cmd, const char* fmt, ...) {
  fprintf(stderr, "zar %s: ", cmd.name);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fprintf(stderr, "\nusage: zar %s %s\n", cmd.name, cmd.synopsis);
  return 2;
}

bool parseUnsigned(const char* text, unsigned long long max, unsigned long long* out) {
  if (text == nullptr || *text == '\0' || *text == '-' || *text == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = strtoull(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

bool parseSigned(const char* text, long long* out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return false;
  *out = v;
  return true;
}

}  // namespace zar::tool

int main(int argc, char** argv) {
  using zar::tool::Command;
  if (argc < 2) {
    zar::tool::printHelp(stderr);
    return 2;
  }
  if (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "version") == 0) {
    printf("zar (libzar) %s\n", ZAR_TOOL_VERSION);
    return 0;
  }
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
      strcmp(argv[1], "help") == 0) {
    zar::tool::printHelp(stdout);
    return 0;
  }
  for (const Command& c : zar::tool::registry()) {
    if (strcmp(c.name, argv[1]) != 0) continue;
    if (argc >= 3 && strcmp(argv[2], "--help") == 0) {
      zar::tool::printUsage(c);
      printf("%s\n", c.summary);
      return 0;
    }
    return c.run(c, argc - 1, argv + 1);
  }
  fprintf(stderr, "zar: unknown command '%s'\n", argv[1]);
  zar::tool::printHelp(stderr);
  return 2;
}
