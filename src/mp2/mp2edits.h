// Stream edits on the frames of TMp2Reader (one frame per Write): TMp2Delayer moves the track
// by whole frames, TMp2GapRealizer makes the gaps and overlaps of a ".gaps" file real.
#pragma once

#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class TMp2Delayer : public TUpStream {
public:
  static std::shared_ptr<TMp2Delayer> Create() { return std::make_shared<TMp2Delayer>(); }
  TMp2Delayer() { keepsDelay = true; }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  int32_t channels = 0;
  uint32_t bitsPerSample = 0;
  uint32_t sampleRate = 0;
  bool bigEndian = false;
  int64_t totalSize = 0;
  bool started = false;
  int64_t delayFrames = 0;
};

class TMp2GapRealizer : public TUpStream {
public:
  // `gapData`: the records of the ".gaps" file behind one leading record of zeros.
  static std::shared_ptr<TMp2GapRealizer> Create(const std::string& gapData) {
    return std::make_shared<TMp2GapRealizer>(gapData);
  }
  explicit TMp2GapRealizer(const std::string& gapData);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

  int64_t FramesAdjusted() const { return framesAdjusted; }

private:
  int64_t FramesOf(int64_t ticks) const;
  // Sends the stored frames for a gap; false when there were none.
  bool InsertFrames();
  // Takes the next record of the list; the stage turns to pass-through after the last one.
  void NextEntry();

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
