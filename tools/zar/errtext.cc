// zar errtext: prints the text of status codes, one line per code.
#include <locale.h>
#include <stdio.h>
#include <string.h>

#include "tools/zar/command.h"
#include "zar/msg.h"

namespace zar::tool {
namespace {

int runErrtext(const Command& self, int argc, char** argv) {
  bool utf8 = false;
  int first = 1;
  for (; first < argc; ++first) {
    const char* a = argv[first];
    if (strcmp(a, "--utf8") == 0) {
      utf8 = true;
    } else if (strcmp(a, "--") == 0) {
      ++first;
      break;
    } else if (a[0] == '-' && a[1] != '\0') {
      return usageError(self, "unknown option '%s'", a);
    } else {
      break;
    }
  }
  if (first >= argc) return usageError(self, "no status code given");
  // Codes are checked before anything is printed: bad usage prints no texts.
  for (int i = first; i < argc; ++i) {
    unsigned long long v;
    if (!parseUnsigned(argv[i], 0xFFFFFFFFull, &v))
      return usageError(self, "'%s' is not a status code (decimal, or hexadecimal with 0x)",
                        argv[i]);
  }
  setlocale(LC_ALL, "");
  int result = 0;
  for (int i = first; i < argc; ++i) {
    unsigned long long v = 0;
    parseUnsigned(argv[i], 0xFFFFFFFFull, &v);
    zar_error_string_t text;
    int status = 0;
    if (utf8)
      zar_error_inq_text_utf8(static_cast<uint32_t>(v), text, &status);
    else
      zar_error_inq_text(static_cast<uint32_t>(v), text, &status);
    printf("0x%8.8llx: %s\n", v, text);
    if (status != 0) result = 1;
  }
  return result;
}

}  // namespace

ZAR_TOOL_COMMAND("errtext", "[--utf8] CODE...",
                 "print the text of status codes (0x hexadecimal or decimal)", runErrtext);

}  // namespace zar::tool
