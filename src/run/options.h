// What the command line says: one TOptions for the run, one TAction for each destination.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

struct TAction {
  int32_t track = 0;  // 0: picked by the destination's extension
  std::string dest;
  int32_t channels = 0;
  int32_t bits = 0;
  int32_t endian = 0;  // 0 unset, 1 little, 2 big
  int32_t sampleRate = 0;
  int32_t delay = 0;
  int32_t reduceTo = 0;
  bool core = false;
  bool slowdown = false;
  bool speedup = false;
  bool dontRepairDts = false;
  bool dontPatchDts = false;
  bool stripPulldown = false;
  int32_t quality = 4;
  int32_t resampleTo = 0;
  bool mono = false;
  bool check16bit = false;
  bool override = false;
  bool downmix = false;
  bool down6 = false;
  bool down2 = false;
  bool mixLfe = false;
  bool keepDialnorm = false;
  bool useNero = false, useSonic = false, useArcSoft = false, useLibav = false;
  int32_t bitrate = 0;
  std::string remap;
  bool extensible = false;
  int32_t fileCount = 0;     // set during the run: mono files written for ".wavs"
  int32_t decidedBits = 0;   // set during the run: 16 if only 16-bit content was found
  bool oldMediaType = false;
  int32_t skipHeaders = 0;
  bool seekToIFrames = false;
  bool force24p = false;
  bool keepPulldown = false;
};

struct TOptions {
  std::vector<std::string> sources;
  bool test = false;
  bool json = false;  // one JSON document on standard output, messages on standard error
  int32_t megabytes = 0;
  bool demux = false;
  bool check = false;
  bool ignoreDiscontinuity = false;
  bool logPids = false;
  bool logDts = false;
  std::vector<TAction> actions;
  std::string logName;
};

}  // namespace sonvex
