// TPesParser: PES packets to payload blocks with time stamps.
#include "ts/pesparser.h"

#include "framework/bitreader.h"
#include "framework/details.h"

namespace sonvex {

namespace {

bool CarriesPesHeader(uint8_t streamId) {
  return streamId == 0xBD || (streamId >= 0xC0 && streamId <= 0xEF) || streamId == 0xFA ||
         streamId == 0xFD;
}

}  // namespace

bool TPesParser::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                           uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TPesParser::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                           uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                           uint32_t rateNumerator, uint32_t rateDenominator,
                           const std::string& description) {
  if (!valid) return false;
  return NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY, rateNumerator,
                     rateDenominator, description);
}

bool TPesParser::InitSubtitle(const std::string& format) {
  if (!valid) return false;
  return NotifySubtitle(format);
}

// A DSI packet (private stream 2, sub id 1) gives the start and end PTM of its unit; the start
// less the previous unit's end is the jump that a seamless join makes.
void TPesParser::HandleDsi(const uint8_t* at, uint32_t length) {
  if (length < 6 + 53 || at[6] != 1) return;
  timeline.Dsi(Be32(at + 6 + 45), Be32(at + 6 + 49));
}

// One PES packet at `at`; `length` receives its length. Wait: not all of it is here yet.
TPesParser::Item TPesParser::HandlePes(const uint8_t* at, uint32_t remaining, uint32_t& length,
                                       bool flush) {
  // A damaged header loses only its own packet: it is dropped, and reading goes on with the next
  // packet that starts a PES. The readers behind see the hole in the time stamps.
  auto invalid = [&]() {
    if (!damageReported) {
      damageReported = true;
      int64_t where = UnitPosition(uint32_t(at - BufferData(0)));
      Log(1, "The source file is invalid: a damaged PES packet" +
                 (where >= 0 ? " at file position " + GroupThousands(where) : std::string()) +
                 " was skipped.",
          true);
    }
    return Item::Drop;
  };
  uint32_t declared = Be16(at + 4);
  if (declared == 0) {
    // Unbounded (video in a TS): it ends where the data given so far ends, at the latest when
    // the stream itself ends.
    if (!flush && !flushing) return Item::Wait;
    length = remaining;
  } else {
    length = 6 + declared;
    // In a transport stream a packet ends where the next unit of its PID starts.
    const uint32_t offset = uint32_t(at - BufferData(0));
    const int64_t next = NextUnitStart(offset);
    if (next >= 0 && length > uint64_t(next) - offset && CarriesPesHeader(at[3])) return invalid();
    if (length > remaining || (length + 4 > remaining && !flushing)) return Item::Wait;
  }
  if (!CarriesPesHeader(at[3])) {
    timeline.PacketDone();
    return Item::Next;
  }
  if (length < 9) return invalid();
  uint8_t flags = at[7];
  uint32_t headerLength = at[8];
  uint32_t q = 9;
  int64_t pts = -1;
  if (flags & 0x80) {
    if (q + 5 > length) return invalid();
    const uint8_t* b = at + q;
    uint32_t value = ReadPts32(b);
    if (value != 0xFFFFFFFF) pts = value;
    q += 5;
    if ((flags & 0xC0) == 0xC0) q += 5;  // a DTS follows; it is not needed
  }
  // The other optional fields are only counted, to test the header length.
  uint32_t count = q;
  if (flags & 0x20) count += 6;  // ESCR
  if (flags & 0x10) count += 3;  // ES rate
  if (flags & 0x04) count += 1;  // additional copy info
  if (flags & 0x02) count += 2;  // previous PES CRC
  if (flags & 0x01) {            // PES extension
    if (count >= length) return invalid();
    uint8_t extension = at[count];
    count += 1;
    if (extension & 0x80) count += 16;  // private data
    if (extension & 0x40) count += 1;   // pack header field length
    if (extension & 0x20) count += 2;   // sequence counter
    if (extension & 0x10) count += 2;   // P-STD buffer
    if (extension & 0x01) count += 2;   // extension 2
  }
  uint32_t payloadStart = 9 + headerLength;
  if (payloadStart < count || payloadStart > length) return invalid();

  int64_t stamp = -1;
  if (pts != -1) stamp = RawTimestamps ? pts : timeline.Step(pts);
  valid = Send(false, at + payloadStart, length - payloadStart, stamp == -1 ? -1 : stamp * 1000 / 9,
               flush);
  if (firstPts == -1) firstPts = stamp;
  timeline.PacketDone();
  return valid ? Item::Next : Item::Stop;
}

int64_t TPesParser::UnitPosition(uint32_t offset) const {
  int64_t position = -1;
  for (const UnitStart& unit : unitStarts)
    if (unit.offset <= bufferBase + offset) position = unit.position;
  return position;
}

int64_t TPesParser::NextUnitStart(uint32_t offset) const {
  for (const UnitStart& unit : unitStarts)
    if (unit.offset > bufferBase + offset) return int64_t(unit.offset - bufferBase);
  return -1;
}

// `count` bytes leave the front of buffer 0; the unit that the new front lies in is kept.
void TPesParser::Consumed(uint32_t count) {
  bufferBase += count;
  while (unitStarts.size() >= 2 && unitStarts[1].offset <= bufferBase) unitStarts.pop_front();
}

bool TPesParser::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("pes parser")) return false;
  if (skipToUnit) {
    // The rest of a damaged unit: dropped until the flush that starts the next one.
    bufferBase += size;
    if (!flush) return true;
    skipToUnit = false;
    size = 0;
  }
  if (size > 0 && position >= 0 && !unitStarts.empty() && unitStarts.back().position == -1 &&
      unitStarts.back().offset == bufferBase + BufferFill(0))
    unitStarts.back().position = position;
  if (!StoreData(0, data, size)) return Fail("The pes parser couldn't allocate enough memory.");
  // An empty flushing block is how the TS demuxer marks a unit start.
  if (flush && size == 0 &&
      (unitStarts.empty() || unitStarts.back().offset != bufferBase + BufferFill(0)))
    unitStarts.push_back({bufferBase + BufferFill(0), -1});
  const uint8_t* buffer = BufferData(0);
  const uint32_t fill = BufferFill(0);
  const bool ending = flushing || flush;
  uint32_t offset = 0;
  while (valid) {
    uint32_t remaining = fill - offset;
    // Normally a whole 2048 byte sector and the next start code are in view.
    if (remaining < 2052 && !(ending && remaining >= 13)) break;
    const uint8_t* at = buffer + offset;
    uint32_t code = Be32(at);
    uint32_t length = 0;
    Item item = Item::Next;
    if (code == 0) {
      length = 2;  // zero stuffing
    } else if (code == 1) {
      length = 1;  // brings a start code onto the offset
    } else if (code == 0x1BA) {
      if (remaining < 14) break;
      length = 14 + (at[13] & 7);  // pack header with its stuffing
    } else if (code == 0x1BB || code == 0x1BF) {
      length = 6 + Be16(at + 4);  // system header, private stream 2: must be complete
      if (length > remaining || (length + 4 > remaining && !flushing)) break;
      if (code == 0x1BF) HandleDsi(at, length);
    } else if (code == 0x1BC || code == 0x1BE) {
      length = 6 + Be16(at + 4);  // program stream map, padding
    } else if (code == 0x1BD || (code >= 0x1C0 && code <= 0x1EF) || code == 0x1FD) {
      item = HandlePes(at, remaining, length, flush);
    } else {
      Log(2, "This doesn't seem to be a valid PES packet.", true);
      valid = false;
      break;
    }
    if (item == Item::Drop) {
      int64_t next = NextUnitStart(offset);
      if (next >= 0) {
        length = uint32_t(next) - offset;
      } else if (unitStarts.empty() && length <= remaining) {
        // Program stream data has no units: the packet's own length is all there is to go by.
      } else {
        skipToUnit = true;
        length = remaining;
      }
      item = Item::Next;
    }
    if (item != Item::Next) break;
    if (length > remaining) break;
    offset += length;
  }
  if (valid) {
    RemoveData(0, offset);
    Consumed(offset);
  }
  if (!valid) container.containerValid = false;
  return valid;
}

bool TPesParser::Finish() {
  if (!valid) return false;
  flushing = true;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  return FinishUpStreams();
}

// At a clip boundary the open packet is closed, and the last PTS is moved by the jump between the
// clips so that a seamless join looks continuous to the timeline.
void TPesParser::NotifySeam(bool before, int64_t jump) {
  BroadcastSeam(before, jump);
  if (!before || !valid) return;
  flushing = true;
  Write(0, false, nullptr, 0, -1, true);
  flushing = false;
  timeline.Seam(jump);
  if (BufferFill(0) > 0) {
    Log(1, "The pes parser received incomplete data.");
    Consumed(BufferFill(0));
    SetBufferFill(0, 0);
  }
}

}  // namespace sonvex
