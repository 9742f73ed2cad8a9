// TRawGapRealizer: makes the gaps and overlaps of a ".gaps" file real in PCM on a second pass:
// inserts audio where the stream was short, removes it where it overlapped. An insert repeats
// the latest second of real audio (silence only near the start of the stream).
#pragma once

#include <string>
#include <vector>

#include "framework/details.h"
#include "framework/upstream.h"

namespace sonvex {

class TRawGapRealizer : public TUpStream {
public:
  // `gapData`: the gap records as the realizers of all families take them, led by one zero entry.
  explicit TRawGapRealizer(const std::string& gapData);
  static std::shared_ptr<TRawGapRealizer> Create(const std::string& gapData) {
    return std::make_shared<TRawGapRealizer>(gapData);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  void FetchEntry();
  bool Insert();

  uint32_t channels = 0;  // 0 until the format arrives
  uint32_t bytesPerSample = 0;
  uint32_t sampleRate = 0;
  uint32_t frameBytes = 0;
  uint32_t secondBytes = 0;
  std::vector<TGapEntry> gaps;
  int64_t index = -1;     // the next entry, -1 for none
  uint64_t current = 0;   // frames passed
  uint64_t nextGap = 0;   // frame position of the coming change, 0 for none
  int64_t pending = 0;    // frames to insert (> 0) or to remove (< 0)
  bool messageDone = false;
};

}  // namespace sonvex
