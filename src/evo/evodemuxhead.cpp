// Building the demux head of an EVO/VOB track.
#include "evo/evodemuxhead.h"

#include "evo/evodemuxer.h"
#include "evo/evopcmreader.h"
#include "evo/evosubreader.h"
#include "pcm/timestampfixer.h"

namespace sonvex {

UpStreamRef BuildEvoDemuxHead(const TEvoHeadRequest& request) {
  auto head = TEvoDemuxer::Create(request.isVideo, request.isAudio, request.id,
                                  uint32_t(request.trackNumber));
  if (!request.isVideo && !request.isAudio) {
    head->SetUpStream(TEvoSubReader::Create());
  } else if (request.isAudio) {
    const std::string& format = request.audioFormat;
    if (format == "pcm" || format == "evo/pcm" || format == "vob/pcm") {
      head->SetUpStream(TEvoPcmReader::Create());
      head->AppendUpStream(TTimestampFixer::Create(request.gapFileName, request.gapData));
    }
  }
  return head;
}

}  // namespace sonvex
