// Core header and extension substream parsing on synthetic frames.
#include "dts/dtsbitstream.h"

#include "dts/dtstestutil.h"

namespace sonvex {
namespace {

using dtstest::CoreFields;
using dtstest::CoreFrame;
using dtstest::Substream;

constexpr uint8_t kXll[4] = {0x41, 0xA2, 0x95, 0x47};
constexpr uint8_t kXbr[4] = {0x65, 0x5E, 0x31, 0x5E};
constexpr uint8_t kXsa[4] = {0x0A, 0x80, 0x19, 0x21};

std::vector<uint8_t> WithNext(std::vector<uint8_t> frame) {
  frame.insert(frame.end(), {0x7F, 0xFE, 0x80, 0x01});
  return frame;
}

TEST(DtsCoreHeader, FiveOneFields) {
  CoreFields f;
  f.dialnorm = 4;
  f.version = 6;  // version 6 adds 16 dB
  auto frame = CoreFrame(f);
  TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  ASSERT_EQ(info.result, 0);
  EXPECT_EQ(info.coreSize, 1006u);
  EXPECT_EQ(info.channels, 6u);
  EXPECT_EQ(info.channelText, "5.1");
  EXPECT_EQ(info.channelMask, 0x3Fu);
  EXPECT_EQ(info.sampleRate, 48000u);
  EXPECT_EQ(info.bitrate, 768000u);
  EXPECT_EQ(info.bits, 16u);
  EXPECT_EQ(info.samplesPerFrame, 512u);
  EXPECT_EQ(info.dialnorm, 20);
  EXPECT_EQ(info.formatName, "DTS");
  EXPECT_FALSE(info.hasExtension);
}

TEST(DtsCoreHeader, ArrangementsRatesResolutions) {
  // Stereo without LFE still gets ".0" and the LFE mask bit.
  CoreFields stereo;
  stereo.amode = 2;
  stereo.lfe = 0;
  auto frame = CoreFrame(stereo);
  TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  EXPECT_EQ(info.channelText, "2.0");
  EXPECT_EQ(info.channelMask, 0xBu);
  EXPECT_EQ(info.channels, 2u);
  // "3/1" without LFE keeps its text; with LFE it becomes "3/1.1" of 5 channels.
  CoreFields threeOne;
  threeOne.amode = 7;
  threeOne.lfe = 0;
  frame = CoreFrame(threeOne);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).channelText, "3/1");
  threeOne.lfe = 2;
  frame = CoreFrame(threeOne);
  info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  EXPECT_EQ(info.channelText, "3/1.1");
  EXPECT_EQ(info.channels, 5u);
  EXPECT_EQ(info.channelMask, 0x10Fu);

  const std::pair<uint32_t, uint32_t> rates[] = {{1, 8000},   {2, 16000},  {3, 32000},
                                                 {6, 11025},  {7, 22050},  {8, 44100},
                                                 {11, 12000}, {12, 24000}, {13, 48000}};
  for (auto [code, rate] : rates) {
    CoreFields f;
    f.sfreq = code;
    frame = CoreFrame(f);
    EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).sampleRate, rate);
  }
  for (uint32_t code : {0u, 4u, 5u, 9u, 10u, 14u, 15u}) {
    CoreFields f;
    f.sfreq = code;
    frame = CoreFrame(f);
    EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 1) << code;
  }
  const std::pair<uint32_t, uint32_t> depths[] = {{0, 16}, {1, 16}, {2, 20}, {3, 20}, {5, 24}, {6, 24}};
  for (auto [resolution, bits] : depths) {
    CoreFields f;
    f.resolution = resolution;
    frame = CoreFrame(f);
    info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
    EXPECT_EQ(info.bits, bits);
    EXPECT_EQ(info.formatName, resolution & 1 ? "DTS-ES" : "DTS");
  }
  for (uint32_t resolution : {4u, 7u}) {
    CoreFields f;
    f.resolution = resolution;
    frame = CoreFrame(f);
    EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 1);
  }
  // An LFE code of 3 is refused.
  CoreFields badLfe;
  badLfe.lfe = 3;
  frame = CoreFrame(badLfe);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 1);
}

TEST(DtsCoreHeader, SizeLimitsAndOpenRate) {
  CoreFields f;
  f.coreSize = 95;
  auto frame = CoreFrame(f);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 0);
  f.coreSize = 94;
  frame = CoreFrame(f);
  frame.resize(100, 0x55);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 1);
  // A frame larger than the data at hand is no frame.
  f.coreSize = 1006;
  frame = CoreFrame(f);
  EXPECT_EQ(ParseDtsFrame(frame.data(), 1005, false, true).result, 1);
  // The open rate is computed from the frame size: 1006 x 8000 / (512 x 1000 / 48000 = 10 ms).
  f.rate = 29;
  frame = CoreFrame(f);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).bitrate, 804800u);
  f.rate = 30;
  frame = CoreFrame(f);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).bitrate, 0u);
  // A header CRC moves the fields behind it two bytes on.
  CoreFields crc;
  crc.crc = true;
  crc.dialnorm = 9;
  crc.resolution = 5;
  frame = CoreFrame(crc);
  TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  EXPECT_TRUE(info.hasCrc);
  EXPECT_EQ(info.dialnorm, 9);
  EXPECT_EQ(info.bits, 24u);
  EXPECT_EQ(info.formatName, "DTS-ES");
}

TEST(DtsCoreHeader, ExtensionAudio) {
  CoreFields f;
  f.extAudio = true;
  f.resolution = 1;
  const std::tuple<uint32_t, uint32_t, uint32_t, const char*> cases[] = {
      {0, 7, 48000, "DTS-ES"},
      {2, 6, 96000, "DTS-ES-96/24"},
      {3, 7, 96000, "DTS-ES-96/24"},
      {6, 7, 48000, "DTS-ES"},
      {5, 6, 48000, "DTS-ES with unknown extension (5)"}};
  for (auto [id, channels, rate, name] : cases) {
    f.extId = id;
    auto frame = CoreFrame(f);
    TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
    EXPECT_EQ(info.channels, channels) << id;
    EXPECT_EQ(info.sampleRate, rate) << id;
    EXPECT_EQ(info.formatName, name) << id;
    if (channels == 7) {
      EXPECT_EQ(info.channelText, "6.1");
    }
  }
}

// XCh data whose ten-bit size field counts to the frame's end is the outdated layout.
TEST(DtsCoreHeader, OutdatedXchLayout) {
  CoreFields f;
  f.extAudio = true;
  f.resolution = 1;
  for (int extra : {0, 1}) {
    auto frame = CoreFrame(f);
    const uint32_t offset = 0x200;
    const uint32_t n = 1006 - offset - extra;
    frame[offset] = frame[offset + 1] = frame[offset + 2] = frame[offset + 3] = 0x5A;
    frame[offset + 4] = uint8_t(n >> 2);
    frame[offset + 5] = uint8_t((n & 3) << 6);
    EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).outdatedEs,
              extra == 0);
    // Later frames skip the search.
    EXPECT_FALSE(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, false).outdatedEs);
  }
}

TEST(DtsExtension, MasterAudioAndHiRes) {
  CoreFields f;
  f.resolution = 6;
  auto core = CoreFrame(f);
  for (bool master : {true, false}) {
    auto frame = core;
    auto sub = Substream(master ? kXll : kXbr, 500, 24, 14, 8);  // 192 kHz, 8 channels
    frame.insert(frame.end(), sub.begin(), sub.end());
    frame = WithNext(frame);
    TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
    ASSERT_EQ(info.result, 0);
    EXPECT_TRUE(info.hasExtension);
    EXPECT_EQ(info.isMaster, master);
    EXPECT_EQ(info.extensionSize, 524u);
    EXPECT_EQ(info.sampleRate, 192000u);
    EXPECT_EQ(info.channels, 8u);
    EXPECT_EQ(info.channelText, "7.1");
    EXPECT_EQ(info.bits, 24u);
    EXPECT_EQ(info.formatName, master ? "DTS Master Audio" : "DTS Hi-Res");
    // Hi-Res grows by the extension's share: 768000 + 768000 x 524 / 1006.
    EXPECT_EQ(info.bitrate, master ? 0u : 768000u + 400031u);
  }
  // Two substreams in a row, one of them XSA.
  auto frame = core;
  auto first = Substream(kXbr, 100);
  auto second = Substream(kXsa, 60, 16, 12, 2);
  frame.insert(frame.end(), first.begin(), first.end());
  frame.insert(frame.end(), second.begin(), second.end());
  TDtsFrameInfo info = ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  EXPECT_EQ(info.result, 0);
  EXPECT_EQ(info.extensionSize, 124u + 84u);
  TDtsSubstreamInfo xsa = ParseExtensionSubstream(second.data(), uint32_t(second.size()), false);
  EXPECT_TRUE(xsa.hasXsa);
  EXPECT_FALSE(xsa.isMaster);
}

TEST(DtsExtension, CutOffAndInconsistent) {
  auto core = CoreFrame(CoreFields{});
  auto sub = Substream(kXll, 500);
  // Cut off: the substream's size runs past the data.
  auto frame = core;
  frame.insert(frame.end(), sub.begin(), sub.end() - 10);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 2);
  // Not followed by a core frame.
  frame = core;
  frame.insert(frame.end(), sub.begin(), sub.end());
  frame.insert(frame.end(), {1, 2, 3, 4, 5});
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 2);
  // Asset sizes that don't add up to the substream's size.
  auto bad = Substream(kXll, 500, 24, 12, 6, -4);
  EXPECT_EQ(ParseExtensionSubstream(bad.data(), uint32_t(bad.size()), false).result, 3);
  frame = core;
  frame.insert(frame.end(), bad.begin(), bad.end() - 4);
  frame = WithNext(frame);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).result, 3);
  // Not a substream at all, and a header shorter than its size fields.
  EXPECT_EQ(ParseExtensionSubstream(core.data(), uint32_t(core.size()), false).result, 1);
  EXPECT_EQ(ParseExtensionSubstream(sub.data(), 6, false).result, 2);
}

TEST(DtsExtension, PaddingIsCounted) {
  auto frame = CoreFrame(CoreFields{});
  frame.insert(frame.end(), 7, 0);
  frame = WithNext(frame);
  EXPECT_EQ(ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true).padding, 7u);
}

TEST(DtsDump, CoreAndSubstreamLines) {
  std::vector<std::pair<int, std::string>> lines;
  {
    dtstest::LogCollector collect(lines);
    CoreFields f;
    f.crc = true;
    f.dialnorm = 3;
    auto frame = CoreFrame(f);
    auto sub = Substream(kXll, 200);
    frame.insert(frame.end(), sub.begin(), sub.end());
    ParseDtsFrame(frame.data(), uint32_t(frame.size()), true, true);
  }
  std::vector<std::string> text;
  for (auto& line : lines) text.push_back(line.second);
  const std::vector<std::string> expected = {
      "+ DTS-Core",
      "  - frameSize            1006",
      "  - DTS-ES               -",
      "  - channelNo            6",
      "  - lfe                  1",
      "  - channelDescr         5.1",
      "  - samplingRate         48000",
      "  - bitDepth             16",
      "  - bitrate              768000",
      "  - dialNorm             3",
      "  - samplesPerFrame      512",
      "  - hasCrc               +",
      "+ DTS-HD",
      "  - fullSize             224",
      "  - headerSize           24",
      "  - refClockCode         1/48000",
      "  - frameDurationCode    1",
      "  - activeMasks          [$1]",
      "  + Asset [0]",
      "    - fullSize             200",
      "    - headerSize           6",
      "    - type                 XLL",
      "    - bitResolution        24",
      "    - maxSampleRate        48000",
      "    - totalNumChannels     6"};
  EXPECT_EQ(text, expected);
}

}  // namespace
}  // namespace sonvex
