// Delay of (E-)AC3 streams by whole frames.
#include "ac3/ac3delayer.h"

#include "ac3/ac3bitstream.h"

namespace sonvex {

namespace {
const std::string kName = "(E-)AC3 delayer";
}

int64_t Ac3DelayFrames(int64_t delayMs, uint32_t bitrate, uint32_t frameSize) {
  if (frameSize == 0) return 0;
  int64_t bytes = delayMs * int64_t(bitrate) / 8000;
  int64_t half = int64_t(frameSize) / 2;
  return (delayMs >= 0 ? bytes + half : bytes - half) / int64_t(frameSize);
}

bool TAc3Delayer::InitAudio(const std::string& format, uint32_t channelCount,
                            uint32_t bitsPerSample, uint32_t rate, bool isBigEndian,
                            int64_t size) {
  if (!valid) return false;
  if (format != "ac3" && format != "eac3")
    return Fail("The " + kName + " received a non-supported data format.");
  if (!CheckUpStreams(kName)) return false;
  isEac3 = format == "eac3";
  channels = int32_t(channelCount);
  bytesPerSample = bitsPerSample / 8;
  sampleRate = rate;
  bigEndian = isBigEndian;
  totalSize = size;
  return true;
}

bool TAc3Delayer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                        bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  if (channels <= 0) return Fail("The " + kName + " didn't receive the format information.");
  if (size == 0) return true;
  if (!started) {
    int64_t delay = DelaySum();
    uint32_t bitrate = 0;
    int result;
    if (isEac3) {
      TEac3UnitInfo unit;
      result = ParseEac3Unit(data, size, size, unit);
      bitrate = unit.bitrate;
    } else {
      TAc3FrameInfo frame;
      result = ParseAc3Frame(data, size, frame);
      bitrate = frame.bitrate;
    }
    if (result != 0) {
      valid = false;
      Log(1, "Applying (E-)AC3 delay failed.");
      return false;
    }
    delayFrames = Ac3DelayFrames(delay, bitrate, size);
    if (delayFrames != 0) {
      Log(0, "Applying (E-)AC3 delay...");
      totalSize = 0;
    }
    if (!NotifyAudio(isEac3 ? "eac3" : "ac3", uint32_t(channels), bytesPerSample * 8, sampleRate,
                     bigEndian, totalSize))
      return valid = false;
    started = true;
  }
  while (valid && delayFrames > 0) {
    if (!Send(false, data, size, -1, flush)) return valid = false;
    delayFrames--;
  }
  if (delayFrames < 0) {
    delayFrames++;
    return true;
  }
  return Send(false, data, size, position, flush);
}

}  // namespace sonvex
