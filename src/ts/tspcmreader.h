// TTsPcmReader: the reader of Blu-ray LPCM behind the PES parser. Each PES payload opens with a
// 4 byte audio header (payload size, channel assignment, sample rate, bit depth); the header is
// taken off and the big-endian samples go on unchanged, cut to whole sample frames.
#pragma once

#include <memory>

#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class TTsPcmReader : public TUpStream, public IInitialDelay {
public:
  static std::shared_ptr<TTsPcmReader> Create() { return std::make_shared<TTsPcmReader>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

  // Samples that stand ahead of the first time stamp, as a (negative) delay.
  bool HasTimestamps() override { return sawPosition; }
  int32_t InitialDelay() override;

private:
  bool m2ts = false;
  bool formatKnown = false;
  uint32_t channels = 0;
  uint32_t bits = 0;  // container size: 16 or 24
  uint32_t sampleRate = 0;
  bool sawPosition = false;
  int64_t delaySamples = 0;
};

}  // namespace sonvex
