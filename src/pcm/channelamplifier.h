// TChannelAmplifier: multiplies a mono PCM branch by an integer factor and widens each sample by
// 8 bits, so that factor f scales by f / 256 once a TBitdepthReducer takes the width back.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TChannelAmplifier : public TUpStream {
public:
  explicit TChannelAmplifier(int32_t factor) : factor(factor) {}
  static std::shared_ptr<TChannelAmplifier> Create(int32_t factor) {
    return std::make_shared<TChannelAmplifier>(factor);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  int32_t factor;
  uint32_t bytes = 0;  // per input sample; 0 until the format arrives
};

}  // namespace sonvex
