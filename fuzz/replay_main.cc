// Runs a fuzz target's LLVMFuzzerTestOneInput over files and directories given
// on the command line (a corpus replay), for builds without libFuzzer. Exits 0
// when every input ran; a crash or sanitizer report ends the process.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> files;
  std::error_code ec;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i], ec)) {
      if (fs::exists(argv[i], ec)) files.push_back(argv[i]);
      continue;
    }
    for (const auto& e : fs::recursive_directory_iterator(argv[i], ec))
      if (!e.is_directory(ec)) files.push_back(e.path().string());
  }
  for (const std::string& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    std::string data = ss.str();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  }
  printf("replayed %zu inputs\n", files.size());
  return 0;
}
