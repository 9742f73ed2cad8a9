// The head of a chain branch for one track of an EVO/VOB source: TEvoDemuxer for the track's
// class and id. PCM gets TEvoPcmReader and TTimestampFixer behind it, so the branch goes on with
// the audio format "pcm"; subtitles get TEvoSubReader, so the branch goes on with "sup". Further
// stages go behind with AppendUpStream.
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

struct TEvoHeadRequest {
  bool isVideo = false;
  bool isAudio = false;  // neither: a subtitle track
  uint32_t id = 0;       // the track's number within its class
  int32_t trackNumber = 0;
  std::string audioFormat;  // the track's format tag ("ac3", "pcm", ...), empty for the others
  std::string gapFileName;  // destination + ".gaps"
  std::string gapData;      // content of an existing ".gaps" file, or empty
};

UpStreamRef BuildEvoDemuxHead(const TEvoHeadRequest& request);

}  // namespace sonvex
