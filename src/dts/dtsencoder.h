// TDtsEncoder: encodes PCM to a DTS stream with libavcodec's "dca" encoder (which libavcodec
// marks experimental), in blocks of 512 sample frames, one DTS frame per Send.
#pragma once

#include <memory>

#include "codecs/libavencoder.h"

namespace sonvex {

class TDtsEncoder : public TLibavEncoder {
public:
  // `kbits`: 768 or 1536 (kbit/s), or 0 for 1536.
  TDtsEncoder(uint32_t kbits, bool noUpstreamAllowed);
  static std::shared_ptr<TDtsEncoder> Create(uint32_t kbits, bool noUpstreamAllowed = false) {
    return std::make_shared<TDtsEncoder>(kbits, noUpstreamAllowed);
  }
  static bool BitrateSupported(uint32_t kbits);
  static bool Present();
  // The refusal of a channel count or rate that the encoder doesn't take, as the stage would
  // word it; empty when both are fine. Lets a run refuse ahead of reading anything.
  static std::string CheckFormat(uint32_t channels, uint32_t sampleRate);

protected:
  std::string FormatProblem(uint32_t channels, uint32_t sampleRate) const override {
    return CheckFormat(channels, sampleRate);
  }
};

}  // namespace sonvex
