// Building EVO/VOB program stream pieces for the EVO tests: pack headers, system headers, DSI
// packets and PES packets, as MPEG-2 program streams and the DVD/HD DVD books lay them out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "framework/console.h"

namespace sonvex::evotest {

using Bytes = std::vector<uint8_t>;

inline void Append(Bytes& to, const Bytes& from) { to.insert(to.end(), from.begin(), from.end()); }

// A 14-byte MPEG-2 pack header with the given program_mux_rate and SCR (extension 0).
inline Bytes PackHeader(uint32_t muxRate = 75600, uint64_t scr = 0) {
  return {0x00, 0x00, 0x01, 0xBA, uint8_t(0x44 | ((scr >> 27) & 0x38) | ((scr >> 28) & 3)),
          uint8_t(scr >> 20), uint8_t(0x04 | ((scr >> 12) & 0xF8) | ((scr >> 13) & 3)),
          uint8_t(scr >> 5), uint8_t(0x04 | ((scr << 3) & 0xF8)), 0x01,
          uint8_t(muxRate >> 14), uint8_t(muxRate >> 6), uint8_t(muxRate << 2 | 3), 0xF8};
}

// A system header whose last stream entry is `lastStream` (0xFD marks an EVO).
inline Bytes SystemHeader(uint8_t lastStream) {
  Bytes b = {0x00, 0x00, 0x01, 0xBB, 0x00, 12, 0x80, 0x01, 0x01, 0x04, 0xE1, 0xFF,
             0xBD, 0xE0, 0x3A, lastStream, 0xE0, 0x3A};
  return b;
}

// The 5 bytes of a PTS or DTS with prefix `prefix` (2: PTS only, 3: PTS of a pair, 1: DTS).
inline Bytes Timestamp(uint8_t prefix, uint64_t t) {
  return {uint8_t(prefix << 4 | ((t >> 29) & 0x0E) | 1), uint8_t(t >> 22),
          uint8_t(((t >> 14) & 0xFE) | 1), uint8_t(t >> 7), uint8_t(((t << 1) & 0xFE) | 1)};
}

// A PES packet of `streamId` with an optional PTS (-1: none) and DTS, whose length field says
// `lengthDelta` bytes more than it holds (negative: an authoring fault).
inline Bytes Pes(uint8_t streamId, int64_t pts, const Bytes& payload, int lengthDelta = 0,
                 int64_t dts = -1) {
  Bytes header;
  uint8_t flags = 0;
  if (pts >= 0) {
    flags = dts >= 0 ? 0xC0 : 0x80;
    Append(header, Timestamp(dts >= 0 ? 3 : 2, uint64_t(pts)));
    if (dts >= 0) Append(header, Timestamp(1, uint64_t(dts)));
  }
  size_t length = 3 + header.size() + payload.size() + lengthDelta;
  Bytes b = {0x00, 0x00, 0x01, streamId, uint8_t(length >> 8), uint8_t(length), 0x81, flags,
             uint8_t(header.size())};
  Append(b, header);
  Append(b, payload);
  return b;
}

// A DSI packet (private stream 2, substream 1) with the start and end PTM of its unit.
inline Bytes Dsi(uint32_t start, uint32_t end) {
  Bytes b(6 + 1018, 0);
  b[2] = 0x01;
  b[3] = 0xBF;
  b[4] = uint8_t(1018 >> 8);
  b[5] = uint8_t(1018 & 0xFF);
  b[6] = 1;
  for (int i = 0; i < 4; i++) {
    b[6 + 45 + i] = uint8_t(start >> (24 - 8 * i));
    b[6 + 49 + i] = uint8_t(end >> (24 - 8 * i));
  }
  return b;
}

// A padding packet that fills the stream up to a multiple of 2048 bytes, as packs are.
inline void PadToPack(Bytes& b) {
  size_t rest = (2048 - b.size() % 2048) % 2048;
  if (rest == 0) return;
  if (rest < 6) rest += 2048;
  Bytes pad(rest, 0xFF);
  pad[0] = pad[1] = 0;
  pad[2] = 1;
  pad[3] = 0xBE;
  pad[4] = uint8_t((rest - 6) >> 8);
  pad[5] = uint8_t(rest - 6);
  Append(b, pad);
}

inline Bytes Filled(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; i++) b[i] = uint8_t(seed + i * 7);
  return b;
}

// Collects the console lines while it lives.
struct TLogLines {
  std::vector<std::string> lines;
  TLogLines() {
    SetLogHook([this](int, const std::string& text) { lines.push_back(text); });
  }
  ~TLogLines() { SetLogHook(nullptr); }
  size_t Count(const std::string& text) const {
    size_t n = 0;
    for (const std::string& line : lines)
      if (line.find(text) != std::string::npos) n++;
    return n;
  }
};

}  // namespace sonvex::evotest
