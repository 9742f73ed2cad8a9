// TRawReader: announces a headerless PCM file with the layout given on the command line.
#include "pcm/rawreader.h"

namespace sonvex {

TRawReader::TRawReader(uint32_t channels, int64_t sampleCount, bool bigEndian, int64_t skip,
                       uint32_t sampleRate, uint32_t bits)
    : channels(channels), sampleCount(sampleCount), bigEndian(bigEndian), skip(skip),
      sampleRate(sampleRate), bits(bits) {}

bool TRawReader::InitAudio(const std::string& format, uint32_t inChannels, uint32_t inBits,
                           uint32_t, bool, int64_t totalSize) {
  if (!CheckUpStreams("RAW reader")) return false;
  if (format != "?" && format != "raw" && format != "pcm")
    return Fail("The RAW reader received a non-supported data format.");
  int64_t streamBytes = totalSize * int64_t(inChannels) * int64_t(inBits) / 8;
  if (sampleCount == 0 && channels && bits >= 8) sampleCount = streamBytes / channels / (bits / 8);
  Log(0, "Reading RAW/PCM...");
  formatReceived = true;
  uint32_t duration = sampleRate ? uint32_t(sampleCount * 1000 / sampleRate) : 0;
  SetAudioDetails("pcm", "RAW/PCM", "", "", duration, channels, 0, bits, sampleRate, 0, 0, 0,
                  bigEndian);
  return NotifyAudio("pcm", channels, bits, sampleRate, bigEndian, sampleCount);
}

bool TRawReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool flush) {
  if (!valid) return false;
  if (!formatReceived) return Fail("The RAW reader didn't receive the format information.");
  if (skip > 0) {
    if (int64_t(size) <= skip) {
      skip -= size;
      return true;
    }
    data += skip;
    size -= uint32_t(skip);
    skip = 0;
  }
  return Send(false, data, size, position, flush);
}

bool TRawReader::Finish() {
  if (!formatReceived) {
    Log(2, "The RAW reader didn't receive the format information.");
    return false;
  }
  if (!valid) return false;
  return FinishUpStreams();
}

}  // namespace sonvex
