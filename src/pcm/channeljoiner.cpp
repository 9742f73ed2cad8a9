// TChannelJoiner: frame by frame, one sample of each input.
#include "pcm/channeljoiner.h"

#include <cstring>

namespace sonvex {

bool TChannelJoiner::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                               uint32_t sampleRate, bool inBigEndian, int64_t totalSize) {
  bool first = false;
  if (!AcceptInput(format, channels, bits, inBigEndian, totalSize, first)) return false;
  if (!first) return true;
  return NotifyAudio("pcm", inputs, bits, sampleRate, inBigEndian, totalSize);
}

bool TChannelJoiner::Write(SenderId sender, bool, const uint8_t* data, uint32_t size,
                           int64_t position, bool flush) {
  std::lock_guard<std::recursive_mutex> guard(lock);
  uint32_t frames = 0;
  if (!StoreInput(sender, data, size, frames)) return false;
  if (frames == 0) return true;
  const uint32_t frameBytes = inputs * bytes;
  if (!ReserveBuffer(inputs, frames * frameBytes))
    return Refuse("couldn't allocate enough memory.");
  uint8_t* out = BufferData(inputs);
  for (uint32_t i = 0; i < inputs; i++) {
    const uint8_t* in = InputData(i);
    uint8_t* o = out + size_t(i) * bytes;
    if (bytes == 3) {
      for (uint32_t f = 0; f < frames; f++, in += 3, o += frameBytes) {
        o[0] = in[0];
        o[1] = in[1];
        o[2] = in[2];
      }
    } else if (bytes == 2) {
      for (uint32_t f = 0; f < frames; f++, in += 2, o += frameBytes) std::memcpy(o, in, 2);
    } else {
      for (uint32_t f = 0; f < frames; f++, in++, o += frameBytes) o[0] = in[0];
    }
  }
  bool ok = Send(false, out, frames * frameBytes, position, flush);
  RemoveFrames(frames);
  return ok;
}

}  // namespace sonvex
