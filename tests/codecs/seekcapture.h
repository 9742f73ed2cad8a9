// A file in memory at the end of a test chain: Write puts bytes at the current position, Seek
// moves it, so stages that patch headers can be tested without a real destination.
#pragma once

#include <vector>

#include "framework/smallstages.h"

namespace sonvex::test {}
namespace sonvex::codecstest {
using namespace ::sonvex::test;

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

}  // namespace sonvex::codecstest
