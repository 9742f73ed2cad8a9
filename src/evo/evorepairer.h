// TEvoRepairer: rewrites an EVO or VOB stream so that its time stamps run on without jumps, for
// joined EVO files that are to become one file again. All bytes pass in order; only the start and
// end PTM of DSI packets and the PTS and DTS of PES packets change: the units are laid end to end
// on one running time from the first unit's start, as the EVO parser sees them. The clock of the
// pack headers (SCR), the DSI's copy of it and the start and end PTM of PCI packets move by the
// same amount, so that players and probes which read those see one continuous file as well.
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
  // Moves the SCR of the pack header at `PackAt` by the offset of the unit the pack belongs to:
  // known only when the pack ends, since the DSI of a navigation pack comes behind its header.
  void ClosePack(uint8_t* buffer);

  bool FormatSeen = false;
  int64_t DsiStart = 0, DsiEnd = 0;
  int64_t DsiBase = 0, DsiTotal = 0;
  uint32_t PtsOffset = 0;
  bool FirstDsi = true;
  int64_t FirstStart = 0;
  int64_t DsiDuration = 0;
  bool Announced = false;
  // The offset of the running unit, signed and not cut to 32 bits, for the 33-bit clock; set
  // `UnitMoved` until the pack of the DSI that set it is closed. `ScrShift`: what the SCR of the
  // packs of the running unit moves by; `LastScr`, `ScrStep`: the last SCR written and the last
  // step between two packs.
  int64_t ClockOffset = 0;
  bool UnitMoved = false;
  int64_t ScrShift = 0;
  bool ScrSeen = false;
  uint64_t LastScr = 0;
  int64_t ScrStep = 1;
  int64_t DsiAt = -1;
  // Within the buffer: how far the items are walked; the pack header whose SCR is still open
  // (-1 none) and the PCI packet of that pack (-1 none). Bytes from the open pack on are held.
  uint32_t Walked = 0;
  int64_t PackAt = -1;
  int64_t PciAt = -1;
  uint32_t PciLength = 0;
};

}  // namespace sonvex
