// TEac3CoreExtractor: keeps only the independent frame at the start of each E-AC3 access unit,
// the 5.1 core that decoders without dependent substream support can play.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TEac3CoreExtractor : public TUpStream {
public:
  static std::shared_ptr<TEac3CoreExtractor> Create() {
    return std::make_shared<TEac3CoreExtractor>();
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool reported = false;
};

}  // namespace sonvex
