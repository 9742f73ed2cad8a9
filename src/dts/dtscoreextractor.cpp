// The DTS core extractor stage.
#include "dts/dtscoreextractor.h"

#include "dts/dtsbitstream.h"

namespace sonvex {

bool TDtsCoreExtractor::InitAudio(const std::string& format, uint32_t channels,
                                  uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                  int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS core extractor")) return false;
  if (format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The DTS core extractor received a non-supported data format.");
  if (format == "dts")
    Log(1, "This is already a normal DTS file, so extracting the core doesn't make sense.");
  else
    Log(0, "Extracting DTS core...");
  return NotifyAudio("dts", channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

bool TDtsCoreExtractor::Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                              int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS core extractor")) return false;
  // A DTS-HD stream without core has nothing to give.
  if (size >= 4 && DtsSyncAt(data, size, 0, kDtsSubstreamSync))
    return Fail("This DTS-HD stream has no core to extract.");
  uint32_t coreSize = size >= 8 ? DtsCoreSize(data) : size;
  if (coreSize > size) coreSize = size;
  return Send(false, data, coreSize, position, flush);
}

}  // namespace sonvex
