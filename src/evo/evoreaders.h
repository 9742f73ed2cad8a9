// The reader for one stream of an EVO/VOB file, made from the format tag that the packet walk
// gives it ("mpeg2", "h264", "vc1", "mp2", "ac3", "dts", "thd", "evo/pcm", "vob/pcm", "evo/sub").
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

// The reader for `tag`, as a prober; nil for a tag that names no stream this program reads.
// `dtsOption` goes to the DTS reader.
UpStreamRef CreateEvoTrackReader(const std::string& tag, bool dtsOption);

}  // namespace sonvex
