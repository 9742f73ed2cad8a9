// The video readers as a destination's chain needs them.
#include "video/videoreaders.h"

#include "video/h264reader.h"
#include "video/h265reader.h"
#include "video/mpeg2reader.h"
#include "video/vc1pulldownremover.h"
#include "video/vc1reader.h"

namespace sonvex {

TVideoReaderChain BuildVideoReader(const std::string& codec, const TAction& action,
                                   int32_t trackNumber, bool pulldown, bool interlaced,
                                   bool toMkv, const std::string& gapFile,
                                   const std::string& gapData) {
  TVideoReaderChain chain;
  if (codec == "h264") {
    // -30p, -60i and -keepPulldown keep a 24p film at 30p; -24p does the reverse.
    chain.head = Th264Reader::Create(gapFile, action.keepPulldown, action.force24p,
                                     action.speedup, action.slowdown, false, gapData);
    chain.last = chain.head;
  } else if (codec == "h265") {
    chain.head = Th265Reader::Create(gapFile, action.speedup, action.slowdown, false, gapData);
    chain.last = chain.head;
  } else if (codec == "vc1") {
    chain.head = TVc1Reader::Create(gapFile, action.skipHeaders, action.speedup, action.slowdown,
                                    false, gapData);
    chain.last = chain.head;
    if (!toMkv && action.stripPulldown) {
      chain.last = TVc1PulldownRemover::Create();
      chain.head->SetUpStream(chain.last);
    }
  } else if (codec == "mpeg2") {
    // Into Matroska the pulldown goes unless it is to be kept; into a stream only on request.
    bool removePulldown = toMkv ? !action.keepPulldown : action.stripPulldown;
    chain.head = TMpeg2Reader::Create(false, action.keepPulldown, action.speedup,
                                      action.slowdown, false, gapData, gapFile, trackNumber,
                                      removePulldown, pulldown, interlaced);
    chain.last = chain.head;
  }
  return chain;
}

UpStreamRef CreateFrameCounter(const std::string& codec) {
  if (codec == "h264") return Th264Reader::Create();
  if (codec == "h265") return Th265Reader::Create();
  if (codec == "vc1") return TVc1Reader::Create();
  if (codec == "mpeg2") return TMpeg2Reader::Create(true, false, false, false, false);
  return nullptr;
}

}  // namespace sonvex
