// MPEG-1 audio (ISO/IEC 11172-3, layers 1 to 3) frame header parser.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

struct TMp2FrameInfo {
  std::string channelText;  // "2.0", "joint 2.0", "1+1", "1.0"
  uint32_t frameSize = 0;   // bytes; 0 for a free-format frame
  uint32_t sampleRate = 0;
  uint32_t bitrate = 0;     // bits per second
  uint32_t channels = 0;
  uint32_t layer = 0;
};

// The frame sync of MPEG-1 audio: 0xFF and the top five bits of the next byte set.
inline bool IsMp2Sync(const uint8_t* p) { return p[0] == 0xFF && (p[1] & 0xF8) == 0xF8; }

// Result 0 = good header, 1 = not an MPEG-1 audio frame. Only the header is read; the frame's
// bytes aren't compared with `size`.
int ParseMp2Frame(const uint8_t* data, uint32_t size, TMp2FrameInfo& info);

}  // namespace sonvex
