// TrueHD and MLP access unit helpers: the major sync parser, its check word, the nibble parity
// of a unit header, and the AC-3 frame probe used where AC-3 frames are interleaved with TrueHD.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

// The four bytes at offset 4 of an access unit that starts with a major sync.
constexpr uint32_t kThdMajorSync = 0xF8726FBA;
constexpr uint32_t kMlpMajorSync = 0xF8726FBB;

struct TMajorSync {
  std::string channelText;
  uint32_t channels = 0;
  bool isMlp = false;
  uint32_t substreams = 0;
  uint32_t unitSize = 0;
  uint32_t samplesPerUnit = 0;
  int32_t dialnorm = 0;
  uint32_t sampleRate = 0;
  uint32_t bits = 0;
  uint32_t channelMask = 0;
};

// Size in bytes of the access unit at `data` (two bytes needed): low 12 bits of the first word x 2.
inline uint32_t ThdUnitSize(const uint8_t* data) {
  return (uint32_t(data[0] & 0x0F) << 8 | data[1]) * 2;
}

// The check word of a major sync over the byte range [first, end) of the unit: the remainder of
// that range, read as one polynomial, divided by x^16 + x^5 + x^3 + x^2 + 1. Over bytes 4..30 it
// equals the big-endian word that stands in bytes 30-31 of a good major sync.
uint16_t MajorSyncCrc(const uint8_t* data, uint32_t first, uint32_t end);

// Where the check word of the major sync at `data` (32 bytes needed) ends: 32, or more when a
// TrueHD sync carries extension words (byte 29 bit 0, their count in byte 30 >> 4); at most 64.
// The check word is the last two bytes, the check covers bytes 4 up to it.
uint32_t MajorSyncEnd(const uint8_t* data);

// Parses the major sync of the unit at `data`; `size` bytes are there, at least 32 are needed
// and `MajorSyncEnd` of them for the check word.
// Result 0 = good, 1 = no major sync at offset 4, 2 = a bad MLP sync or a unit size below 32,
// 3 = a bad TrueHD check word or sample rate.
int ParseMajorSync(const uint8_t* data, uint32_t size, TMajorSync& out);

// The nibble parity of an access unit header (the 4-byte unit header and the substream
// directory). `size` bounds the reads; a header that doesn't fit fails.
bool CheckUnitParity(const uint8_t* unit, uint32_t size, uint32_t substreams);

// A complete AC-3 frame of `size` bytes with good check words: the AC-3 frame parser reduced to
// good or bad.
bool ProbeAc3Frame(const uint8_t* data, uint32_t size, uint32_t& frameSize, uint32_t& bitrate);

}  // namespace sonvex
