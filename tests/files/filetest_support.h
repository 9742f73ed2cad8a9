// Helpers of the file stage tests: a scratch folder that removes itself, whole-file reads and
// writes, and a recorder of the lines that stages log.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "framework/console.h"

namespace sonvex::test {}
namespace sonvex::filestest {
using namespace ::sonvex::test;

class TScratchDir {
public:
  TScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sonvex-files-XXXXXX").string();
    path = mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~TScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
  std::filesystem::path path;
};

inline std::vector<uint8_t> ReadWhole(const std::string& name) {
  std::ifstream in(name, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::vector<uint8_t> bytes(size_t(in.tellg()));
  in.seekg(0);
  in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size()));
  return bytes;
}

inline void WriteWhole(const std::string& name, const std::vector<uint8_t>& bytes) {
  std::ofstream out(name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// A pattern that differs at every position of a few MiB, so that any shifted byte shows.
inline std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x = x * 1664525u + 1013904223u;
    b = uint8_t(x >> 24);
  }
  return bytes;
}

// Records the lines logged while it lives.
class TLogRecorder {
public:
  TLogRecorder() {
    SetLogHook([this](int level, const std::string& text) { lines.push_back({level, text}); });
  }
  ~TLogRecorder() { SetLogHook(nullptr); }
  bool Has(int level, const std::string& text) const {
    for (const auto& line : lines)
      if (line.first == level && line.second == text) return true;
    return false;
  }
  std::vector<std::pair<int, std::string>> lines;
};

}  // namespace sonvex::filestest
