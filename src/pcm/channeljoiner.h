// TChannelJoiner: interleaves mono branches into one stream, one channel per input in the order
// of the inputs.
#pragma once

#include "pcm/channelmerge.h"

namespace sonvex {

class TChannelJoiner : public TChannelMerge {
public:
  TChannelJoiner() : TChannelMerge("channel joiner", false) {}
  static std::shared_ptr<TChannelJoiner> Create() { return std::make_shared<TChannelJoiner>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
};

}  // namespace sonvex
