// The output half of an audio chain: PCM processing and the destination (being built).
#include "run/audiochain.h"

namespace sonvex {

bool BuildAudioOutput(const UpStreamRef& chain, TAudioBlock&, TAction&, const std::string&,
                      TAudioBuild&) {
  chain->Log(2, "Internal error - unknown audio output format!");
  return false;
}

}  // namespace sonvex
