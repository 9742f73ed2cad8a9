// TPassThrough and TFileSimulator.
#include "framework/smallstages.h"

namespace sonvex {

bool TPassThrough::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                         int64_t position, bool flush) {
  return Send(isHeader, data, size, position, flush);
}

bool TPassThrough::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                             uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TPassThrough::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                             uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                             uint32_t rateNumerator, uint32_t rateDenominator,
                             const std::string& description) {
  return NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY, rateNumerator,
                     rateDenominator, description);
}

bool TPassThrough::InitSubtitle(const std::string& format) { return NotifySubtitle(format); }

bool TPassThrough::InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) {
  return NotifyContainer(format, totalSize, playTime);
}

bool TFileSimulator::Write(SenderId, bool, const uint8_t*, uint32_t blockSize, int64_t, bool) {
  position += blockSize;
  if (position > size) size = position;
  return true;
}

void TFileSimulator::Seek(int64_t newPosition) {
  if (position > size) size = position;
  position = newPosition;
}

}  // namespace sonvex
