// The output half of an audio chain: the decoder behind a compressed stream, PCM processing, and
// the destination; and the twin outputs that let a decoded stream end up in 16 or 24 bits.
#include <algorithm>
#include <filesystem>

#include "codecs/flacdecoder.h"
#include "codecs/flacencoder.h"
#include "codecs/libavdecoder.h"
#include "codecs/wavwriter.h"
#include "framework/smallstages.h"
#include "pcm/bitdepthreducer.h"
#include "pcm/channelmodder.h"
#include "pcm/endianswapper.h"
#include "pcm/rawdelayer.h"
#include "pcm/rawgaprealizer.h"
#include "pcm/stripto16bit.h"
#include "ac3/gaptracker.h"
#include "run/channelgraph.h"
#include "run/audiochain.h"
#include "run/encoderoutput.h"

#include "files/destfile.h"

namespace sonvex {
namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

std::string ExtensionOf(const std::string& name) {
  return Lower(std::filesystem::path(name).extension().string());
}

// "movie.flac" + ".24bit" -> "movie.24bit.flac".
std::string WithSuffix(const std::string& name, const std::string& suffix) {
  if (suffix.empty()) return name;
  std::string ext = std::filesystem::path(name).extension().string();
  return name.substr(0, name.size() - ext.size()) + suffix + ext;
}

bool Unsupported(const UpStreamRef& chain) {
  chain->Log(2, "Internal error - unknown audio output format!");
  return false;
}

UpStreamRef MakeDestination(const std::string& name, TAudioBuild& build) {
  if (build.makeDestination) return build.makeDestination(name);
  return TDestFile::Create(name);
}

bool AppendDestination(const UpStreamRef& chain, const std::string& name, TAudioBuild& build) {
  UpStreamRef dest = MakeDestination(name, build);
  if (!dest) return Unsupported(chain);
  return chain->AppendUpStream(dest);
}

// The FLAC decoder among the stages from `chain` on, following first upstreams.
UpStreamRef FindFlacDecoder(const UpStreamRef& chain) {
  for (UpStreamRef stage = chain; stage; stage = stage->GetUpStream(0))
    if (Query<IFlacDecoder>(stage)) return stage;
  return nullptr;
}

bool IsLossless(const std::string& ext) {
  return ext == ".wav" || ext == ".wavs" || ext == ".flac" || ext == ".raw" || ext == ".pcm" ||
         ext == ".lpcm";
}

}  // namespace

bool AppendDecoder(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                   TAction& action, TAudioBuild&) {
  const std::string tag = details->Format();
  auto decoder = TLibavDecoder::CreateFor(tag);
  if (!decoder) {
    chain->Log(2, "Internal error - unknown audio input format!");
    return false;
  }
  if (!decoder->IsValid()) {
    // The decoder has logged why; the chain's failure path goes through its first stage.
    return false;
  }
  // libavcodec's channel order for the layouts of these formats is the WAV order already (native
  // layouts list their speakers by ascending mask bit), so no remap stands behind the decoder.
  return chain->AppendUpStream(decoder) &&
         chain->AppendUpStream(TBitdepthReducer::Create(24, true));
}

// Step 10: the end of the chain, by the destination's extension.
static bool AppendOutputEnd(const UpStreamRef& chain, TAudioBlock& details, TAction& action,
                            const std::string& name, const std::string& ext, TAudioBuild& build) {
  if (IsEncoderDestination(ext)) return AppendEncoderOutput(chain, details, action, name, build);
  if (ext == ".pcm" || ext == ".lpcm") {
    if (action.endian != 1 && !chain->AppendUpStream(TEndianSwapper::Create())) return false;
    // Blu-ray LPCM channel order.
    if (details.channels == 8 && !chain->AppendUpStream(TChannelModder::Create("0,1,2,6,4,5,7,3")))
      return false;
    if (details.channels == 6 && action.remap.empty() &&
        !chain->AppendUpStream(TChannelModder::Create("0,1,2,4,5,3")))
      return false;
    return AppendDestination(chain, name, build);
  }
  if (ext == ".wavs") {
    // One mono WAV per channel: stem + "." + channel name + ".wav", each keeping the whole
    // stream's mask; only the first writer says "Writing WAVs...".
    const uint32_t channels = details.channels;
    if (channels < 1 || channels > 8) return Unsupported(chain);
    uint32_t mask = details.channelMask ? details.channelMask : DefaultChannelMask(channels);
    std::string stem = name.substr(0, name.size() - std::filesystem::path(name).extension().string().size());
    std::vector<UpStreamRef> branches;
    for (uint32_t c = 0; c < channels; c++) {
      auto modder = TChannelModder::Create(std::vector<uint32_t>{c});
      auto writer = TWavWriter::Create(action.extensible, mask, true);
      if (c > 0) writer->SetSilent(false);
      UpStreamRef dest = MakeDestination(stem + "." + WavChannelName(channels, c) + ".wav", build);
      if (!dest) return Unsupported(chain);
      modder->SetUpStream(writer);
      writer->SetUpStream(dest);
      branches.push_back(modder);
    }
    action.fileCount = int32_t(channels);
    return chain->AppendUpStreams(branches);
  }
  if (ext == ".wav") {
    uint32_t mask = details.channelMask ? details.channelMask : DefaultChannelMask(details.channels);
    if (!chain->AppendUpStream(TWavWriter::Create(action.extensible, mask, false))) return false;
    return AppendDestination(chain, name, build);
  }
  if (ext == ".flac") {
    auto source = Query<IFlacDecoder>(build.flacSource ? build.flacSource : FindFlacDecoder(chain));
    if (!chain->AppendUpStream(TFlacEncoder::Create(8, source))) return false;
    return AppendDestination(chain, name, build);
  }
  return AppendDestination(chain, name, build);
}

namespace {

// Step 2: AC3 and DTS take at most 6 channels; the surround channels are mixed in.
void ForceDown6ForEncoders(const UpStreamRef& chain, const TAudioBlock& details, TAction& action,
                           const std::string& ext) {
  if ((ext == ".ac3" || ext == ".dts") && details.channels >= 7 && !action.down6 &&
      !action.down2) {
    chain->Log(1, ext == ".ac3"
                      ? "AC3 encoding only supports 6 channels. Will mix the surround channels."
                      : "DTS encoding only supports 6 channels. Will mix the surround channels.");
    action.down6 = true;
  }
}

// Step 3: the user's channel map.
bool AppendRemap(const UpStreamRef& chain, const TAction& action) {
  return action.remap.empty() || chain->AppendUpStream(TChannelModder::Create(action.remap));
}

bool ResamplingWanted(const TAudioBlock& details, const TAction& action) {
  return action.resampleTo != 0 && uint32_t(action.resampleTo) != details.sampleRate;
}

// Steps 4 to 7: the stream is split into mono branches for speed changes, resampling and the
// downmixes, each branch processed, the downmix graphs built, and the branches joined again.
// Mono files (".wavs") are made behind the join.
bool AppendMonoProcessing(const UpStreamRef& chain, TAudioBlock& details, const TAction& action,
                          const std::string& ext) {
  const bool down6 = action.down6 && details.channels >= 7;
  const bool down2 = action.down2 && (details.channels >= 6 || down6);
  if (!action.speedup && !action.slowdown && !ResamplingWanted(details, action) && !down6 &&
      !down2)
    return true;
  if (details.channels == 0) return Unsupported(chain);
  const bool doubleSeventh = !down6 && ext != ".wavs" && ext != ".dts";
  TMonoBranches branches =
      SplitIntoBranches(chain, details, doubleSeventh, down6 ? 8 : details.channels);
  AppendResamplers(branches, details, action);
  if (down6) BuildDown6(branches, details);
  if (down2) BuildDown2(branches, details, action.mixLfe);
  JoinBranches(branches);
  return chain->LastStage()->IsValid();
}

// Step 8: the gaps of a ".gaps" file and the delay. For a bare stream the realizer goes first,
// for a container track the delayer; "%check%" writes nothing and needs no delay.
bool AppendPcmGapsAndDelay(const UpStreamRef& chain, const TAction& action,
                           const TAudioBuild& build) {
  UpStreamRef realizer;
  if (!build.gapList.empty()) realizer = TRawGapRealizer::Create(GapDataForRealizer(build.gapList));
  UpStreamRef delayer;
  if (Lower(action.dest).rfind("%check%", 0) != 0) delayer = TRawDelayer::Create();
  std::vector<UpStreamRef> order = build.isContainer ? std::vector<UpStreamRef>{delayer, realizer}
                                                     : std::vector<UpStreamRef>{realizer, delayer};
  for (const UpStreamRef& stage : order)
    if (stage && !chain->AppendUpStream(stage)) return false;
  return true;
}

// Step 9: fewer bits, when asked for.
bool AppendDepthReduction(const UpStreamRef& chain, TAudioBlock& details, const TAction& action) {
  uint32_t target = action.reduceTo ? uint32_t(action.reduceTo) : uint32_t(action.bits);
  if (!target) return true;
  if (!chain->AppendUpStream(TBitdepthReducer::Create(target, true))) return false;
  if (details.bits > target) details.bits = (target + 7) / 8 * 8;
  return true;
}

}  // namespace

bool BuildAudioOutput(const UpStreamRef& chain, TAudioBlock& details, TAction& action,
                      const std::string& suffix, TAudioBuild& build) {
  const std::string name = WithSuffix(action.dest, suffix);
  const std::string ext = ExtensionOf(action.dest);
  ForceDown6ForEncoders(chain, details, action, ext);
  if (!AppendRemap(chain, action)) return false;
  if (!AppendMonoProcessing(chain, details, action, ext)) return false;
  if (!AppendPcmGapsAndDelay(chain, action, build)) return false;
  if (!AppendDepthReduction(chain, details, action)) return false;
  return AppendOutputEnd(chain, details, action, name, ext, build);
}

bool BuildDecodedOutputs(const UpStreamRef& chain,
                         const std::shared_ptr<IAudioFormatDetails>& details, TAction& action,
                         TAudioBuild& build) {
  if (!build.flacSource) build.flacSource = FindFlacDecoder(chain);
  TAudioBlock block;
  block.format = "pcm";
  block.channels = details->Channels();
  block.channelMask = details->ChannelMask();
  block.bits = details->Bits();
  block.sampleRate = details->SampleRate();
  const std::string ext = ExtensionOf(action.dest);
  // Twins exist only for 24-bit data (a depth not known yet is decoded to 24 bits): the stripper
  // takes nothing else, and a stream of 16 bits or fewer goes straight to one output.
  const bool toStdout = Lower(std::filesystem::path(action.dest).stem().string()) == "stdout";
  // Only decoded streams get twins; PCM that was never decoded keeps its depth.
  if (!build.decoded || !IsLossless(ext) || toStdout || (block.bits && block.bits <= 16) ||
      action.bits != 0 || action.reduceTo != 0) {
    block.bits = block.bits ? std::min(block.bits, 24u) : 24;
    return BuildAudioOutput(chain, block, action, "", build);
  }
  block.bits = 24;
  auto pass = TPassThrough::Create();
  auto strip = TStripTo16bit::Create();
  if (!chain->AppendUpStreams({pass, strip})) return false;
  action.decidedBits = 24;
  build.stripStages.push_back(strip);
  TAudioBlock block16 = block;
  block16.bits = 16;
  return BuildAudioOutput(pass, block, action, ".24bit", build) &&
         BuildAudioOutput(strip, block16, action, ".16bit", build);
}

}  // namespace sonvex
