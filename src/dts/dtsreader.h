// TDtsReader: turns a byte stream of DTS data (core frames with the DTS-HD extension substreams
// behind them) into whole checked frames, one per Send. It tells DTS, DTS-ES, DTS-96/24, DTS
// Hi-Res and DTS Master Audio apart, drops zero padding between frames, announces the format and
// follows the container's time stamps to find gaps. It also serves as the prober of this format.
#pragma once

#include <string>
#include <vector>

#include "ac3/gaptracker.h"
#include "dts/dtsbitstream.h"
#include "dts/dtshdfile.h"
#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class TDtsReader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: a prober that finds the first frame anywhere in the first 400 KiB.
  static std::shared_ptr<TDtsReader> Create(const std::string& gapFileName = "",
                                            const std::string& gapData = "",
                                            bool exactStart = false, bool logDts = false,
                                            bool doubleFirstFrame = false);
  TDtsReader(const std::string& gapFileName, const std::string& gapData, bool exactStart,
             bool dumpHeaders, bool doubleFirstFrame);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return timestampsSeen; }
  // The discontinuities found so far.
  const std::vector<TGapEntry>& Gaps() const { return tracker.Entries(); }
  int32_t InitialDelay() override { return int32_t(initialDelayMicro / 1000); }

private:
  struct TPendingStamp {
    int64_t offset;  // buffer offset of the block that carried the stamp
    int64_t stamp;
  };

  // Finds the first frame; false when the stage has to wait for more data or failed.
  bool SearchFirstFrame();
  // The first frame: judges the stream and announces it. False ends the stage.
  bool AnnounceFirstFrame(TDtsFrameInfo& info);
  // Removes `count` bytes from the front of the buffer and moves the stamps with them.
  void DropBytes(uint32_t count);
  // Moves the stamps' offsets with `count` bytes taken from the front.
  void ShiftStamps(uint32_t count);
  // Whether the stream is a DTS-HD stream without core frames; sets `coreless`.
  bool StartsWithoutCore();
  // The frame loop of such a stream.
  bool TakeSubstreamFrames();
  // The pair of messages that ends a damaged stream; false.
  bool FailNotClean();
  // Whether a good frame starts somewhere behind the first byte of `frame`.
  static bool GoodFrameInside(const uint8_t* frame, uint32_t size);
  // Duration of a frame: samples at the core rate, which is 48 kHz for 96/24.
  TFrameClock Clock() const;

  bool doubleFirstFrame;
  bool dumpHeaders;
  bool timestampsSeen = false;
  int64_t initialDelayMicro = 0;
  bool formatAnnounced = false;
  int64_t totalBytes = 0;
  bool hasExtension = false;
  bool finishing = false;
  bool formatReceived = false;
  bool paddingReported = false;
  bool exactStart;
  int64_t framesSent = 0;
  int64_t framesChecked = 0;
  uint32_t sampleRate = 0;
  uint32_t samplesPerFrame = 0;
  int64_t lastTimestamp = 0;
  std::vector<TPendingStamp> pendingStamps;
  bool trackGaps = false;
  TGapTracker tracker;
  std::string gapFileName;
  // Where the next search goes on, and the sync words behind which more data may still show a
  // frame (see SearchFirstFrame).
  uint32_t searchFrom = 0;
  std::vector<uint32_t> undecidedSyncs;
  // Bytes the frame at the front needs before it is parsed again (its substreams are longer than
  // their short size fields said).
  uint64_t waitFor = 0;
  // The chunks of a .dtshd file around the stream.
  TDtsHdChunks chunks;
  // The stream has no core frames; or it opens with substreams and more data must tell.
  bool coreless = false;
  uint32_t lastCoreSize = 0;  // core size of the frame before
  bool waitingForCore = false;
};

}  // namespace sonvex
