// TBitdepthReducer: brings PCM down to 8..24 significant bits, rounding, with optional TPDF
// dither from one process-wide table of white noise.
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

class IBitdepthReducer {
public:
  virtual ~IBitdepthReducer() = default;
};

// The table of 30-bit random values: kNoiseEntries values, repeated once behind themselves so that
// a run of up to kNoiseEntries samples needs no wrap test. Built or loaded on first use; never
// freed. Returns nullptr only if memory ran out.
constexpr uint32_t kNoiseEntries = 0x40000;
const int32_t* NoiseTable();
// Where the noise is cached: $XDG_CACHE_HOME/sonvex/white.noise (default ~/.cache/sonvex/).
std::string NoiseFileName();

class TBitdepthReducer : public TUpStream, public IBitdepthReducer {
public:
  TBitdepthReducer(uint32_t target, bool dither);
  // `quiet` silences this one stage (not the stages behind it), for parallel branches.
  static std::shared_ptr<TBitdepthReducer> Create(uint32_t target, bool dither, bool quiet = false);

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  uint32_t inputDepth = 0;  // 0 until the format arrives
  uint32_t target;
  bool dither;
  uint32_t noisePosition = 0;
  const int32_t* noise = nullptr;  // the shared table, when dithering
};

}  // namespace sonvex
