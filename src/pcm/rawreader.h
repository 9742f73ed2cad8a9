// TRawReader: turns a headerless file into an announced PCM stream of the configured layout.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IRawReader {
public:
  virtual ~IRawReader() = default;
};

class TRawReader : public TUpStream, public IRawReader {
public:
  TRawReader(uint32_t channels, int64_t sampleCount, bool bigEndian, int64_t skip,
             uint32_t sampleRate, uint32_t bits);
  static std::shared_ptr<TRawReader> Create(uint32_t channels, int64_t sampleCount, bool bigEndian,
                                            int64_t skip, uint32_t sampleRate, uint32_t bits) {
    return std::make_shared<TRawReader>(channels, sampleCount, bigEndian, skip, sampleRate, bits);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  uint32_t channels;
  int64_t sampleCount;
  bool bigEndian;
  int64_t skip;
  uint32_t sampleRate;
  uint32_t bits;
  bool formatReceived = false;
};

}  // namespace sonvex
