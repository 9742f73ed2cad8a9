// TEvoPcmReader: DVD and HD DVD LPCM headers off, sample pairs to plain big-endian samples.
#include "evo/evopcmreader.h"

namespace sonvex {

namespace {

constexpr uint32_t kRates[] = {48000, 96000, 192000};
constexpr uint32_t kBits[] = {16, 20, 24};

}  // namespace

bool TEvoPcmReader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                              int64_t) {
  if (!valid) return false;
  if (format != "evo/pcm" && format != "vob/pcm")
    return Fail("The evo pcm reader received a non-supported data format.");
  if (!CheckUpStreams("evo pcm reader")) return false;
  IsEvo = format == "evo/pcm";
  return true;
}

int32_t TEvoPcmReader::InitialDelay() {
  if (!Rate) return 0;
  return int32_t(DelaySamples * 1000 / int64_t(Rate));
}

// DVD (3 bytes): byte 1 holds the bit depth (bits 7..6), the rate (5..4), channels - 1 (2..0).
// HD DVD (5 bytes): the depth code spans bit 0 of byte 0 and bit 7 of byte 1; byte 1 holds the
// rate (6..4) and channels - 1 (3..0).
bool TEvoPcmReader::ReadHeader(const uint8_t* data, uint32_t size, uint32_t& headerSize) {
  headerSize = IsEvo ? 5 : 3;
  if (size < headerSize) return Fail("The evo pcm reader received an incorrectly sized data block.");
  uint32_t channels, depth, rate;
  if (IsEvo) {
    channels = (data[1] & 0x0F) + 1;
    if (channels > 8) return Fail("The evo pcm reader received an unsupported channel number.");
    depth = uint32_t(data[0] & 1) * 2 + (data[1] >> 7);
    if (depth > 2) return Fail("The evo pcm reader received an unsupported PCM format.");
    rate = (data[1] >> 4) & 7;
  } else {
    channels = (data[1] & 7) + 1;
    depth = data[1] >> 6;
    if (depth > 2) return Fail("The evo pcm reader received an unsupported bitdepth.");
    rate = (data[1] >> 4) & 3;
  }
  if (rate > 2) return Fail("The evo pcm reader received an unsupported sample rate.");
  if (!FormatDone) {
    FormatDone = true;
    Channels = channels;
    Bits = kBits[depth];
    Rate = kRates[rate];
    uint32_t carried = Bits == 16 ? 16 : 24;
    SetAudioDetails("pcm", "RAW/PCM", "", "", 0, Channels, 0, carried, Rate,
                    Channels * carried * Rate, 0, 0, true);
    valid = NotifyAudio("pcm", Channels, carried, Rate, true, 0);
    return valid;
  }
  if (channels != Channels || kBits[depth] != Bits || kRates[rate] != Rate)
    return Fail("The evo pcm reader received a PCM block in an unexpected format.");
  return true;
}

bool TEvoPcmReader::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                          int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("evo pcm reader")) return false;
  if (size == 0) return valid = Send(isHeader, data, 0, position, flush);
  uint32_t headerSize;
  if (!ReadHeader(data, size, headerSize)) return false;
  data += headerSize;
  size -= headerSize;
  if (position != -1) SawPosition = true;
  if (Bits == 16) {
    uint32_t frameBytes = Channels * 2;
    if (!SawPosition) DelaySamples -= size / frameBytes;
    return valid = Send(isHeader, data, size, position, flush);
  }
  if (!SawPosition) DelaySamples -= int64_t(size) * 2 / (Channels * Bits / 4);
  if (!StoreData(0, data, size)) return Fail("The evo pcm reader couldn't allocate enough memory.");
  return SendPairs(position, flush);
}

// Whole pairs of sample frames from buffer 0 into buffer 1, 6 bytes per channel and pair. A
// sample's upper 16 bits stand at its place in the front part of the pair; its low bits follow
// behind the front part, in the same order: a byte each (24 bits) or a nibble each, high nibble
// first (20 bits).
bool TEvoPcmReader::SendPairs(int64_t position, bool flush) {
  const uint32_t pairBytes = Channels * Bits / 4;
  const uint32_t pairs = BufferFill(0) / pairBytes;
  if (pairs == 0) return true;
  const uint32_t samples = 2 * Channels;
  if (!ReserveBuffer(1, pairs * samples * 3))
    return Fail("The evo pcm reader couldn't allocate enough memory.");
  const uint8_t* in = BufferData(0);
  uint8_t* out = BufferData(1);
  for (uint32_t p = 0; p < pairs; p++, in += pairBytes) {
    const uint8_t* back = in + samples * 2;
    for (uint32_t s = 0; s < samples; s++, out += 3) {
      out[0] = in[2 * s];
      out[1] = in[2 * s + 1];
      if (Bits == 24)
        out[2] = back[s];
      else
        out[2] = (s & 1) ? uint8_t(back[s / 2] << 4) : uint8_t(back[s / 2] & 0xF0);
    }
  }
  const uint32_t bytes = pairs * samples * 3;
  RemoveData(0, pairs * pairBytes);
  return valid = Send(false, BufferData(1), bytes, position, flush);
}

bool TEvoPcmReader::Finish() {
  if (!valid) return false;
  if (BufferFill(0) > 0) Log(1, "Dropped incomplete PCM/RAW sample.");
  return FinishUpStreams();
}

}  // namespace sonvex
