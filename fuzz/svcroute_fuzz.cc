// Fuzz target of the serviceability's configuration texts. Byte 0 chooses
// what the rest is: a route setting for zar_svc_routing, the routing file
// (looked up for every severity and a component), a level list for
// zar_svc_debug_set_levels, or a debug setting for zar_svc_debug_routing.
// Then a severity message and a debug message go through whatever routes
// resulted. Log files are kept in a directory of the target's own: every
// '/' of the input becomes '_'.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/svcutl/svcint.h"
#include "zar/svc.h"

namespace {

std::string gDir;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/svcfuzz.XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr || chdir(tmpl.c_str()) != 0) abort();
  gDir = tmpl;
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(gDir, ec);
  });
  if (freopen("/dev/null", "w", stdout) == nullptr) abort();
  unsigned long st = 0;
  zar_svc_init(0, &st);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 4096) return 0;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  for (char& c : text) {
    if (c == '/') c = '_';
    if (c == '\0') c = ' ';
  }
  unsigned long st = 0;
  switch (data[0] % 4) {
    case 0:
      zar_svc_routing(text.c_str(), &st);
      break;
    case 1: {
      FILE* f = fopen("routing", "w");
      if (f == nullptr) return 0;
      fputs(text.c_str(), f);
      fclose(f);
      setenv("KP_SVC_ROUTING_FILE", "routing", 1);
      for (const char* name : {"FATAL", "ERROR", "WARNING", "NOTICE", "NOTICE_VERBOSE", "wsc", "x"})
        free(zar_svc__linefor(name));
      unsetenv("KP_SVC_ROUTING_FILE");
      break;
    }
    case 2:
      zar_svc_debug_set_levels(("wsc:" + text).c_str(), &st);
      break;
    default:
      zar_svc_debug_routing(text.c_str(), &st);
  }
  zar_svc_printf_withfile(zarsv_client_svc_handle, "f.cc", 1, "%s%d", 0, svc_c_sev_notice,
                          0x38C5209C, "fuzz", 1);
  zar_svc__debug(zarsv_client_svc_handle, 0, 5, "debug %s", "fuzz");
  return 0;
}
