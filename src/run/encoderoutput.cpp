// The encoder ends of an audio output. Both encoders take the PCM of the chain as it is; a
// source of more than 6 channels has been mixed down ahead of them.
#include "run/encoderoutput.h"

#include <filesystem>

#include "ac3/ac3encoder.h"
#include "dts/dtsencoder.h"
#include "files/destfile.h"

namespace sonvex {

bool IsEncoderDestination(const std::string& extension) {
  return extension == ".ac3" || extension == ".dts";
}

bool AppendEncoderOutput(const UpStreamRef& chain, const TAudioBlock& details,
                         const TAction& action, const std::string& name, TAudioBuild& build) {
  std::string ext = std::filesystem::path(name).extension().string();
  for (char& c : ext) c = char(std::tolower(uint8_t(c)));
  const bool dts = ext == ".dts";
  const uint32_t kbits = action.bitrate > 0 ? uint32_t(action.bitrate) : 0;
  std::shared_ptr<TLibavEncoder> encoder;
  if (dts) {
    if (!TDtsEncoder::BitrateSupported(kbits)) {
      chain->Log(2, "This bitrate isn't supported by the DTS encoder.");
      return false;
    }
    if (std::string problem = TDtsEncoder::CheckFormat(details.channels, details.sampleRate);
        !problem.empty()) {
      chain->Log(2, problem);
      return false;
    }
    encoder = TDtsEncoder::Create(kbits);
  } else {
    if (!TAc3Encoder::BitrateSupported(kbits)) {
      chain->Log(2, "This bitrate isn't supported by the AC3 encoder.");
      return false;
    }
    encoder = TAc3Encoder::Create(kbits);
  }
  encoder->SetChannelMask(details.channelMask);
  UpStreamRef dest = build.makeDestination ? build.makeDestination(name)
                                           : UpStreamRef(TDestFile::Create(name));
  return chain->AppendUpStream(encoder) && chain->AppendUpStream(dest);
}

std::vector<std::string> EncoderTestLines() {
  auto line = [](const char* name, bool present) {
    return std::string("libav ") + name + (present ? " is available" : " is absent");
  };
  return {line("AC3 encoder", TAc3Encoder::Present()), line("DTS encoder", TDtsEncoder::Present())};
}

}  // namespace sonvex
