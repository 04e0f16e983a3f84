/* Starts a program the way every program of the product starts: one
 * zarmsg_init call, then user-facing text by message number. Also makes a
 * UUID and encodes a few bytes in base64.
 * Usage: msgdemo [NAME] */
#include <stdio.h>
#include <stdlib.h>

#include <zar/zar.h>

int main(int argc, char** argv) {
  const char* name = argc > 1 ? argv[1] : "msgdemo";
  if (zarmsg_init("msgdemo", 0) != 1) return 1;

  /* Message 189 of the deploy component: "%s version %s, build %s". */
  zar_pgm_printf(0x38C530BDU, name, "1.0.0", "demo");

  kp_uuid_t id;
  uint64_t st = 0;
  char* text = NULL;
  kp_uuid_create(&id, &st);
  if (st == 0) kp_uuid_to_string(&id, &text, &st);
  if (st != 0) {
    char buf[ZAR_ERROR_STRING_LEN];
    zar_error_inq_text((uint32_t)st, buf, NULL);
    fprintf(stderr, "msgdemo: %s\n", buf);
    return 1;
  }
  printf("a new UUID: %s\n", text);
  kp_uuid_string_free(&text, &st);

  char b64[ZAR_BASE64_ENCODED_SIZE(5)];
  zar_base64_std_encode("libzar", 6, b64, sizeof b64);
  printf("base64 of \"libzar\": %s\n", b64);
  return 0;
}
