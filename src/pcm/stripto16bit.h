// TStripTo16bit: proves that a 24-bit stream holds only 16 bits (all low bytes zero) and narrows it.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IStripTo16bit {
public:
  virtual ~IStripTo16bit() = default;
  // True when the format arrived and no non-zero low byte was seen.
  virtual bool Is16bit() = 0;
};

class TStripTo16bit : public TUpStream, public IStripTo16bit {
public:
  static std::shared_ptr<TStripTo16bit> Create() { return std::make_shared<TStripTo16bit>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  bool Is16bit() override { return formatReceived && !failed; }

private:
  bool formatReceived = false;
  bool failed = false;
};

}  // namespace sonvex
