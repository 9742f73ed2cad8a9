// Test stages: TCapture collects everything a stage sends (blocks, announcements, finish).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex::test {

class TCapture : public TUpStream {
public:
  struct AudioAnnouncement {
    std::string format;
    uint32_t channels, bits, sampleRate;
    bool bigEndian;
    int64_t totalSize;
  };
  static std::shared_ptr<TCapture> Create() { return std::make_shared<TCapture>(); }

  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override {
    std::lock_guard<std::mutex> guard(mutex);
    if (size) bytes.insert(bytes.end(), data, data + size);
    blocks.push_back(size);
    positions.push_back(position);
    flushes.push_back(flush);
    headers.push_back(isHeader);
    senders.push_back(sender);
    return acceptWrites;
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bits, uint32_t rate,
                 bool bigEndian, int64_t totalSize) override {
    audioInits.push_back({format, channels, bits, rate, bigEndian, totalSize});
    return true;
  }
  bool InitVideo(const std::string& format, bool, bool, uint32_t, uint32_t, uint32_t, uint32_t,
                 uint32_t, uint32_t, const std::string&) override {
    videoInits.push_back(format);
    return true;
  }
  bool InitContainer(const std::string& format, int64_t, int64_t) override {
    containerInits.push_back(format);
    return true;
  }
  bool Finish() override {
    finished++;
    return valid;
  }
  void NotifySeam(bool before, int64_t jump) override { seams.push_back({before, jump}); }
  bool SetDelay(int32_t index, int32_t ms) override {
    delaysSeen.push_back({index, ms});
    return TUpStream::SetDelay(index, ms);
  }

  using TUpStream::Fail;

  std::mutex mutex;
  bool acceptWrites = true;
  std::vector<uint8_t> bytes;
  std::vector<uint32_t> blocks;
  std::vector<int64_t> positions;
  std::vector<bool> flushes;
  std::vector<bool> headers;
  std::vector<SenderId> senders;
  std::vector<AudioAnnouncement> audioInits;
  std::vector<std::string> videoInits, containerInits;
  std::vector<std::pair<bool, int64_t>> seams;
  std::vector<std::pair<int32_t, int32_t>> delaysSeen;
  int finished = 0;
};

}  // namespace sonvex::test
