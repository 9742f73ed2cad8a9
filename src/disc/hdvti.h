// The fixed-layout title information of an HD DVD ("HVA00001.VTI"): per title the EVO name, its
// length, and the video and audio attributes of its streams.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

struct TVtiVideo {
  std::string Codec;   // "MPEG2", "h264/AVC", "VC-1" or empty
  std::string Aspect;  // "4:3", "16:9" or empty
  bool Interlaced = false;
  uint32_t Width = 0, Height = 0;
};

struct TVtiAudio {
  std::string Codec;
  uint32_t Bits = 0;  // LPCM only
  uint32_t SampleRate = 0;
  uint32_t ChannelCode = 0;  // the word's channel field
  uint32_t Channels = 0;
};

struct TVti {
  std::string Name;
  int64_t Duration = 0;  // milliseconds
  std::vector<TVtiVideo> VideoAttributes;  // one or two
  std::vector<TVtiAudio> AudioAttributes;
};

// The word of a video stream, its first byte the lowest in memory.
TVtiVideo DecodeVtiVideo(const uint8_t word[4]);
TVtiAudio DecodeVtiAudio(const uint8_t word[4]);

// Empty on any fault.
std::vector<TVti> ReadVti(const std::string& path);
std::vector<TVti> ParseVti(const std::vector<uint8_t>& data);

}  // namespace sonvex
