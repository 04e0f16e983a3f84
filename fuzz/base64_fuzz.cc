// Fuzz target for the base64 decoder: arbitrary text is decoded with both
// alphabets into a heap block of exactly the documented room (3 bytes per 4
// characters, rounded up), and the input bytes are encoded and decoded back.
// The first byte selects the alphabet.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zar/util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool uri = (data[0] & 1) != 0;
  const char* text = reinterpret_cast<const char*>(data + 1);
  const uint64_t len = size - 1;
  auto decodeFn = uri ? zar_base64_uri_decode : zar_base64_std_decode;
  auto encodeFn = uri ? zar_base64_uri_encode : zar_base64_std_encode;

  // Decoding arbitrary text stays within its room and reports no more bytes
  // than that.
  uint64_t room = ZAR_BASE64_DECODED_SIZE(len);
  uint8_t* out = static_cast<uint8_t*>(malloc(room == 0 ? 1 : room));
  uint64_t n = 0;
  decodeFn(text, len, out, &n);
  if (n > room) abort();
  free(out);

  // Encoding then decoding gives the bytes back.
  uint64_t textSize = ZAR_BASE64_ENCODED_SIZE(len);
  char* enc = static_cast<char*>(malloc(textSize));
  encodeFn(text, len, enc, textSize);
  if (strlen(enc) != textSize - 1) abort();
  uint64_t backRoom = ZAR_BASE64_DECODED_SIZE(textSize - 1);
  uint8_t* back = static_cast<uint8_t*>(malloc(backRoom == 0 ? 1 : backRoom));
  uint64_t backLen = 0;
  decodeFn(enc, textSize - 1, back, &backLen);
  if (backLen != len || memcmp(back, text, len) != 0) abort();
  free(back);
  free(enc);
  return 0;
}
