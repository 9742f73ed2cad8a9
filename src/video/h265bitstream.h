// HEVC header parsing: the video and sequence parameter sets (profile, tier, level, size with
// the conformance window, bit depth, chroma format, sample aspect, colour description, VUI
// timing) and the SEI messages that carry HDR facts (mastering display, content light level).
#pragma once

#include <cstddef>
#include <cstdint>

namespace sonvex {

struct TH265Sps {
  uint32_t profileIdc = 0, tier = 0, levelIdc = 0;
  uint32_t chromaFormat = 1;
  uint32_t bitDepth = 8;
  uint32_t width = 0, height = 0;
  uint32_t aspectX = 0, aspectY = 0;  // display aspect, reduced; 0:0 if the stream says nothing
  bool interlaced = false;            // field_seq_flag: every picture is one field
  uint32_t primaries = 2, transfer = 2, matrix = 2;  // 2: unspecified
  bool timing = false;
  uint32_t rateNum = 0, rateDen = 0;  // normalised to a denominator of 1000 or 1001
};

// Timing of the video parameter set (used where the SPS has no VUI timing): true if present.
bool ParseH265VpsTiming(const uint8_t* rbsp, size_t size, uint32_t& rateNum, uint32_t& rateDen);

// `rbsp` is the SPS without its start code and two NAL header bytes, emulation prevention
// removed. False on malformed or nonsense values.
bool ParseH265Sps(const uint8_t* rbsp, size_t size, TH265Sps& sps);

struct TH265HdrSei {
  bool masteringDisplay = false;  // payload type 137
  bool contentLight = false;      // payload type 144
  uint32_t maxCll = 0, maxFall = 0;
};

// Walks the messages of a prefix SEI payload (without NAL header, unescaped) and notes the HDR
// messages in `hdr`.
void ParseH265HdrSei(const uint8_t* rbsp, size_t size, TH265HdrSei& hdr);

}  // namespace sonvex
