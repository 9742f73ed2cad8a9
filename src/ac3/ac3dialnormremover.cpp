// Dialog normalisation removal for AC-3 and E-AC-3 frames.
#include "ac3/ac3dialnormremover.h"

#include "ac3/ac3bitstream.h"
#include "framework/bitreader.h"

namespace sonvex {

namespace {

const std::string kName = "(E-)AC3 dialnorm remover";

void PutLe16(uint8_t* p, uint16_t value) {
  p[0] = uint8_t(value);
  p[1] = uint8_t(value >> 8);
}

bool Changes(int32_t dialnorm) { return dialnorm >= 1 && dialnorm <= 30; }

}  // namespace

// The five bits sit in bytes 6-7, behind acmod and the mix levels it brings along. A value of 0
// (reserved) or 31 (-31 dB, neutral) stays; anything else becomes 0 and both CRCs are redone.
int32_t RemoveAc3Dialnorm(uint8_t* frame, uint32_t size) {
  if (size < 8) return 0;
  uint16_t word = Be16(frame + 6);
  uint32_t shift = Ac3DialnormShift(word);
  int32_t dialnorm = int32_t((word >> shift) & 31);
  if (!Changes(dialnorm)) return dialnorm;
  word = uint16_t(word & ~(31u << shift));
  frame[6] = uint8_t(word >> 8);
  frame[7] = uint8_t(word);
  PutLe16(frame + 2, Ac3Crc1(frame, size));
  PutLe16(frame + size - 2, Ac3Crc2(frame, size));
  return dialnorm;
}

int32_t RemoveEac3Dialnorm(uint8_t* unit, uint32_t size) {
  if (size < 8) return 0;
  uint32_t at = 0;
  int32_t dialnorm = (unit[5] & 7) * 4 + (unit[6] >> 6);
  // A unit that opens with an AC-3 core (bsid up to 8): the core is patched as an AC-3 frame
  // and decides for the E-AC-3 frames behind it.
  if ((unit[5] >> 3) <= 8) {
    uint32_t coreSize = Ac3FamilyFrameSize(unit, size);
    if (coreSize == 0 || coreSize > size) return 0;
    dialnorm = RemoveAc3Dialnorm(unit, coreSize);
    at = coreSize;
  }
  if (!Changes(dialnorm)) return dialnorm;
  while (size - at >= 8) {
    uint32_t frameSize = ((unit[at + 2] & 7) * 256 + unit[at + 3] + 1) * 2;
    if (frameSize > size - at) break;
    uint8_t* frame = unit + at;
    frame[5] &= 0xF8;
    frame[6] &= 0x3F;
    PutLe16(frame + frameSize - 2, Eac3Crc(frame, frameSize));
    at += frameSize;
  }
  return dialnorm;
}

bool TAc3DialnormRemover::InitAudio(const std::string& format, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                    int64_t totalSize) {
  if (!valid) return false;
  if (format != "ac3" && format != "eac3")
    return Fail("The " + kName + " received a non-supported data format.");
  if (!CheckUpStreams(kName)) return false;
  isEac3 = format == "eac3";
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TAc3DialnormRemover::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                                int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  SetBufferFill(0, 0);
  if (!StoreData(0, data, size)) return Fail("The " + kName + " couldn't allocate enough memory.");
  uint8_t* block = BufferData(0);
  int32_t dialnorm = isEac3 ? RemoveEac3Dialnorm(block, size) : RemoveAc3Dialnorm(block, size);
  if (!reported) {
    reported = true;
    if (Changes(dialnorm)) Log(0, "Removing dialog normalization...");
  }
  bool result = Send(false, block, size, position, flush);
  SetBufferFill(0, 0);
  return result;
}

}  // namespace sonvex
