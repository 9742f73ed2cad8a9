// TAc3Delayer: applies the track's delay to an (E-)AC3 stream by repeating its first frame
// (positive delay) or dropping frames (negative delay), rounded to whole frames.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TAc3Delayer : public TUpStream {
public:
  static std::shared_ptr<TAc3Delayer> Create() { return std::make_shared<TAc3Delayer>(); }
  TAc3Delayer() { keepsDelay = true; }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool isEac3 = false;
  int32_t channels = 0;
  uint32_t bytesPerSample = 0;
  uint32_t sampleRate = 0;
  bool bigEndian = false;
  int64_t totalSize = 0;
  bool started = false;
  int64_t delayFrames = 0;
};

// Whole frames for a delay in ms, rounded to the nearest frame, half away from zero.
int64_t Ac3DelayFrames(int64_t delayMs, uint32_t bitrate, uint32_t frameSize);

}  // namespace sonvex
