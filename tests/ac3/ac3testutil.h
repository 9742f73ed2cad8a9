// Helpers of the AC3 family tests: synthetic AC-3 and E-AC-3 frames with valid CRCs.
#pragma once

#include <gtest/gtest.h>

#include "ac3/ac3bitstream.h"
#include "support/capture.h"
#include "support/stream.h"

namespace sonvex::ac3test {

using namespace sonvex::test;

// One AC-3 frame (192 kbit/s, 48 kHz by default) with valid CRCs; the audio blocks are zero bits.
struct Ac3FrameSpec {
  uint32_t frmsizecod = 20, fscod = 0, bsid = 8, acmod = 2, lfe = 0, dialnorm = 27;
};
inline std::vector<uint8_t> MakeAc3Frame(const Ac3FrameSpec& spec) {
  BitWriter w;
  w.Put(16, 0x0B77);          // syncword
  w.Put(16, 0);               // crc1, filled in below
  w.Put(2, spec.fscod);       // fscod
  w.Put(6, spec.frmsizecod);  // frmsizecod
  w.Put(5, spec.bsid);        // bsid
  w.Put(3, 0);                // bsmod
  w.Put(3, spec.acmod);       // acmod
  if ((spec.acmod & 1) && spec.acmod != 1) w.Put(2, 1);  // cmixlev
  if (spec.acmod & 4) w.Put(2, 1);                       // surmixlev
  if (spec.acmod == 2) w.Put(2, 0);                      // dsurmod
  w.Put(1, spec.lfe);         // lfeon
  w.Put(5, spec.dialnorm);    // dialnorm
  w.Put(3, 0);                // compre, langcode, audprodie
  if (spec.acmod == 0) w.Put(8, (spec.dialnorm << 3));  // dialnorm2, compr2e, langcod2e, audprodi2e
  w.Put(1, 0);                // copyrightb
  w.Put(1, 1);                // origbs
  w.Put(3, 0);                // timecod1e, timecod2e, addbsie
  static constexpr uint32_t kKbps[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                       192, 224, 256, 320, 384, 448, 512, 576, 640};
  static constexpr uint32_t kRates[] = {48000, 44100, 32000};
  uint32_t size = kKbps[spec.frmsizecod >> 1] * 1000 * 192 / kRates[spec.fscod];
  if (spec.fscod == 1) size = (size & ~1u) + ((spec.frmsizecod & 1) ? 2 : 0);
  std::vector<uint8_t> frame = w.bytes;
  frame.resize(size, 0);
  uint16_t crc1 = Ac3Crc1(frame.data(), size);
  frame[2] = uint8_t(crc1);
  frame[3] = uint8_t(crc1 >> 8);
  uint16_t crc2 = Ac3Crc2(frame.data(), size);
  frame[size - 2] = uint8_t(crc2);
  frame[size - 1] = uint8_t(crc2 >> 8);
  return frame;
}

// One E-AC-3 frame with a valid CRC (5.1, 768 bytes by default); `chanmap` is written for
// dependent frames when not 0.
struct Eac3FrameSpec {
  uint32_t streamType = 0, substreamId = 0, words = 384, fscod = 0, numblkscod = 3, acmod = 7,
           lfe = 1, dialnorm = 24;
  bool compre = false;
  uint32_t chanmap = 0;
};
inline std::vector<uint8_t> MakeEac3Frame(const Eac3FrameSpec& spec) {
  BitWriter w;
  w.Put(16, 0x0B77);             // syncword
  w.Put(2, spec.streamType);     // strmtyp
  w.Put(3, spec.substreamId);    // substreamid
  w.Put(11, spec.words - 1);     // frmsiz
  w.Put(2, spec.fscod);          // fscod
  w.Put(2, spec.numblkscod);     // numblkscod (fscod2 when fscod is 3)
  w.Put(3, spec.acmod);          // acmod
  w.Put(1, spec.lfe);            // lfeon
  w.Put(5, 16);                  // bsid
  w.Put(5, spec.dialnorm);       // dialnorm
  w.Put(1, spec.compre);         // compre
  if (spec.compre) w.Put(8, 0x55);  // compr
  if (spec.streamType == 1) {
    w.Put(1, spec.chanmap != 0);     // chanmape
    if (spec.chanmap) w.Put(16, spec.chanmap);  // chanmap
  }
  std::vector<uint8_t> frame = w.bytes;
  uint32_t size = spec.words * 2;
  frame.resize(size, 0);
  uint16_t crc = Eac3Crc(frame.data(), size);
  frame[size - 2] = uint8_t(crc);
  frame[size - 1] = uint8_t(crc >> 8);
  return frame;
}
// A dependent stereo frame of 512 bytes carrying the Lrs/Rrs pair.
inline std::vector<uint8_t> RearPairFrame(bool compre = false) {
  return MakeEac3Frame({.streamType = 1, .words = 256, .acmod = 2, .lfe = 0, .compre = compre,
                        .chanmap = 0x0200});
}

// The corpus folder as text; the chain tests of tests/run use these too.
inline std::string CorpusDir() { return SONVEX_CORPUS; }
#define SKIP_WITHOUT_AC3_CORPUS() SKIP_WITHOUT_CORPUS()
using LogRecorder = TLog;

}  // namespace sonvex::ac3test
