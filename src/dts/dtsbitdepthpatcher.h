// TDtsBitdepthPatcher: declares a 24-bit source in every core header, keeping the ES flag.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TDtsBitdepthPatcher : public TUpStream {
public:
  static std::shared_ptr<TDtsBitdepthPatcher> Create() {
    return std::make_shared<TDtsBitdepthPatcher>();
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool reported = false;
};

}  // namespace sonvex
