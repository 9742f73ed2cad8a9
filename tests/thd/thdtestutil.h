// Helpers of the TrueHD and MP2 tests: corpus files, a bit writer for synthetic headers, ffmpeg.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "framework/console.h"
#include "support/capture.h"

namespace sonvex::test {

inline std::string CorpusPath(const std::string& name) {
  return std::string(SONVEX_CORPUS) + "/" + name;
}

inline bool HaveCorpus() { return std::filesystem::is_directory(SONVEX_CORPUS); }

#define SKIP_WITHOUT_CORPUS() \
  if (!HaveCorpus()) GTEST_SKIP() << "corpus folder absent"

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

inline void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// Runs a shell command and returns its standard output.
inline std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, n);
  pclose(pipe);
  return out;
}

inline bool HaveFfmpeg() {
  return RunCommand("ffmpeg -version 2>/dev/null").find("ffmpeg version") != std::string::npos;
}

// A scratch folder for one test, removed with its content at the end.
struct TScratch {
  std::filesystem::path path;
  TScratch() {
    path = std::filesystem::temp_directory_path() /
           ("sonvex_thd_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(path);
  }
  ~TScratch() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

// Collects the lines logged while it lives.
struct TLogLines {
  std::vector<std::pair<int, std::string>> lines;
  TLogLines() {
    SetLogHook([this](int level, const std::string& text) { lines.push_back({level, text}); });
  }
  ~TLogLines() { SetLogHook(nullptr); }
  int Count(const std::string& text) const {
    int n = 0;
    for (auto& line : lines) n += line.second == text;
    return n;
  }
};

// MSB-first bit writer for synthetic stream headers.
class BitWriter {
public:
  void Put(int bits, uint32_t value) {
    for (int i = bits - 1; i >= 0; i--) {
      if (fill % 8 == 0) bytes.push_back(0);
      if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> (fill % 8));
      fill++;
    }
  }
  void PutBytes(const std::vector<uint8_t>& more) {
    for (uint8_t b : more) Put(8, b);
  }
  std::vector<uint8_t> bytes;

private:
  uint64_t fill = 0;
};

// Pushes `stream` through `stage` into a fresh capture in pieces of `piece` bytes.
inline std::shared_ptr<TCapture> Drive(const UpStreamRef& stage, const std::vector<uint8_t>& stream,
                                       size_t piece, bool& ok, const std::string& tag = "?") {
  auto capture = TCapture::Create();
  stage->AppendUpStream(capture);
  ok = stage->InitAudio(tag, 1, 8, 48000, false, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += piece)
    ok = stage->Write(0, false, stream.data() + at, uint32_t(std::min(piece, stream.size() - at)),
                      -1, false);
  if (ok) ok = stage->Finish();
  return capture;
}

}  // namespace sonvex::test
