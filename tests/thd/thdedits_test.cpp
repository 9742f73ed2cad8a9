// The splitters of TrueHD/AC3 tracks on blocks that only look like AC-3, and the dialnorm
// remover's patches of plain and extended major syncs.
#include "thd/thdedits.h"

#include "framework/bitreader.h"
#include "thd/thdbitstream.h"
#include "thd/thdreader.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

// Reader and one edit stage, the whole stream in blocks of 16 KiB.
std::shared_ptr<TCapture> ReadThrough(const std::vector<uint8_t>& stream, const UpStreamRef& edit,
                                      bool& ok) {
  auto reader = TThdReader::Create("", "", false, false);
  reader->AppendUpStream(edit);
  return Drive(reader, stream, 16384, ok);
}

// A block that starts like AC-3 but fails its check words belongs to TrueHD for both splitters.
TEST(ThdSplit, Ac3BlockWithBadCheckWordStaysWithTheTrueHdHalf) {
  SKIP_WITHOUT_CORPUS();
  auto ac3 = ReadBytes(CorpusPath("gen/ac3_20_192k.ac3"));
  std::vector<uint8_t> good(ac3.begin(), ac3.begin() + 768), bad = good;
  bad[100] ^= 0x01;
  ASSERT_TRUE(IsAc3Block(good.data(), 768));
  ASSERT_FALSE(IsAc3Block(bad.data(), 768));

  auto remover = TThdAc3Remover::Create();
  auto kept = TCapture::Create();
  remover->AppendUpStream(kept);
  auto extractor = TThdAc3Extractor::Create();
  auto taken = TCapture::Create();
  extractor->AppendUpStream(taken);
  for (UpStreamRef stage : {UpStreamRef(remover), UpStreamRef(extractor)}) {
    stage->SetSilent(false);
    ASSERT_TRUE(stage->InitAudio("thd/ac3", 6, 24, 48000, false, 1234));
    ASSERT_TRUE(stage->Write(0, false, good.data(), 768, 5, false));
    ASSERT_TRUE(stage->Write(0, false, bad.data(), 768, 6, true));
    ASSERT_TRUE(stage->Finish());
  }
  EXPECT_EQ(kept->bytes, bad);
  EXPECT_EQ(kept->positions, std::vector<int64_t>{6});
  EXPECT_EQ(kept->audioInits.at(0).totalSize, 0);
  EXPECT_EQ(taken->bytes, good);
  EXPECT_EQ(taken->finished, 1);
}

// Dialnorm removal keeps the stream decodable: the check words are right and nothing but the
// dialnorm field and its check word changes.
TEST(ThdDialnorm, PatchedMajorSyncsKeepGoodCheckWords) {
  SKIP_WITHOUT_CORPUS();
  std::string source = CorpusPath("gen/truehd_20_48k.thd");
  auto bytes = ReadBytes(source);
  TLogLines log;
  bool ok = false;
  auto capture = ReadThrough(bytes, TThdDialnormRemover::Create(), ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(log.Count("Removing dialog normalization..."), 1);
  ASSERT_EQ(capture->bytes.size(), bytes.size());

  size_t syncs = 0, at = 0;
  for (uint32_t block : capture->blocks) {
    const uint8_t* unit = capture->bytes.data() + at;
    if (Be32(unit + 4) == kThdMajorSync) {
      syncs++;
      TMajorSync sync;
      ASSERT_EQ(ParseMajorSync(unit, block, sync), 0) << "check word at " << at;
      EXPECT_EQ(sync.dialnorm, 0);
      EXPECT_EQ(unit[22], 0);
      // Nothing else of the unit changed.
      for (uint32_t i = 0; i < block; i++) {
        if (i != 22 && i != 25 && i != 26 && i != 30 && i != 31) {
          ASSERT_EQ(unit[i], bytes[at + i]) << "byte " << i << " of the unit at " << at;
        }
      }
    } else {
      ASSERT_TRUE(std::equal(unit, unit + block, bytes.begin() + long(at)));
    }
    at += block;
  }
  EXPECT_GT(syncs, 10u);  // ffmpeg decodes the binary's patched stream alike: thd_e2e_test
}

// Object audio carries extension words in its major sync; the check word moves with them.
TEST(ThdDialnorm, ExtendedMajorSyncGetsItsCheckWordWhereItStands) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("public/truehd/fba_atmos_obj.mlp"));
  ASSERT_GT(MajorSyncEnd(bytes.data()), 32u);
  // Give the first major sync a dialnorm of 5 (and a right check word), as an encoder would.
  bytes[25] = uint8_t((bytes[25] & 0xF8) | 1);
  bytes[26] = uint8_t((bytes[26] & 0x3F) | 0x40);
  uint32_t end = MajorSyncEnd(bytes.data());
  uint16_t crc = MajorSyncCrc(bytes.data(), 4, end - 2);
  bytes[end - 2] = uint8_t(crc >> 8);
  bytes[end - 1] = uint8_t(crc);
  TMajorSync sync;
  ASSERT_EQ(ParseMajorSync(bytes.data(), uint32_t(bytes.size()), sync), 0);
  ASSERT_EQ(sync.dialnorm, 5);

  bool ok = false;
  auto capture = ReadThrough(bytes, TThdDialnormRemover::Create(), ok);
  ASSERT_TRUE(ok);
  ASSERT_EQ(ParseMajorSync(capture->bytes.data(), uint32_t(capture->bytes.size()), sync), 0);
  EXPECT_EQ(sync.dialnorm, 0);
  // The bytes where a plain major sync keeps its check word are data here and stay.
  EXPECT_EQ(capture->bytes[30], bytes[30]);
  EXPECT_EQ(capture->bytes[31], bytes[31]);
}

TEST(ThdDialnorm, NeutralValuesAndMlpPassUnchanged) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  std::vector<uint8_t> unit(bytes.begin(), bytes.begin() + ThdUnitSize(bytes.data()));
  for (uint32_t dialnorm : {0u, 31u}) {
    auto patched = unit;
    patched[25] = uint8_t((patched[25] & 0xF8) | dialnorm >> 2);
    patched[26] = uint8_t((patched[26] & 0x3F) | (dialnorm & 3) << 6);
    patched[22] = 0x5A;
    uint16_t crc = MajorSyncCrc(patched.data(), 4, 30);
    patched[30] = uint8_t(crc >> 8);
    patched[31] = uint8_t(crc);
    TLogLines log;
    auto remover = TThdDialnormRemover::Create();
    auto capture = TCapture::Create();
    remover->AppendUpStream(capture);
    ASSERT_TRUE(remover->InitAudio("thd", 2, 24, 48000, false, 0));
    ASSERT_TRUE(remover->Write(0, false, patched.data(), uint32_t(patched.size()), -1, false));
    EXPECT_EQ(capture->bytes, patched) << "dialnorm " << dialnorm;
    EXPECT_TRUE(log.lines.empty());
  }
  auto mlp = ReadBytes(CorpusPath("gen/mlp_20_48k.mlp"));
  mlp.resize(20000);
  bool ok = false;
  auto capture = ReadThrough(mlp, TThdDialnormRemover::Create(), ok);
  ASSERT_TRUE(ok);
  EXPECT_TRUE(std::equal(capture->bytes.begin(), capture->bytes.end(), mlp.begin()));
  EXPECT_GT(capture->bytes.size(), 19000u);
}

}  // namespace
}  // namespace sonvex::thdtest
