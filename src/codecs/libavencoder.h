// TLibavEncoder: the common engine of the AC3 and DTS encoder stages. It cuts interleaved PCM
// into blocks of the codec's frame length, hands each block to a libavcodec encoder and sends
// every packet it gets back as one frame per Send. The stages in src/ac3 and src/dts give it
// their codec, their words and the formats they take.
#pragma once

#include <cstdint>
#include <string>

#include "framework/upstream.h"

struct AVCodec;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace sonvex {

// What distinguishes one encoder stage from the other.
struct TLibavEncoderKind {
  const char* codecName;     // libavcodec's name of the encoder: "ac3", "dca"
  const char* tag;           // the format tag announced to the next stage
  const char* family;        // "AC3", "DTS": the stage's messages are built from it
  uint32_t blockFrames;      // sample frames per encoded frame
  bool experimental;         // the encoder needs libavcodec's experimental compliance level
  const char* errorText;     // what a failure of the encoder during the stream says
};

class TLibavEncoder : public TUpStream {
public:
  ~TLibavEncoder() override;

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // The speaker mask (WAV bit order) of the PCM this stage will receive; 0: the usual layout of
  // the channel count. Set while the chain is built, as InitAudio carries no mask.
  void SetChannelMask(uint32_t mask) { channelMask = mask; }
  // Whether libavcodec of this build holds the encoder.
  static bool EncoderPresent(const char* codecName);

protected:
  // `kbits`: bit rate in kbit/s, 0 for the encoder's default; `bitrateValid`: the caller's
  // check of it, false refuses with "This bitrate isn't supported by the <family> encoder.".
  TLibavEncoder(const TLibavEncoderKind& kind, uint32_t kbits, bool bitrateValid,
                bool noUpstreamAllowed);

  // The stage's own limits of channel count and rate for PCM it can otherwise take: the
  // message that refuses them, or empty.
  virtual std::string FormatProblem(uint32_t channels, uint32_t sampleRate) const = 0;

  std::string Text(const std::string& pattern) const;  // "%" becomes the family name

private:
  bool OpenEncoder(uint32_t channels, uint32_t bits, uint32_t sampleRate);
  bool ChooseLayout(const AVCodec* codec, uint32_t channels);
  bool EncodeBlock(const uint8_t* samples, uint32_t count);
  int EncodeCall(const uint8_t* samples, uint32_t count);
  bool SendPackets();
  void FillFrame(const uint8_t* samples, uint32_t count);
  void Close();

  TLibavEncoderKind kind;
  uint32_t kbits;
  bool noUpstreamAllowed;
  uint32_t channelMask = 0;
  uint32_t channels = 0;
  uint32_t bytesPerSample = 0;
  uint32_t bytesPerSampleFrame = 0;
  uint32_t bytesPerBlock = 0;
  bool outputSeen = false;
  int lastResult = 0;
  bool encoderOpen = false;
  bool drained = false;
  AVCodecContext* context = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* packet = nullptr;
  uint64_t layoutMask = 0;
};

}  // namespace sonvex
