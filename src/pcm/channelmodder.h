// TChannelModder: selects and reorders the channels of an interleaved PCM stream; also splits a
// stream into mono branches (one modder with a one-entry map per branch).
#pragma once

#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class IChannelModder {
public:
  virtual ~IChannelModder() = default;
};

class TChannelModder : public TUpStream, public IChannelModder {
public:
  // From source indices, checked against the input's channel count.
  explicit TChannelModder(std::vector<uint32_t> map);
  // From text: "bluray" or a list of one-digit indices such as "0,2,1,5,3,4".
  explicit TChannelModder(std::string text);
  static std::shared_ptr<TChannelModder> Create(std::vector<uint32_t> map) {
    return std::make_shared<TChannelModder>(std::move(map));
  }
  static std::shared_ptr<TChannelModder> Create(const std::string& text) {
    return std::make_shared<TChannelModder>(text);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  std::string text;
  bool fromText;
  std::vector<uint32_t> map;
  uint32_t channels = 0;
  uint32_t bytes = 0;
};

}  // namespace sonvex
