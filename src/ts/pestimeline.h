// TPesTimeline: the running time of an MPEG system stream. PTS values (32 bits, 90 kHz) become
// a continuous time that survives 32-bit wraps, file joins and seamless branches: steps between
// PTS values are added up, a far step backwards counts only as far as a DSI packet said the
// presentation jumps. The PES parser and the EVO demuxer run their streams through it.
#pragma once

#include <cstdint>

namespace sonvex {

// The PTS or DTS of a PES header (5 bytes at `p`) as the program stream formats use it: the low
// 32 bits of the 33-bit value; 0xFFFFFFFF stands for none.
inline uint32_t ReadPts32(const uint8_t* p) {
  return uint32_t(p[0] & 6) << 29 | uint32_t(p[1]) << 22 | uint32_t(p[2] & 0xFE) << 14 |
         uint32_t(p[3]) << 7 | uint32_t(p[4] & 0xFE) >> 1;
}

class TPesTimeline {
public:
  // The running time at `pts`, in 90 kHz ticks; the first PTS is time 0.
  int64_t Step(int64_t pts);
  // A DSI packet: the start and end PTM of its unit.
  void Dsi(uint32_t start, uint32_t end);
  // Behind every PES packet the jump that a DSI packet announced is spent.
  void PacketDone() { dsiGap = 0; }
  // A file boundary: the last PTS is moved by the jump between the files.
  void Seam(int64_t jump) {
    if (lastPts != -1) lastPts = (lastPts + jump) & 0xFFFFFFFF;
  }

private:
  int64_t dsiEnd = 0;
  int64_t lastPts = -1;
  int64_t timeline = 0;
  int64_t dsiGap = 0;
};

}  // namespace sonvex
