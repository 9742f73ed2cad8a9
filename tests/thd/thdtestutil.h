// Helpers of the TrueHD and MP2 tests: corpus files, a bit writer for synthetic headers, a log
// collector, and pushing a stream through a stage.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "framework/console.h"
#include "support/capture.h"
#include "support/e2e.h"

namespace sonvex::thdtest {

using namespace sonvex::test;

inline std::string CorpusPath(const std::string& name) { return CorpusDir() / name; }

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::string text = ReadFile(path);
  return std::vector<uint8_t>(text.begin(), text.end());
}
inline void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// Runs a shell command and returns its standard output.
inline std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
  pclose(pipe);
  return out;
}

// Collects the lines logged while it lives.
struct TLogLines {
  std::vector<std::pair<int, std::string>> lines;
  TLogLines() {
    SetLogHook([this](int level, const std::string& text) { lines.push_back({level, text}); });
  }
  ~TLogLines() { SetLogHook(nullptr); }
  int Count(const std::string& text) const {
    return int(std::count_if(lines.begin(), lines.end(), [&](auto& l) { return l.second == text; }));
  }
};

// MSB-first bit writer for synthetic stream headers.
class BitWriter {
public:
  void Put(int bits, uint32_t value) {
    for (int i = bits - 1; i >= 0; i--, fill++) {
      if (fill % 8 == 0) bytes.push_back(0);
      if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> (fill % 8));
    }
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

}  // namespace sonvex::thdtest
