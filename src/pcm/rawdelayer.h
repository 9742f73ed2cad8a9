// TRawDelayer: applies the track's delay to PCM, by putting silence ahead of the stream or by
// dropping audio from its first block. The delay stops here (keepsDelay).
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TRawDelayer : public TUpStream {
public:
  TRawDelayer() { keepsDelay = true; }
  static std::shared_ptr<TRawDelayer> Create() { return std::make_shared<TRawDelayer>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  // Works out the delay from the delays as they stand now, and announces the format.
  bool Start();

  uint32_t channels = 0;  // 0 until the format arrives
  uint32_t bytesPerSample = 0;
  uint32_t sampleRate = 0;
  bool bigEndian = false;
  int64_t sampleCount = 0;
  bool started = false;
  int32_t remaining = 0;  // bytes of silence to send (> 0) or of audio to drop (< 0)
};

}  // namespace sonvex
