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
  uint32_t offset = 0;
  while (fill - offset >= 13) {
    uint8_t* at = buffer + offset;
    TEvoItem item = ClassifyEvoCode(Be32(at));
    if (item == TEvoItem::Invalid) return Fail("This doesn't seem to be a valid EVO/VOB file.");
    uint32_t length = EvoItemLength(item, at, fill - offset);
    if (length == 0 || length > fill - offset) break;
    if (item == TEvoItem::PrivateStream2)
      RepairDsi(at, length);
    else if (item == TEvoItem::Pes)
      RepairPes(at, length);
    offset += length;
  }
  if (offset > 0) {
    valid = Send(false, buffer, offset, -1, flush);
    RemoveData(0, offset);
  }
  return valid;
}

// What is left at the end (a last packet cut short, a few bytes behind the last one) goes out as
// it is.
bool TEvoRepairer::Finish() {
  if (!valid) return false;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  if (BufferFill(0) > 0) {
    valid = Send(false, BufferData(0), BufferFill(0), -1, false);
    SetBufferFill(0, 0);
    if (!valid) return false;
  }
  return FinishUpStreams();
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
  }
  const uint32_t newStart = uint32_t(DsiBase);
  const uint32_t newEnd = uint32_t(newStart + DsiDuration);
  if ((newStart != start || newEnd != end) && !Announced) {
    Announced = true;
    Log(0, "Fixing EVO/VOB timestamps...");
  }
  if (DsiDuration == 0) return;
  PutBe32(at + 6 + 45, newStart);
  PutBe32(at + 6 + 49, newEnd);
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
