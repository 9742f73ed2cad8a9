// H.264 header parsing: emulation prevention removal, the sequence parameter set with its VUI
// (size, cropping, sample aspect, timing, HRD lengths) and the picture timing SEI message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sonvex {

// Copies a NAL payload with every 00 00 03 turned into 00 00.
std::string RemoveEmulationPrevention(const uint8_t* data, size_t size);

struct TH264Sps {
  uint32_t profileIdc = 0;
  uint32_t chromaFormat = 1;
  uint32_t log2MaxFrameNum = 4;
  uint32_t pocType = 0;
  uint32_t log2MaxPocLsb = 4;
  bool frameMbsOnly = true;
  bool interlaced = false;
  uint32_t width = 0, height = 0;
  uint32_t aspectX = 0, aspectY = 0;  // display aspect, reduced; 0:0 if the stream says nothing
  bool timing = false;
  uint32_t rateNum = 0, rateDen = 0;  // time_scale and num_units_in_tick, normalised
  uint32_t cpbLength = 0, dpbLength = 0;
  bool havePicStruct = false;
  bool noTimingSei = true;
};

enum class TH264SpsResult { ok, invalid, aspectNotSupported };

// `rbsp` is the SPS without its start code and NAL header byte, emulation prevention removed.
TH264SpsResult ParseH264Sps(const uint8_t* rbsp, size_t size, TH264Sps& sps);

// Walks the messages of an SEI payload (without NAL header byte, unescaped). Returns true if a
// picture timing message was found; `pulldown` is then whether its pic_struct is 1 to 6.
bool ParseH264PictureTiming(const uint8_t* rbsp, size_t size, const TH264Sps& sps,
                            bool& pulldown);

}  // namespace sonvex
