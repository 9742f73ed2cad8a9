// TChannelMixer: signed 32-bit sums of one sample of each input, clipped to 127/-128,
// 32767/-32768 or 8388607/-8388608. An 8-bit sample is read as a signed byte.
#include "pcm/channelmixer.h"

#include <algorithm>

namespace sonvex {

namespace {

template <int Bytes>
int32_t ReadSample(const uint8_t* p) {
  if constexpr (Bytes == 1) return int8_t(p[0]);
  if constexpr (Bytes == 2) return int16_t(uint16_t(p[0] | p[1] << 8));
  return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
}

template <int Bytes>
void Mix(const uint8_t* const* in, uint32_t inputs, uint8_t* out, uint32_t frames) {
  constexpr int32_t kMax = Bytes == 1 ? 127 : Bytes == 2 ? 32767 : 8388607;
  constexpr int32_t kMin = -kMax - 1;
  for (uint32_t f = 0; f < frames; f++, out += Bytes) {
    int32_t sum = 0;
    for (uint32_t i = 0; i < inputs; i++) sum += ReadSample<Bytes>(in[i] + size_t(f) * Bytes);
    sum = std::clamp(sum, kMin, kMax);
    for (int b = 0; b < Bytes; b++) out[b] = uint8_t(uint32_t(sum) >> (8 * b));
  }
}

}  // namespace

bool TChannelMixer::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                              uint32_t sampleRate, bool inBigEndian, int64_t totalSize) {
  bool first = false;
  if (!AcceptInput(format, channels, bits, inBigEndian, totalSize, first)) return false;
  if (!first) return true;
  Log(0, inputs == 2 ? "Mixing surround channels..."
                     : "Downmixing multi channel audio to stereo...");
  return NotifyAudio("pcm", 1, bits, sampleRate, false, totalSize);
}

bool TChannelMixer::Write(SenderId sender, bool, const uint8_t* data, uint32_t size,
                          int64_t position, bool flush) {
  std::lock_guard<std::recursive_mutex> guard(lock);
  uint32_t frames = 0;
  if (!StoreInput(sender, data, size, frames)) return false;
  if (frames == 0) return true;
  if (!ReserveBuffer(inputs, frames * bytes)) return Refuse("couldn't allocate enough memory.");
  std::vector<const uint8_t*> in(inputs);
  for (uint32_t i = 0; i < inputs; i++) in[i] = InputData(i);
  uint8_t* out = BufferData(inputs);
  switch (bytes) {
    case 1: Mix<1>(in.data(), inputs, out, frames); break;
    case 2: Mix<2>(in.data(), inputs, out, frames); break;
    default: Mix<3>(in.data(), inputs, out, frames); break;
  }
  bool ok = Send(false, out, frames * bytes, position, flush);
  RemoveFrames(frames);
  return ok;
}

}  // namespace sonvex
