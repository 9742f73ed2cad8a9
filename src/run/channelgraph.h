// The graphs of mono branches that the output half of an audio chain builds for resampling, PAL
// speed changes and downmixes: the split into one branch per channel, the processing of each
// branch, the downmix graphs of TChannelMixer/TChannelAmplifier/TBitdepthReducer, and the
// TChannelJoiner that makes one stream again. Nothing here reads data.
#pragma once

#include <vector>

#include "framework/details.h"
#include "framework/upstream.h"
#include "run/options.h"

namespace sonvex {

// A split stream: entry k is the stage whose output is channel k.
using TMonoBranches = std::vector<UpStreamRef>;

// Adds `consumer` to the stages that `producer` feeds.
void Feed(const UpStreamRef& producer, const UpStreamRef& consumer);

// Splits the end of `chain` into one TChannelModder per channel. `doubleSeventh`: a 7-channel
// stream becomes 8 branches, channel 6 in both of the last two (the details become 8 channels,
// mask 0x63F, and "Doubling 7th channel..." is logged). `limit`: at most that many branches.
TMonoBranches SplitIntoBranches(const UpStreamRef& chain, TAudioBlock& details,
                                bool doubleSeventh, uint32_t limit);
// The speed change, then the resampling of each branch; all but the first branch are silent.
void AppendResamplers(TMonoBranches& branches, TAudioBlock& details, const TAction& action);
// 7 or 8 channels to 6: the back surrounds mixed into the side surrounds at factor 181/256.
void BuildDown6(TMonoBranches& branches, TAudioBlock& details);
// 6 channels to stereo by the Dolby Pro Logic II matrix; the LFE only with `mixLfe`.
void BuildDown2(TMonoBranches& branches, TAudioBlock& details, bool mixLfe);
// "-mono": channels 0 and 1 at half level each, mixed into one 24-bit channel (16 bits for
// 8-bit input), at the end of `chain`.
void AppendMonoMix(const UpStreamRef& chain);
// One TChannelJoiner behind all branches, in their order.
void JoinBranches(const TMonoBranches& branches);

// The factors of the downmix graphs, in 1/256 steps.
struct TMixContribution {
  uint32_t input;  // source channel
  int32_t left, right;  // factor into that mixer, 0 for none
};
// -down6: output 4 and 5 get the back surrounds (6 and 7) through this factor.
constexpr int32_t kDown6SurroundFactor = 181;
// -mono: left and right at half level each.
constexpr int32_t kMonoFactor = 128;
// -down2: L, R, C, LFE (with -mixlfe), SL, SR into the left and right mixers.
constexpr TMixContribution kDown2Matrix[] = {
    {0, 128, 0}, {1, 0, 128}, {2, 91, 91}, {3, 91, 91}, {4, 111, -64}, {5, 64, -111},
};

}  // namespace sonvex
