// TMp2Reader: turns a byte stream of MPEG-1 audio (layers 1 to 3) into whole frames, one per
// Send; finds the first frame, announces the format, checks every header and watches the
// container's time stamps for gaps and overlaps. It doubles as the prober of format detection.
#pragma once

#include <string>
#include <vector>

#include "ac3/gaptracker.h"
#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class TMp2Reader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: the prober of format detection, which wants a frame at byte 0.
  static std::shared_ptr<TMp2Reader> Create(const std::string& gapFileName = {},
                                            const std::string& gapData = {},
                                            bool exactStart = true);
  TMp2Reader(const std::string& gapFileName, const std::string& gapData, bool exactStart);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return timestampsSeen; }
  int32_t InitialDelay() override { return int32_t(initialDelayMicro / 1000); }

  const std::vector<TGapEntry>& Gaps() const { return tracker.Entries(); }
  int64_t FramesSent() const { return framesSent; }

private:
  struct TPendingStamp {
    int64_t offset;  // buffer offset of the block that carried the stamp
    int64_t stamp;
  };
  void DropFront(uint32_t count);
  // Steps over junk in front of the first frame; false when more data is needed or the
  // stage died.
  bool SearchFirstFrame();
  // Judges the first frame and announces the format; false to leave the loop.
  bool AnnounceFormat();
  bool FailNotClean();
  TFrameClock Clock() const;

  bool timestampsSeen = false;
  int64_t initialDelayMicro = 0;
  bool exactStart;
  bool formatAnnounced = false;
  uint32_t minFill = 4096;
  uint32_t frameSize = 0;
  uint32_t bitrate = 0;
  int64_t totalBytes = 0;
  int64_t framesSent = 0;
  int64_t framesChecked = 0;
  int64_t lastTimestamp = 0;
  std::vector<TPendingStamp> pendingStamps;
  bool finishing = false;
  bool trackGaps;
  std::string gapFileName;
  TGapTracker tracker;
};

}  // namespace sonvex
