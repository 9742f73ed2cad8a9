// The DTS stream edits: exact header bits, CRC refusal, and core extraction against ffmpeg.
#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsrepairer.h"
#include "dts/dtstestutil.h"

namespace sonvex::dtstest {
namespace {

struct EditRun {
  bool ok = true;
  std::shared_ptr<TCapture> capture = TCapture::Create();
  LogLines log;
};

// Announces `format` to `stage` and writes each frame as one block.
EditRun RunEdit(const UpStreamRef& stage, const std::vector<std::vector<uint8_t>>& frames,
                const std::string& format = "dts") {
  EditRun run;
  TLog logged;
  stage->AppendUpStream(run.capture);
  run.ok = stage->InitAudio(format, 6, 24, 48000, false, 0);
  for (auto& frame : frames)
    if (run.ok) run.ok = stage->Write(0, false, frame.data(), uint32_t(frame.size()), 77, false);
  if (run.ok) run.ok = stage->Finish();
  run.log = logged.lines;
  return run;
}

// The bytes that differ between two equally long byte strings, as (offset, xor) pairs.
std::vector<std::pair<size_t, int>> Differences(const std::vector<uint8_t>& a,
                                                const std::vector<uint8_t>& b) {
  std::vector<std::pair<size_t, int>> out;
  for (size_t i = 0; i < std::min(a.size(), b.size()); i++)
    if (a[i] != b[i]) out.push_back({i, a[i] ^ b[i]});
  return out;
}

TEST(DtsDialnormRemover, ChangesVersionAndDialnormBitsOnly) {
  CoreFields f{.version = 2, .dialnorm = 5};
  auto frame = CoreFrame(f);
  auto run = RunEdit(TDtsDialnormRemover::Create(), {frame, frame});
  ASSERT_TRUE(run.ok);
  ASSERT_EQ(run.capture->bytes.size(), 2 * frame.size());
  std::vector<uint8_t> first(run.capture->bytes.begin(), run.capture->bytes.begin() + 1006);
  // Version 2 -> 7 is bits 6-3 of byte 11 (0010 ^ 0111 = 0101); dialnorm 5 -> 0 in byte 12.
  const std::vector<std::pair<size_t, int>> expected = {{11, 0x28}, {12, 0x05}};
  EXPECT_EQ(Differences(frame, first), expected);
  EXPECT_EQ(run.capture->positions[0], 77);
  EXPECT_EQ(run.log, (LogLines{{0, "Removing dialog normalization..."}}));
  // A dialnorm of 0 is silent, but the version field is still set.
  f.dialnorm = 0;
  frame = CoreFrame(f);
  run = RunEdit(TDtsDialnormRemover::Create(), {frame});
  EXPECT_TRUE(run.log.empty());
  EXPECT_EQ(Differences(frame, run.capture->bytes), (std::vector<std::pair<size_t, int>>{{11, 0x28}}));
}

TEST(DtsBitdepthPatcher, ResolutionBecomesTwentyFourKeepingEs) {
  const std::pair<uint32_t, uint32_t> cases[] = {{0, 6}, {1, 5}, {2, 6}, {3, 5}, {5, 5}, {6, 6}};
  for (auto [before, after] : cases) {
    auto frame = CoreFrame({.resolution = before});
    auto run = RunEdit(TDtsBitdepthPatcher::Create(), {frame});
    ASSERT_TRUE(run.ok);
    const auto& out = run.capture->bytes;
    EXPECT_EQ((out[11] & 1u) * 4 + (out[12] >> 6), after) << before;
    for (auto [at, bits] : Differences(frame, out))  // only the three resolution bits
      EXPECT_TRUE((at == 11 && (bits & 0xFE) == 0) || (at == 12 && (bits & 0x3F) == 0)) << at;
    EXPECT_EQ(run.log, (before == 5 || before == 6 ? LogLines{}
                                                   : LogLines{{0, "Patching bitdepth to 24 bits..."}}));
  }
  // Master Audio is not patched.
  auto run = RunEdit(TDtsBitdepthPatcher::Create(), {}, "dtsma");
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.log.back().second, "The DTS bitdepth patcher received a non-supported data format.");
}

TEST(DtsRepairer, RewritesTheOutdatedSizeField) {
  const uint32_t offset = 0x200;
  auto outdated = EsFrame(offset, 1006 - offset);
  auto run = RunEdit(TDtsRepairer::Create(), {outdated, outdated});
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.log, (LogLines{{0, "Correcting DTS-ES information..."}}));
  auto right = EsFrame(offset, 1006 - offset - 1);
  EXPECT_EQ(run.capture->bytes, Repeat(right, 2));
  // A stream whose first frame is right is left alone, later frames too.
  run = RunEdit(TDtsRepairer::Create(), {right, outdated});
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.log.empty());
  auto expected = right;
  expected.insert(expected.end(), outdated.begin(), outdated.end());
  EXPECT_EQ(run.capture->bytes, expected);
}

TEST(DtsEdits, HeaderCrcStopsEveryPatcher) {
  auto frame = CoreFrame({.crc = true});
  const std::pair<UpStreamRef, const char*> stages[] = {
      {TDtsRepairer::Create(), "The bitstream can't be repaired because there's a CRC in the DTS file."},
      {TDtsDialnormRemover::Create(), "Dialnorm can't be removed because there's a CRC in the DTS file."},
      {TDtsBitdepthPatcher::Create(), "Bitdepth can't be patched because there's a CRC in the DTS file."}};
  for (auto& [stage, message] : stages) {
    auto run = RunEdit(stage, {frame});
    EXPECT_FALSE(run.ok);
    EXPECT_TRUE(run.capture->bytes.empty());
    ASSERT_FALSE(run.log.empty());
    EXPECT_EQ(run.log.back(), (std::pair<int, std::string>{2, message}));
  }
}

TEST(DtsCoreExtractor, CutsTheExtensionAndWarnsOnPlainDts) {
  auto frame = CoreFrame({});
  auto hd = HdFrame(kXll, 300);
  auto run = RunEdit(TDtsCoreExtractor::Create(), {hd, hd}, "dtsma");
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, Repeat(frame, 2));
  EXPECT_EQ(run.capture->audioInits[0].format, "dts");
  EXPECT_EQ(run.log, (LogLines{{0, "Extracting DTS core..."}}));
  run = RunEdit(TDtsCoreExtractor::Create(), {frame}, "dts");
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, frame);
  EXPECT_EQ(run.log.back(), (std::pair<int, std::string>{
                                1, "This is already a normal DTS file, so extracting the core "
                                   "doesn't make sense."}));
}

// Reader -> core extractor [-> dialnorm remover -> repairer -> patcher] -> capture.
std::vector<uint8_t> ExtractCore(const std::vector<uint8_t>& stream, bool edits) {
  auto reader = TDtsReader::Create();
  reader->SetSilent(true);
  reader->AppendUpStream(TDtsCoreExtractor::Create());
  if (edits) {
    reader->AppendUpStream(TDtsDialnormRemover::Create());
    reader->AppendUpStream(TDtsRepairer::Create());
    reader->AppendUpStream(TDtsBitdepthPatcher::Create());
  }
  auto capture = TCapture::Create();
  reader->AppendUpStream(capture);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += 5000)
    ok = reader->Write(0, false, stream.data() + at,
                       uint32_t(std::min<size_t>(5000, stream.size() - at)), -1, false);
  if (ok) ok = reader->Finish();
  EXPECT_TRUE(ok);
  return capture->bytes;
}

// The core of Master Audio and Hi-Res streams is the one that ffmpeg's dca_core filter cuts; with
// the edits on it still decodes cleanly.
TEST(DtsCoreExtractor, MatchesFfmpegCoreFilter) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  for (const char* name : {"xll_51_24_48_768.dts", "xll_71_24_48_768_0.dts",
                           "xll_51_16_192_768_0.dts", "xbr_51_24_48_3840.dts",
                           "dts1_dtsma_51_16.dtshd"}) {
    SCOPED_TRACE(name);
    const std::string source = CorpusDir() / "public/dts" / name;
    const std::string oracle = dir / "ffmpeg_core.dts";
    ASSERT_EQ(std::system(("ffmpeg -nostdin -v error -y -f dts -i '" + source +
                           "' -c:a copy -bsf:a dca_core -f dts '" + oracle + "'")
                              .c_str()),
              0);
    auto stream = ReadBytes(source), expected = ReadBytes(oracle);
    auto core = ExtractCore(stream, false);
    ASSERT_EQ(core.size(), expected.size());
    auto first = std::mismatch(core.begin(), core.end(), expected.begin());
    EXPECT_TRUE(first.first == core.end()) << "first difference at byte " << (first.first - core.begin());

    auto edited = ExtractCore(stream, true);
    const std::string path = dir / "edited.dts";
    WriteBytes(path, edited);
    std::string errors =
        Pipe("ffmpeg -nostdin -v error -f dts -i '" + path + "' -f null - 2>&1");
    EXPECT_EQ(errors, "");
  }
}

}  // namespace
}  // namespace sonvex::dtstest
