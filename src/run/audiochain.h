// Building the audio part of a chain for one action: the input half (reader, stream edits, or the
// decoder) and the output half (PCM processing and the file writer). Nothing here reads data.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "framework/upstream.h"
#include "run/options.h"

namespace sonvex {

// What one audio build is told and what it reports back.
struct TAudioBuild {
  const TOptions* options = nullptr;
  bool isContainer = false;      // the track comes out of a container
  std::string gapList;           // content of a ".gaps" file, or empty
  std::string gapFileName;       // where a reader writes gaps it finds: destination + ".gaps"
  bool decoded = false;          // out: the stream leaves the input half as PCM
  std::vector<UpStreamRef> stripStages;  // out: TStripTo16bit stages of the twin outputs
  // Makes the file stage of a destination name; empty: TDestFile. Tests put a capture here.
  std::function<UpStreamRef(const std::string& name)> makeDestination;
  // A FLAC decoder in the input half, whose metadata a FLAC destination copies; found by
  // BuildDecodedOutputs when not set.
  UpStreamRef flacSource;
};

// Logs "This audio conversion is not supported." through `logger` and returns false if the
// destination's extension can't be made from a stream of that tag.
bool CheckAudioDestination(IUpStream& logger, const std::string& extension, const std::string& tag);
bool CheckVideoDestination(IUpStream& logger, const std::string& extension, const std::string& tag);

// Appends the stages of the source format to `chain`.
bool BuildAudioInput(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                     TAction& action, TAudioBuild& build);
// Appends PCM processing and the destination; `suffix` is ".24bit", ".16bit" or empty.
bool BuildAudioOutput(const UpStreamRef& chain, TAudioBlock& details, TAction& action,
                      const std::string& suffix, TAudioBuild& build);
// Decoder choice and the decoder of a compressed stream that is to be decoded (input half): the
// libav decoder, a TBitdepthReducer to 24 bits, and the channel remap behind it.
bool AppendDecoder(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                   TAction& action, TAudioBuild& build);
// The outputs of a decoded stream: twin ".24bit"/".16bit" outputs for a lossless destination
// that isn't "stdout" (the TStripTo16bit goes to build.stripStages), else one output.
bool BuildDecodedOutputs(const UpStreamRef& chain,
                         const std::shared_ptr<IAudioFormatDetails>& details, TAction& action,
                         TAudioBuild& build);
// The whole audio branch of one action: input half, then twin outputs, one output, or the file.
bool BuildAudioChain(const UpStreamRef& chain, const std::shared_ptr<IAudioFormatDetails>& details,
                     TAction& action, TAudioBuild& build);

// The rules of the input half, apart for the run and its tests.
// "-downmix" becomes down6 or down2 by the channel count; down6 and down2 are kept only where
// they apply.
void ApplyDownmixRule(TAction& action, uint32_t channels);
// Whether the destination keeps the stream as it is (no decoding).
bool KeepsCompressed(const IAudioFormatDetails& details, const TAction& action);
// Picks the decoder for a stream of `tag` and records it in the action's decoder flags;
// false (with its message logged through `logger`) when the decoder asked for can't be used.
bool ChooseDecoder(IUpStream& logger, const std::string& tag, TAction& action);

}  // namespace sonvex
