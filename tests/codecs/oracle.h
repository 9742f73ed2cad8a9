// Helpers of the codec tests: files in and out, ffmpeg as the oracle of decodes, and a file in
// memory at the end of a test chain (Write puts bytes at the current position, Seek moves it), so
// stages that patch headers can be tested without a real destination.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/console.h"
#include "support/capture.h"
#include "support/e2e.h"

namespace sonvex::codecstest {
using namespace ::sonvex::test;

inline std::string CorpusPath(const std::string& relative) { return CorpusDir() / relative; }

inline std::vector<uint8_t> ReadFile(const std::string& name) {
  std::string text = ::sonvex::test::ReadFile(fs::path(name));
  return std::vector<uint8_t>(text.begin(), text.end());
}

inline void WriteFile(const std::string& name, const std::vector<uint8_t>& data) {
  std::ofstream(name, std::ios::binary)
      .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

// Output of a shell command; empty when it failed.
inline std::vector<uint8_t> RunCommand(const std::string& command) {
  std::vector<uint8_t> out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  uint8_t buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.insert(out.end(), buffer, buffer + n);
  if (pclose(pipe) != 0) out.clear();
  return out;
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

class TMemoryFile : public TUpStream, public ISeekableUpStream {
public:
  static std::shared_ptr<TMemoryFile> Create() { return std::make_shared<TMemoryFile>(); }
  bool Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) override {
    if (bytes.size() < size_t(position) + size) bytes.resize(size_t(position) + size);
    std::copy(data, data + size, bytes.begin() + position);
    position += size;
    return true;
  }
  bool InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    formats.push_back(format);
    return true;
  }
  bool Finish() override {
    finished++;
    return true;
  }
  int64_t Position() override { return position; }
  void Seek(int64_t to) override { position = to; }
  int64_t Size() override { return int64_t(bytes.size()); }

  std::vector<uint8_t> bytes;
  std::vector<std::string> formats;
  int64_t position = 0;
  int finished = 0;
};

// Collects the lines logged at `minLevel` or above while it lives.
struct LogLines {
  std::vector<std::string> lines;
  explicit LogLines(int minLevel = 0) {
    SetLogHook([this, minLevel](int level, const std::string& text) {
      if (level >= minLevel) lines.push_back(text);
    });
  }
  ~LogLines() { SetLogHook(nullptr); }
};

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
