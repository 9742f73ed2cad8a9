// TDtsDelayer: moves a DTS track in time by whole frames: a positive delay repeats the first
// frame, a negative one drops frames from the start. It applies the delays it is given.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TDtsDelayer : public TUpStream {
public:
  static std::shared_ptr<TDtsDelayer> Create() { return std::make_shared<TDtsDelayer>(); }
  TDtsDelayer() { keepsDelay = true; }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  std::string format;
  int32_t channels = 0;
  uint32_t bytesPerSample = 0;
  uint32_t sampleRate = 0;
  bool bigEndian = false;
  int64_t totalSize = 0;
  bool started = false;
  int64_t delayFrames = 0;  // frames to repeat (positive) or drop (negative)
};

}  // namespace sonvex
