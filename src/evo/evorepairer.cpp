// TEvoRepairer: DSI times and PES time stamps of joined EVO/VOB files laid onto one running time.
#include "evo/evorepairer.h"

#include "evo/evopackets.h"
#include "framework/bitreader.h"
#include "ts/pestimeline.h"

namespace sonvex {

namespace {

void PutBe32(uint8_t* p, uint32_t value) {
  p[0] = uint8_t(value >> 24);
  p[1] = uint8_t(value >> 16);
  p[2] = uint8_t(value >> 8);
  p[3] = uint8_t(value);
}

// Writes the low 32 bits of a PTS or DTS back into its 5 bytes; the prefix bits, the 33rd bit
// and the marker bits stay as they are.
void WritePts32(uint8_t* p, uint32_t value) {
  p[0] = uint8_t((p[0] & 0xF9) | ((value >> 29) & 6));
  p[1] = uint8_t(value >> 22);
  p[2] = uint8_t((p[2] & 0x01) | ((value >> 14) & 0xFE));
  p[3] = uint8_t(value >> 7);
  p[4] = uint8_t((p[4] & 0x01) | ((value << 1) & 0xFE));
}

// Bytes from an open pack header on that are held back at most.
constexpr uint32_t kLongestPack = 0x10000;
constexpr uint64_t kClockMask = (uint64_t(1) << 33) - 1;

// From clock value `from` to `to`, the shorter way round the 33-bit clock.
int64_t ClockDistance(uint64_t from, uint64_t to) {
  int64_t d = int64_t((to - from) & kClockMask);
  return d >= int64_t(1) << 32 ? d - (int64_t(1) << 33) : d;
}

uint64_t ReadScr(const uint8_t* p) {
  return (uint64_t((p[0] >> 3) & 7) << 30) | (uint64_t(p[0] & 3) << 28) | (uint64_t(p[1]) << 20) |
         (uint64_t(p[2] >> 3) << 15) | (uint64_t(p[2] & 3) << 13) | (uint64_t(p[3]) << 5) |
         uint64_t(p[4] >> 3);
}

}  // namespace

bool TEvoRepairer::InitContainer(const std::string& format, int64_t, int64_t) {
  if (!valid) return false;
  if (format != "?" && format != "evo")
    return Fail("The evo repairer received a non-supported data format.");
  if (!CheckUpStreams("evo repairer")) return false;
  FormatSeen = true;
  return true;
}

bool TEvoRepairer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("evo repairer")) return false;
  if (!FormatSeen) return Fail("The evo repairer didn't receive the format information.");
  if (!StoreData(0, data, size)) return Fail("The evo repairer couldn't allocate enough memory.");
  uint8_t* buffer = BufferData(0);
  const uint32_t fill = BufferFill(0);
  uint32_t offset = Walked;
  while (fill - offset >= 13) {
    uint8_t* at = buffer + offset;
    TEvoItem item = ClassifyEvoCode(Be32(at));
    if (item == TEvoItem::Invalid) return Fail("This doesn't seem to be a valid EVO/VOB file.");
    uint32_t length = EvoItemLength(item, at, fill - offset);
    if (length == 0 || length > fill - offset) break;
    if (item == TEvoItem::Pack) {
      ClosePack(buffer);
      PackAt = offset;
    } else if (item == TEvoItem::PrivateStream2 && at[6] == 0) {
      PciAt = offset;
      PciLength = length;
    } else if (item == TEvoItem::PrivateStream2) {
      RepairDsi(at, length);
    } else if (item == TEvoItem::Pes) {
      RepairPes(at, length);
    }
    offset += length;
  }
  // A pack that runs on and on (no pack headers any more) is not held for ever.
  if (PackAt >= 0 && offset - uint32_t(PackAt) > kLongestPack) ClosePack(buffer);
  Walked = offset;
  const uint32_t sendable = PackAt >= 0 ? uint32_t(PackAt) : offset;
  if (sendable > 0) {
    valid = Send(false, buffer, sendable, -1, flush);
    RemoveData(0, sendable);
    Walked -= sendable;
    if (PackAt >= 0) PackAt -= sendable;
    if (PciAt >= 0) PciAt = PciAt >= int64_t(sendable) ? PciAt - sendable : -1;
    if (DsiAt >= 0) DsiAt = DsiAt >= int64_t(sendable) ? DsiAt - sendable : -1;
  }
  return valid;
}

// What is left at the end (a last packet cut short, a few bytes behind the last one) goes out as
// it is.
bool TEvoRepairer::Finish() {
  if (!valid) return false;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  ClosePack(BufferData(0));
  if (BufferFill(0) > 0) {
    valid = Send(false, BufferData(0), BufferFill(0), -1, false);
    SetBufferFill(0, 0);
    Walked = 0;
    if (!valid) return false;
  }
  return FinishUpStreams();
}

// The SCR of an MPEG-2 pack header: 33 bits of 90 kHz clock spread over bytes 4 to 8 between
// marker bits, then 9 bits of 27 MHz extension, which stay. A pack moves with its unit; the first
// pack of a moved unit must also come after the last pack written (a part ends with packs sent
// less far ahead of their times than the navigation pack that opens the next part), else the
// whole unit and those behind it move on by what is missing, plus one step of the clock.
void TEvoRepairer::ClosePack(uint8_t* buffer) {
  if (PackAt < 0) return;
  uint8_t* p = buffer + PackAt + 4;
  uint8_t* dsi = DsiAt >= 0 ? buffer + DsiAt : nullptr;
  PackAt = DsiAt = PciAt = -1;
  if ((p[0] & 0xC4) != 0x44) return;
  const uint64_t scr = ReadScr(p);
  if (UnitMoved) {
    UnitMoved = false;
    ScrShift = ClockOffset;
    const int64_t ahead = ClockDistance(LastScr, scr + uint64_t(ScrShift));
    if (ScrSeen && ahead <= 0) ScrShift += ScrStep - ahead;
  }
  const uint64_t moved = (scr + uint64_t(ScrShift)) & kClockMask;
  const int64_t step = ClockDistance(LastScr, moved);
  if (ScrSeen && step > 0) ScrStep = step;
  ScrSeen = true;
  LastScr = moved;
  if (ScrShift == 0) return;
  p[0] = uint8_t((p[0] & 0xC4) | ((moved >> 27) & 0x38) | ((moved >> 28) & 0x03));
  p[1] = uint8_t(moved >> 20);
  p[2] = uint8_t((p[2] & 0x04) | ((moved >> 12) & 0xF8) | ((moved >> 13) & 0x03));
  p[3] = uint8_t(moved >> 5);
  p[4] = uint8_t((p[4] & 0x07) | ((moved << 3) & 0xF8));
  // The DSI begins with a copy of its pack's SCR (low 32 bits).
  if (dsi && Be32(dsi + 7) == uint32_t(scr)) PutBe32(dsi + 7, uint32_t(moved));
}

// A DSI packet with a new start makes the next unit: it begins where the one before ended.
void TEvoRepairer::RepairDsi(uint8_t* at, uint32_t length) {
  uint32_t start, end;
  if (!ReadDsiTimes(at, length, start, end)) return;
  if (FirstDsi || start != DsiStart) {
    DsiStart = start;
    DsiEnd = end;
    while (DsiEnd < DsiStart) DsiEnd += 0xF00000000LL;
    if (FirstDsi) {
      FirstDsi = false;
      DsiBase = DsiStart;
      FirstStart = DsiStart;
    } else {
      DsiBase = DsiTotal;
    }
    DsiTotal = DsiBase + DsiEnd - DsiStart;
    DsiDuration = DsiEnd - DsiStart;
    PtsOffset = uint32_t(DsiBase - DsiStart);
    if (DsiBase - DsiStart != ClockOffset) UnitMoved = true;
    ClockOffset = DsiBase - DsiStart;
  }
  if (PackAt >= 0) DsiAt = at - BufferData(0);
  const uint32_t newStart = uint32_t(DsiBase);
  const uint32_t newEnd = uint32_t(newStart + DsiDuration);
  if ((newStart != start || newEnd != end) && !Announced) {
    Announced = true;
    Log(0, "Fixing EVO/VOB timestamps...");
  }
  if (DsiDuration == 0) return;
  PutBe32(at + 6 + 45, newStart);
  PutBe32(at + 6 + 49, newEnd);
  if (PtsOffset == 0) return;
  uint8_t* buffer = BufferData(0);
  // The PCI packet ahead of the DSI in the same pack holds the unit's start and end PTM and the
  // end PTM of a sequence (zero when there is none).
  if (PciAt >= 0 && PciLength >= 6 + 25) {
    for (uint32_t field : {13u, 17u, 21u}) {
      uint8_t* time = buffer + PciAt + 6 + field;
      if (Be32(time) != 0) PutBe32(time, Be32(time) + PtsOffset);
    }
  }
}

void TEvoRepairer::RepairPes(uint8_t* at, uint32_t length) {
  if (PtsOffset == 0 || length < 14) return;
  const uint8_t flags = at[7];
  if (!(flags & 0x80)) return;
  uint32_t pts = ReadPts32(at + 9);
  if (pts != 0xFFFFFFFF) WritePts32(at + 9, pts + PtsOffset);
  if ((flags & 0xC0) == 0xC0 && length >= 19) {
    uint32_t dts = ReadPts32(at + 14);
    if (dts != 0xFFFFFFFF) WritePts32(at + 14, dts + PtsOffset);
  }
}

}  // namespace sonvex
