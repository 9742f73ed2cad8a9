// TDtsGapRealizer: makes the gaps and overlaps listed in a ".gaps" file real by repeating the
// most recent frames (up to 100, at their true sizes) or dropping frames. No audio is made up.
#pragma once

#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class TDtsGapRealizer : public TUpStream {
public:
  // `gapData`: the ".gaps" records with a zero record in front, as the chain builder hands them.
  static std::shared_ptr<TDtsGapRealizer> Create(const std::string& gapData) {
    return std::make_shared<TDtsGapRealizer>(gapData);
  }
  explicit TDtsGapRealizer(const std::string& gapData);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  static constexpr uint32_t kMaxFrames = 100;
  int64_t FramesOf(int64_t ticks) const;
  // Sends the newest `n` of the buffered frames (all of them when n is framesInBuffer).
  bool SendNewest(uint32_t n);

  uint32_t sampleRate = 0;  // 96000 is kept as 48000, the rate the core counts samples in
  uint32_t samplesPerFrame = 0;
  uint32_t framesInBuffer = 0;
  uint32_t dropped = 0;  // bytes of frames at the front of buffer 1 that no longer count
  std::vector<TGapEntry> entries;
  int32_t entryIndex = -1;
  int64_t framesPassed = 0;
  int64_t framesUntilGap = 0;
  int64_t framesToInsert = 0;
  bool reported = false;
  int64_t framesAdjusted = 0;
  uint32_t frameSizes[kMaxFrames] = {};  // oldest first
};

}  // namespace sonvex
