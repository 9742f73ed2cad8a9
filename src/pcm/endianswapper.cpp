// TEndianSwapper: 16- and 24-bit samples reversed byte by byte; a split sample waits in a carry.
#include "pcm/endianswapper.h"

#include <algorithm>
#include <cstring>

namespace sonvex {

bool TEndianSwapper::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                               uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!CheckUpStreams("endian swapper")) return false;
  if (format != "pcm" || channels == 0 || (bits != 8 && bits != 16 && bits != 24))
    return Fail("The endian swapper received a non-supported data format.");
  bytesPerSample = bits / 8;
  carryFill = 0;
  Log(0, "Swapping endian...");
  return NotifyAudio(format, channels, bits, sampleRate, !bigEndian, totalSize);
}

static inline void ReverseSample(const uint8_t* in, uint8_t* out, uint32_t s) {
  if (s == 2) {
    out[0] = in[1];
    out[1] = in[0];
  } else {
    out[0] = in[2];
    out[1] = in[1];
    out[2] = in[0];
  }
}

bool TEndianSwapper::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                           bool flush) {
  if (!valid) return false;
  if (bytesPerSample == 0) return Fail("The endian swapper didn't receive the format information.");
  if (size == 0) return true;
  const uint32_t s = bytesPerSample;
  if (s == 1) return Send(false, data, size, position, flush);
  if (carryFill + size < s) {
    std::memcpy(carry + carryFill, data, size);
    carryFill += size;
    return true;
  }
  if (carryFill) {
    uint32_t take = s - carryFill;
    std::memcpy(carry + carryFill, data, take);
    data += take;
    size -= take;
    uint8_t sample[3];
    ReverseSample(carry, sample, s);
    carryFill = 0;
    if (!Send(false, sample, s, position, flush && size == 0)) return false;
  }
  uint32_t rest = size % s;
  uint32_t whole = size - rest;
  if (whole) {
    if (!ReserveBuffer(0, whole))
      return Fail("The endian swapper was not able to allocate enough memory.");
    uint8_t* out = BufferData(0);
    if (s == 2) {
      for (uint32_t i = 0; i < whole; i += 2) ReverseSample(data + i, out + i, 2);
    } else {
      for (uint32_t i = 0; i < whole; i += 3) ReverseSample(data + i, out + i, 3);
    }
  }
  std::memcpy(carry, data + whole, rest);
  carryFill = rest;
  if (!whole) return true;
  return Send(false, BufferData(0), whole, position, flush);
}

}  // namespace sonvex
