// TStripTo16bit: drops the low byte of every 24-bit sample as long as all of them are zero.
#include "pcm/stripto16bit.h"

namespace sonvex {

bool TStripTo16bit::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                              uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!CheckUpStreams("16bit stripper")) return false;
  if (format != "pcm" || channels == 0 || bits != 24 || bigEndian)
    return Fail("The 16bit stripper received a non-supported data format.");
  formatReceived = true;
  return NotifyAudio(format, channels, 16, sampleRate, bigEndian, totalSize);
}

bool TStripTo16bit::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                          bool flush) {
  if (!valid) return false;
  if (failed) return true;
  if (!formatReceived) return Fail("The 16bit stripper didn't receive the format information.");
  if (!StoreData(0, data, size))
    return Fail("The 16bit stripper couldn't allocate enough memory.");
  uint32_t samples = BufferFill(0) / 3;
  if (samples == 0) return true;
  if (!ReserveBuffer(1, samples * 2))
    return Fail("The 16bit stripper couldn't allocate enough memory.");
  const uint8_t* in = BufferData(0);
  uint8_t* out = BufferData(1);
  for (uint32_t i = 0; i < samples; i++, in += 3, out += 2) {
    if (in[0] != 0) {
      Log(0, "This audio track contains more than 16 bit of information.");
      for (auto& up : upStreams) up->SetSilent(true);
      failed = true;
      return true;
    }
    out[0] = in[1];
    out[1] = in[2];
  }
  bool ok = Send(false, BufferData(1), samples * 2, position, flush);
  RemoveData(0, samples * 3);
  return ok;
}

bool TStripTo16bit::Finish() {
  if (!valid) return false;
  bool ok = FinishUpStreams() || failed;
  if (formatReceived && !failed) {
    Log(0, "This audio track contains only 16 bit of information.");
    Log(0, "The zero bytes were successfully removed.");
  }
  return ok;
}

}  // namespace sonvex
