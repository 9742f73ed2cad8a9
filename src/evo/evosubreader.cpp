// TEvoSubReader: subpicture units to "SP" framed units.
#include "evo/evosubreader.h"

#include "framework/bitreader.h"

namespace sonvex {

bool TEvoSubReader::InitSubtitle(const std::string& format) {
  if (!valid) return false;
  if (format != "evo/sub")
    return Fail("The evo subtitle reader received a non-supported data format.");
  if (!CheckUpStreams("evo subtitle reader")) return false;
  FormatSeen = true;
  SetSubtitleDetails("sup", "Subtitle");
  valid = NotifySubtitle("sup");
  return valid;
}

bool TEvoSubReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                          bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("evo subtitle reader")) return false;
  if (!StoreData(0, data, size))
    return Fail("The evo subtitle reader couldn't allocate enough memory.");
  if (position != -1) LastPosition = position;
  while (valid) {
    const uint8_t* buffer = BufferData(0);
    const uint32_t fill = BufferFill(0);
    if (UnitSize == 0 && fill >= 6) {
      if (FirstUnit) {
        FirstUnit = false;
        FirstPosition = LastPosition;
        DelayMs = DelaySum();
      }
      int64_t pts = (LastPosition - FirstPosition) * 9 / 1000 + int64_t(DelayMs) * 90;
      uint8_t head[10] = {'S', 'P', 0, 0, 0, 0, 0, 0, 0, 0};
      for (int i = 0; i < 4; i++) head[2 + i] = uint8_t(uint64_t(pts) >> (8 * i));
      UnitSize = Be16(buffer);
      if (UnitSize == 0) UnitSize = Be32(buffer + 2);
      // A unit can't be smaller than the size field it starts with.
      if (UnitSize < 6) return Fail("The evo subtitle reader received an invalid subpicture unit.");
      valid = Send(false, head, sizeof head, -1, false);
    } else if (UnitSize != 0 && fill >= UnitSize) {
      valid = Send(false, buffer, UnitSize, -1, flush);
      static constexpr uint8_t kPad = 0xFF;
      if (valid && (UnitSize & 1)) valid = Send(false, &kPad, 1, -1, false);
      RemoveData(0, UnitSize);
      UnitSize = 0;
    } else {
      break;
    }
  }
  return valid;
}

}  // namespace sonvex
