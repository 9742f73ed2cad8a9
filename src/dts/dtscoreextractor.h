// TDtsCoreExtractor: keeps the core of each DTS frame and drops the DTS-HD extension substreams.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TDtsCoreExtractor : public TUpStream {
public:
  static std::shared_ptr<TDtsCoreExtractor> Create() {
    return std::make_shared<TDtsCoreExtractor>();
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
};

}  // namespace sonvex
