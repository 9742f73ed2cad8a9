// TAc3GapRealizer: makes the gaps and overlaps listed in a ".gaps" file real in an (E-)AC3
// stream: a gap is filled with copies of the frames just before it (the last 30 kept), an
// overlap drops frames.
#pragma once

#include <vector>

#include "framework/details.h"
#include "framework/upstream.h"

namespace sonvex {

class TAc3GapRealizer : public TUpStream {
public:
  // `gapData`: the file's records behind one leading zero record, as LoadGapDescription gives.
  static std::shared_ptr<TAc3GapRealizer> Create(const std::string& gapData) {
    return std::make_shared<TAc3GapRealizer>(gapData);
  }
  explicit TAc3GapRealizer(const std::string& gapData);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

  int64_t FramesAdjusted() const { return framesAdjusted; }

private:
  int64_t FramesOf(int64_t ticks) const;
  void NextEntry();

  bool isEac3 = false;
  uint32_t frameSize = 0;
  uint32_t bitrate = 0;
  uint32_t framesInBuffer = 0;
  std::vector<TGapEntry> entries;
  int32_t entryIndex = -1;
  int64_t framesPassed = 0;
  int64_t framesUntilGap = 0;
  int64_t framesToInsert = 0;
  bool reported = false;
  int64_t framesAdjusted = 0;
};

}  // namespace sonvex
