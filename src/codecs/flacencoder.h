// TFlacEncoder: encodes PCM to FLAC with libFLAC's stream encoder, driven from Write; libFLAC's
// write, seek and tell callbacks go to the next stage.
#pragma once

#include <FLAC/stream_encoder.h>

#include "codecs/flacdecoder.h"
#include "framework/upstream.h"

namespace sonvex {

class IFlacEncoder {
public:
  virtual ~IFlacEncoder() = default;
};

class TFlacEncoder : public TUpStream, public IFlacEncoder {
public:
  // `source`: a FLAC decoder whose metadata blocks are copied into the new stream, or nullptr.
  TFlacEncoder(uint32_t compressionLevel, std::shared_ptr<IFlacDecoder> source);
  ~TFlacEncoder() override;
  static std::shared_ptr<TFlacEncoder> Create(uint32_t compressionLevel = 8,
                                              std::shared_ptr<IFlacDecoder> source = nullptr) {
    return std::make_shared<TFlacEncoder>(compressionLevel, std::move(source));
  }

  // For a contest of sizes (the raw analysis), before InitAudio: fixed predictors only, no
  // verification. A linear predictor of high order reaches back across interleaved channels to
  // the same channel a few samples earlier, and so blurs the difference between reading a file
  // with the right and with a wrong number of channels, which is what the contest is about.
  void SetSizeContest() { sizeContest = true; }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // libFLAC's callbacks, public for the C trampolines.
  int WriteCallback(const uint8_t* buffer, size_t bytes);
  int SeekCallback(uint64_t offset);
  int TellCallback(uint64_t* offset);

private:
  void LogState(bool inFinish);

  FLAC__StreamEncoder* encoder = nullptr;
  uint32_t compressionLevel;
  uint32_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t bytesPerSample = 0;
  bool aborted = false;
  bool finalised = false;
  bool headerDone = false;
  bool metadataTaken = false;
  bool formatReceived = false;
  bool sizeContest = false;
  // Weak: the decoder usually stands ahead of this stage in the same chain and holds it.
  std::weak_ptr<IFlacDecoder> source;
};

}  // namespace sonvex
