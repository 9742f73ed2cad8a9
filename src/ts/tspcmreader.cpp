// TTsPcmReader: Blu-ray LPCM headers off, samples on.
#include "ts/tspcmreader.h"

namespace sonvex {

namespace {

// Channels as stored, by channel assignment (mono and odd layouts are padded to even counts).
constexpr uint32_t kStoredChannels[16] = {0, 2, 0, 2, 4, 4, 4, 4, 6, 6, 8, 8, 0, 0, 0, 0};

}  // namespace

bool TTsPcmReader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                             int64_t) {
  if (!valid) return false;
  if (format != "m2ts/pcm" && format != "ts/pcm")
    return Fail("The ts pcm reader received a non-supported data format.");
  if (!CheckUpStreams("ts pcm reader")) return false;
  m2ts = format == "m2ts/pcm";
  return true;
}

int32_t TTsPcmReader::InitialDelay() {
  if (!sampleRate) return 0;
  return int32_t(delaySamples * 1000 / int64_t(sampleRate));
}

bool TTsPcmReader::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                         int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("ts pcm reader")) return false;
  if (position != -1) sawPosition = true;
  if (size == 0) return Send(isHeader, data, 0, position, flush);
  if (size < 4) return Fail("The ts pcm reader received an incorrectly sized data block.");
  // Bytes 0, 1: payload size (not needed). Byte 2: channel assignment, sample rate.
  // Byte 3: bits per sample in the top 2 bits.
  uint32_t stored = kStoredChannels[data[2] >> 4];
  if (!stored) return Fail("The ts pcm reader received an unsupported channel number.");
  uint32_t depthCode = data[3] >> 6;
  if (depthCode == 0) return Fail("The ts pcm reader received an unsupported bitdepth.");
  uint32_t depth = depthCode == 1 ? 16 : 24;  // 20 bits travel in 24 bit containers
  uint32_t rate = 0;
  switch (data[2] & 15) {
    case 1: rate = 48000; break;
    case 4: rate = 96000; break;
    case 5: rate = 192000; break;
    default: return Fail("The ts pcm reader received an unsupported sample rate.");
  }
  if (!formatKnown) {
    formatKnown = true;
    channels = stored;
    bits = depth;
    sampleRate = rate;
    SetAudioDetails("pcm", "RAW/PCM", "", "", 0, channels, 0, bits, sampleRate,
                    channels * bits * sampleRate, 0, 0, true);
    valid = NotifyAudio("pcm", channels, bits, sampleRate, true, 0);
    if (!valid) return false;
  } else if (stored != channels || depth != bits || rate != sampleRate) {
    return Fail("The ts pcm reader received a PCM block in an unexpected format.");
  }
  uint32_t frameBytes = channels * bits / 8;
  uint32_t payload = size - 4;
  uint32_t whole = payload - payload % frameBytes;
  if (whole != payload) Log(1, "Dropped incomplete PCM/RAW sample.");
  if (!sawPosition) delaySamples -= whole / frameBytes;
  return valid = Send(isHeader, data + 4, whole, position, flush);
}

}  // namespace sonvex
