// Base64 of 1 MiB: libzar's encoder and decoder against OpenSSL's
// EVP_EncodeBlock and EVP_DecodeBlock. Cases are named "zar/<case>" and
// "peer/<case>" so that the runner can put the pairs side by side.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "zar/util.h"

namespace {

constexpr size_t kInput = 1 << 20;

const std::vector<unsigned char>& input() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> d(kInput);
    std::mt19937 rng(1);
    for (auto& b : d) b = static_cast<unsigned char>(rng());
    return d;
  }();
  return data;
}

const std::string& encoded() {
  static const std::string text = [] {
    std::string t(ZAR_BASE64_ENCODED_SIZE(kInput), '\0');
    zar_base64_std_encode(input().data(), kInput, t.data(), t.size());
    t.pop_back();
    return t;
  }();
  return text;
}

void zarEncode(benchmark::State& state) {
  std::string out(ZAR_BASE64_ENCODED_SIZE(kInput), '\0');
  for (auto _ : state) {
    zar_base64_std_encode(input().data(), kInput, out.data(), out.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

void peerEncode(benchmark::State& state) {
  std::string out(ZAR_BASE64_ENCODED_SIZE(kInput), '\0');
  for (auto _ : state) {
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), input().data(), kInput);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

void zarDecode(benchmark::State& state) {
  const std::string& text = encoded();
  std::vector<unsigned char> out(ZAR_BASE64_DECODED_SIZE(text.size()));
  uint64_t n = 0;
  for (auto _ : state) {
    zar_base64_std_decode(text.data(), text.size(), out.data(), &n);
    benchmark::DoNotOptimize(out.data());
  }
  if (n != kInput) state.SkipWithError("decoded length is wrong");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

void peerDecode(benchmark::State& state) {
  const std::string& text = encoded();
  std::vector<unsigned char> out(ZAR_BASE64_DECODED_SIZE(text.size()));
  int n = 0;
  for (auto _ : state) {
    n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<int>(text.size()));
    benchmark::DoNotOptimize(out.data());
  }
  // EVP_DecodeBlock counts the padding bytes too: 1 MiB is 349,526 groups
  // with one byte of padding.
  if (n < static_cast<int>(kInput)) state.SkipWithError("peer decode failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

BENCHMARK(zarEncode)->Name("zar/base64_encode_1MiB");
BENCHMARK(peerEncode)->Name("peer/base64_encode_1MiB");
BENCHMARK(zarDecode)->Name("zar/base64_decode_1MiB");
BENCHMARK(peerDecode)->Name("peer/base64_decode_1MiB");

}  // namespace

BENCHMARK_MAIN();
