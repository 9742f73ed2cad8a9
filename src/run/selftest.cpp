// The -test report: versions of the libraries, and the decoders and encoders the program uses.
#include "run/selftest.h"

#include <FLAC/format.h>
#include <soxr.h>

#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "framework/console.h"
#include "run/encoderoutput.h"

namespace sonvex {
namespace {

std::string Version(unsigned v) {
  return std::to_string(v >> 16) + "." + std::to_string((v >> 8) & 0xFF) + "." +
         std::to_string(v & 0xFF);
}

struct CodecUse {
  const char* text;
  AVCodecID id;
  bool encoder;
};

constexpr CodecUse kCodecs[] = {
    {"AC3 decoder", AV_CODEC_ID_AC3, false},     {"E-AC3 decoder", AV_CODEC_ID_EAC3, false},
    {"DTS decoder", AV_CODEC_ID_DTS, false},     {"TrueHD decoder", AV_CODEC_ID_TRUEHD, false},
    {"MLP decoder", AV_CODEC_ID_MLP, false},     {"MP2 decoder", AV_CODEC_ID_MP2, false},
};

}  // namespace

void RunSelfTest() {
  WriteLine(0, "libavcodec (" + Version(avcodec_version()) + ") is installed");
  WriteLine(0, "libavformat (" + Version(avformat_version()) + ") is installed");
  WriteLine(0, std::string("libFLAC (") + FLAC__VERSION_STRING + ") is installed");
  WriteLine(0, std::string("libsoxr (") + soxr_version() + ") is installed");
  for (const CodecUse& codec : kCodecs) {
    const AVCodec* found =
        codec.encoder ? avcodec_find_encoder(codec.id) : avcodec_find_decoder(codec.id);
    WriteLine(0, std::string("libav ") + codec.text + (found ? " is available" : " is absent"));
  }
  for (const std::string& line : EncoderTestLines()) WriteLine(0, line);
  for (const char* name : {"Nero Audio Decoder", "Sonic Audio Decoder", "ArcSoft Audio Decoder"})
    WriteLine(0, std::string(name) + " is not available on this system");
  bool muxer = av_guess_format("matroska", nullptr, nullptr) != nullptr;
  WriteLine(0, std::string("libavformat Matroska muxer ") + (muxer ? "is available" : "is absent"));
}

}  // namespace sonvex
