// TLibavDecoder on libavcodec's send/receive API. Blocks are cut into packets by libavcodec's
// parser of the codec, so that a block may hold any number of frames, or part of one.
//
// Output conversions: 16-bit integer stays 16 bits; 32-bit integer (TrueHD, MLP, lossless DTS)
// travels as its upper three bytes, which is exact for these 24-bit decoders; float (AC3, E-AC3,
// lossy DTS, MP2) becomes 32-bit integers scaled by 2^31, for a TBitdepthReducer behind.
// Planar output is interleaved on the way. libavcodec hands channels in the order of the frame's
// channel layout, which for a native layout is ascending speaker-mask bits: the WAV order.
#include "codecs/libavdecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "framework/console.h"

namespace sonvex {
namespace {

constexpr uint32_t kTrueHdMajorSync = 0xBA6F72F8;

template <class Convert>
void Interleave(const AVFrame* frame, uint32_t channels, bool planar, uint32_t inBytes,
                uint8_t* out, uint32_t outBytes, Convert convert) {
  const uint32_t samples = uint32_t(frame->nb_samples);
  if (planar) {
    for (uint32_t c = 0; c < channels; c++) {
      const uint8_t* in = frame->extended_data[c];
      uint8_t* o = out + c * outBytes;
      for (uint32_t i = 0; i < samples; i++, in += inBytes, o += channels * outBytes) convert(in, o);
    }
  } else {
    const uint8_t* in = frame->extended_data[0];
    const uint32_t count = samples * channels;
    for (uint32_t i = 0; i < count; i++, in += inBytes, out += outBytes) convert(in, out);
  }
}

}  // namespace

TLibavDecoder::TLibavDecoder(int codecId, bool convert32To24, bool convertFloatTo32,
                             bool survivesErrors)
    : survivesErrors(survivesErrors), convert32To24(convert32To24),
      convertFloatTo32(convertFloatTo32) {
  const AVCodec* codec = avcodec_find_decoder(AVCodecID(codecId));
  if (!codec) {
    Fail("The requested libav decoder was not found.");
    return;
  }
  context = avcodec_alloc_context3(codec);
  packet = av_packet_alloc();
  frame = av_frame_alloc();
  if (!context || !packet || !frame) {
    Fail("The libav decoder was not able to allocate enough memory.");
    return;
  }
  if (avcodec_open2(context, codec, nullptr) < 0) {
    avcodec_free_context(&context);
    Fail("The libav decoder reported an error during initialization.");
    return;
  }
  parser = av_parser_init(codecId);
}

TLibavDecoder::~TLibavDecoder() {
  if (parser) av_parser_close(parser);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
}

std::shared_ptr<TLibavDecoder> TLibavDecoder::CreateFor(const std::string& tag) {
  if (tag == "ac3") return Create(AV_CODEC_ID_AC3, false, true);
  if (tag == "eac3") return Create(AV_CODEC_ID_EAC3, false, true);
  if (tag == "mp2") return Create(AV_CODEC_ID_MP2, true, true);
  // DTS-HD Master Audio decodes to 32-bit integers (lossless), everything else to float.
  if (tag == "dts" || tag == "dtsma" || tag == "dtshr") return Create(AV_CODEC_ID_DTS, true, true);
  if (tag == "thd" || tag == "thd/ac3") return Create(AV_CODEC_ID_TRUEHD, true, false);
  if (tag == "mlp") return Create(AV_CODEC_ID_MLP, true, false);
  return nullptr;
}

bool TLibavDecoder::InitAudio(const std::string& tag, uint32_t channels, uint32_t bits, uint32_t,
                              bool, int64_t size) {
  if (!valid) return false;
  if (!CheckUpStreams("libav decoder")) return false;
  if (tag != "thd" && tag != "mlp" && tag != "eac3" && tag != "dts" && tag != "ac3" &&
      tag != "mp2" && tag != "dtsma" && tag != "dtshr" && tag != "thd/ac3")
    return Fail("The libav decoder received a non-supported data format.");
  format = tag;
  totalSize = size;
  streamBytes = size > 0 ? uint64_t(size) * channels * bits / 8 : 0;
  return true;
}

void TLibavDecoder::NotifySeam(bool before, int64_t jump) {
  TUpStream::NotifySeam(before, jump);
  if (!before && (format == "thd" || format == "thd/ac3")) resetPending = true;
}

bool TLibavDecoder::DecodeError() {
  stopped = true;
  if (finishing) return true;
  valid = survivesErrors;
  Log(2, "The libav decoder reported an error while decoding.");
  return false;
}

bool TLibavDecoder::SendFrame(int64_t position, bool flush) {
  const AVSampleFormat sampleFormat = AVSampleFormat(frame->format);
  const AVSampleFormat packed = av_get_packed_sample_fmt(sampleFormat);
  const bool planar = av_sample_fmt_is_planar(sampleFormat);
  const uint32_t channels = uint32_t(frame->ch_layout.nb_channels);
  uint32_t bits;
  if (packed == AV_SAMPLE_FMT_S16)
    bits = 16;
  else if (packed == AV_SAMPLE_FMT_S32 && convert32To24)
    bits = 24;
  else if (packed == AV_SAMPLE_FMT_FLT && convertFloatTo32)
    bits = 32;
  else
    bits = 0;
  if (bits == 0 || (formatAnnounced && (bits != outBits || channels != outChannels))) {
    stopped = true;
    valid = survivesErrors;
    Log(2, "The libav decoder output an unexpected bitdepth (" + std::to_string(int(sampleFormat)) +
               ").");
    return false;
  }
  if (channels == 0 || frame->nb_samples <= 0) return true;
  if (!formatAnnounced) {
    formatAnnounced = true;
    outChannels = channels;
    outBits = bits;
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_NATIVE)
      channelMask = uint32_t(frame->ch_layout.u.mask & 0x3FFFF);
    if (!NotifyAudio("pcm", channels, bits, uint32_t(frame->sample_rate), false, totalSize)) {
      valid = false;
      return false;
    }
  }
  const uint32_t outBytes = bits / 8;
  const uint64_t size = uint64_t(frame->nb_samples) * channels * outBytes;
  if (size > 0xFFFFFFFFull || !ReserveBuffer(0, uint32_t(size)))
    return Fail("The libav decoder was not able to allocate enough memory.");
  uint8_t* out = BufferData(0);
  if (bits == 16) {
    Interleave(frame, channels, planar, 2, out, 2, [](const uint8_t* in, uint8_t* o) {
      std::memcpy(o, in, 2);
    });
  } else if (bits == 24) {
    Interleave(frame, channels, planar, 4, out, 3, [](const uint8_t* in, uint8_t* o) {
      int32_t v;
      std::memcpy(&v, in, 4);
      o[0] = uint8_t(uint32_t(v) >> 8);
      o[1] = uint8_t(uint32_t(v) >> 16);
      o[2] = uint8_t(uint32_t(v) >> 24);
    });
  } else {
    Interleave(frame, channels, planar, 4, out, 4, [](const uint8_t* in, uint8_t* o) {
      float f;
      std::memcpy(&f, in, 4);
      // Clipped to 32 bits: lossy decoders overshoot full scale now and then, and a wrapped
      // sample would jump to the other end of the range.
      double scaled = std::nearbyint(double(f) * 2147483648.0);
      scaled = std::clamp(scaled, -2147483648.0, 2147483647.0);
      uint32_t v = uint32_t(int32_t(scaled));
      o[0] = uint8_t(v);
      o[1] = uint8_t(v >> 8);
      o[2] = uint8_t(v >> 16);
      o[3] = uint8_t(v >> 24);
    });
  }
  if (!Send(false, out, uint32_t(size), position, flush)) {
    valid = false;
    return false;
  }
  return true;
}

bool TLibavDecoder::ReceiveFrames(int64_t position, bool flush) {
  for (;;) {
    int result = avcodec_receive_frame(context, frame);
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
    if (result < 0) return DecodeError();
    bool ok = SendFrame(position, flush);
    av_frame_unref(frame);
    if (!ok) return false;
  }
}

bool TLibavDecoder::DecodePacket(const uint8_t* data, uint32_t size, int64_t position,
                                 bool flush) {
  packet->data = const_cast<uint8_t*>(data);
  packet->size = int(size);
  bool reset = false;
  if (resetPending && size >= 8) {
    uint32_t sync = uint32_t(data[4]) << 24 | uint32_t(data[5]) << 16 | uint32_t(data[6]) << 8 |
                    data[7];
    if (sync == kTrueHdMajorSync) {
      resetPending = false;
      reset = true;
    }
  }
  if (reset) SetExpectLosslessFailure(true);
  int result = avcodec_send_packet(context, packet);
  bool ok = result >= 0 ? ReceiveFrames(position, flush) : DecodeError();
  if (reset) SetExpectLosslessFailure(false);
  return ok;
}

bool TLibavDecoder::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                          bool flush) {
  if (!valid) return false;
  if (stopped || (size == 0 && !finishing)) return valid;
  if (!context) return Fail("The libav decoder was not able to allocate enough memory.");
  if (!parser) return DecodePacket(data, size, position, flush) || valid;
  // With size 0 (at the end) the parser hands out what it still holds. A parser may take nothing
  // once while it resynchronises; a few idle rounds in a row end the block.
  int idle = 0;
  do {
    uint8_t* out = nullptr;
    int outSize = 0;
    int used = av_parser_parse2(parser, context, &out, &outSize, data, int(size), AV_NOPTS_VALUE,
                                AV_NOPTS_VALUE, 0);
    if (used < 0) return DecodeError();
    data += used;
    size -= uint32_t(used);
    if (outSize > 0 && !DecodePacket(out, uint32_t(outSize), position, flush)) return false;
    if (stopped) return valid;
    if (used == 0 && outSize == 0 && (size == 0 || ++idle > 4)) break;
    if (used > 0 || outSize > 0) idle = 0;
  } while (size > 0);
  return true;
}

bool TLibavDecoder::Finish() {
  if (!valid) return false;
  finishing = true;
  if (!stopped && context) {
    if (!Write(0, false, nullptr, 0, -1, false)) return false;
    if (avcodec_send_packet(context, nullptr) >= 0 && !ReceiveFrames(-1, false)) return false;
  }
  return FinishUpStreams();
}

}  // namespace sonvex
