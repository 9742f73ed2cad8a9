// TEvoPcmReader: the reader of DVD and HD DVD LPCM behind TEvoDemuxer or TEvoParser. Each packet
// opens with a small header (3 bytes on a DVD, 5 on an HD DVD; the demuxer has taken off the 4
// bytes in front of it) that tells channels, bit depth and sample rate. 16-bit samples go on as
// they are. 20 and 24-bit samples are stored in pairs of sample frames, the upper 16 bits of all
// samples of both frames first, then the low bits; they leave as plain 24-bit big-endian samples
// (20-bit ones with the low 4 bits zero).
#pragma once

#include <memory>

#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class TEvoPcmReader : public TUpStream, public IInitialDelay {
public:
  static std::shared_ptr<TEvoPcmReader> Create() { return std::make_shared<TEvoPcmReader>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // Samples ahead of the first time stamp, as a (negative) delay.
  bool HasTimestamps() override { return SawPosition; }
  int32_t InitialDelay() override;

private:
  bool ReadHeader(const uint8_t* data, uint32_t size, uint32_t& headerSize);
  bool SendPairs(int64_t position, bool flush);

  bool IsEvo = false;
  bool SawPosition = false;
  int64_t DelaySamples = 0;
  uint32_t Channels = 0;
  uint32_t Bits = 0;  // as stored: 16, 20 or 24
  uint32_t Rate = 0;
  bool FormatDone = false;
};

}  // namespace sonvex
