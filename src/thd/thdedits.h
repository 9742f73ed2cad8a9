// Stream edits on the blocks of TThdReader (one access unit or one AC-3 frame each): the two
// splitters of a "thd/ac3" stream, and the dialnorm remover for TrueHD major syncs.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

// A block that starts with an AC-3 sync word and is a good AC-3 frame.
bool IsAc3Block(const uint8_t* data, uint32_t size);

// Keeps the TrueHD units of a "thd/ac3" stream.
class TThdAc3Remover : public TUpStream {
public:
  static std::shared_ptr<TThdAc3Remover> Create() { return std::make_shared<TThdAc3Remover>(); }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
};

// Keeps the AC-3 frames of a "thd/ac3" stream.
class TThdAc3Extractor : public TUpStream {
public:
  static std::shared_ptr<TThdAc3Extractor> Create() {
    return std::make_shared<TThdAc3Extractor>();
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
};

// Sets the dialnorm of TrueHD major syncs to neutral and writes a new check word.
class TThdDialnormRemover : public TUpStream {
public:
  static std::shared_ptr<TThdDialnormRemover> Create() {
    return std::make_shared<TThdDialnormRemover>();
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

private:
  bool reported = false;
};

}  // namespace sonvex
