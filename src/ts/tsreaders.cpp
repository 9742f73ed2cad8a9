// The reader factory of the transport stream parser: each tag gets the family's reader as a
// prober (no gap file, junk before the first frame allowed).
#include "ts/tsreaders.h"

#include "ts/tspcmreader.h"

#include "ac3/ac3reader.h"
#include "dts/dtsreader.h"
#include "mp2/mp2reader.h"
#include "thd/thdreader.h"
#include "video/videoreaders.h"

namespace sonvex {

UpStreamRef CreateTsTrackReader(const std::string& tag, bool dtsOption) {
  if (tag == "vc1" || tag == "h264" || tag == "h265" || tag == "mpeg2") return CreateFrameCounter(tag);
  if (tag == "mp2") return TMp2Reader::Create("", "", false);
  if (tag == "ac3") return TAc3Reader::Create("", "", false);
  if (tag == "dts") return TDtsReader::Create("", "", false, dtsOption, false);
  if (tag == "thd") return TThdReader::Create("", "", false, false);
  if (tag == "ts/pcm" || tag == "m2ts/pcm") return TTsPcmReader::Create();
  return nullptr;
}

}  // namespace sonvex
