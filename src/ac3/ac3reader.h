// TAc3Reader: turns a byte stream of AC-3 or E-AC-3 into whole, checked frames (one frame or
// one E-AC-3 access unit per Send), announces the format, and watches container time stamps for
// gaps and overlaps. Also the prober that format detection and the demuxers use.
#pragma once

#include <string>
#include <vector>

#include "ac3/gaptracker.h"
#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class TAc3Reader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: a prober that wants a frame at byte 0 (format detection). The chain
  // passes `exactStart` false, so that junk in front of the first frame is skipped.
  // `gapFileName` without `gapData` makes the reader collect gaps and write that file.
  static std::shared_ptr<TAc3Reader> Create(const std::string& gapFileName = {},
                                            const std::string& gapData = {},
                                            bool exactStart = true);
  TAc3Reader(const std::string& gapFileName, const std::string& gapData, bool exactStart);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return timestampsSeen; }
  int32_t InitialDelay() override { return int32_t(initialDelayMicro / 1000); }

  // The gaps found so far (before the end-of-stream cut).
  const std::vector<TGapEntry>& Gaps() const { return tracker.Entries(); }
  int64_t FramesSent() const { return framesSent; }

private:
  struct TPendingStamp {
    int64_t offset;  // buffer offset of the block that carried the stamp
    int64_t stamp;
  };
  // Drops `count` bytes from the front of the buffer and moves the stamps along.
  void DropFront(uint32_t count);
  // Finds the first frame; false when more data is needed or the stage died.
  bool SearchFirstFrame(bool& found);
  // Judges the first frame and announces the format; false to leave the loop.
  bool AnnounceFormat();
  bool FailNotClean();
  TFrameClock Clock() const;

  bool timestampsSeen = false;
  int64_t initialDelayMicro = 0;
  bool exactStart;
  bool isEac3 = false;
  bool ac3Core = false;  // E-AC-3 whose units open with an AC-3 frame (Blu-ray 7.1)
  bool formatAnnounced = false;
  uint32_t searchFrom = 0;  // where the next sync search starts
  uint32_t minFill = 4096;
  uint32_t waitFor = 0;  // fill a unit that ran past the data wants before the next look
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
