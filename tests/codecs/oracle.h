// Helpers of the codec tests: files in and out, and a file in memory at the end of a test chain
// (Write puts bytes at the current position, Seek moves it), so stages that patch headers can be
// tested without a real destination. The oracles themselves live in support/stream.h.
#pragma once

#include <gtest/gtest.h>

#include "framework/smallstages.h"
#include "support/capture.h"
#include "support/stream.h"

namespace sonvex::codecstest {
using namespace ::sonvex::test;

inline std::string CorpusPath(const std::string& relative) { return Corpus(relative); }
inline Bytes ReadFile(const std::string& name) { return ReadBytes(name); }
inline void WriteFile(const std::string& name, const Bytes& data) { WriteBytes(name, data); }

// Output of a shell command; empty when it failed.
inline Bytes RunCommand(const std::string& command) {
  int code = -1;
  std::string out = Pipe(command, &code);
  return code ? Bytes() : Bytes(out.begin(), out.end());
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

  Bytes bytes;
  std::vector<std::string> formats;
  int64_t position = 0;
  int finished = 0;
};

// Pushes a whole file through `head` in pieces of `piece` bytes, then Finish.
inline bool PushFile(IUpStream& head, const Bytes& data, size_t piece,
                     const std::string& format = "?") {
  if (!head.InitAudio(format, 1, 8, 0, false, int64_t(data.size()))) return false;
  for (size_t at = 0; at < data.size(); at += piece) {
    uint32_t n = uint32_t(std::min(piece, data.size() - at));
    if (!head.Write(0, false, data.data() + at, n, -1, false)) return false;
  }
  return head.Finish();
}

}  // namespace sonvex::codecstest
