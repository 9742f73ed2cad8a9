// TChannelMixer: adds mono branches into one, with clipping to the sample size. The sum has no
// scaling: the factors stand in TChannelAmplifier stages in front.
#pragma once

#include "pcm/channelmerge.h"

namespace sonvex {

class IChannelMixer {
public:
  virtual ~IChannelMixer() = default;
};

class TChannelMixer : public TChannelMerge, public IChannelMixer {
public:
  TChannelMixer() : TChannelMerge("channel mixer", true) {}
  static std::shared_ptr<TChannelMixer> Create() { return std::make_shared<TChannelMixer>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
};

}  // namespace sonvex
