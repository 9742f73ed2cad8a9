// TMpeg2Muxer: packs the units of TMpeg2Reader into frames for Matroska (everything from a
// picture's headers to its last slice is one block) and gives every frame its presentation
// time: the frames of a group of pictures are held until the group ends, then timed by their
// temporal reference from the group's earliest time stamp on, and sent in the order in which
// they came. Streams without group headers get groups by a workaround.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class TMpeg2Muxer : public TUpStream {
public:
  static std::shared_ptr<TMpeg2Muxer> Create() { return std::make_shared<TMpeg2Muxer>(); }

  uint32_t BlockSize() override { return 52428800; }
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  bool SendGroup();

  uint32_t RateNum = 0, RateDen = 0;
  bool PulldownAnnounced = false;
  bool Ending = false;
  bool PictureOpen = false;
  bool NoGopYet = true;
  bool SeqInFrame = false;
  int64_t GroupStart = -1;
  int64_t Reference = 0, LastReference = 0;
  bool FrameStructure = false, RepeatField = false;
  bool WorkaroundLogged = false;
  struct Kept {
    int64_t reference;
    int64_t time;
    bool frameStructure;
    bool repeatField;
  };
  std::vector<Kept> kept;  // frame i of the group waits in stage buffer i + 1
};

}  // namespace sonvex
