// TChannelAmplifier: sample * factor in 32-bit integer arithmetic, written one byte wider; no
// clipping and no rounding. An 8-bit sample is read as a signed byte.
#include "pcm/channelamplifier.h"

namespace sonvex {

namespace {

template <int Bytes>
void Amplify(const uint8_t* in, uint8_t* out, uint32_t count, int32_t factor) {
  for (uint32_t k = 0; k < count; k++, in += Bytes, out += Bytes + 1) {
    int32_t s;
    if constexpr (Bytes == 1) s = int8_t(in[0]);
    else if constexpr (Bytes == 2) s = int16_t(uint16_t(in[0] | in[1] << 8));
    else s = int32_t(uint32_t(in[0]) << 8 | uint32_t(in[1]) << 16 | uint32_t(in[2]) << 24) >> 8;
    uint32_t v = uint32_t(s) * uint32_t(factor);
    for (int b = 0; b <= Bytes; b++) out[b] = uint8_t(v >> (8 * b));
  }
}

}  // namespace

bool TChannelAmplifier::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                                  uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("channel amplifier")) return false;
  if (format != "pcm" || channels != 1 || bigEndian || (bits != 8 && bits != 16 && bits != 24))
    return Fail("The channel amplifier received a non-supported data format.");
  bytes = bits / 8;
  return NotifyAudio(format, 1, bits + 8, sampleRate, false, totalSize);
}

bool TChannelAmplifier::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                              int64_t position, bool flush) {
  if (!valid) return false;
  if (bytes == 0) return Fail("The channel amplifier didn't receive the format information.");
  if (!StoreData(0, data, size))
    return Fail("The channel amplifier couldn't allocate enough memory.");
  const uint32_t n = BufferFill(0) / bytes;
  if (n == 0) return true;
  if (!ReserveBuffer(1, n * (bytes + 1)))
    return Fail("The channel amplifier couldn't allocate enough memory.");
  switch (bytes) {
    case 1: Amplify<1>(BufferData(0), BufferData(1), n, factor); break;
    case 2: Amplify<2>(BufferData(0), BufferData(1), n, factor); break;
    default: Amplify<3>(BufferData(0), BufferData(1), n, factor); break;
  }
  bool ok = Send(false, BufferData(1), n * (bytes + 1), position, flush);
  RemoveData(0, n * bytes);
  return ok;
}

}  // namespace sonvex
