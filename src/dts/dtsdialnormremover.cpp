// The DTS dialnorm remover stage.
#include "dts/dtsdialnormremover.h"

#include "dts/dtsbitstream.h"

namespace sonvex {

bool TDtsDialnormRemover::InitAudio(const std::string& format, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                    int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS dialnorm remover")) return false;
  if (format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The DTS dialnorm remover received a non-supported data format.");
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TDtsDialnormRemover::Write(SenderId sender, bool isHeader, const uint8_t* data,
                                uint32_t size, int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS dialnorm remover")) return false;
  // Short blocks, and frames without a core (DTS-HD substreams only), hold nothing to patch.
  if (size < 13 || !DtsSyncAt(data, size, 0, kDtsCoreSync))
    return Send(false, data, size, position, flush);
  if (data[4] & 2) return Fail("Dialnorm can't be removed because there's a CRC in the DTS file.");
  if (!StoreData(0, data, size))
    return Fail("The DTS dialnorm remover couldn't allocate enough memory.");
  uint8_t* frame = BufferData(0);
  if (!reported) {
    // Encoder version 6 shifts the dialog normalisation by 16 dB.
    int dialnorm = (frame[12] & 15) + (((frame[11] >> 3) & 15) == 6 ? 16 : 0);
    if (dialnorm >= 1 && dialnorm <= 30) Log(0, "Removing dialog normalization...");
    reported = true;
  }
  frame[11] = uint8_t((frame[11] & 0x87) + 0x38);  // encoder version 7
  frame[12] &= 0xF0;                               // dialnorm 0
  bool result = Send(false, frame, size, position, flush);
  SetBufferFill(0, 0);
  return result;
}

}  // namespace sonvex
