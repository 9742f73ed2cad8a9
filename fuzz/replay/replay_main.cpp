// Replays kept fuzz inputs through a fuzz target without libFuzzer: every regular file under the
// folders named on the command line (missing folders are fine) is read whole and handed to
// LLVMFuzzerTestOneInput once. A fault shows as the sanitizers or the operating system report it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  int count = 0;
  for (int i = 1; i < argc; i++) {
    std::error_code error;
    if (!fs::is_directory(argv[i], error)) continue;
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(argv[i]))
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
      // libFuzzer never hands over a null pointer, not even for an empty input.
      static const uint8_t empty = 0;
      LLVMFuzzerTestOneInput(bytes.empty() ? &empty : bytes.data(), bytes.size());
      count++;
    }
  }
  std::printf("replayed %d inputs\n", count);
  return 0;
}
