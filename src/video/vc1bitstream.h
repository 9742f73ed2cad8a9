// VC-1 Advanced Profile header parsing: the sequence header (profile, level, chroma format,
// coded size, pulldown and interlace flags, display extension with aspect and frame rate) and
// the in-place edits of the pulldown remover on sequence and frame headers. VC-1 uses the same
// emulation prevention (00 00 03) as H.264; headers are parsed with it removed, and edits are
// mapped back to the raw bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sonvex {

// VC-1 start code suffixes (the byte behind 00 00 01).
constexpr uint8_t kVc1EndOfSequence = 0x0A;
constexpr uint8_t kVc1Slice = 0x0B;
constexpr uint8_t kVc1Field = 0x0C;
constexpr uint8_t kVc1Frame = 0x0D;
constexpr uint8_t kVc1EntryPoint = 0x0E;
constexpr uint8_t kVc1SequenceHeader = 0x0F;

struct TVc1SequenceHeader {
  uint32_t profile = 0, level = 0, chromaFormat = 0;
  uint32_t width = 0, height = 0;  // coded size
  bool pulldown = false, interlace = false, tfcntr = false, psf = false;
  bool displayExtension = false;
  uint32_t displayWidth = 0, displayHeight = 0;
  bool frameRateFlag = false;
  uint32_t frameRateIndicator = 0;
  uint32_t frameRateValue = 0;     // FRAMERATENR with indicator 0
  uint32_t frameRateDivider = 0;   // FRAMERATEDR with indicator 0
  uint32_t frameRateExplicit = 0;  // FRAMERATEEXP with indicator 1
  uint64_t frameRateValueBit = 0;  // bit offset of FRAMERATENR in the unescaped unit
};

// `unit` begins with 00 00 01 0F; the header is read with emulation prevention removed.
// Returns false if the unit is too short for the fields it announces.
bool ParseVc1SequenceHeader(const uint8_t* unit, size_t size, TVc1SequenceHeader& header);

// Offset in the raw unit of byte `index` of the unit with emulation prevention removed, or -1.
int64_t Vc1RawOffset(const uint8_t* unit, size_t size, size_t index);

// Clears or sets one bit, counted in the unescaped unit, in the raw unit.
bool Vc1ChangeBit(uint8_t* unit, size_t size, uint64_t bit, bool value);

// The pulldown remover's rewrite of a progressive frame header: the 32 bit word behind the
// frame start code gets its field order flags replaced. Returns false if the unit is too short.
bool Vc1RemoveFramePulldown(uint8_t* unit, size_t size, bool tfcntr);

}  // namespace sonvex
