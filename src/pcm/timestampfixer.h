// TTimestampFixer: compares the time stamps that a demuxer passes with PCM blocks against the
// count of samples that really passed, and writes a ".gaps" file when the two drift apart, for a
// second pass to make the gaps real. Compressed audio (any format other than "pcm") passes through
// untouched, time stamps included: its reader does the same tracking by frames.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/details.h"
#include "framework/upstream.h"

namespace sonvex {

class TTimestampFixer : public TUpStream {
public:
  TTimestampFixer(const std::string& gapFileName, const std::string& gapData);
  static std::shared_ptr<TTimestampFixer> Create(const std::string& gapFileName,
                                                 const std::string& gapData) {
    return std::make_shared<TTimestampFixer>(gapFileName, gapData);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  const std::vector<TGapEntry>& Gaps() const { return gaps; }

private:
  int64_t SamplesTicks() const;
  void TrackGap(int64_t time, int64_t drift);

  bool formatKnown = false;
  bool passThrough = false;
  uint32_t channels = 0;
  uint32_t bytesPerSample = 0;
  uint32_t sampleRate = 0;
  bool timeBaseSet = false;
  int64_t timeBase = 0;
  uint64_t samplesSent = 0;
  bool trackGaps = false;
  std::vector<TGapEntry> gaps;
  std::string gapFileName;
};

// "h:mm:ss" of a play time in milliseconds, rounded to the second.
std::string GapPlaytimeText(int64_t milliseconds);

}  // namespace sonvex
