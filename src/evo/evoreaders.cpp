// The reader factory of the EVO parser: the compressed formats get the readers that probe
// transport stream tracks too; PCM and subpictures get the EVO readers.
#include "evo/evoreaders.h"

#include "evo/evopcmreader.h"
#include "evo/evosubreader.h"
#include "ts/tsreaders.h"

namespace sonvex {

UpStreamRef CreateEvoTrackReader(const std::string& tag, bool dtsOption) {
  if (tag == "evo/pcm" || tag == "vob/pcm") return TEvoPcmReader::Create();
  if (tag == "evo/sub") return TEvoSubReader::Create();
  return CreateTsTrackReader(tag, dtsOption);
}

}  // namespace sonvex
