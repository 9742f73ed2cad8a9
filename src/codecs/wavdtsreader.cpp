// TWavDtsReader: byte-swaps 16-bit DTS words, or packs eight 14-bit words into seven 16-bit ones.
#include "codecs/wavdtsreader.h"

#include "framework/bitreader.h"

namespace sonvex {

bool TWavDtsReader::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                              uint32_t sampleRate, bool, int64_t totalSize) {
  if (!CheckUpStreams("WAVDTS reader")) return false;
  if (format != "dtswav") return Fail("The WAVDTS reader received a non-supported data format.");
  return NotifyAudio("dts", channels, bits, sampleRate, false, totalSize);
}

bool TWavDtsReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                          bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("WAVDTS reader")) return false;
  if (!ReserveBuffer(1, BufferFill(0) + size) || !StoreData(0, data, size))
    return Fail("The WAVDTS reader was not able to allocate enough memory.");
  uint32_t fill = BufferFill(0);
  const uint8_t* in = BufferData(0);
  if (!decided) {
    if (fill < 4) return true;
    form16 = Le32(in) == 0x80017FFE;
    form14 = !form16;
    decided = true;
  }
  uint8_t* out = BufferData(1);
  uint32_t used = 0, made = 0;
  if (form16) {
    for (; used + 2 <= fill; used += 2, made += 2) {
      out[made] = in[used + 1];
      out[made + 1] = in[used];
    }
  } else {
    for (; used + 16 <= fill; used += 16) {
      uint64_t acc = 0;
      int accBits = 0;
      for (int w = 0; w < 8; w++) {
        acc = (acc << 14) | (Le16(in + used + 2 * w) & 0x3FFF);
        accBits += 14;
        while (accBits >= 8) {
          accBits -= 8;
          out[made++] = uint8_t(acc >> accBits);
        }
      }
    }
  }
  bool ok = made == 0 || Send(false, out, made, position, flush);
  RemoveData(0, used);
  return ok;
}

}  // namespace sonvex
