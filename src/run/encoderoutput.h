// The encoder ends of an audio output: ".ac3" and ".dts" destinations, encoded in process.
#pragma once

#include <string>
#include <vector>

#include "run/audiochain.h"

namespace sonvex {

// Whether `extension` (lower case, with its dot) is made by one of the encoders.
bool IsEncoderDestination(const std::string& extension);

// Appends the encoder of the destination's extension and the file stage for `name`. The bit rate
// and, for DTS, the channel count and rate of `details` (the PCM as it reaches the end) are
// checked here, so that a refusal comes before anything is read.
bool AppendEncoderOutput(const UpStreamRef& chain, const TAudioBlock& details,
                         const TAction& action, const std::string& name, TAudioBuild& build);

// The -test lines of the two encoders: "libav AC3 encoder is available" or "... is absent".
std::vector<std::string> EncoderTestLines();

}  // namespace sonvex
