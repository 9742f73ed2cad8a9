// TFlacDecoder: decodes FLAC with libFLAC's stream decoder, which runs on a thread of its own
// and takes the pushed blocks, gathered to about 1 MiB, through two events in strict
// alternation.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "framework/event.h"
#include "framework/upstream.h"

#include <FLAC/stream_decoder.h>

namespace sonvex {

class IFlacDecoder {
public:
  virtual ~IFlacDecoder() = default;
  // Clones of every metadata block but STREAMINFO, in stream order; owned by the decoder.
  virtual const std::vector<FLAC__StreamMetadata*>& Metadata() = 0;
};

class TFlacDecoder : public TUpStream, public IFlacDecoder {
public:
  TFlacDecoder();
  ~TFlacDecoder() override;
  static std::shared_ptr<TFlacDecoder> Create() { return std::make_shared<TFlacDecoder>(); }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  const std::vector<FLAC__StreamMetadata*>& Metadata() override { return metadata; }

  // libFLAC's callbacks, public for the C trampolines.
  int ReadCallback(uint8_t* buffer, size_t* bytes);
  int WriteCallback(const FLAC__Frame* frame, const int32_t* const* channelData);
  void MetadataCallback(const FLAC__StreamMetadata* block);
  void ErrorCallback(int status);

private:
  void Run();
  void StopThread();
  void HandOverInput();

  FLAC__StreamDecoder* decoder = nullptr;
  uint32_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t bytesPerSample = 0;
  uint64_t totalSamples = 0;
  bool metadataSeen = false;
  // The blocks gather in `pending` until there is about 1 MiB, which then becomes `handed`, the
  // decoder thread's input, while the next blocks gather.
  std::vector<uint8_t> pending, handed;
  bool handing = false;  // handed over, and the thread hasn't yet signalled inputUsed
  const uint8_t* input = nullptr;
  uint32_t inputSize = 0;
  std::atomic<bool> streaming{false};  // the format is announced: the frames are decoding
  std::atomic<bool> finishing{false};
  std::atomic<bool> aborted{false};
  bool finalised = false;
  std::thread thread;
  Event threadDone;
  Event inputReady, inputUsed;
  std::vector<FLAC__StreamMetadata*> metadata;
};

}  // namespace sonvex
