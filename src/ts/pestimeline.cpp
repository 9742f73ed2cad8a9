// TPesTimeline: PTS values to a continuous running time.
#include "ts/pestimeline.h"

namespace sonvex {

namespace {

// A backward PTS step larger than this (60 s in 90 kHz ticks) is a jump, not a real overlap.
constexpr int64_t kJumpTicks = 60000 * 90;

}  // namespace

// A far step backwards (a 32-bit wrap, or a join of pieces with unrelated clocks) adds nothing
// unless a DSI packet said by how much the presentation jumps; a forward step of any size is a
// real hole.
int64_t TPesTimeline::Step(int64_t pts) {
  if (lastPts == -1) {
    timeline = 0;
  } else if (lastPts > pts && lastPts - pts > kJumpTicks) {
    if (dsiGap != 0) {
      while (lastPts > dsiGap + pts && lastPts - pts - dsiGap > kJumpTicks) dsiGap += int64_t(1) << 32;
      if (lastPts > dsiGap + pts || dsiGap + pts - lastPts < kJumpTicks)
        timeline += dsiGap + pts - lastPts;
      else
        dsiGap = 0;
    }
  } else {
    timeline += pts - lastPts;
  }
  lastPts = pts;
  return timeline;
}

// The start less the previous unit's end is the jump that a seamless join makes.
void TPesTimeline::Dsi(uint32_t start, uint32_t end) {
  int64_t s = start, e = end;
  while (e < s) e += int64_t(1) << 32;
  dsiGap = dsiEnd - s;
  dsiEnd = e;
  if (dsiGap < 0) dsiGap = 0;
}

}  // namespace sonvex
