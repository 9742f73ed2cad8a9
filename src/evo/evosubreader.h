// TEvoSubReader: turns the subpicture units of a DVD or HD DVD subtitle stream into the units of
// a SUP file: each unit goes out behind a 10-byte head ("SP", its PTS as 32-bit little-endian
// 90 kHz ticks counted from the stream's first unit plus the track's delay, 4 zero bytes), and an
// odd-sized unit gets a pad byte 0xFF. A unit's size is the 16-bit value at its start (DVD), or,
// where that is 0, the 32-bit value behind it (HD DVD).
#pragma once

#include <memory>

#include "framework/upstream.h"

namespace sonvex {

class TEvoSubReader : public TUpStream {
public:
  TEvoSubReader() { keepsDelay = true; }
  static std::shared_ptr<TEvoSubReader> Create() { return std::make_shared<TEvoSubReader>(); }

  bool InitSubtitle(const std::string& format) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  uint32_t UnitSize = 0;  // 0 while no unit is open
  bool FormatSeen = false;
  bool FirstUnit = true;
  int64_t FirstPosition = 0;
  int64_t LastPosition = -1;  // the time of a unit that starts in a block without one
  int32_t DelayMs = 0;
};

}  // namespace sonvex
