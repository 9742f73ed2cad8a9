// TEndianSwapper: reverses the byte order of every sample; the one stage that changes byte order.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IEndianSwapper {
public:
  virtual ~IEndianSwapper() = default;
};

class TEndianSwapper : public TUpStream, public IEndianSwapper {
public:
  static std::shared_ptr<TEndianSwapper> Create() { return std::make_shared<TEndianSwapper>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  uint32_t bytesPerSample = 0;  // 0 until the format arrives
  uint8_t carry[3] = {};
  uint32_t carryFill = 0;
};

}  // namespace sonvex
