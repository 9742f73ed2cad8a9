// TPgsReader: PES packets of a PGS stream to "PG" framed SUP segments.
#include "ts/pgsreader.h"

#include <algorithm>

#include "framework/bitreader.h"
#include "ts/tspacket.h"

namespace sonvex {

namespace {
constexpr int64_t kClockWrap = int64_t(1) << 33;  // the PES clock counts 33 bits
constexpr uint32_t kLongestPes = 6 + 0xFFFF;        // start code, stream id, length, the rest

// A 33-bit time stamp field of a PES header (PTS or DTS).
int64_t ReadStamp(const uint8_t* p) {
  return int64_t(p[0] & 0x0E) << 29 | int64_t(p[1]) << 22 | int64_t(p[2] & 0xFE) << 14 |
         int64_t(p[3]) << 7 | int64_t(p[4] >> 1);
}
}  // namespace

bool TPgsReader::InitSubtitle(const std::string& format) {
  if (!valid) return false;
  if (format == "textst") {
    SetSubtitleDetails("textst", "Text subtitles");
    return valid;
  }
  if (format != "pgs") return Fail("The pgs reader received a non-supported data format.");
  if (!CheckUpStreams("pgs reader")) return false;
  formatSeen = true;
  SetSubtitleDetails("sup", "PGS");
  valid = NotifySubtitle("sup");
  return valid;
}

// The distance from the origin on the 33-bit clock, taken as the shorter way round, so that a
// wrap of the clock between origin and packet counts as running on; plus the user's delay.
int64_t TPgsReader::Relative(int64_t pts) const {
  int64_t base = origin < 0 ? 0 : origin;
  int64_t d = ((pts - base - seamShift) % kClockWrap + kClockWrap) % kClockWrap;
  if (d >= kClockWrap / 2) d -= kClockWrap;
  int32_t userDelay = delays.empty() ? 0 : delays[0];
  return d + int64_t(userDelay) * 90;
}

void TPgsReader::DropDamaged() {
  if (!damageReported) {
    damageReported = true;
    Log(1, "The pgs reader skipped a damaged packet.");
  }
  SetBufferFill(0, 0);
}

bool TPgsReader::CompletePacket() {
  const uint8_t* pes = BufferData(0);
  uint32_t fill = BufferFill(0);
  if (fill == 0) return true;
  auto damaged = [&]() {
    DropDamaged();
    return true;
  };
  if (fill < 9 || pes[0] != 0 || pes[1] != 0 || pes[2] != 1) return damaged();
  uint32_t start = 9u + pes[8];
  uint32_t end = fill;
  uint32_t length = Be16(pes + 4);
  if (length) end = std::min(end, 6 + length);
  if (start > end) return damaged();
  int64_t pts = -1, dts = -1;
  uint8_t flags = pes[7];
  if ((flags & 0x80) && pes[8] >= 5) pts = ReadStamp(pes + 9);
  if ((flags & 0xC0) == 0xC0 && pes[8] >= 10) dts = ReadStamp(pes + 14);
  if (origin < 0 && pts >= 0) origin = pts;
  int64_t outPts = pts < 0 ? 0 : Relative(pts);
  int64_t outDts = dts < 0 ? outPts : Relative(dts);
  // A decoding time behind the presentation time can't be: both take the middle value of the
  // two and the time just behind the last packet's decoding time.
  if (outDts > outPts) {
    int64_t middle = haveLastDts ? std::max(outPts, std::min(outDts, lastDts + 1)) : outPts;
    outPts = outDts = middle;
  }
  lastDts = outDts;
  haveLastDts = true;

  uint8_t head[10] = {'P', 'G'};
  for (int i = 0; i < 4; i++) {
    head[2 + i] = uint8_t(uint64_t(outPts) >> (24 - 8 * i));
    head[6 + i] = uint8_t(uint64_t(outDts) >> (24 - 8 * i));
  }
  const uint8_t* segment = pes + start;
  uint32_t left = end - start;
  while (valid && left > 2) {
    uint32_t size = 3u + Be16(segment + 1);
    if (size > left) break;
    valid = Send(false, head, sizeof head, -1, false) && Send(false, segment, size, -1, false);
    segments++;
    segment += size;
    left -= size;
  }
  if (valid && left > 0) damaged();
  SetBufferFill(0, 0);
  return valid;
}

bool TPgsReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("pgs reader")) return false;
  if (!formatSeen) return Fail("The pgs reader didn't receive the format information.");
  if (flush && !CompletePacket()) return false;
  if (size && !StoreData(0, data, size))
    return Fail("The pgs reader couldn't allocate enough memory.");
  // No PES packet is longer than its 16-bit length allows: a longer run of data without a unit
  // start is damage, and is not gathered on.
  if (BufferFill(0) > kLongestPes) DropDamaged();
  return valid;
}

bool TPgsReader::Finish() {
  if (!valid) return false;
  if (formatSeen && !CompletePacket()) return false;
  return FinishUpStreams();
}

void TPgsReader::NotifySeam(bool before, int64_t jump) {
  if (before && valid && formatSeen) CompletePacket();
  BroadcastSeam(before, jump);
  if (before) seamShift += jump;
}

}  // namespace sonvex
