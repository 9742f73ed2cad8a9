// Major sync parsing, its check word and the unit header parity, against synthetic headers and
// the access units of real encoders.
#include "thd/thdbitstream.h"

#include "framework/bitreader.h"
#include "thd/thdtestutil.h"

namespace sonvex::test {
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
  TSyncFields f;
  f.rateCode = 9;  // 88.2 kHz
  f.assign = 0x0001 | 0x0002 | 0x0004 | 0x0008 | 0x0010 | 0x1000;  // 5.1 + heights + LFE2
  f.substreams = 3;
  f.dialnorm = 27;
  auto unit = MakeSyncUnit(f);
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

TEST(MajorSync, EveryAssignmentBitCounts) {
  // Bits 0..12: L/R, C, LFE, Ls/Rs, Lvh/Rvh, Lc/Rc, Lrs/Rrs, Cs, Ts, Lsd/Rsd, Lw/Rw, Cvh, LFE2.
  const char* texts[13] = {"2.0", "1.0", "0.1", "2.0", "2.0", "2.0", "2.0",
                           "1.0", "1.0", "2.0", "2.0", "1.0", "0.1"};
  for (uint32_t bit = 0; bit < 13; bit++) {
    TSyncFields f;
    f.assign = 1u << bit;
    auto unit = MakeSyncUnit(f);
    TMajorSync sync;
    ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
    EXPECT_EQ(sync.channelText, texts[bit]) << "bit " << bit;
  }
}

TEST(MajorSync, Refusals) {
  TMajorSync sync;
  TSyncFields f;
  auto unit = MakeSyncUnit(f);
  unit[7] = 0xBC;  // neither sync
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 1);

  f.goodCrc = false;
  unit = MakeSyncUnit(f);
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 3);

  f = TSyncFields{};
  f.rateCode = 3;  // no rate
  unit = MakeSyncUnit(f);
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 3);

  f = TSyncFields{};
  f.unitWords = 15;  // 30 bytes: too small for a unit with a major sync
  unit = MakeSyncUnit(f);
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 2);

  f = TSyncFields{};
  f.mlp = true;
  f.goodCrc = false;
  unit = MakeSyncUnit(f);
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 2);

  f.goodCrc = true;
  f.rateCode = 4;
  unit = MakeSyncUnit(f);
  EXPECT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 2);

  // Fewer than 32 bytes can't be judged.
  unit = MakeSyncUnit(TSyncFields{});
  EXPECT_EQ(ParseMajorSync(unit.data(), 31, sync), 1);
}

TEST(MajorSync, MlpLayoutsAndBits) {
  struct {
    uint32_t index;
    const char* text;
    uint32_t channels, mask;
  } rows[] = {{0, "1.0", 1, 0x4},   {4, "2.1", 3, 0xB},  {12, "5.1", 6, 0x3F},
              {14, "3/2", 5, 0x37}, {18, "4.1 wrong order", 5, 0x3B},
              {20, "5.1 wrong order", 6, 0x3F}};
  for (auto& row : rows) {
    TSyncFields f;
    f.mlp = true;
    f.mlpLayout = row.index;
    f.mlpBitsCode = 1;  // 20 bits
    f.rateCode = 8;     // 44.1 kHz
    auto unit = MakeSyncUnit(f);
    TMajorSync sync;
    ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
    EXPECT_TRUE(sync.isMlp);
    EXPECT_EQ(sync.channelText, row.text);
    EXPECT_EQ(sync.channels, row.channels);
    EXPECT_EQ(sync.channelMask, row.mask);
    EXPECT_EQ(sync.bits, 20u);
    EXPECT_EQ(sync.sampleRate, 44100u);
  }
  TSyncFields f;
  f.mlp = true;
  f.mlpLayout = 21;  // beyond the table
  auto unit = MakeSyncUnit(f);
  TMajorSync sync;
  ASSERT_EQ(ParseMajorSync(unit.data(), uint32_t(unit.size()), sync), 0);
  EXPECT_EQ(sync.channels, 0u);
}

// Every major sync of real encoders' streams passes its check word, with and without the
// extension words of object audio; every other unit passes the header parity.
TEST(MajorSync, RealStreams) {
  SKIP_WITHOUT_CORPUS();
  for (const char* name : {"gen/truehd_20_48k.thd", "gen/mlp_20_48k.mlp",
                           "public/truehd/fba_atmos_obj.mlp", "public/truehd/fbb_6ch.mlp",
                           "public/truehd/fba_spliced.mlp"}) {
    auto bytes = ReadBytes(CorpusPath(name));
    ASSERT_FALSE(bytes.empty()) << name;
    uint32_t syncs = 0, others = 0, substreams = 0;
    bool extended = false;
    for (size_t at = 0; at + 4 <= bytes.size();) {
      const uint8_t* unit = bytes.data() + at;
      uint32_t size = ThdUnitSize(unit);
      ASSERT_GE(size, 4u) << name << " at " << at;
      ASSERT_LE(at + size, bytes.size());
      uint32_t word = Be32(unit + 4);
      if (word == kThdMajorSync || word == kMlpMajorSync) {
        TMajorSync sync;
        ASSERT_EQ(ParseMajorSync(unit, size, sync), 0) << name << " at " << at;
        substreams = sync.substreams;
        extended |= MajorSyncEnd(unit) > 32;
        syncs++;
      } else {
        ASSERT_TRUE(CheckUnitParity(unit, size, substreams)) << name << " at " << at;
        others++;
      }
      at += size;
    }
    EXPECT_GT(syncs, 0u) << name;
    EXPECT_GT(others, 0u) << name;
    if (std::string(name).find("atmos") != std::string::npos) {
      EXPECT_TRUE(extended);
    }
  }
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
}  // namespace sonvex::test
