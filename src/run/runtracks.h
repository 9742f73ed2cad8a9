// One working pass: a branch for each action behind one source stage, side branches that count
// video frames, and the results of the pass.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/details.h"
#include "framework/upstream.h"
#include "run/options.h"

namespace sonvex {

class TSourceFiles;

enum class TTrackKind { None, Chapters, Joined, Video, Audio, Subtitle };

// What the analysis found, as the chain building needs it.
struct TSourceInfo {
  std::shared_ptr<IContainerFormatDetails> container;  // nil for a bare stream
  std::shared_ptr<IAudioFormatDetails> audioDetails;
  std::shared_ptr<IVideoFormatDetails> videoDetails;
  int32_t trackBase = 0;
  bool joinedContainer = false;
  std::string chapterText;
  int64_t junkBytes = 0;  // leading junk that detection skipped; the pass reads behind it
  std::shared_ptr<const TSourceFiles> probed;  // the analysis source, whose probe passes reuse
};

struct TTrackRef {
  TTrackKind kind = TTrackKind::None;
  int32_t index = 0;  // in the container's list of that kind
  TTrackEntry entry;  // id, reading stage and delay; for a bare stream only `details`
};

// Finds what track number `track` stands for.
TTrackRef FindTrack(const TSourceInfo& info, int32_t track);
int32_t LastTrackNumber(const TSourceInfo& info);

struct TPassResult {
  std::vector<int64_t> videoFrames;  // by video track index
  int64_t abortPosition = 0;
};

bool RunTracks(TOptions& options, const TSourceInfo& info, TPassResult& result);

// Hooks through which container families add their demux heads: nullptr when the container has
// no demuxer here (the caller then logs "Unknown container.").
using DemuxHeadFactory = UpStreamRef (*)(const std::string& containerTag, const TTrackRef& track,
                                        const TOptions& options, const TAction& action);
}  // namespace sonvex
