// TAc3Encoder. Besides the 1, 2 and 6 channels that AC-3 encoders have always been given, 3, 4
// and 5 channels are taken too, as far as libavcodec has a layout for the WAV mask (3/0, 2/1,
// 2/2, 3/1, 3/2 and the same with LFE). Rates: 32, 44.1 and 48 kHz; libavcodec refuses others
// when the encoder is opened.
#include "ac3/ac3encoder.h"

#include <algorithm>
#include <iterator>

namespace sonvex {
namespace {

constexpr uint32_t kAc3Bitrates[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                     192, 224, 256, 320, 384, 448, 512, 576, 640};

constexpr TLibavEncoderKind kAc3Kind = {"ac3", "ac3", "AC3", 1536, false,
                                        "The % encoder returned an expected error."};

}  // namespace

bool TAc3Encoder::BitrateSupported(uint32_t kbits) {
  return kbits == 0 || std::find(std::begin(kAc3Bitrates), std::end(kAc3Bitrates), kbits) !=
                           std::end(kAc3Bitrates);
}

bool TAc3Encoder::Present() { return EncoderPresent(kAc3Kind.codecName); }

TAc3Encoder::TAc3Encoder(uint32_t kbits, bool noUpstreamAllowed, int32_t)
    : TLibavEncoder(kAc3Kind, kbits, BitrateSupported(kbits), noUpstreamAllowed) {}

std::string TAc3Encoder::FormatProblem(uint32_t channels, uint32_t) const {
  return channels <= 6 ? std::string() : Text("The % encoder received a non-supported data format.");
}

}  // namespace sonvex
