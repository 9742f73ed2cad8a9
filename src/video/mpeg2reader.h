// TMpeg2Reader: splits an MPEG-2 video elementary stream at its start codes, announces size,
// aspect, frame rate, interlacing and pulldown, counts pictures and half frames, and sends every
// unit on with a time stamp computed from the half frame count. Film content flagged with
// repeat_first_field can have its pulldown removed by rewriting the flags; a stream that mixes
// film and video content asks the run for a second pass with the pulldown kept.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/upstream.h"
#include "video/videotiming.h"

namespace sonvex {

class TMpeg2Reader : public TUpStream, public IInitialDelay {
public:
  // With no arguments: a reader for format detection, which looks at the first pictures before
  // it announces and wants the stream to begin with a start code.
  static std::shared_ptr<TMpeg2Reader> Create(bool delayAnnounce = true,
                                              bool keepPulldown = false, bool to25 = false,
                                              bool to24 = false, bool strictStart = true,
                                              const std::string& gapData = "",
                                              const std::string& gapFile = "",
                                              int32_t trackNumber = -1,
                                              bool removePulldown = false, bool pulldown = false,
                                              bool interlaced = false);
  TMpeg2Reader(bool delayAnnounce, bool keepPulldown, bool to25, bool to24, bool strictStart,
               const std::string& gapData, const std::string& gapFile, int32_t trackNumber,
               bool removePulldown, bool pulldown, bool interlaced);

  uint32_t BlockSize() override { return 52428800; }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool HasTimestamps() override { return SeqHeaderSeen && PositionSeen; }
  int32_t InitialDelay() override;

  int64_t FieldCount() const { return fieldCount; }

private:
  bool HandleUnit(uint8_t* unit, uint32_t size, int64_t offset);
  bool HandleSequenceHeader(uint8_t* unit, uint32_t size);
  bool HandleExtension(uint8_t* unit, uint32_t size);
  bool HandlePicture(const uint8_t* unit, uint32_t size, int64_t offset);
  bool GroupEvent();
  bool Announce();
  bool Restart();
  void SayMixture();
  void SayRemoving();
  bool SendUnit(const uint8_t* unit, uint32_t size);
  int64_t Position() const;

  bool DelayAnnounce, KeepPulldown, To25, To24, StrictStart;
  int32_t TrackNumber;
  bool Announced = false;
  bool SeqHeaderSeen = false, PositionSeen = false;
  int32_t StampOffset = 0;
  int32_t PictureCount = 0;
  // Field pictures come in pairs that make one frame: the second fields are not frames.
  int32_t SecondFields = 0;
  bool FieldOpen = false;
  std::string SequenceHeader, SequenceExtension;
  bool SeqHeaderInUnit = false;
  bool PicExtSeen = false;
  bool ProgressiveSequence = false;
  bool NoGopYet = true;
  bool Interlaced;
  bool Pulldown;
  bool RemovePulldown;
  bool RemoveLogged = false;
  bool MixedAfter = false, MixedSeen = false;
  bool RffInGroup = false;
  uint32_t Width = 0, Height = 0, AspectX = 0, AspectY = 0, RateNum = 0, RateDen = 0;
  bool Finishing = false;
  bool Started = false;

  TVideoTiming timing;
  int64_t fieldCount = 0;
  int64_t consumed = 0;
  int64_t received = 0;
  uint32_t front = 0, scan = 0;
  std::vector<uint32_t> kept;  // sizes of the units held in buffer 1 before the announcement
};

}  // namespace sonvex
