// TVc1Reader: splits a VC-1 Advanced Profile elementary stream at its start codes, reads the
// first sequence header to announce size, aspect, frame rate, interlacing and pulldown, counts
// frames and sends every unit on with a time stamp computed from the frame count, keeping the
// same gap table as the other video readers. "-skip<n>" starts the stream at a later sequence
// header.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/upstream.h"
#include "video/vc1bitstream.h"
#include "video/videotiming.h"

namespace sonvex {

class TVc1Reader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: a reader for format detection.
  // skipCount: -skip<n>; to25: -speedup; to24: -slowdown.
  static std::shared_ptr<TVc1Reader> Create(const std::string& gapFile = "",
                                            int32_t skipCount = 0, bool to25 = false,
                                            bool to24 = false, bool ignoreGaps = false,
                                            const std::string& gapData = "");
  TVc1Reader(const std::string& gapFile, int32_t skipCount, bool to25, bool to24,
             bool ignoreGaps, const std::string& gapData);

  uint32_t BlockSize() override { return 52428800; }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return SawHeader && SawTimestamp; }
  int32_t InitialDelay() override;

  int64_t FrameCount() const { return frameCount; }

private:
  bool HandleUnit(const uint8_t* unit, uint32_t size, int64_t offset);
  bool HandleSequenceHeader(const uint8_t* unit, uint32_t size);
  int64_t FramePosition(int64_t frame) const;
  bool SendUnit(const uint8_t* unit, uint32_t size, int64_t frame);

  bool Started = false;
  bool SawHeader = false, SawTimestamp = false;
  int64_t DelayFrames = 0;
  bool Announced = false;
  uint32_t Width = 0, Height = 0, AspectX = 0, AspectY = 0;
  uint32_t RateNum = 0, RateDen = 0;
  uint32_t SkipLeft = 0;
  int32_t SkipCount = 0;
  bool Interlace = false, Pulldown = false;
  bool To25, To24;

  TVideoTiming timing;
  bool flushing = false;
  int64_t frameCount = 0;
  int64_t consumed = 0;
  int64_t received = 0;
  uint32_t front = 0, scan = 0;
  struct Kept {
    uint32_t size;
    int64_t frame;
  };
  std::vector<Kept> kept;
};

}  // namespace sonvex
