// TVc1Muxer: VC-1 frames with their headers, one block each.
#include "video/vc1muxer.h"

#include "video/vc1bitstream.h"

namespace sonvex {

bool TVc1Muxer::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                          uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                          uint32_t rateNumerator, uint32_t rateDenominator,
                          const std::string& description) {
  if (!valid) return false;
  if (format != "vc1") return Fail("The VC-1 muxer received a non-supported data format.");
  if (!CheckUpStreams("VC-1 muxer")) return false;
  return NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY,
                     rateNumerator, rateDenominator, description);
}

bool TVc1Muxer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                      bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("VC-1 muxer")) return false;
  if (size < 4) return Fail("The VC-1 muxer received invalid VC-1 data.");
  switch (data[3]) {
    case kVc1SequenceHeader:
      SetBufferFill(0, 0);
      [[fallthrough]];
    case kVc1EntryPoint:
      if (!StoreData(0, data, size)) return Fail("The VC-1 muxer couldn't allocate enough memory.");
      return true;
    case kVc1Frame: {
      // The headers held go out in front of the frame they apply to, once.
      bool ok;
      if (BufferFill(0) == 0) {
        ok = Send(false, data, size, position, flush);
      } else {
        if (!StoreData(0, data, size))
          return Fail("The VC-1 muxer couldn't allocate enough memory.");
        ok = Send(false, BufferData(0), BufferFill(0), position, flush);
        SetBufferFill(0, 0);
      }
      if (!ok) valid = false;
      return ok;
    }
    default:
      return true;
  }
}

}  // namespace sonvex
