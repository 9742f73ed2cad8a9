// The input half of an audio chain (reader, stream edits or decoder), the destination checks and
// the decoder choice, and the whole audio branch of one action.
#include "run/audiochain.h"

#include <algorithm>
#include <filesystem>

#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "ac3/ac3reader.h"
#include "ac3/eac3coreextractor.h"
#include "ac3/gaptracker.h"
#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtsreader.h"
#include "dts/dtsrepairer.h"
#include "framework/smallstages.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"
#include "thd/thdedits.h"
#include "thd/thdreader.h"

#include "codecs/flacdecoder.h"
#include "codecs/wavdtsreader.h"
#include "codecs/wavreader.h"
#include "files/destfile.h"
#include "pcm/endianswapper.h"
#include "pcm/rawreader.h"
#include "pcm/stripto16bit.h"
#include "run/channelgraph.h"

namespace sonvex {

namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = char(std::tolower(uint8_t(c)));
  return text;
}

// Lower-case extension of a destination name, with its dot: "%check%.ac3" gives ".ac3".
std::string ExtensionOf(const std::string& name) {
  return Lower(std::filesystem::path(name).extension().string());
}

// Whether `item` is a whole entry of a "|"-separated list.
bool InList(const std::string& item, const std::string& list) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find('|', start);
    if (end == std::string::npos) end = list.size();
    if (list.compare(start, end - start, item) == 0) return true;
    start = end + 1;
  }
  return false;
}

bool IsCheckName(const std::string& name) { return Lower(name).rfind("%check%", 0) == 0; }

bool IsDtsFamily(const std::string& tag) {
  return tag == "dts" || tag == "dtsma" || tag == "dtshr" || tag == "dtswav";
}

// Destinations that any audio source can be made into, and those that need the source's tag.
constexpr const char* kOpenAudioExtensions = ".raw|.pcm|.lpcm|.wav|.wavs|.ac3|.flac|.dts";
struct TDestinationRule {
  const char* extensions;
  const char* tags;
};
constexpr TDestinationRule kAudioDestinationRules[] = {
    {".ddp|.eac3|.dd+|.ec3", "eac3"},
    {".mp2", "mp2"},
    {".thd|.truehd", "thd|thd/ac3"},
    {".mlp", "mlp"},
    {".dtshd|.dtsma", "dtsma"},
    {".dtshd|.dtshr", "dtshr"},
};
constexpr TDestinationRule kVideoDestinationRules[] = {
    {".m2v|.mpeg2", "mpeg2"},
    {".h264", "h264"},
    {".h265|.hevc", "h265"},
    {".vc1", "vc1"},
};

// The destinations that keep a stream of a tag compressed.
constexpr TDestinationRule kCompressedDestinations[] = {
    {".ac3", "ac3"},
    {".mp2", "mp2"},
    {".ddp|.eac3|.dd+|.ec3", "eac3"},
    {".dts|.dtshd|.dtsma|.dtshr", "dts|dtsma|dtshr|dtswav"},
    {".thd|.truehd", "thd|thd/ac3"},
    {".thd|.truehd|.mlp", "mlp"},
    {".ac3", "thd/ac3"},  // the AC-3 part of a TrueHD/AC3 track, never decoded
};

// PCM destinations, where decoded data gets the twin outputs.
constexpr const char* kLosslessExtensions = ".wav|.wavs|.flac|.raw|.pcm|.lpcm";

template <class Rules>
bool MatchesRule(const Rules& rules, const std::string& extension, const std::string& tag) {
  for (const TDestinationRule& rule : rules)
    if (InList(extension, rule.extensions) && InList(tag, rule.tags)) return true;
  return false;
}

// The DirectShow decoders (Nero, Sonic, ArcSoft) have no counterpart on this platform: their self
// test always fails, and libav decodes every format.
enum class TDecoderKind { Nero, Sonic, ArcSoft };
bool DecoderWorks(TDecoderKind) { return false; }

// The gap realizer and the delayer of an untouched stream: for a bare stream the realizer goes
// first (the gap times are those of the stream as it stands), for a container track the
// delayer does. A "%check%" destination writes nothing and needs no delay.
bool AppendGapsAndDelay(const UpStreamRef& chain, const UpStreamRef& realizer,
                        const UpStreamRef& delayer, const TAction& action,
                        const TAudioBuild& build) {
  std::vector<UpStreamRef> order;
  bool withDelay = !IsCheckName(action.dest);
  if (build.isContainer) {
    if (withDelay) order.push_back(delayer);
    if (realizer) order.push_back(realizer);
  } else {
    if (realizer) order.push_back(realizer);
    if (withDelay) order.push_back(delayer);
  }
  for (const UpStreamRef& stage : order)
    if (!chain->AppendUpStream(stage)) return false;
  return true;
}

// E-AC3 whose units open with an AC-3 frame (Blu-ray 7.1) gives that frame to an AC-3 file.
bool TakesAc3Core(const IAudioFormatDetails& details, const TAction& action) {
  return details.Format() == "eac3" && (details.Extra() & kAudioExtraAc3Core) &&
         ExtensionOf(action.dest) == ".ac3";
}

// "ac3" and "eac3": reader, [core extractor], [dialnorm remover], then gaps and delay for an
// untouched stream.
bool BuildAc3Input(const UpStreamRef& chain, const IAudioFormatDetails& details, TAction& action,
                   TAudioBuild& build, bool untouched) {
  bool ok = chain->AppendUpStream(TAc3Reader::Create(build.gapFileName, build.gapList, false));
  // libav decodes every substream of E-AC3, so the core is only taken out when asked for, or
  // when an AC-3 destination can take the AC-3 core of a Blu-ray unit as it stands.
  if (ok && details.Format() == "eac3" && (action.core || TakesAc3Core(details, action)))
    ok = chain->AppendUpStream(TEac3CoreExtractor::Create());
  if (ok && !action.keepDialnorm) ok = chain->AppendUpStream(TAc3DialnormRemover::Create());
  if (ok && untouched) {
    UpStreamRef realizer;
    if (!build.gapList.empty())
      realizer = TAc3GapRealizer::Create(GapDataForRealizer(build.gapList));
    ok = AppendGapsAndDelay(chain, realizer, TAc3Delayer::Create(), action, build);
  }
  return ok;
}

// "mp2": reader, then gaps and delay for an untouched stream.
bool BuildMp2Input(const UpStreamRef& chain, const IAudioFormatDetails&, TAction& action,
                   TAudioBuild& build, bool untouched) {
  bool ok = chain->AppendUpStream(TMp2Reader::Create(build.gapFileName, build.gapList, false));
  if (ok && untouched) {
    UpStreamRef realizer;
    if (!build.gapList.empty())
      realizer = TMp2GapRealizer::Create(GapDataForRealizer(build.gapList));
    ok = AppendGapsAndDelay(chain, realizer, TMp2Delayer::Create(), action, build);
  }
  return ok;
}

// "dts", "dtsma", "dtshr": reader, [core extractor], [dialnorm remover], [repairer], [bit depth
// patcher], then gaps and delay for an untouched stream. libav decodes DTS-HD in full, so the
// core is only taken out when asked for. The patcher takes "dts" and "dtshr" streams; Master
// Audio gets it only behind the core extractor, where the stream is plain DTS.
bool BuildDtsInput(const UpStreamRef& chain, const IAudioFormatDetails& details, TAction& action,
                   TAudioBuild& build, bool untouched) {
  const std::string tag = details.Format();
  const bool logDts = build.options && build.options->logDts;
  bool ok = chain->AppendUpStream(
      TDtsReader::Create(build.gapFileName, build.gapList, false, logDts, false));
  const bool coreOnly = tag != "dts" && action.core;
  if (ok && coreOnly) ok = chain->AppendUpStream(TDtsCoreExtractor::Create());
  if (ok && !action.keepDialnorm) ok = chain->AppendUpStream(TDtsDialnormRemover::Create());
  if (ok && !action.dontRepairDts) ok = chain->AppendUpStream(TDtsRepairer::Create());
  if (ok && !action.dontPatchDts && (tag == "dts" || (tag == "dtsma" && coreOnly)))
    ok = chain->AppendUpStream(TDtsBitdepthPatcher::Create());
  if (ok && untouched) {
    UpStreamRef realizer;
    if (!build.gapList.empty())
      realizer = TDtsGapRealizer::Create(GapDataForRealizer(build.gapList));
    ok = AppendGapsAndDelay(chain, realizer, TDtsDelayer::Create(), action, build);
  }
  return ok;
}

// WAV and FLAC readers take one file: joined sources are refused.
bool RefuseJoined(const UpStreamRef& chain, const TAudioBuild& build, const char* kind) {
  if (!build.options || build.options->sources.size() <= 1) return true;
  chain->Log(2, std::string("Source file joining currently doesn't work for ") + kind + " files.");
  return false;
}

// "dtswav": a DTS stream in a WAV file; the WAV layers come off, then the DTS row.
bool BuildDtsWavInput(const UpStreamRef& chain, const IAudioFormatDetails& details,
                      TAction& action, TAudioBuild& build, bool untouched) {
  return RefuseJoined(chain, build, "WAV") && chain->AppendUpStream(TWavReader::Create()) &&
         chain->AppendUpStream(TWavDtsReader::Create()) &&
         BuildDtsInput(chain, details, action, build, untouched);
}

bool BuildFlacInput(const UpStreamRef& chain, const IAudioFormatDetails&, TAction&,
                    TAudioBuild& build, bool) {
  if (!RefuseJoined(chain, build, "FLAC")) return false;
  auto decoder = TFlacDecoder::Create();
  build.flacSource = decoder;
  return chain->AppendUpStream(decoder);
}

bool BuildWavInput(const UpStreamRef& chain, const IAudioFormatDetails&, TAction&,
                   TAudioBuild& build, bool) {
  return RefuseJoined(chain, build, "WAV") && chain->AppendUpStream(TWavReader::Create());
}

// Raw PCM, and PCM that a container's reader has unpacked: big-endian data is turned around
// unless the destination only checks. Big-endian 5.1 and 7.1 is what Blu-ray LPCM looks like:
// its channels are stored L R C Ls Rs LFE (5.1) or L R C Ls Rs Lb Rb LFE (7.1), so unless the
// user gave a remap of his own, the output half puts them into WAV order with "bluray".
bool BuildPcmInput(const UpStreamRef& chain, const IAudioFormatDetails& details, TAction& action,
                   TAudioBuild& build, bool) {
  if (details.BigEndian() && (details.Channels() == 6 || details.Channels() == 8) &&
      action.remap.empty()) {
    action.remap = "bluray";
    if (!build.isContainer)
      chain->Log(0, "This is probably a Blu-ray PCM track. Will remap channels accordingly.");
  }
  bool ok = chain->AppendUpStream(TRawReader::Create(details.Channels(), 0, details.BigEndian(),
                                                     details.Extra(), details.SampleRate(),
                                                     details.Bits()));
  if (ok && details.BigEndian() && !IsCheckName(action.dest))
    ok = chain->AppendUpStream(TEndianSwapper::Create());
  return ok;
}

// "thd", "mlp", "thd/ac3". A TrueHD/AC3 track to ".ac3" keeps its AC-3 part and goes on as
// "ac3" (gaps measured on the AC-3 frames); to anything else it loses the AC-3 part first. A
// "%check%" destination on such a track reads it and nothing more.
bool BuildThdInput(const UpStreamRef& chain, const IAudioFormatDetails& details, TAction& action,
                   TAudioBuild& build, bool untouched) {
  bool interleaved = details.Format() == "thd/ac3";
  bool toAc3 = interleaved && ExtensionOf(action.dest) == ".ac3";
  bool ok = chain->AppendUpStream(
      TThdReader::Create(build.gapFileName, build.gapList, toAc3, false));
  if (!ok || (interleaved && IsCheckName(action.dest))) return ok;
  if (toAc3) {
    ok = chain->AppendUpStream(TThdAc3Extractor::Create());
    if (ok && !action.keepDialnorm) ok = chain->AppendUpStream(TAc3DialnormRemover::Create());
    if (ok && untouched) {
      UpStreamRef realizer;
      if (!build.gapList.empty())
        realizer = TAc3GapRealizer::Create(GapDataForRealizer(build.gapList));
      ok = AppendGapsAndDelay(chain, realizer, TAc3Delayer::Create(), action, build);
    }
    return ok;
  }
  if (interleaved) ok = chain->AppendUpStream(TThdAc3Remover::Create());
  if (ok && !action.keepDialnorm) ok = chain->AppendUpStream(TThdDialnormRemover::Create());
  return ok;
}

using TInputBuilder = bool (*)(const UpStreamRef& chain, const IAudioFormatDetails& details,
                               TAction& action, TAudioBuild& build, bool untouched);
// What leaves the input half: the stream as it is or decoded by libav (compressed families),
// PCM out of a decoder in the row (FLAC), or PCM that was never compressed (WAV, raw PCM).
enum class TOutputKind { Compressed, AlwaysDecoded, AlwaysPcm };
struct TInputRow {
  const char* tags;
  TOutputKind kind;
  TInputBuilder build;
};

// The stage lists by source format. Each family adds its row here as its stages exist:
//   "mp2":                      TMp2Reader; untouched: TMp2GapRealizer, TMp2Delayer
//   "dts|dtsma|dtshr|dtswav":   [TWavReader, TWavDtsReader], TDtsReader, [TDtsCoreExtractor],
//                               [TDtsDialnormRemover], [TDtsRepairer], [TDtsBitdepthPatcher];
//                               untouched: TDtsGapRealizer, TDtsDelayer
//   "thd|mlp|thd/ac3":          TThdReader, [TThdAc3Extractor + the "ac3" row | TThdAc3Remover],
//                               [TThdDialnormRemover]
//   "flac":                     TFlacDecoder (TOutputKind::AlwaysDecoded)
//   "wav":                      TWavReader (TOutputKind::AlwaysPcm)
//   "pcm" and container forms:  TRawReader, [TEndianSwapper] (TOutputKind::AlwaysPcm)
constexpr TInputRow kInputRows[] = {
    {"ac3|eac3", TOutputKind::Compressed, BuildAc3Input},
    {"mp2", TOutputKind::Compressed, BuildMp2Input},
    {"dts|dtsma|dtshr", TOutputKind::Compressed, BuildDtsInput},
    {"dtswav", TOutputKind::Compressed, BuildDtsWavInput},
    {"flac", TOutputKind::AlwaysDecoded, BuildFlacInput},
    {"wav", TOutputKind::AlwaysPcm, BuildWavInput},
    {"pcm|evo/pcm|vob/pcm|ts/pcm|m2ts/pcm", TOutputKind::AlwaysPcm, BuildPcmInput},
    {"thd|mlp|thd/ac3", TOutputKind::Compressed, BuildThdInput},
};

const TInputRow* FindInputRow(const std::string& tag) {
  for (const TInputRow& row : kInputRows)
    if (InList(tag, row.tags)) return &row;
  return nullptr;
}

bool AppendDestFile(const UpStreamRef& chain, const std::string& name, TAudioBuild& build) {
  return chain->AppendUpStream(build.makeDestination ? build.makeDestination(name)
                                                     : UpStreamRef(TDestFile::Create(name)));
}

}  // namespace

bool CheckAudioDestination(IUpStream& logger, const std::string& extension,
                           const std::string& tag) {
  std::string ext = Lower(extension);
  if (InList(ext, kOpenAudioExtensions) || MatchesRule(kAudioDestinationRules, ext, tag))
    return true;
  logger.Log(2, "This audio conversion is not supported.");
  return false;
}

bool CheckVideoDestination(IUpStream& logger, const std::string& extension,
                           const std::string& tag) {
  std::string ext = Lower(extension);
  if (ext == ".mkv" || MatchesRule(kVideoDestinationRules, ext, tag)) return true;
  logger.Log(2, "This video conversion is not supported.");
  return false;
}

void ApplyDownmixRule(TAction& action, uint32_t channels) {
  if (action.downmix) {
    if (channels > 6)
      action.down6 = true;
    else if (channels > 2)
      action.down2 = true;
    action.downmix = false;
  }
  if (action.down6 && channels <= 6) action.down6 = false;
  if (action.down2 && channels < 6) action.down2 = false;
  if (action.down2 && channels > 6) action.down6 = true;
}

bool KeepsCompressed(const IAudioFormatDetails& details, const TAction& action) {
  std::string tag = details.Format();
  if (!MatchesRule(kCompressedDestinations, ExtensionOf(action.dest), tag) &&
      !TakesAc3Core(details, action))
    return false;
  if (action.bitrate != 0 && uint64_t(action.bitrate) * 1000 != details.Bitrate()) return false;
  if (action.resampleTo != 0 && uint32_t(action.resampleTo) != details.SampleRate()) return false;
  return !action.slowdown && !action.speedup && action.remap.empty() && !action.down2;
}

// The default decoders were Nero for AC3 and E-AC3, ArcSoft (then Sonic) for DTS. None of them
// exists here, so a request for one by name fails as its self test would; without such a request
// libav is taken without a word, as it is the decoder of this platform and not a fallback.
bool ChooseDecoder(IUpStream& logger, const std::string& tag, TAction& action) {
  bool ac3Family = tag == "ac3" || tag == "eac3";
  bool neroWanted = (ac3Family && !action.useSonic && !action.useArcSoft && !action.useLibav) ||
                    (action.useNero && (IsDtsFamily(tag) || tag == "mp2" || tag == "thd" ||
                                        tag == "thd/ac3" || tag == "mlp"));
  if (neroWanted && !DecoderWorks(TDecoderKind::Nero)) {
    if (action.useNero) {
      logger.Log(2, "I'd like to use the Nero decoder, but it doesn't seem to work.");
      return false;
    }
    action.useLibav = true;
  }
  if (action.useSonic && !DecoderWorks(TDecoderKind::Sonic)) {
    logger.Log(2, "I'd like to use the Sonic decoder, but it doesn't seem to work.");
    return false;
  }
  bool arcSoftWanted = action.useArcSoft ||
                       (IsDtsFamily(tag) && !action.useSonic && !action.useLibav && !action.useNero);
  if (arcSoftWanted && !DecoderWorks(TDecoderKind::ArcSoft)) {
    if (action.useArcSoft) {
      logger.Log(2, "I'd like to use the ArcSoft decoder, but it doesn't seem to work.");
      return false;
    }
    action.useLibav = true;
  }
  action.useLibav = true;
  return true;
}

bool BuildAudioInput(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                     TAction& action, TAudioBuild& build) {
  ApplyDownmixRule(action, details->Channels());
  const std::string tag = details->Format();
  const TInputRow* row = FindInputRow(tag);
  if (!row) {
    chain->Log(2, "Internal error - unknown audio input format!");
    return false;
  }
  bool compressed = row->kind == TOutputKind::Compressed;
  bool untouched = compressed && KeepsCompressed(*details, action);
  build.decoded = compressed ? !untouched : row->kind == TOutputKind::AlwaysDecoded;
  bool needsDecoder = compressed && !untouched;
  if (needsDecoder && !ChooseDecoder(*chain, tag, action)) return false;
  if (!row->build(chain, *details, action, build, untouched)) return false;
  if (needsDecoder && !AppendDecoder(chain, details, action, build)) return false;
  // "-mono" takes the stream to one channel; "-check16bit" on PCM that was not decoded brings
  // in the twin outputs.
  if (action.mono && !untouched && details->Channels() > 1) {
    AppendMonoMix(chain);
    details->SetChannels(1);
    details->SetChannelMask(4);
    if (details->Bits() <= 16) details->SetBits(details->Bits() + 8);
  }
  if (action.check16bit && !build.decoded && !untouched) {
    std::string ext = ExtensionOf(action.dest);
    if (ext != ".ac3" && ext != ".dts") build.decoded = true;
  }
  return true;
}

bool BuildAudioChain(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                     TAction& action, TAudioBuild& build) {
  if (!BuildAudioInput(chain, details, action, build)) return false;
  if (!build.decoded && KeepsCompressed(*details, action))
    return AppendDestFile(chain, action.dest, build);
  return BuildDecodedOutputs(chain, details, action, build);
}

}  // namespace sonvex
