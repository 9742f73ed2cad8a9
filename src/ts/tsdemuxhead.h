// The head of a chain branch for one track of a TS/M2TS source: TTsDemuxer for the track's PID
// with TPesParser (continuous time line) behind it. Blu-ray PCM gets TTsPcmReader and
// TTimestampFixer behind that, so the branch goes on with the audio format "pcm"; other audio gets
// a TTimestampFixer unless the run only checks. A PGS subtitle track gets TPgsReader instead of
// the TPesParser, so the branch goes on with SUP data. Further stages go behind with
// AppendUpStream.
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

struct TTsHeadRequest {
  int32_t pid = 0;
  int32_t trackNumber = 0;
  bool ignoreDiscontinuity = false;
  bool isVideo = false;
  std::string audioFormat;  // the track's format tag ("ac3", "pcm", ...), empty for video
  bool check = false;       // the destination is a "%check%" name
  std::string gapFileName;  // destination + ".gaps"
  std::string gapData;      // content of an existing ".gaps" file, or empty
  bool isSubtitle = false;
  int64_t timeOrigin = -1;  // subtitles: the source's time origin in 90 kHz ticks, -1 unknown
};

UpStreamRef BuildTsDemuxHead(const TTsHeadRequest& request);

}  // namespace sonvex
