// Building the demux head of a TS/M2TS track.
#include "ts/tsdemuxhead.h"

#include "pcm/timestampfixer.h"
#include "ts/pesparser.h"
#include "ts/pgsreader.h"
#include "ts/tsdemuxer.h"
#include "ts/tspcmreader.h"

namespace sonvex {

UpStreamRef BuildTsDemuxHead(const TTsHeadRequest& request) {
  auto head = TTsDemuxer::Create(uint32_t(request.pid), uint32_t(request.trackNumber),
                                 request.ignoreDiscontinuity);
  if (request.isSubtitle) {
    head->SetUpStream(TPgsReader::Create(request.timeOrigin));
    return head;
  }
  head->SetUpStream(TPesParser::Create(false));
  if (request.isVideo) return head;
  const std::string& format = request.audioFormat;
  if (format == "pcm" || format == "m2ts/pcm" || format == "ts/pcm") {
    head->AppendUpStream(TTsPcmReader::Create());
    head->AppendUpStream(TTimestampFixer::Create(request.gapFileName, request.gapData));
  } else if (!request.check) {
    head->AppendUpStream(TTimestampFixer::Create("", ""));
  }
  return head;
}

}  // namespace sonvex
