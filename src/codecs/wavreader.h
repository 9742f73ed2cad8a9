// TWavReader: parses a RIFF/WAVE, RF64 or Sony Wave64 header, tells PCM from DTS carried in a
// WAV, and sends the payload on.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class IWavReader {
public:
  virtual ~IWavReader() = default;
};

class TWavReader : public TUpStream, public IWavReader {
public:
  static std::shared_ptr<TWavReader> Create() { return std::make_shared<TWavReader>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  bool ParseHeader();
  bool StartPayload(int64_t position, bool flush, bool atEnd);

  uint64_t streamBytes = 0;
  uint64_t remaining = 0;  // payload bytes still to send
  bool riffSeen = false;
  bool rf64 = false;
  bool w64 = false;
  uint32_t riffSize = 0;
  bool fmtSeen = false;
  bool dataStarted = false;
  uint64_t headerBytes = 0;
  uint64_t skipPending = 0;  // the part of a skipped chunk that hasn't arrived yet
  uint64_t ds64DataSize = 0;
  bool ds64Seen = false;
  uint32_t channels = 0;
  uint32_t channelMask = 0;
  uint32_t bits = 0;
  uint32_t sampleRate = 0;
  uint64_t sampleCount = 0;
  bool initialised = false;
  bool finishing = false;
};

}  // namespace sonvex
