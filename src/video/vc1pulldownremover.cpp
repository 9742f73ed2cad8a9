// TVc1PulldownRemover: in-place removal of VC-1 pulldown flags.
#include "video/vc1pulldownremover.h"

#include "video/vc1bitstream.h"

namespace sonvex {

bool TVc1PulldownRemover::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                                    uint32_t width, uint32_t height, uint32_t aspectX,
                                    uint32_t aspectY, uint32_t rateNumerator,
                                    uint32_t rateDenominator, const std::string& description) {
  if (!valid) return false;
  if (format != "vc1")
    return Fail("The VC-1 pulldown remover received a non-supported data format.");
  if (!CheckUpStreams("VC-1 pulldown remover")) return false;
  FormatKnown = true;
  Active = !interlaced;
  // What goes on is the stream as it will leave: a film at 24 Hz without pulldown flags.
  if (Active && pulldown) {
    pulldown = false;
    if (rateNumerator == 30000) rateNumerator = 24000;
  }
  if (!NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY, rateNumerator,
                   rateDenominator, description)) {
    valid = false;
    return false;
  }
  return true;
}

bool TVc1PulldownRemover::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                                int64_t position, bool flush) {
  if (!valid) return false;
  if (!FormatKnown) return Fail("The VC-1 pulldown remover didn't receive the format information.");
  if (!CheckUpStreams("VC-1 pulldown remover")) return false;
  if (!Active || size < 5 || data[0] != 0 || data[1] != 0 || data[2] != 1) {
    if (Send(isHeader, data, size, position, flush)) return true;
    valid = false;
    return false;
  }
  SetBufferFill(0, 0);
  if (!StoreData(0, data, size))
    return Fail("The VC-1 pulldown remover couldn't allocate enough memory.");
  uint8_t* unit = BufferData(0);
  if (unit[3] == kVc1SequenceHeader) {
    TVc1SequenceHeader header;
    if (ParseVc1SequenceHeader(unit, size, header)) {
      Interlace = header.interlace;
      Tfcntr = header.tfcntr;
      if (header.displayExtension && header.frameRateFlag && header.frameRateIndicator == 0 &&
          header.frameRateValue == 3) {
        if (!Removing) Log(0, "Removing VC-1 pulldown flags...");
        Removing = true;
        // FRAMERATENR 3 (30 Hz) becomes 1 (24 Hz): its second lowest bit is cleared.
        Vc1ChangeBit(unit, size, header.frameRateValueBit + 6, false);
      }
    }
  } else if (unit[3] == kVc1Frame && Removing && Interlace && !(unit[4] & 0x80)) {
    // FCM 0: a progressive frame; its TFF and RFF flags are replaced.
    Vc1RemoveFramePulldown(unit, size, Tfcntr);
  }
  if (!Send(isHeader, unit, size, position, flush)) {
    valid = false;
    return false;
  }
  return true;
}

}  // namespace sonvex
