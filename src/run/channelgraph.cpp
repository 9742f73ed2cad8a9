// Mono branch graphs: split, resampling, the downmix graphs, join.
#include "run/channelgraph.h"

#include "framework/smallstages.h"
#include "pcm/bitdepthreducer.h"
#include "pcm/channelamplifier.h"
#include "pcm/channeljoiner.h"
#include "pcm/channelmixer.h"
#include "pcm/channelmodder.h"
#include "pcm/resampler.h"

namespace sonvex {

void Feed(const UpStreamRef& producer, const UpStreamRef& consumer) {
  std::vector<UpStreamRef> list;
  for (int32_t i = 0; i < producer->UpStreamCount(); i++) list.push_back(producer->GetUpStream(i));
  list.push_back(consumer);
  producer->SetUpStreams(list);
}

namespace {

// Appends `stage` behind a branch, which then ends in it.
void Extend(UpStreamRef& branch, const UpStreamRef& stage) {
  Feed(branch, stage);
  branch = stage;
}

// A branch through a factor: TChannelAmplifier, then a dithering TBitdepthReducer that logs
// nothing, back to `depth`.
UpStreamRef Amplified(const UpStreamRef& branch, int32_t factor, uint32_t depth) {
  auto amplifier = TChannelAmplifier::Create(factor);
  auto reducer = TBitdepthReducer::Create(depth, true, true);
  Feed(branch, amplifier);
  amplifier->SetUpStream(reducer);
  return reducer;
}

}  // namespace

TMonoBranches SplitIntoBranches(const UpStreamRef& chain, TAudioBlock& details,
                                bool doubleSeventh, uint32_t limit) {
  uint32_t channels = std::min(details.channels, limit);
  std::vector<uint32_t> sources;
  for (uint32_t c = 0; c < channels; c++) sources.push_back(c);
  if (doubleSeventh && channels == 7) {
    chain->Log(0, "Doubling 7th channel...");
    sources.push_back(6);
  }
  if (sources.size() != details.channels) {
    details.channels = uint32_t(sources.size());
    details.channelMask = details.channels == 8 ? 0x63F : 0;
  }
  TMonoBranches branches;
  for (uint32_t source : sources)
    branches.push_back(TChannelModder::Create(std::vector<uint32_t>{source}));
  chain->AppendUpStreams(branches);
  return branches;
}

void AppendResamplers(TMonoBranches& branches, TAudioBlock& details, const TAction& action) {
  const uint32_t quality = uint32_t(action.quality);
  const bool resample = action.resampleTo != 0 && uint32_t(action.resampleTo) != details.sampleRate;
  for (size_t k = 0; k < branches.size(); k++) {
    auto quiet = [&](const UpStreamRef& stage) {
      if (k > 0) stage->SetSilent(false);
      return stage;
    };
    if (action.speedup) Extend(branches[k], quiet(TResampler::Speedup(quality)));
    if (action.slowdown) Extend(branches[k], quiet(TResampler::Slowdown(quality)));
    if (resample)
      Extend(branches[k], quiet(TResampler::Resample(uint32_t(action.resampleTo), quality)));
  }
  if (action.speedup || action.slowdown || resample) details.bits = 24;
  if (resample) details.sampleRate = uint32_t(action.resampleTo);
}

void BuildDown6(TMonoBranches& branches, TAudioBlock& details) {
  const uint32_t depth = details.bits >= 16 ? details.bits : 24;
  auto mixer4 = TChannelMixer::Create();
  auto mixer5 = TChannelMixer::Create();
  mixer5->SetSilent(false);
  UpStreamRef back = Amplified(branches[6], kDown6SurroundFactor, depth);
  Feed(branches[4], mixer4);
  Feed(back, mixer4);
  Feed(branches[5], mixer5);
  if (branches.size() >= 8) back = Amplified(branches[7], kDown6SurroundFactor, depth);
  Feed(back, mixer5);
  branches.resize(6);
  branches[4] = mixer4;
  branches[5] = mixer5;
  details.channels = 6;
  details.channelMask = 0x3F;
  details.bits = depth;
}

void BuildDown2(TMonoBranches& branches, TAudioBlock& details, bool mixLfe) {
  auto left = TChannelMixer::Create();
  auto right = TChannelMixer::Create();
  right->SetSilent(false);
  for (const TMixContribution& row : kDown2Matrix) {
    const UpStreamRef& branch = branches[row.input];
    if (row.input == 3 && !mixLfe) {
      Feed(branch, TFileSimulator::Create());
      continue;
    }
    if (row.left == row.right) {
      // One amplifier serves both sides.
      UpStreamRef both = Amplified(branch, row.left, 24);
      Feed(both, left);
      Feed(both, right);
      continue;
    }
    if (row.left) Feed(Amplified(branch, row.left, 24), left);
    if (row.right) Feed(Amplified(branch, row.right, 24), right);
  }
  branches = {left, right};
  details.channels = 2;
  details.channelMask = 3;
  if (details.bits >= 1 && details.bits <= 16) details.bits += 8;
}

void AppendMonoMix(const UpStreamRef& chain) {
  UpStreamRef left = TChannelModder::Create(std::vector<uint32_t>{0});
  UpStreamRef right = TChannelModder::Create(std::vector<uint32_t>{1});
  chain->AppendUpStreams({left, right});
  auto mixer = TChannelMixer::Create();
  mixer->SetSilent(false);
  Feed(Amplified(left, kMonoFactor, 24), mixer);
  Feed(Amplified(right, kMonoFactor, 24), mixer);
}

void JoinBranches(const TMonoBranches& branches) {
  auto joiner = TChannelJoiner::Create();
  for (const UpStreamRef& branch : branches) Feed(branch, joiner);
}

}  // namespace sonvex
