// The DTS repairer stage.
#include "dts/dtsrepairer.h"

#include "dts/dtsbitstream.h"

namespace sonvex {

bool TDtsRepairer::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                             uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS repairer")) return false;
  if (format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The DTS repairer received a non-supported data format.");
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TDtsRepairer::Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                         int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS repairer")) return false;
  // Short blocks, and frames without a core (DTS-HD substreams only), hold nothing to patch.
  if (size < 13 || !DtsSyncAt(data, size, 0, kDtsCoreSync))
    return Send(false, data, size, position, flush);
  if (data[4] & 2) return Fail("The bitstream can't be repaired because there's a CRC in the DTS file.");
  if (!StoreData(0, data, size)) return Fail("The DTS repairer couldn't allocate enough memory.");
  uint8_t* frame = BufferData(0);

  // XCh data: sync 5A 5A 5A 5A, then a ten-bit size field counted from that sync. The current
  // layout counts to one byte behind the frame's end, the outdated one to the end itself.
  if ((!firstFrameDone || repairing) && (frame[12] & 0x40) && size >= 191) {
    for (uint32_t offset = 96; offset < 96 + (size - 190); offset += 2) {
      if (!DtsSyncAt(frame, size, offset, kDtsXchSync)) continue;
      uint32_t n = frame[offset + 4] * 4u + (frame[offset + 5] >> 6);
      if (n < 94) continue;
      if (size - offset == n) {
        frame[offset + 4] = uint8_t((n - 1) >> 2);
        frame[offset + 5] = uint8_t((frame[offset + 5] & 0x3F) | ((n - 1) & 3) << 6);
        repairing = true;
        break;
      }
      if (size - offset == n + 1) break;
    }
  }
  if (!firstFrameDone && repairing) Log(0, "Correcting DTS-ES information...");
  firstFrameDone = true;
  bool result = Send(false, frame, size, position, flush);
  SetBufferFill(0, 0);
  return result;
}

}  // namespace sonvex
