// TVc1Muxer: packs the units of TVc1Reader for Matroska. A frame goes out as one block together
// with the sequence header and entry point that stand ahead of it; other units (user data)
// are dropped.
#pragma once

#include <memory>
#include <string>

#include "framework/upstream.h"

namespace sonvex {

class TVc1Muxer : public TUpStream {
public:
  static std::shared_ptr<TVc1Muxer> Create() { return std::make_shared<TVc1Muxer>(); }

  uint32_t BlockSize() override { return 52428800; }
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
};

}  // namespace sonvex
