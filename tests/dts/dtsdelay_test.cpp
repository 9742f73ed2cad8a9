// TDtsDelayer and TDtsGapRealizer: whole frames repeated or dropped.
#include "dts/dtsbitstream.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtstestutil.h"

namespace sonvex::dtstest {
namespace {

// Frames told apart by their fill byte (the frame's number) and, if `sizes`, by their size.
std::vector<std::vector<uint8_t>> Frames(int count, bool sizes = false, CoreFields f = {}) {
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < count; i++) {
    f.fillByte = uint8_t(i);
    if (sizes) f.coreSize = 1000 + uint32_t(i % 3) * 8;
    frames.push_back(CoreFrame(f));
  }
  return frames;
}

// The frame numbers the capture received, from the fill byte of each frame.
std::vector<int> Numbers(const TCapture& capture) {
  std::vector<int> numbers;
  for (size_t at = 0; at + 8 <= capture.bytes.size();) {
    uint32_t size = DtsCoreSize(capture.bytes.data() + at);
    numbers.push_back(capture.bytes[at + size - 1]);
    at += size;
  }
  return numbers;
}

// The numbers from..to-1, then each further pair of arguments' range behind them.
std::vector<int> Range(std::initializer_list<std::pair<int, int>> ranges) {
  std::vector<int> out;
  for (auto [from, to] : ranges)
    for (int i = from; i < to; i++) out.push_back(i);
  return out;
}
std::vector<int> Range(int from, int to) { return Range({{from, to}}); }

// Each frame one block through `stage`, announced at `rate`.
struct StageRun {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  LogLines log;
};

StageRun RunDelay(int32_t delay, uint32_t rate, const std::vector<std::vector<uint8_t>>& frames) {
  StageRun run;
  TLog logged;
  auto delayer = TDtsDelayer::Create();
  delayer->AppendUpStream(run.capture);
  delayer->SetDelay(0, delay);
  EXPECT_TRUE(delayer->InitAudio("dts", 6, 24, rate, false, 123456));
  for (auto& frame : frames)
    EXPECT_TRUE(delayer->Write(0, false, frame.data(), uint32_t(frame.size()), -1, false));
  EXPECT_TRUE(delayer->Finish());
  // The delayer applies the delay and doesn't hand it on.
  EXPECT_TRUE(run.capture->delaysSeen.empty());
  run.log = logged.lines;
  return run;
}

TEST(DtsDelayer, RoundsToWholeFrames) {
  auto frames = Frames(20);
  // 1 ms is far below half a frame: nothing moves, but the message comes and the length stays.
  auto run = RunDelay(1, 48000, frames);
  EXPECT_EQ(Numbers(*run.capture), Range(0, 20));
  EXPECT_EQ(run.log, (LogLines{{0, "Applying DTS delay..."}}));
  EXPECT_EQ(run.capture->audioInits.at(0).totalSize, 123456);
  // 100 ms = 4800 samples = 9.4 frames of 512: nine extra copies of the first frame; the length
  // is no longer known.
  run = RunDelay(100, 48000, frames);
  std::vector<int> expected(9, 0);
  for (int i : Range(0, 20)) expected.push_back(i);
  EXPECT_EQ(Numbers(*run.capture), expected);
  EXPECT_EQ(run.capture->audioInits.at(0).totalSize, 0);
  // 16 ms is 1.5 frames: half away from zero, both ways.
  EXPECT_EQ(Numbers(*RunDelay(16, 48000, frames).capture).size(), 22u);
  EXPECT_EQ(Numbers(*RunDelay(-16, 48000, frames).capture), Range(2, 20));
  EXPECT_EQ(Numbers(*RunDelay(-100, 48000, frames).capture), Range(9, 20));
  EXPECT_TRUE(RunDelay(0, 48000, frames).log.empty());
}

TEST(DtsDelayer, NinetySixKhzCountsDoubleFrames) {
  // 100 ms at 96 kHz with 1024-sample frames is 9.4 frames, not 18.75.
  auto run = RunDelay(100, 96000, Frames(5, false, {.extId = 2, .extAudio = true}));
  EXPECT_EQ(Numbers(*run.capture).size(), 5u + 9u);
}

// Gap data as the chain builder hands it: a zero record, then (time, drift) in frames of 512
// samples at 48 kHz, turned into ticks.
std::string GapData(const std::vector<std::pair<double, double>>& entries) {
  std::vector<TGapEntry> records = {{0, 0}};
  const double frameTicks = 10000.0 * 512 * 1000 / 48000;
  for (auto [time, drift] : entries)
    records.push_back({int64_t(time * frameTicks + 0.5), int64_t(drift * frameTicks + 0.5)});
  std::string blob;
  for (auto& record : records) {
    for (int64_t value : {record.time, record.drift})
      for (int i = 0; i < 8; i++) blob += char(uint64_t(value) >> (8 * i) & 0xFF);
  }
  return blob;
}

StageRun RunGaps(const std::string& gapData, const std::vector<std::vector<uint8_t>>& frames,
               uint32_t rate = 48000) {
  StageRun run;
  TLog logged;
  auto realizer = TDtsGapRealizer::Create(gapData);
  realizer->AppendUpStream(run.capture);
  EXPECT_TRUE(realizer->InitAudio("dts", 6, 24, rate, false, 0));
  for (auto& frame : frames)
    EXPECT_TRUE(realizer->Write(0, false, frame.data(), uint32_t(frame.size()), 5, false));
  EXPECT_TRUE(realizer->Finish());
  run.log = logged.lines;
  return run;
}

TEST(DtsGapRealizer, GapRepeatsRecentFramesAndOverlapDrops) {
  // A gap of 5 frames after frame 9 (time is where the frames resume: 10 + 5).
  auto run = RunGaps(GapData({{15, 5}}), Frames(20));
  EXPECT_EQ(Numbers(*run.capture), Range({{0, 10}, {5, 20}}));
  EXPECT_EQ(run.log, (LogLines{{0, "Realizing DTS gaps..."}}));
  // An overlap of 3 frames at frame 10 drops frames 10 to 12.
  EXPECT_EQ(Numbers(*RunGaps(GapData({{10, -3}}), Frames(20)).capture), Range({{0, 10}, {13, 20}}));
  // Cumulated drift: the second entry adds 2 more frames, not 7.
  EXPECT_EQ(Numbers(*RunGaps(GapData({{15, 5}, {27, 7}}), Frames(30)).capture),
            Range({{0, 10}, {5, 20}, {18, 30}}));
  // Only the zero record: the walk ends at once, the first frame is held back, the rest pass.
  run = RunGaps(GapData({}), Frames(5));
  EXPECT_EQ(Numbers(*run.capture), Range(1, 5));
  EXPECT_TRUE(run.log.empty());
}

TEST(DtsGapRealizer, LongGapCyclesTheHundredNewestFramesAtTheirSizes) {
  auto frames = Frames(130, true);
  // 150 frames missing after frame 119.
  auto run = RunGaps(GapData({{270, 150}}), frames);
  // Compare the bytes, which carries the sizes of the repeated frames.
  std::vector<uint8_t> bytes;
  for (int i : Range({{0, 120}, {20, 120}, {70, 120}, {120, 130}})) bytes.insert(bytes.end(), frames[size_t(i)].begin(), frames[size_t(i)].end());
  EXPECT_EQ(run.capture->bytes, bytes);
}

TEST(DtsGapRealizer, EmptyFlushBlockIsNotPassedOn) {
  auto realizer = TDtsGapRealizer::Create(GapData({{15, 5}}));
  auto capture = TCapture::Create();
  realizer->AppendUpStream(capture);
  realizer->InitAudio("dts", 6, 24, 48000, false, 0);
  EXPECT_TRUE(realizer->Write(0, false, nullptr, 0, -1, true));
  EXPECT_TRUE(capture->blocks.empty());
}

// Values no tracker writes end neither in an overflow nor in a stage that runs for ever: one
// step is held to ten minutes of play time.
TEST(DtsGapRealizer, WildGapFileIsBounded) {
  std::string blob(16, '\0');
  for (int64_t value : {INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN})
    for (int i = 0; i < 8; i++) blob += char(uint64_t(value) >> (8 * i) & 0xFF);
  auto run = RunGaps(blob, Frames(3, false, {.coreSize = 96}));
  const uint64_t tenMinutes = 10 * 60 * 48000 / 512;
  EXPECT_LE(run.capture->bytes.size(), (tenMinutes + 3) * 96);
  EXPECT_GE(run.capture->bytes.size(), tenMinutes * 96);
}

}  // namespace
}  // namespace sonvex::dtstest
