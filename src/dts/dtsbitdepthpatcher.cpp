// The DTS bitdepth patcher stage.
#include "dts/dtsbitdepthpatcher.h"

#include "dts/dtsbitstream.h"

namespace sonvex {

bool TDtsBitdepthPatcher::InitAudio(const std::string& format, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                    int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS bitdepth patcher")) return false;
  if (format != "dts" && format != "dtshr")
    return Fail("The DTS bitdepth patcher received a non-supported data format.");
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TDtsBitdepthPatcher::Write(SenderId sender, bool isHeader, const uint8_t* data,
                                uint32_t size, int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS bitdepth patcher")) return false;
  // Short blocks, and frames without a core (DTS-HD substreams only), hold nothing to patch.
  if (size < 13 || !DtsSyncAt(data, size, 0, kDtsCoreSync))
    return Send(false, data, size, position, flush);
  if (data[4] & 2) return Fail("Bitdepth can't be patched because there's a CRC in the DTS file.");
  if (!StoreData(0, data, size))
    return Fail("The DTS bitdepth patcher couldn't allocate enough memory.");
  uint8_t* frame = BufferData(0);
  if (!reported) {
    uint32_t resolution = (frame[11] & 1u) * 4 + (frame[12] >> 6);
    if (resolution != 5 && resolution != 6) Log(0, "Patching bitdepth to 24 bits...");
    reported = true;
  }
  // Source resolution 5 is 24 bit with ES, 6 is 24 bit without.
  frame[11] |= 1;
  if (frame[12] & 0x40)
    frame[12] &= 0x7F;
  else
    frame[12] |= 0x80;
  bool result = Send(false, frame, size, position, flush);
  SetBufferFill(0, 0);
  return result;
}

}  // namespace sonvex
