// Core header and extension substream parsing on synthetic frames.
#include "dts/dtsbitstream.h"

#include "dts/dtstestutil.h"

namespace sonvex::dtstest {
namespace {

TDtsFrameInfo Parse(const std::vector<uint8_t>& frame, bool first = true) {
  return ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, first);
}

std::vector<uint8_t> WithNext(std::vector<uint8_t> frame) {
  frame.insert(frame.end(), {0x7F, 0xFE, 0x80, 0x01});
  return frame;
}

TEST(DtsCoreHeader, FiveOneFields) {
  TDtsFrameInfo info = Parse(CoreFrame({.version = 6, .dialnorm = 4}));
  ASSERT_EQ(info.result, 0);
  EXPECT_EQ(info.coreSize, 1006u);
  EXPECT_EQ(info.channels, 6u);
  EXPECT_EQ(info.channelText, "5.1");
  EXPECT_EQ(info.channelMask, 0x3Fu);
  EXPECT_EQ(info.sampleRate, 48000u);
  EXPECT_EQ(info.bitrate, 768000u);
  EXPECT_EQ(info.bits, 16u);
  EXPECT_EQ(info.samplesPerFrame, 512u);
  EXPECT_EQ(info.dialnorm, 20);  // version 6 adds 16 dB
  EXPECT_EQ(info.formatName, "DTS");
  EXPECT_FALSE(info.hasExtension);
}

TEST(DtsCoreHeader, ArrangementsRatesResolutions) {
  struct Layout {
    uint32_t amode, lfe;
    const char* text;
    uint32_t channels, mask;
  };
  // Stereo without LFE still gets ".0" and the LFE mask bit; "3/1" gets ".1" only with LFE.
  for (Layout l : {Layout{2, 0, "2.0", 2, 0xB}, Layout{7, 0, "3/1", 4, 0x107},
                   Layout{7, 2, "3/1.1", 5, 0x10F}}) {
    TDtsFrameInfo info = Parse(CoreFrame({.amode = l.amode, .lfe = l.lfe}));
    EXPECT_EQ(info.channelText, l.text);
    EXPECT_EQ(info.channels, l.channels) << l.text;
    if (l.lfe || l.amode == 2) {
      EXPECT_EQ(info.channelMask, l.mask) << l.text;
    }
  }
  for (auto [code, rate] : {std::pair{1u, 8000u}, {6u, 11025u}, {8u, 44100u}, {11u, 12000u}})
    EXPECT_EQ(Parse(CoreFrame({.sfreq = code})).sampleRate, rate);
  for (uint32_t code : {0u, 4u, 5u, 9u, 10u, 14u, 15u})
    EXPECT_EQ(Parse(CoreFrame({.sfreq = code})).result, 1) << code;
  for (auto [resolution, bits] : {std::pair{1u, 16u}, {2u, 20u}, {3u, 20u}, {5u, 24u}, {6u, 24u}}) {
    TDtsFrameInfo info = Parse(CoreFrame({.resolution = resolution}));
    EXPECT_EQ(info.bits, bits);
    EXPECT_EQ(info.formatName, resolution & 1 ? "DTS-ES" : "DTS");
  }
  EXPECT_EQ(Parse(CoreFrame({.resolution = 4})).result, 1);
  EXPECT_EQ(Parse(CoreFrame({.resolution = 7})).result, 1);
  EXPECT_EQ(Parse(CoreFrame({.lfe = 3})).result, 1);
}

TEST(DtsCoreHeader, SizeLimitsOpenRateAndCrc) {
  EXPECT_EQ(Parse(CoreFrame({.coreSize = 95})).result, 0);
  auto frame = CoreFrame({.coreSize = 94});
  frame.resize(100, 0x55);
  EXPECT_EQ(Parse(frame).result, 1);
  // A frame larger than the data at hand is no frame.
  frame = CoreFrame({});
  EXPECT_EQ(ParseDtsFrame(frame.data(), 1005, false, true).result, 1);
  // The open rate is computed from the frame size: 1006 x 8000 / (512 x 1000 / 48000 = 10 ms).
  EXPECT_EQ(Parse(CoreFrame({.rate = 29})).bitrate, 804800u);
  EXPECT_EQ(Parse(CoreFrame({.rate = 30})).bitrate, 0u);
  // A header CRC moves the fields behind it two bytes on.
  TDtsFrameInfo info = Parse(CoreFrame({.crc = true, .resolution = 5, .dialnorm = 9}));
  EXPECT_TRUE(info.hasCrc);
  EXPECT_EQ(info.dialnorm, 9);
  EXPECT_EQ(info.bits, 24u);
  EXPECT_EQ(info.formatName, "DTS-ES");
}

TEST(DtsCoreHeader, ExtensionAudio) {
  const std::tuple<uint32_t, uint32_t, uint32_t, const char*> cases[] = {
      {0, 7, 48000, "DTS-ES"},
      {2, 6, 96000, "DTS-ES-96/24"},
      {3, 7, 96000, "DTS-ES-96/24"},
      {6, 7, 48000, "DTS-ES"},
      {5, 6, 48000, "DTS-ES with unknown extension (5)"}};
  for (auto [id, channels, rate, name] : cases) {
    TDtsFrameInfo info = Parse(CoreFrame({.extId = id, .extAudio = true, .resolution = 1}));
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
  for (uint32_t extra : {0u, 1u}) {
    auto frame = EsFrame(0x200, 1006 - 0x200 - extra);
    EXPECT_EQ(Parse(frame).outdatedEs, extra == 0);
    EXPECT_FALSE(Parse(frame, false).outdatedEs);  // later frames skip the search
  }
}

TEST(DtsExtension, MasterAudioAndHiRes) {
  auto core = CoreFrame({.resolution = 6});
  for (bool master : {true, false}) {
    auto frame = core;
    auto sub = Substream(master ? kXll : kXbr, 500, 24, 14, 8);  // 192 kHz, 8 channels
    frame.insert(frame.end(), sub.begin(), sub.end());
    TDtsFrameInfo info = Parse(WithNext(frame));
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
  TDtsFrameInfo info = Parse(frame);
  EXPECT_EQ(info.result, 0);
  EXPECT_EQ(info.extensionSize, 124u + 84u);
  TDtsSubstreamInfo xsa = ParseExtensionSubstream(second.data(), uint32_t(second.size()), false);
  EXPECT_TRUE(xsa.hasXsa);
  EXPECT_FALSE(xsa.isMaster);
}

TEST(DtsExtension, CutOffInconsistentAndPadding) {
  auto core = CoreFrame({});
  auto sub = Substream(kXll, 500);
  // Cut off: the substream's size runs past the data.
  auto frame = core;
  frame.insert(frame.end(), sub.begin(), sub.end() - 10);
  EXPECT_EQ(Parse(frame).result, 2);
  // Not followed by a core frame.
  frame = core;
  frame.insert(frame.end(), sub.begin(), sub.end());
  frame.insert(frame.end(), {1, 2, 3, 4, 5});
  EXPECT_EQ(Parse(frame).result, 2);
  // Asset sizes that don't add up to the substream's size.
  auto bad = Substream(kXll, 500, 24, 12, 6, -4);
  EXPECT_EQ(ParseExtensionSubstream(bad.data(), uint32_t(bad.size()), false).result, 3);
  EXPECT_EQ(Parse(WithNext(HdFrame(kXll, 500, -4))).result, 3);
  // Not a substream at all, and a header shorter than its size fields.
  EXPECT_EQ(ParseExtensionSubstream(core.data(), uint32_t(core.size()), false).result, 1);
  EXPECT_EQ(ParseExtensionSubstream(sub.data(), 6, false).result, 2);
  // Zero bytes between frames are counted as padding.
  frame = core;
  frame.insert(frame.end(), 7, 0);
  EXPECT_EQ(Parse(WithNext(frame)).padding, 7u);
}

TEST(DtsDump, CoreAndSubstreamLines) {
  TLog log;
  {
    auto frame = CoreFrame({.crc = true, .dialnorm = 3});
    auto sub = Substream(kXll, 200);
    frame.insert(frame.end(), sub.begin(), sub.end());
    ParseDtsFrame(frame.data(), uint32_t(frame.size()), true, true);
  }
  std::vector<std::string> text = log.Texts();
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
}  // namespace sonvex::dtstest
