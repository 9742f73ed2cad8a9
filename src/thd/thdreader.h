// TThdReader: reads a stream of TrueHD or MLP access units, with or without AC-3 frames
// interleaved ("thd/ac3" as HD disc tracks carry them), and sends each unit and each AC-3 frame
// on as one block. It announces the format at the first major sync, survives damage by scanning
// for the next frame, reports the initial delay and tracks gaps in the container's time stamps.
#pragma once

#include <string>
#include <vector>

#include "ac3/gaptracker.h"
#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

struct TMajorSync;

class TThdReader : public TUpStream, public IInitialDelay {
public:
  // Format detection calls Create() and gets the strict, gap-less prober.
  static std::shared_ptr<TThdReader> Create(const std::string& gapFileName = "",
                                            const std::string& gapData = "",
                                            bool gapsOnAc3 = false, bool strict = true);
  TThdReader(const std::string& gapFileName, const std::string& gapData, bool gapsOnAc3,
             bool strict);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return majorSyncSeen && timestampsSeen; }
  int32_t InitialDelay() override { return int32_t(initialDelaySamples * 1000 / 48000); }

  int64_t UnitsSent() const { return unitsSent; }
  int64_t Ac3FramesSent() const { return ac3FramesSent; }

private:
  struct TPendingStamp {
    int64_t offset;
    int64_t stamp;
  };

  void AnnounceFormat(const TMajorSync& sync);
  // Logs "This track is not clean." once; false when that ends a strict stage.
  bool ReportDamage();
  // Drops bytes from the front of the buffer; the pending stamps move along.
  void RemoveFront(uint32_t count);
  bool StampDue() const { return !pendingStamps.empty() && pendingStamps.front().offset <= 0; }
  // Compares the due stamp with the play time of `framesSent` frames of `frameTicks` each.
  // Runs the gap tracker on the due stamp; the send position loses the time base.
  void TrackGap(int64_t framesSent, const TFrameClock& clock, int64_t& sendPosition);
  TFrameClock UnitClock() const;
  TFrameClock Ac3Clock() const;
  bool SendAc3Frame(int64_t& sendPosition);

  bool majorSyncSeen = false;
  bool timestampsSeen = false;
  int64_t initialDelaySamples = 0;
  bool strict;
  bool formatAnnounced = false;
  uint32_t sampleRate = 0;
  uint32_t samplesPerUnit = 0;
  uint32_t ac3Offset = 0;
  uint32_t ac3Size = 0;
  uint32_t ac3Bitrate = 0;
  uint32_t scanPosition = 0;
  bool inSync = false;
  uint32_t substreams = 0;
  bool notCleanReported = false;
  int64_t timeBase = 0;
  bool timeBaseSet = false;
  int64_t lastTimestamp = 0;
  std::vector<TPendingStamp> pendingStamps;
  int64_t unitsSeen = 0;
  int64_t ac3FramesSeen = 0;
  int64_t unitsSent = 0;
  int64_t ac3FramesSent = 0;
  bool trackGaps = false;
  bool gapsOnAc3;
  TGapTracker gapTracker;
  std::string gapFileName;
};

}  // namespace sonvex
