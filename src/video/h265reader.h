// Th265Reader: splits an Annex B HEVC byte stream into NAL units, reads the VPS/SPS and the HDR
// SEI messages to announce size, aspect, frame rate, bit depth and HDR format, counts access
// units (at their delimiters, or at the first slice of a picture where there are none) and
// sends every unit on unchanged with a time stamp computed from the frame count. Holes and overlaps in the incoming time stamps go to the gap
// table that all video readers share, and from there to a ".gaps" file.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/upstream.h"
#include "video/h265bitstream.h"
#include "video/videotiming.h"

namespace sonvex {

class Th265Reader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: a reader for format detection (no gaps, no rate changes).
  // to25: -speedup; to24: -slowdown.
  static std::shared_ptr<Th265Reader> Create(const std::string& gapFile = "",
                                             bool to25 = false, bool to24 = false,
                                             bool ignoreGaps = false,
                                             const std::string& gapData = "");
  Th265Reader(const std::string& gapFile, bool to25, bool to24, bool ignoreGaps,
              const std::string& gapData);

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
  // The description's tail: ", 10 bits", then ", HDR10"/", HLG" and ", Dolby Vision" (RPU).
  std::string Extras() const;
  // Marks the stream as the Dolby Vision enhancement layer of a dual-layer title.
  void SetEnhancementLayer(bool value) { EnhancementLayer = value; }

private:
  bool HandleUnit(const uint8_t* unit, uint32_t size, int64_t offset);
  bool Announce();
  bool StartFrame(int64_t offset);
  int64_t FramePosition(int64_t frame) const;
  bool SendUnit(const uint8_t* unit, uint32_t size, int64_t frame);

  bool Started = false;
  bool SawHeader = false, SawTimestamp = false;
  int64_t DelayFrames = 0;
  bool HaveSps = false, HavePps = false;
  bool Announced = false;
  TH265Sps sps;
  TH265HdrSei hdr;
  bool DolbyVisionRpu = false;
  uint32_t VpsRateNum = 0, VpsRateDen = 0;
  uint32_t RateNum = 0, RateDen = 0;
  std::string Headers;
  bool To25, To24;
  bool auOpen = false;  // an access unit has begun and has no slice yet
  bool inPicture = false;  // the current access unit has a slice
  bool EnhancementLayer = false;

  TVideoTiming timing;
  bool flushing = false;
  int64_t frameCount = 0;
  int64_t consumed = 0;  // stream bytes before the first byte of buffer 0
  int64_t received = 0;
  uint32_t front = 0;    // bytes of buffer 0 already handled
  uint32_t scan = 0;     // where the search for the next start code goes on
  struct Kept {
    uint32_t size;
    int64_t frame;
  };
  std::vector<Kept> kept;  // units held in buffer 1 until the announcement
};

}  // namespace sonvex
