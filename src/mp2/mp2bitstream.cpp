// MPEG-1 audio frame header parser.
#include "mp2/mp2bitstream.h"

#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Bit rates in kbit/s by rate index, one column per layer (1, 2, 3).
constexpr uint16_t kMp2Kbps[15][3] = {
    {0, 0, 0},       {32, 32, 32},    {64, 48, 40},    {96, 56, 48},    {128, 64, 56},
    {160, 80, 64},   {192, 96, 80},   {224, 112, 96},  {256, 128, 112}, {288, 160, 128},
    {320, 192, 160}, {352, 224, 192}, {384, 256, 224}, {416, 320, 256}, {448, 384, 320},
};

// Sample rate by its 2-bit code.
constexpr uint32_t kMp2SampleRates[3] = {44100, 48000, 32000};

// Channel mode: channel count and text.
struct TMp2Mode {
  uint32_t channels;
  const char* text;
};
constexpr TMp2Mode kMp2Modes[4] = {
    {2, "2.0"},
    {2, "joint 2.0"},
    {2, "1+1"},
    {1, "1.0"},
};

}  // namespace

int ParseMp2Frame(const uint8_t* data, uint32_t size, TMp2FrameInfo& info) {
  info = TMp2FrameInfo{};
  if (size < 3) return 1;
  BitReader reader(data, size);
  uint32_t sync = reader.Read(12);       // syncword
  uint32_t mpeg1 = reader.Read(1);       // ID (1 = MPEG-1)
  uint32_t layerCode = reader.Read(2);   // layer: 3 = I, 2 = II, 1 = III
  reader.Skip(1);                        // protection_bit
  uint32_t rateIndex = reader.Read(4);   // bitrate_index
  uint32_t rateCode = reader.Read(2);    // sampling_frequency
  uint32_t padding = reader.Read(1);     // padding_bit
  if (data[0] != 0xFF || sync != 0xFFF || !mpeg1 || (data[1] & 0xF8) != 0xF8) return 1;
  if (layerCode == 0 || rateIndex == 15 || rateCode == 3) return 1;

  info.layer = 4 - layerCode;
  info.bitrate = uint32_t(kMp2Kbps[rateIndex][info.layer - 1]) * 1000;
  info.sampleRate = kMp2SampleRates[rateCode];
  // The mode sits in byte 3, which a 3-byte header doesn't have: it reads as stereo then.
  uint32_t mode = size >= 4 ? data[3] >> 6 : 0;
  info.channels = kMp2Modes[mode].channels;
  info.channelText = kMp2Modes[mode].text;
  if (info.layer == 1)
    info.frameSize = (info.bitrate * 12 / info.sampleRate + padding) * 4;
  else
    info.frameSize = info.bitrate * 144 / info.sampleRate + padding;
  return 0;
}

}  // namespace sonvex
