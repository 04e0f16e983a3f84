#include <stdint.h>
#include <string.h>

#include <random>
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
  if (room == 0) {
    EXPECT_EQ(0u, n);
  }
  return r;
}

struct EncodeCase {
  Alpha alpha;
  std::string in;
  std::string text;
};

class Base64Encode : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(Base64Encode, GivesTheText) {
  EXPECT_EQ(GetParam().text, encode(GetParam().alpha, GetParam().in));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Base64Encode,
    ::testing::Values(EncodeCase{Alpha::kStd, "", ""}, EncodeCase{Alpha::kStd, "A", "QQ=="},
                      EncodeCase{Alpha::kStd, "AB", "QUI="}, EncodeCase{Alpha::kStd, "ABC", "QUJD"},
                      EncodeCase{Alpha::kStd, "\xff\xff\xff", "////"},
                      EncodeCase{Alpha::kUri, "\xff\xff\xff", "----"},
                      EncodeCase{Alpha::kUri, "\xfb\xef\xbe", "++++"},
                      EncodeCase{Alpha::kStd, std::string("\0\0\0\0", 4), "AAAAAA=="},
                      // Long enough for the wide loop, with every tail length.
                      EncodeCase{Alpha::kStd, "The quick brown fox jumps over the lazy dog",
                                 "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZw=="},
                      EncodeCase{Alpha::kStd, "The quick brown fox jumps over the lazy dog.",
                                 "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZy4="},
                      EncodeCase{Alpha::kStd, "The quick brown fox jumps over the lazy dog..",
                                 "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZy4u"}));

struct DecodeCase {
  Alpha alpha;
  std::string text;
  std::string out;
};

class Base64Decode : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Base64Decode, GivesTheBytes) {
  EXPECT_EQ(GetParam().out, decode(GetParam().alpha, GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Table, Base64Decode,
    ::testing::Values(
        DecodeCase{Alpha::kStd, "", ""}, DecodeCase{Alpha::kStd, "QQ==", "A"},
        DecodeCase{Alpha::kStd, "QUI=", "AB"}, DecodeCase{Alpha::kStd, "QUJD", "ABC"},
        DecodeCase{Alpha::kStd, "QUJDRA", "ABCD"}, DecodeCase{Alpha::kStd, "QUJDREU", "ABCDE"},
        DecodeCase{Alpha::kStd, "QU JD", "ABC"}, DecodeCase{Alpha::kStd, "QUJD\n", "ABC"},
        DecodeCase{Alpha::kStd, "Q", ""},             // one value gives no whole byte
        DecodeCase{Alpha::kStd, "QUJD=QUJD", "ABC"},  // '=' ends everything
        DecodeCase{Alpha::kStd, "=QUJD", ""},
        DecodeCase{Alpha::kStd, "QU-JD", "ABC"},  // '-' is not in the standard alphabet
        DecodeCase{Alpha::kUri, "QU/JD", "ABC"},  // '/' is not in the URI alphabet
        DecodeCase{Alpha::kUri, "----", "\xff\xff\xff"},
        DecodeCase{Alpha::kStd, "QU\xc3\xa9JD", "ABC"},  // bytes with the top bit set
        DecodeCase{Alpha::kStd, " \t\r\n", ""},
        // Wide-loop lengths with a bad character in the second half of a block.
        DecodeCase{Alpha::kStd, "QUJDQUJDQUJDQU*JDQUJD", "ABCABCABCABCABC"},
        DecodeCase{Alpha::kStd, "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVyIHRoZSBsYXp5IGRvZw==",
                   "The quick brown fox jumps over the lazy dog"}));

TEST(Base64, TooSmallOrNullBuffersGetNothing) {
  char buf[8] = "xxxxxxx";
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

// Every length from 0 to 200 in both alphabets round-trips, also with white
// space between the characters (which moves groups off the fast path).
TEST(Base64, RandomBytesRoundTripWithAndWithoutWhiteSpace) {
  std::mt19937 rng(7);
  for (Alpha a : {Alpha::kStd, Alpha::kUri}) {
    for (size_t len = 0; len <= 200; ++len) {
      std::string in(len, '\0');
      for (char& c : in) c = static_cast<char>(rng());
      std::string text = encode(a, in);
      ASSERT_EQ(in, decode(a, text)) << "length " << len;
      std::string spaced;
      for (size_t i = 0; i < text.size(); ++i) {
        spaced += text[i];
        if (rng() % 5 == 0) spaced += (rng() % 2) ? "\r\n" : " ";
      }
      ASSERT_EQ(in, decode(a, spaced)) << "length " << len;
    }
  }
}

}  // namespace
