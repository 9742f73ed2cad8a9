// TDtsRepairer: rewrites the size field of XCh (DTS-ES discrete) data that stands in the outdated
// layout, which counts one byte less than the current one, so that decoders find the 7th channel.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TDtsRepairer : public TUpStream {
public:
  static std::shared_ptr<TDtsRepairer> Create() { return std::make_shared<TDtsRepairer>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool firstFrameDone = false;
  bool repairing = false;
};

}  // namespace sonvex
