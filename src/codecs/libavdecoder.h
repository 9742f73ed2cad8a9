// TLibavDecoder: decodes an elementary audio stream (AC3, E-AC3, DTS family, TrueHD, MLP, MP2)
// with libavcodec and sends interleaved little-endian PCM.
#pragma once

#include <string>

#include "framework/upstream.h"

struct AVCodecContext;
struct AVCodecParserContext;
struct AVPacket;
struct AVFrame;

namespace sonvex {

class ILibavDecoder {
public:
  virtual ~ILibavDecoder() = default;
  // The speaker mask of the decoded stream (WAV bit order), 0 until the first frame is decoded.
  virtual uint32_t DecodedChannelMask() const = 0;
};

class TLibavDecoder : public TUpStream, public ILibavDecoder {
public:
  // `codecId` is an AVCodecID. `convert32To24`: 32-bit integer output travels as its upper 24
  // bits. `convertFloatTo32`: float output travels as 32-bit integers (a TBitdepthReducer must
  // follow). `survivesErrors`: the valid flag after a decoding error.
  TLibavDecoder(int codecId, bool convert32To24, bool convertFloatTo32, bool survivesErrors);
  ~TLibavDecoder() override;
  static std::shared_ptr<TLibavDecoder> Create(int codecId, bool convert32To24,
                                               bool convertFloatTo32, bool survivesErrors = false) {
    return std::make_shared<TLibavDecoder>(codecId, convert32To24, convertFloatTo32,
                                           survivesErrors);
  }
  // The decoder for a stream tag ("ac3", "eac3", "dts", "dtsma", "dtshr", "thd", "thd/ac3",
  // "mlp", "mp2"), or nullptr for another tag.
  static std::shared_ptr<TLibavDecoder> CreateFor(const std::string& tag);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  void NotifySeam(bool before, int64_t jump) override;
  uint32_t DecodedChannelMask() const override { return channelMask; }

private:
  bool DecodePacket(const uint8_t* data, uint32_t size, int64_t position, bool flush);
  bool ReceiveFrames(int64_t position, bool flush);
  bool SendFrame(int64_t position, bool flush);
  bool DecodeError();

  std::string format;
  bool survivesErrors;
  bool stopped = false;
  int64_t totalSize = 0;
  uint64_t streamBytes = 0;
  AVCodecContext* context = nullptr;
  AVCodecParserContext* parser = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  bool convert32To24;
  bool convertFloatTo32;
  bool finishing = false;
  bool formatAnnounced = false;
  bool resetPending = false;
  uint32_t outChannels = 0;
  uint32_t outBits = 0;
  uint32_t channelMask = 0;
};

}  // namespace sonvex
