// TAc3Encoder: encodes PCM to an AC-3 stream with libavcodec's "ac3" encoder, in blocks of 1536
// sample frames, one AC-3 frame per Send.
#pragma once

#include <memory>

#include "codecs/libavencoder.h"

namespace sonvex {

class TAc3Encoder : public TLibavEncoder {
public:
  // `kbits`: one of the AC-3 bit rates (kbit/s), or 0 for the encoder's choice by channel count
  // (96 kbit/s for mono, 192 for stereo, 448 for 5.1). `noUpstreamAllowed` also silences the
  // stage; `value` is kept for the factory's signature and has no use with this library.
  TAc3Encoder(uint32_t kbits, bool noUpstreamAllowed, int32_t value);
  static std::shared_ptr<TAc3Encoder> Create(uint32_t kbits, bool noUpstreamAllowed = false,
                                             int32_t value = 0) {
    return std::make_shared<TAc3Encoder>(kbits, noUpstreamAllowed, value);
  }
  static bool BitrateSupported(uint32_t kbits);
  static bool Present();

protected:
  std::string FormatProblem(uint32_t channels, uint32_t sampleRate) const override;
};

}  // namespace sonvex
