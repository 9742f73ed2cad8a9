// The AC3 stream edits: dialnorm removal (checked by ffmpeg's CRC check), delay by whole frames,
// gap realizing from a hand-written ".gaps" file, and E-AC3 core extraction.
#include <gtest/gtest.h>

#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "ac3/ac3reader.h"
#include "ac3/eac3coreextractor.h"
#include "ac3/gaptracker.h"
#include "ac3testutil.h"
#include "framework/bitreader.h"

namespace sonvex::ac3test {
namespace {

struct ChainRun {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  bool ok = false;
};

// Reader, then the given stages, then a capture; the stream goes in 4 KiB pieces.
ChainRun RunChain(const std::vector<uint8_t>& stream, const std::vector<UpStreamRef>& stages,
                  int32_t delayMs = 0) {
  ChainRun run;
  auto reader = TAc3Reader::Create("", "", false);
  for (const auto& stage : stages) reader->AppendUpStream(stage);
  reader->AppendUpStream(run.capture);
  if (delayMs) reader->SetDelay(0, delayMs);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += 4096)
    ok = reader->Write(0, false, stream.data() + at,
                       uint32_t(std::min<size_t>(4096, stream.size() - at)), -1, false);
  run.ok = ok && reader->Finish();
  return run;
}

// Frames that can be told apart: the dialnorm field counts 1..30.
std::vector<std::vector<uint8_t>> NumberedFrames(int count) {
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < count; i++) {
    Ac3FrameSpec spec;
    spec.dialnorm = uint32_t(i % 30 + 1);
    spec.acmod = uint32_t(i / 30 % 8);
    frames.push_back(MakeAc3Frame(spec));
  }
  return frames;
}
std::vector<uint8_t> Join(const std::vector<std::vector<uint8_t>>& frames, size_t from = 0,
                          size_t to = SIZE_MAX) {
  std::vector<uint8_t> out;
  for (size_t i = from; i < std::min(to, frames.size()); i++)
    out.insert(out.end(), frames[i].begin(), frames[i].end());
  return out;
}

bool FfmpegDecodesCleanly(const std::string& file) {
  int code = -1;
  std::string errors = Pipe("ffmpeg -nostdin -v error -err_detect crccheck+explode -i '" + file +
                                "' -f null - 2>&1",
                            &code);
  return code == 0 && errors.empty();
}

TEST(Ac3Edits, DialnormRemovalPatchesFieldAndBothCrcs) {
  if (!HaveTool("ffmpeg")) GTEST_SKIP() << "ffmpeg absent";
  TempDir dir;
  struct Case {
    const char* name;
    const char* args;
  };
  // 2.0 carries dsurmod, 3/2.1 the mix levels: the field sits at three places.
  for (Case c : {Case{"s.ac3", "-ac 2 -c:a ac3 -b:a 192k"}, Case{"m.ac3", "-ac 6 -c:a ac3 -b:a 448k"},
                 Case{"e.eac3", "-ac 6 -c:a eac3 -b:a 384k"}, Case{"c.ac3", "-ac 3 -c:a ac3 -b:a 256k"}}) {
    SCOPED_TRACE(c.name);
    std::string source = dir / c.name;
    int code = -1;
    Pipe(std::string("ffmpeg -nostdin -v error -y -f lavfi -i "
                     "sine=frequency=300:sample_rate=48000:duration=0.5 ") +
             c.args + " -dialnorm -27 '" + source + "'",
         &code);
    ASSERT_EQ(code, 0);
    auto stream = ReadBytes(source);
    LogRecorder log;
    ChainRun run = RunChain(stream, {TAc3DialnormRemover::Create()});
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(log.Count("Removing dialog normalization..."), 1);
    const auto& out = run.capture->bytes;
    ASSERT_EQ(out.size(), stream.size());
    bool eac3 = std::string(c.name).ends_with(".eac3");
    for (size_t at = 0; at < out.size();) {
      TAc3FrameInfo info;
      int result = eac3 ? ParseEac3Frame(out.data() + at, uint32_t(out.size() - at), info)
                        : ParseAc3Frame(out.data() + at, uint32_t(out.size() - at), info);
      ASSERT_EQ(result, 0) << "frame at " << at;
      EXPECT_EQ(info.dialnorm, 0);
      at += info.frameSize;
    }
    std::string patched = dir / (std::string("patched_") + c.name);
    WriteBytes(patched, out);
    EXPECT_TRUE(FfmpegDecodesCleanly(patched));
    if (!eac3) continue;
    // The check itself catches a frame with a stale CRC.
    auto broken = out;
    broken[10] ^= 0x01;
    WriteBytes(patched, broken);
    EXPECT_FALSE(FfmpegDecodesCleanly(patched));
  }
}

TEST(Ac3Edits, DelayRepeatsOrDropsWholeFrames) {
  auto frames = NumberedFrames(40);
  auto stream = Join(frames);
  struct Case {
    int32_t delay;
    int64_t frames;
  };
  // 32 ms frames: rounded to the nearest frame, half away from zero.
  for (Case c : {Case{100, 3}, Case{112, 4}, Case{111, 3}, Case{-100, -3}, Case{-112, -4},
                 Case{15, 0}, Case{-15, 0}, Case{16, 1}, Case{-5000, -40}}) {
    SCOPED_TRACE(c.delay);
    LogRecorder log;
    auto delayer = TAc3Delayer::Create();
    ChainRun run = RunChain(stream, {delayer}, c.delay);
    ASSERT_TRUE(run.ok);
    std::vector<uint8_t> expected;
    if (c.frames >= 0)
      expected = Concat({Repeat(frames[0], int(c.frames)), stream});
    else
      expected = Join(frames, size_t(-c.frames));
    EXPECT_EQ(run.capture->bytes, expected);
    EXPECT_EQ(log.Has(0, "Applying (E-)AC3 delay..."), c.frames != 0);
    // The delayer applies the delay: nothing is handed on behind it.
    EXPECT_TRUE(run.capture->delaysSeen.empty());
  }
}

// A ".gaps" file written by hand, read as at chain building, realised in the stream.
ChainRun RunGapFile(const std::vector<uint8_t>& stream, const std::string& fileContent) {
  TempDir dir;
  WriteBytes(dir / "x.gaps", std::vector<uint8_t>(fileContent.begin(), fileContent.end()));
  auto logger = TCapture::Create();
  std::string content;
  EXPECT_TRUE(LoadGapDescription(*logger, dir / "x.gaps", dir / "y.ac3", content));
  return RunChain(stream, {TAc3GapRealizer::Create(GapDataForRealizer(content))});
}

constexpr int64_t kFrame = 320000;

TEST(Ac3Edits, GapFileIsRealised) {
  auto frames = NumberedFrames(400);
  auto stream = Join(frames);
  struct Case {
    std::string file;
    std::vector<uint8_t> expected;
  };
  const Case cases[] = {
      // 200 ms missing at frame 200: 6.25 frames, so the 6 frames before the gap come again.
      {GapBlobFromEntries({{200 * kFrame + 2000000, 2000000}}),
       Concat({Join(frames, 0, 200), Join(frames, 194, 200), Join(frames, 200)})},
      // 100 ms too much at frame 300: frames 300 to 302 go.
      {GapBlobFromEntries({{300 * kFrame, -1000000}}), Concat({Join(frames, 0, 300), Join(frames, 303)})},
      // Cumulated drift: +200 ms at 100 (6 frames in), then -100 ms at 250: a step of -9 frames.
      {GapBlobFromEntries({{100 * kFrame + 2000000, 2000000}, {250 * kFrame, -1000000}}),
       Concat({Join(frames, 0, 100), Join(frames, 94, 100), Join(frames, 100, 250), Join(frames, 259)})},
      // A positive drift that shrinks changes nothing: frames are only added while it grows.
      {GapBlobFromEntries({{100 * kFrame + 2000000, 2000000}, {250 * kFrame, 1000000}}),
       Concat({Join(frames, 0, 100), Join(frames, 94, 100), Join(frames, 100)})},
      // One second missing: 31 frames, more than the 30 kept: the 30, then the newest one.
      {GapBlobFromEntries({{100 * kFrame + 10000000, 10000000}}),
       Concat({Join(frames, 0, 100), Join(frames, 70, 100), Join(frames, 99, 100), Join(frames, 100)})},
      // 15 bytes hold no record: only the leading zero record, and the first frame stays out.
      {std::string(15, '\x7f'), Join(frames, 1)}};
  for (const Case& c : cases) {
    LogRecorder log;
    ChainRun run = RunGapFile(stream, c.file);
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.capture->bytes, c.expected) << &c - cases;
    EXPECT_EQ(log.Has(0, "Realizing (E-)AC3 gaps..."), c.file.size() >= 16) << &c - cases;
  }
}

TEST(Ac3Edits, GapFileLoading) {
  TempDir dir;
  auto logger = TCapture::Create();
  std::string content = "x";
  {
    LogRecorder log;
    WriteBytes(dir / "a.gaps", std::vector<uint8_t>(32, 1));
    EXPECT_TRUE(LoadGapDescription(*logger, dir / "a.gaps", dir / "out.THD", content));
    EXPECT_TRUE(content.empty());
    EXPECT_TRUE(log.Has(0, "Audio gap description file detected, can't be used for TrueHD/MLP, though."));
  }
  {
    LogRecorder log;
    EXPECT_TRUE(LoadGapDescription(*logger, dir / "a.gaps", dir / "out.ac3", content));
    EXPECT_EQ(content.size(), 32u);
    EXPECT_EQ(GapDataForRealizer(content).size(), 48u);
    EXPECT_EQ(GapDataForRealizer(content).substr(0, 16), std::string(16, '\0'));
    EXPECT_TRUE(log.Has(0, "Audio gap description file detected, will be used for processing..."));
  }
  {
    LogRecorder log;
    WriteBytes(dir / "empty.gaps", {});
    EXPECT_FALSE(LoadGapDescription(*logger, dir / "empty.gaps", dir / "out.ac3", content));
    EXPECT_TRUE(log.Has(2, "Audio gap description file seems to be invalid."));
  }
  {
    LogRecorder log;
    EXPECT_FALSE(LoadGapDescription(*logger, dir / "none.gaps", dir / "out.ac3", content));
    EXPECT_TRUE(log.Has(2, "Opening audio gap description file failed."));
  }
}

TEST(Ac3Edits, GapTrackerStaircase) {
  TFrameClock clock{int64_t(10000) * 768 * 8000, 192000};
  ASSERT_EQ(clock.FrameTicks(), kFrame);
  TGapTracker tracker;
  auto at = [&](int64_t frame, int64_t drift) { tracker.AddStamp(frame * kFrame + drift, frame, clock); };
  at(0, 0);
  at(10, 2000000);
  at(20, 3000000);
  at(30, 3020000);  // within 5 ms: the same drift
  ASSERT_EQ(tracker.Entries().size(), 2u);
  at(40, 2500000);  // back towards 0: overwrites the step it undoes
  ASSERT_EQ(tracker.Entries().size(), 2u);
  EXPECT_EQ(tracker.Entries()[1].drift, 2500000);
  EXPECT_EQ(tracker.Entries()[1].time, 20 * kFrame + 3000000);
  at(50, 1000000);  // below the first step: overwrites it, drops the second
  ASSERT_EQ(tracker.Entries().size(), 1u);
  EXPECT_EQ(tracker.Entries()[0].drift, 1000000);
  at(60, 0);  // exactly 0: forgotten
  EXPECT_TRUE(tracker.Entries().empty());
  at(70, -1000000);
  ASSERT_EQ(tracker.Entries().size(), 1u);
  EXPECT_EQ(tracker.Entries()[0].drift, -1000000);
  at(80, 1000000);  // the sign changed: starts again
  ASSERT_EQ(tracker.Entries().size(), 1u);
  EXPECT_EQ(tracker.Entries()[0].drift, 1000000);
  // Below 6/10 of a frame a discontinuity is not worth a file.
  TGapTracker small;
  small.AddStamp(0, 0, clock);
  small.AddStamp(10 * kFrame + 190000, 10, clock);
  EXPECT_EQ(small.Entries().size(), 1u);
  EXPECT_TRUE(small.ReportedEntries(2000, clock, DefaultMinGap(clock), DefaultMinGap(clock)).empty());
  EXPECT_EQ(small.ReportedEntries(2000, clock, 190000, 190000).size(), 1u);
}

// Data that is no (E-)AC3 frame stops the delayer and the gap realizer.
TEST(Ac3Edits, DelayerAndGapRealizerRefuseDataTheyCannotParse) {
  LogRecorder log;
  std::vector<uint8_t> junk(768, 0x42);
  for (UpStreamRef stage : {UpStreamRef(TAc3Delayer::Create()),
                            UpStreamRef(TAc3GapRealizer::Create(
                                GapBlobFromEntries({{0, 0}, {kFrame * 10, 2000000}})))}) {
    stage->AppendUpStream(TCapture::Create());
    ASSERT_TRUE(stage->InitAudio("ac3", 2, 24, 48000, false, 0));
    EXPECT_FALSE(stage->Write(0, false, junk.data(), 768, -1, false));
    EXPECT_FALSE(stage->IsValid());
  }
  EXPECT_TRUE(log.Has(1, "Applying (E-)AC3 delay failed."));
  EXPECT_TRUE(log.Has(1, "The (E-)AC3 gap realizer received invalid data."));
}

TEST(Ac3Edits, CoreExtractorKeepsTheIndependentFrame) {
  auto core = MakeEac3Frame({});
  auto unit = Concat({core, RearPairFrame()});
  LogRecorder log;
  ChainRun run = RunChain(Repeat(unit, 10), {TEac3CoreExtractor::Create()});
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, Repeat(core, 10));
  EXPECT_EQ(log.Count("Extracting E-AC3 core..."), 1);
  ASSERT_EQ(run.capture->audioInits.size(), 1u);
  EXPECT_EQ(run.capture->audioInits[0].format, "eac3");
}

}  // namespace
}  // namespace sonvex::ac3test
