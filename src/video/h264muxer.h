// Th264Muxer: prepares the NAL units of Th264Reader for Matroska. Each access unit becomes one
// block of length-prefixed NAL units (4 byte big-endian lengths, delimiters, end of sequence,
// end of stream and filler units dropped). Since the reader's time stamps run in decoding
// order, every frame gets its presentation time from the picture order count: the frames of a
// run-in (the start of each IDR period, up to 50 frames) are held until the smallest POC is
// known, later frames go out at once. Sync frames (IDR pictures, recovery points, and with
// -seekToIFrames I frames) carry the `flush` flag.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class Th264Muxer : public TUpStream {
public:
  static std::shared_ptr<Th264Muxer> Create(bool seekToIFrames = false) {
    return std::make_shared<Th264Muxer>(seekToIFrames);
  }
  explicit Th264Muxer(bool seekToIFrames) : SeekToIFrames(seekToIFrames) {}

  uint32_t BlockSize() override { return 52428800; }
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  bool ParseSps(const uint8_t* rbsp, size_t size);
  void ParseSlice(const uint8_t* rbsp, size_t size, uint8_t nalType);
  void ParseSei(const uint8_t* rbsp, size_t size);
  bool FinishAccessUnit();
  bool FlushQueue();
  int64_t Offset(int64_t poc, int64_t decodeIndex) const;

  bool SeekToIFrames;
  bool FrameMbsOnly = true, PicOrderPresent = false;
  uint32_t Log2MaxFrameNum = 4, Log2MaxPocLsb = 4, MaxPocLsb = 16, PocType = 0;
  bool HaveSps = false;
  bool Interlaced = false;
  uint32_t RateNum = 0, RateDen = 0;
  int64_t Poc = 0;
  int64_t PrevPocMsb = 0, PrevPocLsb = 0;
  bool Rebase = false;
  bool Ending = false;
  bool RecoveryPoint = false;
  bool IsIFrame = false;
  bool Key = false;
  bool HaveSlice = false;     // the access unit held in buffer 0 has a picture
  int64_t FramePosition = -1;
  struct Queued {
    int64_t poc;
    int64_t position;
    bool key;
  };
  std::vector<Queued> Queue;  // frame i of the queue waits in stage buffer i + 1
  int64_t PocBase = 0, PocStep = 1, PocMax = 0;
  bool Locked = false;
  int64_t FrameIndex = 0, GopFrames = 0;
};

}  // namespace sonvex
