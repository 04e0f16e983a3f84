// zar base64 [--decode] [--uri]: base64 filter from standard input to
// standard output. Encoding writes one line (the text and a line feed);
// decoding skips white space and stops at the first '='.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "tools/zar/command.h"
#include "zar/util.h"

namespace zar::tool {
namespace {

bool readAll(FILE* in, std::string* out) {
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, in)) > 0) out->append(buf, n);
  return !ferror(in);
}

int runBase64(const Command& self, int argc, char** argv) {
  bool decode = false, uri = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--decode") == 0 || strcmp(argv[i], "-d") == 0) {
      decode = true;
    } else if (strcmp(argv[i], "--uri") == 0 || strcmp(argv[i], "-u") == 0) {
      uri = true;
    } else {
      return usageError(self, "unknown argument '%s'", argv[i]);
    }
  }
  std::string input;
  if (!readAll(stdin, &input)) {
    fprintf(stderr, "zar base64: cannot read standard input: %s\n", strerror(errno));
    return 1;
  }
  std::string output;
  if (decode) {
    output.resize(ZAR_BASE64_DECODED_SIZE(input.size()));
    uint64_t n = 0;
    (uri ? zar_base64_uri_decode : zar_base64_std_decode)(input.data(), input.size(), output.data(),
                                                          &n);
    output.resize(n);
  } else {
    output.resize(ZAR_BASE64_ENCODED_SIZE(input.size()));
    (uri ? zar_base64_uri_encode : zar_base64_std_encode)(input.data(), input.size(), output.data(),
                                                          output.size());
    output.back() = '\n';  // the NUL becomes the line end
  }
  if (fwrite(output.data(), 1, output.size(), stdout) != output.size() || fflush(stdout) != 0) {
    fprintf(stderr, "zar base64: cannot write standard output: %s\n", strerror(errno));
    return 1;
  }
  return 0;
}

}  // namespace

ZAR_TOOL_COMMAND("base64", "[--decode] [--uri]",
                 "base64-encode standard input (or decode it with --decode; --uri: URI alphabet)",
                 runBase64);

}  // namespace zar::tool
