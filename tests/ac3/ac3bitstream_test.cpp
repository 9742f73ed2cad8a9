// Header parsers, CRCs and text helpers of the AC3 family, on synthetic and real frames.
#include "ac3/ac3bitstream.h"

#include <gtest/gtest.h>

#include "ac3testutil.h"
#include "framework/bitreader.h"

namespace sonvex::ac3test {
namespace {

TEST(Ac3Bitstream, ParsesHeaderFieldsOfEveryChannelMode) {
  struct Case {
    uint32_t acmod, lfe;
    const char* text;
    uint32_t channels, mask;
  };
  const Case cases[] = {
      {0, 0, "1+1", 2, 0x4},     {1, 0, "1.0", 1, 0x4},       {2, 0, "2.0", 2, 0x3},
      {3, 0, "3.0", 3, 0x7},     {4, 0, "2/1", 3, 0x103},     {5, 1, "3/1.1", 5, 0x10F},
      {6, 0, "2/2", 4, 0x33},    {7, 1, "5.1", 6, 0x3F},      {2, 1, "2.1", 3, 0xB},
  };
  for (const Case& c : cases) {
    Ac3FrameSpec spec;
    spec.acmod = c.acmod;
    spec.lfe = c.lfe;
    spec.dialnorm = 17;
    auto frame = MakeAc3Frame(spec);
    TAc3FrameInfo info;
    ASSERT_EQ(ParseAc3Frame(frame.data(), uint32_t(frame.size()), info), 0) << "acmod " << c.acmod;
    EXPECT_EQ(info.channelText, c.text);
    EXPECT_EQ(info.channels, c.channels);
    EXPECT_EQ(info.channelMask, c.mask);
    EXPECT_EQ(info.dialnorm, 17) << "acmod " << c.acmod;  // behind fields that vary by mode
  }
}

TEST(Ac3Bitstream, FrameSizesFollowRateAndPadding) {
  TAc3FrameInfo info;
  struct Case {
    uint32_t fscod, frmsizecod, size, rate, bitrate;
  };
  // 44.1 kHz frames alternate between two sizes by the lowest frmsizecod bit.
  const Case cases[] = {{1, 20, 834, 44100, 192000},  {1, 21, 836, 44100, 192000},
                        {2, 20, 1152, 32000, 192000}, {0, 36, 2560, 48000, 640000},
                        {0, 0, 128, 48000, 32000},    {1, 37, 2788, 44100, 640000}};
  for (const Case& c : cases) {
    Ac3FrameSpec spec;
    spec.fscod = c.fscod;
    spec.frmsizecod = c.frmsizecod;
    auto frame = MakeAc3Frame(spec);
    ASSERT_EQ(ParseAc3Frame(frame.data(), uint32_t(frame.size()), info), 0);
    EXPECT_EQ(info.frameSize, c.size);
    EXPECT_EQ(info.sampleRate, c.rate);
    EXPECT_EQ(info.bitrate, c.bitrate);
  }
}

TEST(Ac3Bitstream, RefusesWhatIsNotAGoodAc3Frame) {
  auto frame = MakeAc3Frame({});
  TAc3FrameInfo info;
  uint32_t size = uint32_t(frame.size());
  EXPECT_EQ(ParseAc3Frame(frame.data(), 7, info), 1);  // too short for a header
  EXPECT_EQ(ParseAc3Frame(frame.data(), size - 1, info), 3);
  auto bad = frame;
  bad[100] ^= 1;  // in the first five eighths: crc1 fails
  EXPECT_EQ(ParseAc3Frame(bad.data(), size, info), 3);
  bad = frame;
  bad[700] ^= 1;  // in the last three eighths: crc2 fails
  EXPECT_EQ(ParseAc3Frame(bad.data(), size, info), 3);
  bad = frame;
  bad[0] = 0x0C;
  EXPECT_EQ(ParseAc3Frame(bad.data(), size, info), 1);
  for (uint32_t bsid : {9u, 10u, 17u, 31u}) {
    Ac3FrameSpec spec;
    spec.bsid = bsid;
    auto odd = MakeAc3Frame(spec);
    EXPECT_EQ(ParseAc3Frame(odd.data(), uint32_t(odd.size()), info), 1) << bsid;
  }
  auto eac3 = MakeEac3Frame({});
  EXPECT_EQ(ParseAc3Frame(eac3.data(), uint32_t(eac3.size()), info), 2);
  bad = frame;
  bad[4] = uint8_t(3 << 6 | 20);  // fscod 3 is reserved
  EXPECT_EQ(ParseAc3Frame(bad.data(), size, info), 1);
  bad = frame;
  bad[4] = uint8_t(38);  // frmsizecod 38: no such rate
  EXPECT_EQ(ParseAc3Frame(bad.data(), size, info), 1);
}

TEST(Ac3Bitstream, Eac3FrameFields) {
  TAc3FrameInfo info;
  Eac3FrameSpec spec;
  spec.words = 1280;  // 2560 bytes, 6 blocks: 640 kbit/s
  auto frame = MakeEac3Frame(spec);
  ASSERT_EQ(ParseEac3Frame(frame.data(), uint32_t(frame.size()), info), 0);
  EXPECT_EQ(info.frameSize, 2560u);
  EXPECT_EQ(info.bitrate, 640000u);
  EXPECT_EQ(info.sampleRate, 48000u);
  EXPECT_EQ(info.channelText, "5.1");
  EXPECT_EQ(info.dialnorm, 24);
  // One block per frame: 750 x size x 8 / 4.
  spec.numblkscod = 0;
  spec.words = 128;
  frame = MakeEac3Frame(spec);
  ASSERT_EQ(ParseEac3Frame(frame.data(), uint32_t(frame.size()), info), 0);
  EXPECT_EQ(info.bitrate, 384000u);
  // Reduced rates: fscod 3, fscod2 picks the rate, blocks are 6.
  spec.fscod = 3;
  spec.numblkscod = 1;
  spec.words = 384;
  frame = MakeEac3Frame(spec);
  ASSERT_EQ(ParseEac3Frame(frame.data(), uint32_t(frame.size()), info), 0);
  EXPECT_EQ(info.sampleRate, 22050u);
  EXPECT_EQ(info.bitrate, 192000u);
  spec.numblkscod = 3;  // reserved
  frame = MakeEac3Frame(spec);
  EXPECT_EQ(ParseEac3Frame(frame.data(), uint32_t(frame.size()), info), 4);
  frame = MakeEac3Frame({});
  frame[50] ^= 0x10;
  EXPECT_EQ(ParseEac3Frame(frame.data(), uint32_t(frame.size()), info), 4);
  EXPECT_EQ(ParseEac3Frame(frame.data(), 7, info), 3);
  EXPECT_EQ(ParseEac3Frame(frame.data(), 700, info), 3);
  auto ac3 = MakeAc3Frame({});
  EXPECT_EQ(ParseEac3Frame(ac3.data(), uint32_t(ac3.size()), info), 2);
}

TEST(Ac3Bitstream, DependentFramesWithRearPairMakeSevenOne) {
  auto independent = MakeEac3Frame({});
  auto dependent = RearPairFrame();
  auto dependentCompr = RearPairFrame(true);  // the map moves by the eight compr bits
  TAc3FrameInfo frameInfo;
  ASSERT_EQ(ParseEac3Frame(dependentCompr.data(), uint32_t(dependentCompr.size()), frameInfo), 0);
  EXPECT_EQ(frameInfo.channels, 2u);

  auto stream = Concat({independent, dependent, independent, dependent});
  TEac3UnitInfo unit;
  ASSERT_EQ(ParseEac3Unit(stream.data(), uint32_t(stream.size()), 0, unit), 0);
  EXPECT_EQ(unit.unitSize, 768u + 512u);
  EXPECT_EQ(unit.skipBytes, 0u);
  EXPECT_EQ(unit.channelMask, 0x63Fu);
  EXPECT_EQ(unit.channelText, "7.1");
  EXPECT_EQ(unit.bitrate, 1280u * 192000u / 768u);

  // A leading dependent frame is counted as bytes to skip.
  auto late = Concat({dependent, independent, dependent, independent});
  ASSERT_EQ(ParseEac3Unit(late.data(), uint32_t(late.size()), 0, unit), 0);
  EXPECT_EQ(unit.skipBytes, 512u);
  EXPECT_EQ(unit.unitSize, 1280u);

  // The last unit ends the data: complete only when its size was expected.
  auto last = Concat({independent, dependent});
  EXPECT_EQ(ParseEac3Unit(last.data(), uint32_t(last.size()), 0, unit), -1);
  EXPECT_EQ(ParseEac3Unit(last.data(), uint32_t(last.size()), 1280, unit), 0);
  // Three bytes of the next independent frame are enough.
  auto peek = Concat({independent, dependent, {0x0B, 0x77, 0x00}});
  EXPECT_EQ(ParseEac3Unit(peek.data(), uint32_t(peek.size()), 0, unit), 0);

  // A stereo core with a rear pair: "+2.0".
  auto stereo = MakeEac3Frame({.acmod = 2, .lfe = 0});
  auto twoPlusTwo = Concat({stereo, dependent, stereo});
  ASSERT_EQ(ParseEac3Unit(twoPlusTwo.data(), uint32_t(twoPlusTwo.size()), 0, unit), 0);
  EXPECT_EQ(unit.channelText, "2.0+2.0");
}

// Units behind an AC3 core: dependent frames and an independent E-AC3 frame (Atmos/JOC) all
// belong to the unit; only the next AC3 frame opens a new one.
TEST(Eac3Bluray, EverythingBehindTheCoreBelongsToTheUnit) {
  const auto core = MakeAc3Frame({.frmsizecod = 30, .acmod = 7, .lfe = 1});
  const auto rear = RearPairFrame();
  const auto joc = MakeEac3Frame({.words = 256});
  struct Case {
    std::vector<uint8_t> unit;
    const char* text;
    uint32_t channels;
  };
  const Case cases[] = {
      {Concat({core, rear}), "7.1", 8},
      {Concat({core, rear, joc}), "7.1", 8},
      {Concat({core, joc}), "5.1", 6},
  };
  for (const Case& c : cases) {
    auto stream = Repeat(c.unit, 3);
    TEac3UnitInfo info;
    ASSERT_EQ(ParseEac3Unit(stream.data(), uint32_t(stream.size()), 0, info), kAc3Good);
    EXPECT_TRUE(info.ac3Core);
    EXPECT_EQ(info.unitSize, c.unit.size());
    EXPECT_EQ(info.coreSize, core.size());
    EXPECT_EQ(info.channelText, c.text);
    EXPECT_EQ(info.channels, c.channels);
    // 448 kbit/s of core, scaled by the unit's size.
    EXPECT_EQ(info.bitrate, uint32_t(uint64_t(448000) * c.unit.size() / core.size()));
  }
}

// The rounding of the listing's texts.
TEST(Ac3Bitstream, TextHelpers) {
  EXPECT_EQ(ChannelCountText(2), "2.0");
  EXPECT_EQ(ChannelCountText(3), "3");
  EXPECT_EQ(ChannelCountText(7), "6.1");
  const std::pair<uint32_t, const char*> rates[] = {{48000, "48khz"},    {44100, "44.1khz"},
                                                    {22050, "22khz"},    {44110, "44.11khz"},
                                                    {44101, "44.1khz"},  {44111, "44.111khz"}};
  for (auto [rate, text] : rates) EXPECT_EQ(SampleRateText(rate), text);
  const std::pair<uint32_t, const char*> times[] = {
      {499, "0:00:00"}, {500, "0:00:01"}, {3723400, "1:02:03"}, {36000000, "10:00:00"}};
  for (auto [ms, text] : times) EXPECT_EQ(PlaytimeText(ms), text);
}

}  // namespace
}  // namespace sonvex::ac3test
