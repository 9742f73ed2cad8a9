// Helpers of the codec tests: files in and out, and ffmpeg as the oracle of decodes.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/capture.h"

namespace sonvex::test {}
namespace sonvex::codecstest {
using namespace ::sonvex::test;

inline std::string CorpusPath(const std::string& relative) {
  return std::string(SONVEX_CORPUS) + "/" + relative;
}

inline bool HaveCorpus() { return std::filesystem::is_directory(SONVEX_CORPUS); }

inline std::vector<uint8_t> ReadFile(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

inline void WriteFile(const std::string& name, const std::vector<uint8_t>& data) {
  std::ofstream file(name, std::ios::binary);
  file.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

inline std::string TempName(const std::string& leaf) {
  auto dir = std::filesystem::temp_directory_path() / ("sonvex_pcm_" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  return (dir / leaf).string();
}

// Output of a shell command; empty when it failed.
inline std::vector<uint8_t> RunCommand(const std::string& command) {
  std::vector<uint8_t> out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  uint8_t buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.insert(out.end(), buffer, buffer + n);
  if (pclose(pipe) != 0) out.clear();
  return out;
}

inline bool HaveTool(const std::string& tool) {
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

// ffmpeg's decode as raw little-endian PCM ("s16le", "s24le").
inline std::vector<uint8_t> FfmpegDecode(const std::string& file, const std::string& format,
                                         const std::string& inputOptions = "") {
  return RunCommand("ffmpeg -nostdin -hide_banner -loglevel quiet " + inputOptions + " -i '" +
                    file + "' -f " + format + " -");
}

inline int32_t Sample24(const uint8_t* p) {
  return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
}
inline int32_t Sample16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

// Compares sample by sample and reports the first difference beyond the tolerance.
inline ::testing::AssertionResult SamplesMatch(const std::vector<uint8_t>& ours,
                                               const std::vector<uint8_t>& theirs, uint32_t bytes,
                                               int32_t tolerance, uint32_t channels) {
  if (ours.size() != theirs.size())
    return ::testing::AssertionFailure()
           << "sizes differ: " << ours.size() << " vs " << theirs.size() << " bytes";
  for (size_t i = 0; i + bytes <= ours.size(); i += bytes) {
    int32_t a = bytes == 3 ? Sample24(&ours[i]) : Sample16(&ours[i]);
    int32_t b = bytes == 3 ? Sample24(&theirs[i]) : Sample16(&theirs[i]);
    if (std::abs(a - b) > tolerance)
      return ::testing::AssertionFailure()
             << "first difference at frame " << i / bytes / channels << ", channel "
             << i / bytes % channels << ": " << a << " vs " << b;
  }
  return ::testing::AssertionSuccess();
}

// Pushes a whole file through `head` in pieces of `piece` bytes, then Finish.
inline bool PushFile(IUpStream& head, const std::vector<uint8_t>& data, size_t piece,
                     const std::string& format = "?") {
  if (!head.InitAudio(format, 1, 8, 0, false, int64_t(data.size()))) return false;
  for (size_t at = 0; at < data.size(); at += piece) {
    uint32_t n = uint32_t(std::min(piece, data.size() - at));
    if (!head.Write(0, false, data.data() + at, n, -1, false)) return false;
  }
  return head.Finish();
}

}  // namespace sonvex::codecstest
