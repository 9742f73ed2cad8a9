// TDtsDelayer and TDtsGapRealizer: whole frames repeated or dropped.
#include "dts/dtsbitstream.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtstestutil.h"

namespace sonvex {
namespace {

using dtstest::CoreFields;
using dtstest::CoreFrame;
using dtstest::TCapture;

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

std::vector<int> Range(int from, int to) {
  std::vector<int> out;
  for (int i = from; i < to; i++) out.push_back(i);
  return out;
}

struct DelayRun {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  std::vector<std::pair<int, std::string>> log;
};

DelayRun RunDelay(int32_t delay, uint32_t rate, const std::vector<std::vector<uint8_t>>& frames) {
  DelayRun run;
  dtstest::LogCollector collect(run.log);
  auto delayer = TDtsDelayer::Create();
  delayer->AppendUpStream(run.capture);
  delayer->SetDelay(0, delay);
  EXPECT_TRUE(delayer->InitAudio("dts", 6, 24, rate, false, 123456));
  for (auto& frame : frames)
    EXPECT_TRUE(delayer->Write(0, false, frame.data(), uint32_t(frame.size()), -1, false));
  EXPECT_TRUE(delayer->Finish());
  // The delayer applies the delay and doesn't hand it on.
  EXPECT_TRUE(run.capture->delaysSeen.empty());
  return run;
}

TEST(DtsDelayer, RoundsToWholeFrames) {
  auto frames = Frames(20);
  // 1 ms is far below half a frame: nothing moves, but the message comes and the length stays.
  auto run = RunDelay(1, 48000, frames);
  EXPECT_EQ(Numbers(*run.capture), Range(0, 20));
  EXPECT_EQ(run.log, (std::vector<std::pair<int, std::string>>{{0, "Applying DTS delay..."}}));
  ASSERT_EQ(run.capture->audioInits.size(), 1u);
  EXPECT_EQ(run.capture->audioInits[0].totalSize, 123456);
  // 100 ms = 4800 samples = 9.4 frames of 512: nine extra copies of the first frame.
  run = RunDelay(100, 48000, frames);
  std::vector<int> expected(9, 0);
  auto rest = Range(0, 20);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(Numbers(*run.capture), expected);
  EXPECT_EQ(run.capture->audioInits[0].totalSize, 0);
  // 16 ms is 1.5 frames: half away from zero, both ways.
  run = RunDelay(16, 48000, frames);
  EXPECT_EQ(Numbers(*run.capture).size(), 22u);
  run = RunDelay(-16, 48000, frames);
  EXPECT_EQ(Numbers(*run.capture), Range(2, 20));
  run = RunDelay(-100, 48000, frames);
  EXPECT_EQ(Numbers(*run.capture), Range(9, 20));
  // No delay: no message.
  run = RunDelay(0, 48000, frames);
  EXPECT_TRUE(run.log.empty());
  EXPECT_EQ(Numbers(*run.capture), Range(0, 20));
}

TEST(DtsDelayer, NinetySixKhzCountsDoubleFrames) {
  CoreFields f;
  f.extAudio = true;
  f.extId = 2;
  // 100 ms at 96 kHz with 1024-sample frames is 9.4 frames, not 18.75.
  auto run = RunDelay(100, 96000, Frames(5, false, f));
  EXPECT_EQ(Numbers(*run.capture).size(), 5u + 9u);
  EXPECT_EQ(run.capture->audioInits[0].sampleRate, 96000u);
}

TEST(DtsDelayer, Messages) {
  std::vector<std::pair<int, std::string>> lines;
  dtstest::LogCollector collect(lines);
  auto delayer = TDtsDelayer::Create();
  delayer->AppendUpStream(TCapture::Create());
  auto frame = CoreFrame(CoreFields{});
  EXPECT_FALSE(delayer->Write(0, false, frame.data(), uint32_t(frame.size()), -1, false));
  auto other = TDtsDelayer::Create();
  EXPECT_FALSE(other->InitAudio("eac3", 6, 24, 48000, false, 0));
  auto lonely = TDtsDelayer::Create();
  EXPECT_FALSE(lonely->Write(0, false, frame.data(), uint32_t(frame.size()), -1, false));
  EXPECT_EQ(lines, (std::vector<std::pair<int, std::string>>{
                       {2, "The DTS delayer didn't receive the format information."},
                       {2, "The DTS delayer received a non-supported data format."},
                       {2, "The DTS delayer upstream property is not set."}}));
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

struct GapRun {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  std::vector<std::pair<int, std::string>> log;
  std::vector<uint8_t> expectedBytes;
};

GapRun RunGaps(const std::string& gapData, const std::vector<std::vector<uint8_t>>& frames,
               uint32_t rate = 48000) {
  GapRun run;
  dtstest::LogCollector collect(run.log);
  auto realizer = TDtsGapRealizer::Create(gapData);
  realizer->AppendUpStream(run.capture);
  EXPECT_TRUE(realizer->InitAudio("dts", 6, 24, rate, false, 0));
  for (auto& frame : frames)
    EXPECT_TRUE(realizer->Write(0, false, frame.data(), uint32_t(frame.size()), 5, false));
  EXPECT_TRUE(realizer->Finish());
  return run;
}

TEST(DtsGapRealizer, GapRepeatsRecentFramesAndOverlapDrops) {
  // A gap of 5 frames after frame 9 (time is where the frames resume: 10 + 5).
  auto run = RunGaps(GapData({{15, 5}}), Frames(20));
  std::vector<int> expected = Range(0, 10);
  for (int i : Range(5, 20)) expected.push_back(i);
  EXPECT_EQ(Numbers(*run.capture), expected);
  EXPECT_EQ(run.log, (std::vector<std::pair<int, std::string>>{{0, "Realizing DTS gaps..."}}));
  // An overlap of 3 frames at frame 10 drops frames 10 to 12.
  run = RunGaps(GapData({{10, -3}}), Frames(20));
  expected = Range(0, 10);
  for (int i : Range(13, 20)) expected.push_back(i);
  EXPECT_EQ(Numbers(*run.capture), expected);
  // Cumulated drift: the second entry adds 2 more frames, not 7.
  run = RunGaps(GapData({{15, 5}, {27, 7}}), Frames(30));
  expected = Range(0, 10);
  for (int i : Range(5, 20)) expected.push_back(i);
  for (int i : Range(18, 30)) expected.push_back(i);
  EXPECT_EQ(Numbers(*run.capture), expected);
}

TEST(DtsGapRealizer, LongGapCyclesTheHundredNewestFramesAtTheirSizes) {
  auto frames = Frames(130, true);
  // 150 frames missing after frame 119.
  auto run = RunGaps(GapData({{270, 150}}), frames);
  std::vector<int> expected = Range(0, 120);
  for (int i : Range(20, 120)) expected.push_back(i);
  for (int i : Range(70, 120)) expected.push_back(i);
  for (int i : Range(120, 130)) expected.push_back(i);
  // Compare the bytes, which carries the sizes of the repeated frames.
  std::vector<uint8_t> bytes;
  for (int i : expected) bytes.insert(bytes.end(), frames[size_t(i)].begin(), frames[size_t(i)].end());
  EXPECT_EQ(run.capture->bytes, bytes);
}

TEST(DtsGapRealizer, PassThroughAndEmptyBlocks) {
  // Only the zero record: the walk ends at once, the first frame is held back, the rest pass.
  auto run = RunGaps(GapData({}), Frames(5));
  EXPECT_EQ(Numbers(*run.capture), Range(1, 5));
  EXPECT_TRUE(run.log.empty());
  // An empty block with flush set isn't passed on.
  auto realizer = TDtsGapRealizer::Create(GapData({{15, 5}}));
  auto capture = TCapture::Create();
  realizer->AppendUpStream(capture);
  realizer->InitAudio("dts", 6, 24, 48000, false, 0);
  EXPECT_TRUE(realizer->Write(0, false, nullptr, 0, -1, true));
  EXPECT_TRUE(capture->blocks.empty());
  // Messages.
  std::vector<std::pair<int, std::string>> lines;
  dtstest::LogCollector collect(lines);
  EXPECT_FALSE(TDtsGapRealizer::Create("")->InitAudio("dts", 6, 24, 48000, false, 0));
  auto other = TDtsGapRealizer::Create("");
  other->AppendUpStream(TCapture::Create());
  EXPECT_FALSE(other->InitAudio("mp2", 2, 16, 48000, false, 0));
  EXPECT_EQ(lines, (std::vector<std::pair<int, std::string>>{
                       {2, "The dts gap realizer upstream property is not set."},
                       {2, "The dts gap realizer received a non-supported data format."}}));
}

}  // namespace
}  // namespace sonvex

namespace sonvex {
namespace {

// Values no tracker writes end neither in an overflow nor in a stage that runs for ever: one
// step is held to ten minutes of play time.
TEST(DtsGapRealizer, WildGapFileIsBounded) {
  std::string blob(16, '\0');
  for (int64_t value : {INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN})
    for (int i = 0; i < 8; i++) blob += char(uint64_t(value) >> (8 * i) & 0xFF);
  CoreFields small;
  small.coreSize = 96;
  auto run = RunGaps(blob, Frames(3, false, small));
  const uint64_t tenMinutes = 10 * 60 * 48000 / 512;
  EXPECT_LE(run.capture->bytes.size(), (tenMinutes + 3) * 96);
  EXPECT_GE(run.capture->bytes.size(), tenMinutes * 96);
}

}  // namespace
}  // namespace sonvex
