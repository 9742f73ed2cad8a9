// TWavWriter: puts a RIFF/WAVE header (plain or extensible) in front of PCM and corrects its
// sizes at the end, going back through the destination when the announced length was wrong.
// Data announced beyond 4 GiB is written as RF64 (a ds64 chunk holds the 64-bit sizes).
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IWavWriter {
public:
  virtual ~IWavWriter() = default;
};

class TWavWriter : public TUpStream, public IWavWriter {
public:
  TWavWriter(bool extensible, uint32_t channelMask, bool multiFile)
      : extensible(extensible), channelMask(channelMask), multiFile(multiFile) {}
  static std::shared_ptr<TWavWriter> Create(bool extensible, uint32_t channelMask,
                                            bool multiFile) {
    return std::make_shared<TWavWriter>(extensible, channelMask, multiFile);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  void SetSizes(uint64_t dataBytes);

  bool extensible;
  uint32_t channelMask;
  bool multiFile;
  bool formatReceived = false;
  uint64_t bytesWritten = 0;
  uint64_t sampleCount = 0;
  uint32_t blockAlign = 0;
  uint8_t header[68 + 36] = {};
  bool rf64 = false;
  bool reserved = false;  // the header holds room for a ds64 chunk (RF64 or "JUNK")
  uint32_t headerSize = 0;
};

// The channel names of the mono files of a ".wavs" destination, by channel count (1 to 8).
std::string WavChannelName(uint32_t channels, uint32_t index);

}  // namespace sonvex
