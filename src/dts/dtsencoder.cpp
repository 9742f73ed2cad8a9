// TDtsEncoder. The stage takes what DVD and Blu-ray DTS tracks were made of: 1.0, 2.0 and 5.1
// at 44.1 or 48 kHz, at the two rates of those discs. A 5.1 WAV may call its surround pair side
// or back; DTS has one surround pair, and libavcodec's encoder calls it side.
#include "dts/dtsencoder.h"

namespace sonvex {
namespace {

constexpr TLibavEncoderKind kDtsKind = {"dca", "dts", "DTS", 512, true,
                                        "The % encoder returned an unexpected error."};

}  // namespace

bool TDtsEncoder::BitrateSupported(uint32_t kbits) {
  return kbits == 0 || kbits == 768 || kbits == 1536;
}

bool TDtsEncoder::Present() { return EncoderPresent(kDtsKind.codecName); }

TDtsEncoder::TDtsEncoder(uint32_t kbits, bool noUpstreamAllowed)
    : TLibavEncoder(kDtsKind, kbits ? kbits : 1536, BitrateSupported(kbits), noUpstreamAllowed) {}

std::string TDtsEncoder::CheckFormat(uint32_t channels, uint32_t sampleRate) {
  if (channels != 1 && channels != 2 && channels != 6)
    return "The DTS encoder didn't accept this channel configuration.";
  if (sampleRate != 44100 && sampleRate != 48000)
    return "The DTS encoder didn't accept this sample rate.";
  return "";
}

}  // namespace sonvex
