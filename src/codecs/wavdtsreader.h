// TWavDtsReader: unwraps DTS carried in a WAV (16-bit little-endian words, or 14-bit words in
// 16-bit containers) into a plain big-endian DTS elementary stream.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IWavDtsReader {
public:
  virtual ~IWavDtsReader() = default;
};

class TWavDtsReader : public TUpStream, public IWavDtsReader {
public:
  static std::shared_ptr<TWavDtsReader> Create() { return std::make_shared<TWavDtsReader>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool decided = false;
  bool form16 = false;
  bool form14 = false;
};

}  // namespace sonvex
