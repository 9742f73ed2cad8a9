// The video readers as a destination's chain needs them: which reader a codec gets, with which
// of the action's options, and the silent frame counters of the side branches.
#pragma once

#include <string>

#include "framework/upstream.h"
#include "run/options.h"

namespace sonvex {

struct TVideoReaderChain {
  UpStreamRef head;  // the reader; nil for a codec without one
  UpStreamRef last;  // where the destination goes: the reader or the stage behind it
};

// The reader of a video action for `codec` ("h264", "h265", "vc1", "mpeg2"). `pulldown` and
// `interlaced` are what the analysis pass found for the track; `trackNumber` is what an MPEG-2
// stream of mixed content puts in rerunTrack. `gapFile` is the ".gaps" name to write (empty:
// none), `gapData` the content of an existing one. Outside Matroska a VC-1 reader gets a
// TVc1PulldownRemover behind it with -stripPulldown.
TVideoReaderChain BuildVideoReader(const std::string& codec, const TAction& action,
                                   int32_t trackNumber, bool pulldown, bool interlaced,
                                   bool toMkv, const std::string& gapFile,
                                   const std::string& gapData);

// A reader that only counts the frames of a track (side branches): no options, no gaps, and no
// demand that the stream begin with a header. Nil for a codec without a reader.
UpStreamRef CreateFrameCounter(const std::string& codec);

}  // namespace sonvex
