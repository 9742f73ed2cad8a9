// Major sync parsing, its check word and the unit header parity, against synthetic headers and
// the access units of real encoders.
#include "thd/thdbitstream.h"

#include "framework/bitreader.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

struct TSyncFields {
  uint32_t unitWords = 64;  // access unit length in 16-bit words
  uint32_t rateCode = 0;    // 48 kHz
  uint32_t assign = 0x001;  // 8ch presentation assignment: L, R
  uint32_t substreams = 2;
  uint32_t dialnorm = 0;
  bool mlp = false;
  uint32_t mlpBitsCode = 2;  // quantization of group 1: 24 bits
  uint32_t mlpLayout = 1;    // channel assignment: 2.0
  bool goodCrc = true;
};

// An access unit that starts with a major sync, the rest of it zeros.
std::vector<uint8_t> MakeSyncUnit(const TSyncFields& f) {
  BitWriter w;
  w.Put(4, 0);                          // check_nibble
  w.Put(12, f.unitWords);               // access_unit_length
  w.Put(16, 0);                         // input_timing
  w.Put(32, f.mlp ? 0xF8726FBB : 0xF8726FBA);  // format_sync
  if (f.mlp) {
    w.Put(4, f.mlpBitsCode);            // quantization_word_length_1
    w.Put(4, 0);                        // quantization_word_length_2
    w.Put(4, f.rateCode);               // audio_sampling_frequency_1
    w.Put(4, 0);                        // audio_sampling_frequency_2
    w.Put(11, 0);                       // reserved
    w.Put(5, f.mlpLayout);              // channel_assignment
  } else {
    w.Put(4, f.rateCode);               // audio_sampling_frequency
    w.Put(4, 0);                        // multichannel types, reserved
    w.Put(8, 0);                        // modifiers, 6ch assignment
    w.Put(3, 0);                        // 6ch assignment low bit, 8ch modifier
    w.Put(13, f.assign);                // 8ch_presentation_channel_assignment
  }
  w.Put(16, 0xB752);                    // signature
  w.Put(16, 0);                         // flags
  w.Put(16, 0);                         // reserved
  w.Put(16, 0x8000);                    // variable_rate, peak_data_rate
  w.Put(4, f.substreams);               // substreams
  w.Put(4, 0);                          // reserved, extended_substream_info
  w.Put(8, 0);                          // substream_info
  w.Put(24, 0);                         // channel meaning, bytes 22-24
  w.Put(5, 0);                          // byte 25, top bits
  w.Put(5, f.dialnorm);                 // dialnorm (byte 25 low 3 bits, byte 26 top 2 bits)
  w.Put(6, 0);                          // byte 26, low bits
  w.Put(24, 0);                         // bytes 27-29
  w.Put(16, 0);                         // major_sync_info_CRC, filled in below
  std::vector<uint8_t> unit = w.bytes;
  unit.resize(f.unitWords * 2 > 32 ? f.unitWords * 2 : 32);
  uint16_t crc = MajorSyncCrc(unit.data(), 4, 30) ^ (f.goodCrc ? 0 : 1);
  unit[30] = uint8_t(crc >> 8);
  unit[31] = uint8_t(crc);
  return unit;
}

TEST(MajorSync, TrueHdFields) {
  // 88.2 kHz; L/R, C, LFE, Ls/Rs, Lvh/Rvh and LFE2: 5.1 + heights + LFE2.
  auto unit = MakeSyncUnit({.rateCode = 9, .assign = 0x101F, .substreams = 3, .dialnorm = 27});
  TMajorSync sync;
  ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
  EXPECT_FALSE(sync.isMlp);
  EXPECT_EQ(sync.sampleRate, 88200u);
  EXPECT_EQ(sync.samplesPerUnit, 80u);
  EXPECT_EQ(sync.unitSize, 128u);
  EXPECT_EQ(sync.substreams, 3u);
  EXPECT_EQ(sync.channelText, "7.2");
  EXPECT_EQ(sync.channels, 9u);
  EXPECT_EQ(sync.dialnorm, 27);
}

TEST(MajorSync, Refusals) {
  auto result = [](const TSyncFields& f, uint32_t size = 0) {
    auto unit = MakeSyncUnit(f);
    TMajorSync sync;
    return ParseMajorSync(unit.data(), size ? size : uint32_t(unit.size()), sync);
  };
  auto unit = MakeSyncUnit({});
  unit[7] = 0xBC;  // neither sync
  TMajorSync sync;
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 1);
  EXPECT_EQ(result({.goodCrc = false}), 3);
  EXPECT_EQ(result({.rateCode = 3}), 3);      // no rate
  EXPECT_EQ(result({.unitWords = 15}), 2);    // 30 bytes: too small for a unit with a major sync
  EXPECT_EQ(result({.mlp = true, .goodCrc = false}), 2);
  EXPECT_EQ(result({.rateCode = 4, .mlp = true}), 2);
  EXPECT_EQ(result({}, 31), 1);  // fewer than 32 bytes can't be judged
}

TEST(MajorSync, MlpLayoutsAndBits) {
  struct {
    uint32_t index;
    const char* text;
    uint32_t channels, mask;
  } rows[] = {{0, "1.0", 1, 0x4}, {4, "2.1", 3, 0xB}, {14, "3/2", 5, 0x37},
              {18, "4.1 wrong order", 5, 0x3B}};
  for (auto& row : rows) {
    // 20 bits at 44.1 kHz.
    auto unit = MakeSyncUnit({.rateCode = 8, .mlp = true, .mlpBitsCode = 1, .mlpLayout = row.index});
    TMajorSync sync;
    ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
    EXPECT_TRUE(sync.isMlp);
    EXPECT_EQ(sync.channelText, row.text);
    EXPECT_EQ(sync.channels, row.channels);
    EXPECT_EQ(sync.channelMask, row.mask);
    EXPECT_EQ(sync.bits, 20u);
    EXPECT_EQ(sync.sampleRate, 44100u);
  }
  auto unit = MakeSyncUnit({.mlp = true, .mlpLayout = 21});  // beyond the table
  TMajorSync sync;
  ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
  EXPECT_EQ(sync.channels, 0u);
}

TEST(UnitParity, HeaderBitsAndBounds) {
  // A unit of 10 words with one substream: header 4 bytes, directory entry 2 bytes.
  std::vector<uint8_t> unit = {0x00, 0x0A, 0x00, 0x00, 0x00, 0x00};
  unit.resize(20);
  // Input timing chosen so that the XOR of the header is 0xF0: nibbles F and 0.
  unit[2] = 0xFA;
  EXPECT_TRUE(CheckUnitParity(unit.data(), uint32_t(unit.size()), 1));
  unit[5] ^= 0x01;  // one bit of the substream directory
  EXPECT_FALSE(CheckUnitParity(unit.data(), uint32_t(unit.size()), 1));
  unit[5] ^= 0x01;
  // An extra word behind a directory entry counts too.
  unit[4] = 0x80;
  EXPECT_FALSE(CheckUnitParity(unit.data(), uint32_t(unit.size()), 1));
  unit[6] = 0x80;
  EXPECT_TRUE(CheckUnitParity(unit.data(), uint32_t(unit.size()), 1));
  // A unit length of one word fails, and so does a directory beyond the data.
  std::vector<uint8_t> tiny = {0xF0, 0x01, 0x00, 0x00};
  EXPECT_FALSE(CheckUnitParity(tiny.data(), 4, 0));
  EXPECT_FALSE(CheckUnitParity(unit.data(), 5, 1));
}

}  // namespace
}  // namespace sonvex::thdtest
