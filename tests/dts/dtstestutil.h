// Helpers of the DTS tests: synthetic core frames and extension substreams, a run of TDtsReader
// over a byte string and ffprobe's facts.
#pragma once

#include <gtest/gtest.h>

#include "dts/dtsreader.h"
#include "support/battery.h"
#include "support/stream.h"

namespace sonvex::dtstest {

using namespace sonvex::test;
using LogLines = std::vector<std::pair<int, std::string>>;

// Fields of a synthetic core frame; the defaults give 5.1 at 48 kHz, 768 kbit/s, 16 bit.
struct CoreFields {
  bool crc = false;
  uint32_t blocks = 16;       // 16 blocks of 32 samples
  uint32_t coreSize = 1006;
  uint32_t amode = 9;         // "5"
  uint32_t sfreq = 13;        // 48000
  uint32_t rate = 15;         // 768000
  uint32_t extId = 0;
  bool extAudio = false;
  uint32_t lfe = 1;
  uint32_t version = 7;
  uint32_t resolution = 0;
  uint32_t dialnorm = 0;
  uint8_t fillByte = 0x55;    // audio data stand-in
};

inline std::vector<uint8_t> CoreFrame(const CoreFields& f) {
  BitWriter w;
  w.Put(32, 0x7FFE8001);          // sync
  w.Put(1, 1);                    // frame type: normal
  w.Put(5, 31);                   // deficit sample count
  w.Put(1, f.crc);                // CRC present
  w.Put(7, f.blocks - 1);         // NBLKS
  w.Put(14, f.coreSize - 1);      // FSIZE
  w.Put(6, f.amode);              // AMODE
  w.Put(4, f.sfreq);              // SFREQ
  w.Put(5, f.rate);               // RATE
  w.Put(5, 0);                    // fixed bit, dynamic range, time stamp, auxiliary data, HDCD
  w.Put(3, f.extId);              // extension audio id
  w.Put(1, f.extAudio);           // extension audio present
  w.Put(1, 0);                    // audio sync word insertion
  w.Put(2, f.lfe);                // LFE
  w.Put(1, 0);                    // predictor history
  if (f.crc) w.Put(16, 0x1234);   // header CRC
  w.Put(1, 0);                    // multirate interpolator
  w.Put(4, f.version);            // encoder software version
  w.Put(2, 0);                    // copy history
  w.Put(3, f.resolution);         // source PCM resolution
  w.Put(2, 0);                    // front and surround sum/difference
  w.Put(4, f.dialnorm);           // dialog normalisation
  std::vector<uint8_t> frame = w.bytes;
  frame.resize(f.coreSize, f.fillByte);
  return frame;
}

// A DTS-ES frame with XCh data at `offset` whose ten-bit size field is `n`; the outdated layout
// counts to the frame's end (n = 1006 - offset).
inline std::vector<uint8_t> EsFrame(uint32_t offset, uint32_t n) {
  auto frame = CoreFrame({.extAudio = true, .resolution = 1});
  frame[offset] = frame[offset + 1] = frame[offset + 2] = frame[offset + 3] = 0x5A;
  frame[offset + 4] = uint8_t(n >> 2);
  frame[offset + 5] = uint8_t((n & 3) << 6 | 0x15);
  return frame;
}

inline constexpr uint8_t kXll[4] = {0x41, 0xA2, 0x95, 0x47};
inline constexpr uint8_t kXbr[4] = {0x65, 0x5E, 0x31, 0x5E};
inline constexpr uint8_t kXsa[4] = {0x0A, 0x80, 0x19, 0x21};

// A DTS-HD extension substream of one asset with the given type word (as bytes) and size.
inline std::vector<uint8_t> Substream(const uint8_t (&type)[4], uint32_t assetSize,
                                      uint32_t bits = 24, uint32_t rateCode = 12,
                                      uint32_t channels = 6, int sizeError = 0) {
  const uint32_t headerSize = 24;
  BitWriter w;
  w.Put(32, 0x64582025);          // sync
  w.Put(8, 0);                    // user defined bits
  w.Put(2, 0);                    // substream index
  w.Put(1, 0);                    // small header
  w.Put(8, headerSize - 1);       // header size - 1
  w.Put(16, headerSize + assetSize - 1 + sizeError);  // full size - 1
  w.Put(1, 1);                    // static fields present
  w.Put(2, 2);                    // reference clock 48000
  w.Put(3, 0);                    // frame duration code - 1
  w.Put(1, 0);                    // no time stamp
  w.Put(3, 0);                    // one presentation
  w.Put(3, 0);                    // one asset
  w.Put(1, 1);                    // active substream mask
  w.Put(8, 1);                    // active asset mask
  w.Put(1, 0);                    // no mix metadata
  w.Put(16, assetSize - 1);       // asset size - 1
  size_t descriptor = w.count;
  w.Put(9, 6 - 1);                // asset descriptor size - 1 (bytes)
  w.Put(3, 0);                    // asset index
  w.Put(3, 0);                    // no content type, language, info text
  w.Put(5, bits - 1);             // bit resolution - 1
  w.Put(4, rateCode);             // maximum sample rate code
  w.Put(8, channels - 1);         // total channels - 1
  while (w.count < descriptor + 6 * 8) w.Put(1, 0);  // rest of the descriptor
  std::vector<uint8_t> sub = w.bytes;
  sub.resize(headerSize, 0);
  sub.insert(sub.end(), type, type + 4);
  sub.resize(headerSize + assetSize, 0x33);
  return sub;
}

// A default core frame with one extension substream behind it.
inline std::vector<uint8_t> HdFrame(const uint8_t (&type)[4], uint32_t assetSize, int sizeError = 0) {
  auto frame = CoreFrame({});
  auto sub = Substream(type, assetSize, 24, 12, 6, sizeError);
  frame.insert(frame.end(), sub.begin(), sub.end() + (sizeError < 0 ? sizeError : 0));
  return frame;
}

struct ReaderRun {
  bool ok = false;
  std::shared_ptr<TDtsReader> reader;
  std::shared_ptr<TCapture> capture;
  LogLines log;
  bool Logged(int level, const std::string& text) const {
    return std::find(log.begin(), log.end(), std::pair{level, text}) != log.end();
  }
};

// Pushes `stream` through `reader` in pieces of `piece` bytes and finishes it.
inline ReaderRun RunReader(const std::vector<uint8_t>& stream,
                           std::shared_ptr<TDtsReader> reader = TDtsReader::Create(),
                           size_t piece = 65536) {
  TLog log;
  PushResult r = Push(reader, stream, piece);
  return {r.ok, reader, r.capture, log.lines};
}

// ffprobe's facts of the first audio stream as key -> value.
inline std::map<std::string, std::string> DtsFacts(const std::string& path) {
  return ProbeFacts(path, "stream=profile,channels,sample_rate,bit_rate,bits_per_raw_sample",
                    "-f dts");
}

}  // namespace sonvex::dtstest
