// TRawDelayer. The announcement waits for the first block, since only then are the delays final.
// A negative delay shortens the first block at its end: the samples dropped are the last ones
// of that block, not the first.
#include "pcm/rawdelayer.h"

#include <algorithm>
#include <cstring>

namespace sonvex {

bool TRawDelayer::InitAudio(const std::string& format, uint32_t inChannels, uint32_t bits,
                            uint32_t rate, bool inBigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("raw delayer")) return false;
  if (format != "pcm" || inChannels == 0 || (bits != 8 && bits != 16 && bits != 24))
    return Fail("The raw delayer received a non-supported data format.");
  channels = inChannels;
  bytesPerSample = bits / 8;
  sampleRate = rate;
  bigEndian = inBigEndian;
  sampleCount = totalSize;
  return true;
}

bool TRawDelayer::Start() {
  started = true;
  int32_t sum = DelaySum();
  if (sum != 0) Log(0, "Applying RAW/PCM delay...");
  int32_t samples = int32_t(uint32_t(int32_t(sampleRate / 100) * sum)) / 10;
  if (sampleCount > 0) sampleCount = std::max<int64_t>(sampleCount + samples, 0);
  if (!NotifyAudio("pcm", channels, bytesPerSample * 8, sampleRate, bigEndian, sampleCount))
    return valid = false;
  remaining = int32_t(uint32_t(samples) * channels * bytesPerSample);
  return true;
}

bool TRawDelayer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                        bool flush) {
  if (!valid) return false;
  if (channels == 0) return Fail("The raw delayer didn't receive the format information.");
  if (!started && !Start()) return false;
  if (remaining > 0) {
    const uint32_t chunk = 16384 * channels * bytesPerSample;
    if (!ReserveBuffer(0, chunk)) return Fail("The raw delayer couldn't allocate enough memory.");
    std::memset(BufferData(0), 0, chunk);
    while (remaining > 0) {
      uint32_t piece = std::min<uint32_t>(chunk, uint32_t(remaining));
      if (!Send(false, BufferData(0), piece, position, flush)) return valid = false;
      remaining -= int32_t(piece);
    }
    FreeBuffer(0);
  } else if (remaining < 0) {
    uint32_t drop = uint32_t(-int64_t(remaining));
    if (drop < size) {
      size -= drop;
      remaining = 0;
    } else {
      remaining += int32_t(size);
      size = 0;
    }
  }
  if (size == 0) return true;
  return Send(false, data, size, position, flush);
}

bool TRawDelayer::Finish() {
  if (!valid) return false;
  // An empty stream still gets its announcement (and its silence), so a file behind is whole.
  if (channels && !started && !Write(0, false, nullptr, 0, -1, false)) return false;
  return FinishUpStreams();
}

}  // namespace sonvex
