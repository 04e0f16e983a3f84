// Fuzz target for the UUID text parser: any text either parses into a UUID
// whose text form parses back to the same UUID, or is refused with one of the
// parser's two statuses and leaves the output untouched.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "zar/status.h"
#include "zar/uuid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);  // NUL-terminated copy
  kp_uuid_t u;
  memset(&u, 0xA5, sizeof u);
  const kp_uuid_t before = u;
  uint64_t st = 1;
  kp_uuid_from_string(text.c_str(), &u, &st);
  if (st != 0) {
    if (st != ZAR_S_UUID_BAD_TEXT && st != ZAR_S_UUID_BAD_VARIANT) abort();
    if (memcmp(&u, &before, sizeof u) != 0) abort();
    return 0;
  }
  char* s = nullptr;
  kp_uuid_to_string(&u, &s, &st);
  if (st != 0 || s == nullptr || strlen(s) != KP_UUID_STRING_LEN) abort();
  kp_uuid_t back;
  kp_uuid_from_string(s, &back, &st);
  if (st != 0 || kp_uuid_equal(&u, &back, &st) != 1) abort();
  kp_uuid_string_free(&s, &st);
  return 0;
}
