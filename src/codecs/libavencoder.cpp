// TLibavEncoder on libavcodec's send/receive API.
//
// Input: interleaved little-endian PCM of 8 (WAV's offset form), 16 or 24 bits. Each block of
// `blockFrames` sample frames becomes one AVFrame in the encoder's own sample format: planar
// float scaled to [-1, 1) for the AC3 encoder, packed 32-bit integers (the sample in the top
// bits) for the DTS encoder. libavcodec takes the channels of a native layout in ascending
// speaker-mask order, which is the WAV order, so the samples keep their places and only the
// layout tells the encoder which speaker each one is.
//
// Neither encoder holds frames back: each block gives one packet at once, and each packet is
// sent as it is, one frame per Send. A short last block is padded with silence by libavcodec.
#include "codecs/libavencoder.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

namespace sonvex {
namespace {

// Speaker bits of the surround pairs: side (WAV 0x600) and back (WAV 0x30). The AC-3 and DTS
// surround channels are one pair, which a WAV file may call either.
constexpr uint64_t kSidePair = AV_CH_SIDE_LEFT | AV_CH_SIDE_RIGHT;
constexpr uint64_t kBackPair = AV_CH_BACK_LEFT | AV_CH_BACK_RIGHT;

bool CodecHasLayout(const AVCodec* codec, uint64_t mask) {
  if (!codec->ch_layouts) return false;
  for (const AVChannelLayout* layout = codec->ch_layouts; layout->nb_channels; layout++)
    if (layout->order == AV_CHANNEL_ORDER_NATIVE && layout->u.mask == mask) return true;
  return false;
}

uint64_t SwapPair(uint64_t mask, uint64_t from, uint64_t to) {
  return (mask & from) == from && !(mask & to) ? (mask & ~from) | to : mask;
}

inline int32_t ReadSample(const uint8_t* p, uint32_t bytes) {
  switch (bytes) {
    case 1: return int32_t(p[0]) - 128;
    case 2: return int16_t(uint16_t(p[0] | p[1] << 8));
    default: return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
  }
}

}  // namespace

TLibavEncoder::TLibavEncoder(const TLibavEncoderKind& kind, uint32_t kbits, bool bitrateValid,
                             bool noUpstreamAllowed)
    : kind(kind), kbits(kbits), noUpstreamAllowed(noUpstreamAllowed) {
  if (noUpstreamAllowed) SetSilent(false);
  if (!bitrateValid) Fail(Text("This bitrate isn't supported by the % encoder."));
}

TLibavEncoder::~TLibavEncoder() { Close(); }

std::string TLibavEncoder::Text(const std::string& pattern) const {
  std::string text = pattern;
  size_t at = text.find('%');
  if (at != std::string::npos) text.replace(at, 1, kind.family);
  return text;
}

bool TLibavEncoder::EncoderPresent(const char* codecName) {
  return avcodec_find_encoder_by_name(codecName) != nullptr;
}

void TLibavEncoder::Close() {
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  encoderOpen = false;
}

// The layout of the WAV mask if the encoder has it, with the surround pair read as side or back
// as the encoder wants; without a usable mask (none, or one of another channel count), the usual
// layout of the channel count.
bool TLibavEncoder::ChooseLayout(const AVCodec* codec, uint32_t count) {
  uint64_t mask = channelMask;
  // One channel is mono, whichever speaker a file names for it.
  if (mask == 0 || count == 1 || uint32_t(__builtin_popcountll(mask)) != count)
    mask = DefaultChannelMask(count);
  for (uint64_t candidate :
       {mask, SwapPair(mask, kBackPair, kSidePair), SwapPair(mask, kSidePair, kBackPair)}) {
    if (CodecHasLayout(codec, candidate)) {
      layoutMask = candidate;
      return true;
    }
  }
  return false;
}

bool TLibavEncoder::InitAudio(const std::string& format, uint32_t inChannels, uint32_t bits,
                              uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (format != "pcm" || bigEndian || (bits != 8 && bits != 16 && bits != 24) || inChannels == 0 ||
      inChannels > 8) {
    Close();
    return Fail(Text("The % encoder received a non-supported data format."));
  }
  if (std::string problem = FormatProblem(inChannels, sampleRate); !problem.empty()) {
    Close();
    return Fail(problem);
  }
  if (encoderOpen) return Fail(Text("The % encoder was initialized twice."));
  if (upStreams.empty() && !noUpstreamAllowed)
    return Fail(Text("The % encoder upstream property is not set."));
  Log(0, Text("Encoding %..."));
  if (!upStreams.empty() && !NotifyAudio(kind.tag, inChannels, bits, sampleRate, false, totalSize)) {
    valid = false;
    return false;
  }
  return OpenEncoder(inChannels, bits, sampleRate);
}

bool TLibavEncoder::OpenEncoder(uint32_t inChannels, uint32_t bits, uint32_t sampleRate) {
  channels = inChannels;
  bytesPerSample = bits / 8;
  bytesPerSampleFrame = bytesPerSample * channels;
  bytesPerBlock = bytesPerSampleFrame * kind.blockFrames;
  const AVCodec* codec = avcodec_find_encoder_by_name(kind.codecName);
  if (!codec) return Fail(Text("Initialization of the % encoder failed."));
  if (!ChooseLayout(codec, channels)) {
    Close();
    return Fail(Text("The % encoder didn't accept this channel configuration."));
  }
  context = avcodec_alloc_context3(codec);
  frame = av_frame_alloc();
  packet = av_packet_alloc();
  if (!context || !frame || !packet) {
    Close();
    return Fail(Text("The % encoder couldn't allocate enough memory."));
  }
  context->sample_rate = int(sampleRate);
  context->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
  if (kbits) context->bit_rate = int64_t(kbits) * 1000;
  if (kind.experimental) context->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
  av_channel_layout_from_mask(&context->ch_layout, layoutMask);
  if (avcodec_open2(context, codec, nullptr) < 0 || context->frame_size != int(kind.blockFrames)) {
    Close();
    return Fail(Text("Initialization of the % encoder failed."));
  }
  frame->nb_samples = int(kind.blockFrames);
  frame->format = context->sample_fmt;
  frame->sample_rate = context->sample_rate;
  if (av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) < 0 ||
      av_frame_get_buffer(frame, 0) < 0) {
    Close();
    return Fail(Text("The % encoder couldn't allocate enough memory."));
  }
  frame->pts = 0;
  encoderOpen = true;
  return true;
}

void TLibavEncoder::FillFrame(const uint8_t* samples, uint32_t count) {
  const uint32_t bytes = bytesPerSample;
  if (context->sample_fmt == AV_SAMPLE_FMT_FLTP) {
    const float scale = 1.0f / float(1u << (bytes * 8 - 1));
    for (uint32_t c = 0; c < channels; c++) {
      float* plane = reinterpret_cast<float*>(frame->extended_data[c]);
      const uint8_t* in = samples + c * bytes;
      for (uint32_t i = 0; i < count; i++, in += bytesPerSampleFrame)
        plane[i] = float(ReadSample(in, bytes)) * scale;
    }
  } else {
    // Packed 32-bit integers: the sample in the top bits.
    int32_t* out = reinterpret_cast<int32_t*>(frame->data[0]);
    const uint32_t shift = 32 - bytes * 8;
    const uint32_t total = count * channels;
    const uint8_t* in = samples;
    for (uint32_t i = 0; i < total; i++, in += bytes)
      out[i] = int32_t(uint32_t(ReadSample(in, bytes)) << shift);
  }
}

// Hands one block (or, with no samples, the end of the stream) to the encoder and sends the
// packets it gives back. Returns the number of packets, or -1 on a failure of the encoder.
int TLibavEncoder::EncodeCall(const uint8_t* samples, uint32_t count) {
  if (!valid || !encoderOpen || lastResult < 0) return -1;
  int result;
  if (samples) {
    if (av_frame_make_writable(frame) < 0) return lastResult = -1;
    frame->nb_samples = int(count);
    FillFrame(samples, count);
    result = avcodec_send_frame(context, frame);
    frame->pts += count;
  } else if (!drained) {
    drained = true;
    result = avcodec_send_frame(context, nullptr);
  } else {
    result = 0;
  }
  if (result < 0) return lastResult = -1;
  int packets = 0;
  for (;;) {
    result = avcodec_receive_packet(context, packet);
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) break;
    if (result < 0) return lastResult = -1;
    outputSeen = true;
    packets++;
    bool sent = upStreams.empty() || Send(false, packet->data, uint32_t(packet->size), -1, false);
    av_packet_unref(packet);
    if (!sent) {
      valid = false;
      return -2;
    }
  }
  return lastResult = packets;
}

bool TLibavEncoder::EncodeBlock(const uint8_t* samples, uint32_t count) {
  int result = EncodeCall(samples, count);
  if (result == -2) return false;  // the next stage has failed and said why
  if (result < 0) {
    Close();
    return Fail(Text(kind.errorText));
  }
  return true;
}

bool TLibavEncoder::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!encoderOpen) return Fail(Text("The % encoder didn't receive the format information."));
  if (upStreams.empty() && !noUpstreamAllowed)
    return Fail(Text("The % encoder upstream property is not set."));
  // Whole blocks straight from the caller's data while nothing is waiting; the rest is kept.
  if (BufferFill(0) == 0) {
    while (size >= bytesPerBlock) {
      if (!EncodeBlock(data, kind.blockFrames)) return false;
      data += bytesPerBlock;
      size -= bytesPerBlock;
    }
    if (size == 0) return true;
  }
  if (!StoreData(0, data, size)) {
    Close();
    return Fail(Text("The % encoder couldn't allocate enough memory."));
  }
  const uint32_t blocks = BufferFill(0) / bytesPerBlock;
  for (uint32_t n = 0; n < blocks; n++)
    if (!EncodeBlock(BufferData(0) + n * bytesPerBlock, kind.blockFrames)) return false;
  RemoveData(0, blocks * bytesPerBlock);
  return true;
}

bool TLibavEncoder::Finish() {
  if (!valid) return false;
  if (!encoderOpen) return Fail(Text("The % encoder didn't receive the format information."));
  if (upStreams.empty() && !noUpstreamAllowed)
    return Fail(Text("The % encoder upstream property is not set."));
  bool ok = true;
  const uint32_t rest = BufferFill(0) / bytesPerSampleFrame;
  if (rest > 0) ok = EncodeBlock(BufferData(0), rest);
  if (ok) ok = EncodeBlock(nullptr, 0);
  SetBufferFill(0, 0);
  if (!ok) return false;
  return upStreams.empty() || FinishUpStreams();
}

}  // namespace sonvex
