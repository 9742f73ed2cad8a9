// TEvoRepairer: rewrites an EVO or VOB stream so that its time stamps run on without jumps, for
// joined EVO files that are to become one file again. All bytes pass in order; only the start and
// end PTM of DSI packets and the PTS and DTS of PES packets change: the units are laid end to end
// on one running time from the first unit's start, as the EVO parser sees them.
#pragma once

#include <memory>

#include "framework/upstream.h"

namespace sonvex {

class TEvoRepairer : public TUpStream {
public:
  static std::shared_ptr<TEvoRepairer> Create() { return std::make_shared<TEvoRepairer>(); }

  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  void RepairDsi(uint8_t* at, uint32_t length);
  void RepairPes(uint8_t* at, uint32_t length);

  bool FormatSeen = false;
  int64_t DsiStart = 0, DsiEnd = 0;
  int64_t DsiBase = 0, DsiTotal = 0;
  uint32_t PtsOffset = 0;
  bool FirstDsi = true;
  int64_t FirstStart = 0;
  int64_t DsiDuration = 0;
  bool Announced = false;
};

}  // namespace sonvex
