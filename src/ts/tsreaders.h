// The reader for one elementary stream of a transport stream, made from the tag that the PMT's
// stream type gives ("ac3", "dts", "thd", "mp2", "m2ts/pcm", "ts/pcm", "h264", "vc1", "mpeg2").
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

// The reader for `tag`, as a prober (no gap file, no gap data); nil for a tag that names no
// stream this program reads. `dtsOption` goes to the DTS reader.
UpStreamRef CreateTsTrackReader(const std::string& tag, bool dtsOption);

}  // namespace sonvex
