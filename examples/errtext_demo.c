/*
 * errtext_demo: prints the texts of a few status codes, as a program that
 * reports failures would: in the user's locale (from the environment), once
 * in the locale's code set and once in UTF-8.
 *
 *   errtext_demo [CODE...]      codes in decimal or 0x hexadecimal
 */
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>

#include <zar/zar.h>

int main(int argc, char** argv) {
  static const uint32_t defaults[] = {ZAR_S_NO_MEMORY, ZAR_S_STZ_NOT_OPEN, ZAR_S_MSG_CAT_NOT_FOUND,
                                      ZAR_S_OK};
  int count = argc > 1 ? argc - 1 : (int)(sizeof defaults / sizeof defaults[0]);
  int missing = 0;
  int i;
  setlocale(LC_ALL, "");
  for (i = 0; i < count; ++i) {
    uint32_t code = argc > 1 ? (uint32_t)strtoul(argv[i + 1], NULL, 0) : defaults[i];
    zar_error_string_t text;
    int status;
    zar_error_inq_text(code, text, &status);
    printf("%s\n", text);
    if (status != 0) ++missing;
    zar_error_inq_text_utf8(code, text, &status);
    printf("  UTF-8: %s\n", text);
  }
  return missing == 0 ? 0 : 1;
}
