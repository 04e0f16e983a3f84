// Base64 in both alphabets: the tails, white space and characters outside
// the alphabet, buffers too small. Round trips of random bytes: the base64
// fuzz target; the RFC 4648 vectors: diff-base64.
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/testutil/testutil.h"
#include "zar/util.h"

namespace {

enum class Alpha { kStd, kUri };

std::string encode(Alpha a, const std::string& in) {
  std::string out(ZAR_BASE64_ENCODED_SIZE(in.size()), '\x7f');
  (a == Alpha::kStd ? zar_base64_std_encode : zar_base64_uri_encode)(in.data(), in.size(),
                                                                     out.data(), out.size());
  EXPECT_EQ('\0', out.back());
  out.pop_back();
  return out;
}

// Decodes into a heap block of exactly the documented size, so that the
// address sanitizer sees any write past it.
std::string decode(Alpha a, const std::string& text) {
  size_t room = ZAR_BASE64_DECODED_SIZE(text.size());
  uint8_t* out = room == 0 ? nullptr : new uint8_t[room];
  uint64_t n = 99;
  (a == Alpha::kStd ? zar_base64_std_decode : zar_base64_uri_decode)(text.data(), text.size(), out,
                                                                     &n);
  std::string r = room == 0 ? std::string() : std::string(reinterpret_cast<char*>(out), n);
  EXPECT_LE(n, room);
  delete[] out;
  return r;
}

const Alpha S = Alpha::kStd, U = Alpha::kUri;
const std::string kFox = "The quick brown fox jumps over the lazy dog";
const std::string kFoxText = "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZ";

TEST(Base64, EncodesAsTheTable) {
  const struct {
    Alpha alpha;
    std::string in, text;
  } cases[] = {
      {S, "", ""}, {S, "A", "QQ=="}, {S, "AB", "QUI="}, {S, "ABC", "QUJD"},
      {S, "\xff\xff\xff", "////"}, {U, "\xff\xff\xff", "----"}, {U, "\xfb\xef\xbe", "++++"},
      {S, std::string("\0\0\0\0", 4), "AAAAAA=="},
      // Long enough for the wide loop, with every tail length.
      {S, kFox, kFoxText + "w=="}, {S, kFox + ".", kFoxText + "y4="}, {S, kFox + "..", kFoxText + "y4u"}};
  for (const auto& c : cases) EXPECT_EQ(c.text, encode(c.alpha, c.in)) << c.text;
}

TEST(Base64, DecodesAndSkipsWhatIsNotInTheAlphabet) {
  const struct {
    Alpha alpha;
    std::string text, out;
  } cases[] = {
      {S, "", ""}, {S, "QQ==", "A"}, {S, "QUI=", "AB"}, {S, "QUJD", "ABC"}, {S, "QUJDRA", "ABCD"},
      {S, "QUJDREU", "ABCDE"}, {S, "QU JD", "ABC"}, {S, "QUJD\n", "ABC"},
      {S, "Q", ""},             // one value gives no whole byte
      {S, "QUJD=QUJD", "ABC"},  // '=' ends everything
      {S, "=QUJD", ""},
      {S, "QU-JD", "ABC"},  // '-' is not in the standard alphabet
      {U, "QU/JD", "ABC"},  // '/' is not in the URI alphabet
      {U, "----", "\xff\xff\xff"},
      {S, "QU\xc3\xa9JD", "ABC"},  // bytes with the top bit set
      {S, " \t\r\n", ""},
      // Wide-loop lengths with a bad character in the second half of a block.
      {S, "QUJDQUJDQUJDQU*JDQUJD", "ABCABCABCABCABC"}, {S, kFoxText + "w==", kFox},
      {U, "QUJDQUJD\r\nQUJDQUJDQUJD QUJD", "ABCABCABCABCABCABC"}};
  for (const auto& c : cases) EXPECT_EQ(c.out, decode(c.alpha, c.text)) << c.text;
  char buf[8] = "xxxxxxx";  // too small or null buffers get nothing
  zar_base64_std_encode("ABC", 3, buf, 4);  // 5 bytes are needed
  EXPECT_STREQ("xxxxxxx", buf);
  zar_base64_std_encode("ABC", 3, nullptr, 5);
  uint64_t n = 7;
  zar_base64_std_decode(nullptr, 4, buf, &n);
  EXPECT_EQ(0u, n);
  n = 7;
  zar_base64_std_decode("QUJD", 4, nullptr, &n);
  EXPECT_EQ(0u, n);
}

}  // namespace
