// The DTS delayer stage.
#include "dts/dtsdelayer.h"

#include "dts/dtsbitstream.h"

namespace sonvex {

bool TDtsDelayer::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                            uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The DTS delayer received a non-supported data format.");
  this->format = format;
  this->channels = int32_t(channels);
  bytesPerSample = bitsPerSample / 8;
  this->sampleRate = sampleRate;
  this->bigEndian = bigEndian;
  this->totalSize = totalSize;
  return true;
}

bool TDtsDelayer::Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                        int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS delayer")) return false;
  if (channels <= 0) return Fail("The DTS delayer didn't receive the format information.");
  if (size == 0) return true;
  if (!started) {
    const int64_t delay = DelaySum();
    if (delay != 0) Log(0, "Applying DTS delay...");
    // Samples of one frame; at 96 kHz the core counts half of them.
    int64_t s = size >= 6 ? DtsFrameSamples(data, size) : 512;
    if (s == 0) s = 512;
    if (sampleRate == 96000) s *= 2;
    const int64_t hundredths = delay * int64_t(sampleRate / 100);
    delayFrames = delay >= 0 ? (hundredths + s * 5) / (s * 10) : (hundredths - s * 5) / (s * 10);
    if (delayFrames != 0) totalSize = 0;
    started = true;
    if (!NotifyAudio(format, uint32_t(channels), bytesPerSample * 8, sampleRate, bigEndian,
                     totalSize))
      return valid = false;
  }
  while (valid && delayFrames > 0) {
    valid = Send(false, data, size, position, flush);
    delayFrames--;
  }
  if (!valid) return false;
  if (delayFrames >= 0) return valid = Send(false, data, size, position, flush);
  delayFrames++;
  return true;
}

}  // namespace sonvex
