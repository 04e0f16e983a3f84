// Run by secenv_test, set-user-ID and not: a program built on the library
// that uses every environment variable a privileged process must ignore.
#include <stdio.h>

#include "zar/zar.h"

// The leak checker cannot run in a set-user-ID process, and the sanitizer
// ignores ASAN_OPTIONS there.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0";
}

int main() {
  zarmsg_init("secenv_probe", 0);
  zar_svc_printf_withfile(zarsv_client_svc_handle, "probe", 1, "", 0, svc_c_sev_error, 0x38C52097);
  zar_svc_printf_withfile(zarsv_client_svc_handle, "probe", 2, "", 0, svc_c_sev_warning,
                          0x38C52097);
  zar_svc__debug(zarsv_client_svc_handle, 0, 1, "probe debug");
  utc_t now;
  char text[64];
  zar_utc_gettime(&now);
  zar_utc_asclocaltime(text, sizeof text, &now);
  return 0;
}
