// E-AC3 core extraction: the first frame of every access unit.
#include "ac3/eac3coreextractor.h"

#include "ac3/ac3bitstream.h"

namespace sonvex {

namespace {
const std::string kName = "E-AC3 core extractor";
}

bool TEac3CoreExtractor::InitAudio(const std::string& format, uint32_t channels,
                                   uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                   int64_t totalSize) {
  if (!valid) return false;
  if (format != "eac3") return Fail("The " + kName + " received a non-supported data format.");
  if (!CheckUpStreams(kName)) return false;
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TEac3CoreExtractor::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                               int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  if (size <= 3) return true;
  uint32_t coreSize = ((data[2] & 7) * 256 + data[3] + 1) * 2;  // frmsiz of the first frame
  // A unit that opens with an AC-3 frame (bsid up to 8, Blu-ray 7.1): that frame is the core.
  if (size >= 6 && (data[5] >> 3) <= 8) coreSize = Ac3FamilyFrameSize(data, size);
  if (coreSize == 0) coreSize = size;
  if (!reported) {
    reported = true;
    if (coreSize < size) Log(0, "Extracting E-AC3 core...");
  }
  if (coreSize > size) coreSize = size;
  return Send(false, data, coreSize, position, flush);
}

}  // namespace sonvex
