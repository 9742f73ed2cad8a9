// VC-1 Advanced Profile header parsing and in-place edits.
#include "video/vc1bitstream.h"

#include <string>

#include "framework/bitreader.h"
#include "video/h264bitstream.h"

namespace sonvex {

namespace {

// Field order flags behind the picture type of a progressive frame header: for each kind of
// picture type code, the bits to clear and the bits to set, without and with a TFCNTR field.
struct TFlagRewrite {
  uint32_t clear, set, clearCounted, setCounted;
};
constexpr TFlagRewrite kFlagRewrites[4] = {
    {0x30000000, 0x20000000, 0x00300000, 0x02000000},  // bit 30 clear: P
    {0x06000000, 0x04000000, 0x00600000, 0x00400000},  // bits 30, 29, 28 set: BI, skipped
    {0x0C000000, 0x08000000, 0x00C00000, 0x00800000},  // bits 30, 29 set, 28 clear: I
    {0x18000000, 0x10000000, 0x01800000, 0x01000000},  // bit 30 set, 29 clear: B
};

}  // namespace

bool ParseVc1SequenceHeader(const uint8_t* unit, size_t size, TVc1SequenceHeader& header) {
  if (size < 4) return false;
  std::string body = RemoveEmulationPrevention(unit, size);
  BitReader bits(reinterpret_cast<const uint8_t*>(body.data()), body.size());
  bits.Skip(32);                                 // start code
  header.profile = bits.Read(2);                 // PROFILE
  header.level = bits.Read(3);                   // LEVEL
  header.chromaFormat = bits.Read(2);            // COLORDIFF_FORMAT
  bits.Read(3);                                  // FRMRTQ_POSTPROC
  bits.Read(5);                                  // BITRTQ_POSTPROC
  bits.ReadBit();                                // POSTPROCFLAG
  header.width = bits.Read(12) * 2 + 2;          // MAX_CODED_WIDTH
  header.height = bits.Read(12) * 2 + 2;         // MAX_CODED_HEIGHT
  header.pulldown = bits.ReadFlag();             // PULLDOWN
  header.interlace = bits.ReadFlag();            // INTERLACE
  header.tfcntr = bits.ReadFlag();               // TFCNTRFLAG
  bits.ReadBit();                                // FINTERPFLAG
  bits.ReadBit();                                // reserved
  header.psf = bits.ReadFlag();                  // PSF
  header.displayExtension = bits.ReadFlag();     // DISPLAY_EXT
  if (header.displayExtension) {
    header.displayWidth = bits.Read(14) + 1;     // DISP_HORIZ_SIZE
    header.displayHeight = bits.Read(14) + 1;    // DISP_VERT_SIZE
    if (bits.ReadFlag()) {                       // ASPECT_RATIO_FLAG
      if (bits.Read(4) == 15) {                  // ASPECT_RATIO
        bits.Read(8);                            // ASPECT_HORIZ_SIZE
        bits.Read(8);                            // ASPECT_VERT_SIZE
      }
    }
    header.frameRateFlag = bits.ReadFlag();      // FRAMERATE_FLAG
    if (header.frameRateFlag) {
      header.frameRateIndicator = bits.Read(1);  // FRAMERATEIND
      if (header.frameRateIndicator == 0) {
        header.frameRateValueBit = bits.BitPosition();
        header.frameRateValue = bits.Read(8);    // FRAMERATENR
        header.frameRateDivider = bits.Read(4);  // FRAMERATEDR
      } else {
        header.frameRateExplicit = bits.Read(16);  // FRAMERATEEXP
      }
    }
  }
  return !bits.Failed();
}

int64_t Vc1RawOffset(const uint8_t* unit, size_t size, size_t index) {
  size_t out = 0;
  int zeros = 0;
  for (size_t i = 0; i < size; i++) {
    if (zeros >= 2 && unit[i] == 3) {
      zeros = 0;
      continue;
    }
    if (out == index) return int64_t(i);
    out++;
    zeros = unit[i] == 0 ? zeros + 1 : 0;
  }
  return -1;
}

bool Vc1ChangeBit(uint8_t* unit, size_t size, uint64_t bit, bool value) {
  int64_t at = Vc1RawOffset(unit, size, size_t(bit / 8));
  if (at < 0) return false;
  uint8_t mask = uint8_t(0x80 >> (bit % 8));
  if (value)
    unit[at] |= mask;
  else
    unit[at] &= uint8_t(~mask);
  return true;
}

bool Vc1RemoveFramePulldown(uint8_t* unit, size_t size, bool tfcntr) {
  int64_t at[4];
  for (size_t i = 0; i < 4; i++) {
    at[i] = Vc1RawOffset(unit, size, 4 + i);
    if (at[i] < 0) return false;
  }
  uint32_t w = 0;
  for (int64_t offset : at) w = (w << 8) | unit[offset];
  const TFlagRewrite* rewrite;
  if (!(w & 0x40000000))
    rewrite = &kFlagRewrites[0];
  else if ((w & 0x20000000) && (w & 0x10000000))
    rewrite = &kFlagRewrites[1];
  else if (w & 0x20000000)
    rewrite = &kFlagRewrites[2];
  else
    rewrite = &kFlagRewrites[3];
  if (tfcntr)
    w = (w & ~rewrite->clearCounted) | rewrite->setCounted;
  else
    w = (w & ~rewrite->clear) | rewrite->set;
  for (int i = 0; i < 4; i++) unit[at[i]] = uint8_t(w >> (24 - 8 * i));
  return true;
}

}  // namespace sonvex
