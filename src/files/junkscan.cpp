// Leading junk: the scans for a transport stream and for audio frames in a row.
#include "files/junkscan.h"

#include <algorithm>

#include "ac3/ac3bitstream.h"
#include "dts/dtsbitstream.h"

namespace sonvex {

namespace {

constexpr uint32_t kPacketsWanted = 32;
constexpr uint32_t kPacketsAtLeast = 8;
constexpr uint32_t kFramesWanted = 4;

bool PacketsAt(const uint8_t* data, uint64_t size, uint64_t at, uint32_t stride, uint32_t prefix) {
  uint64_t fit = (size - at) / stride;
  uint64_t wanted = std::min<uint64_t>(kPacketsWanted, fit);
  if (wanted < kPacketsAtLeast) return false;
  for (uint64_t k = 0; k < wanted; k++)
    if (data[at + prefix + k * stride] != 0x47) return false;
  return true;
}

// Size of the good (E-)AC3 frame at data[0], 0 if there is none.
uint32_t Ac3FrameAt(const uint8_t* data, uint64_t size) {
  uint32_t available = uint32_t(std::min<uint64_t>(size, UINT32_MAX));
  TAc3FrameInfo frame;
  int result = ParseAc3Frame(data, available, frame);
  if (result == kAc3OtherKind) result = ParseEac3Frame(data, available, frame);
  return result == kAc3Good ? frame.frameSize : 0;
}

// Size of the DTS frame at data[0] with its padding, 0 if none parses.
uint32_t DtsFrameAt(const uint8_t* data, uint64_t size) {
  uint32_t available = uint32_t(std::min<uint64_t>(size, UINT32_MAX));
  TDtsFrameInfo frame = ParseDtsFrame(data, available, false, false);
  if (frame.result != 0) return 0;
  return frame.coreSize + frame.extensionSize + frame.padding;
}

template <class FrameAt>
bool FramesInRow(const uint8_t* data, uint64_t size, uint64_t at, FrameAt frameAt) {
  for (uint32_t k = 0; k < kFramesWanted; k++) {
    if (at >= size) return false;
    uint32_t frameSize = frameAt(data + at, size - at);
    if (frameSize == 0) return false;
    at += frameSize;
  }
  return true;
}

}  // namespace

uint64_t FindTransportStreamStart(const uint8_t* data, uint64_t size, uint64_t limit) {
  for (uint64_t at = 0; at < limit && at < size; at++) {
    if (data[at] == 0x47 && PacketsAt(data, size, at, 188, 0)) return at;
    if (at + 4 < size && data[at + 4] == 0x47 && PacketsAt(data, size, at, 192, 4)) return at;
  }
  return kNoStart;
}

uint64_t FindAudioStreamStart(const uint8_t* data, uint64_t size, uint64_t limit) {
  for (uint64_t at = 0; at < limit && at + 4 <= size; at++) {
    const uint8_t* p = data + at;
    if (p[0] == 0x0B && p[1] == 0x77 && FramesInRow(data, size, at, Ac3FrameAt)) return at;
    if (p[0] == 0x7F && p[1] == 0xFE && p[2] == 0x80 && p[3] == 0x01 &&
        FramesInRow(data, size, at, DtsFrameAt))
      return at;
  }
  return kNoStart;
}

}  // namespace sonvex
