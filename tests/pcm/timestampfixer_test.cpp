// TTimestampFixer: gaps and overlaps of time stamped PCM, the 30 second tail, the gap file.
#include "pcm/timestampfixer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "framework/console.h"
#include "support/capture.h"
#include "support/e2e.h"

namespace sonvex::pcmtest {
using namespace ::sonvex::test;
namespace {

constexpr uint32_t kBlockBytes = 4800 * 4;  // 100 ms of 48 kHz stereo 16-bit
constexpr int64_t kBlockTicks = 1000000;    // 100 ms in 100 ns ticks

// A fixer writing its gap file into a scratch folder, and the lines it logs.
struct FixerRun {
  TempDir dir;
  std::string gapFile = dir / "out.gaps";
  std::shared_ptr<TTimestampFixer> fixer;
  std::shared_ptr<TCapture> capture = TCapture::Create();
  std::vector<std::string> log;
  explicit FixerRun(const std::string& gapData = "") {
    fixer = TTimestampFixer::Create(gapFile, gapData);
    fixer->SetUpStream(capture);
  }
  // `seconds` of audio in 100 ms blocks; `jump(k)` is added to the stamp of block k.
  bool Run(int seconds, const std::function<int64_t(int)>& jump) {
    SetLogHook([this](int, const std::string& text) { log.push_back(text); });
    bool ok = fixer->InitAudio("pcm", 2, 16, 48000, false, 0);
    std::vector<uint8_t> block(kBlockBytes, 0x11);
    for (int k = 0; ok && k < seconds * 10; k++)
      ok = fixer->Write(0, false, block.data(), kBlockBytes, 7770000 + k * kBlockTicks + jump(k), false);
    ok = ok && fixer->Finish();
    SetLogHook(nullptr);
    return ok;
  }
  bool Logged(const std::string& text) const {
    return std::find(log.begin(), log.end(), text) != log.end();
  }
};

TEST(TimestampFixer, ReportsAGapOlderThanThirtySecondsAndWritesTheFile) {
  FixerRun run;
  run.fixer->SetDelay(1, 100);
  ASSERT_TRUE(run.Run(40, [](int k) { return k >= 50 ? 2000000 : 0; }));
  EXPECT_TRUE(run.Logged("Audio has a gap of 200ms at playtime 0:00:05."));
  EXPECT_TRUE(run.Logged("The audio file was demuxed without making use of the gap/overlap information."));
  EXPECT_TRUE(run.Logged("Please rerun the same sonvex command line. That will correct the gaps/overlaps."));
  ASSERT_EQ(run.fixer->Gaps().size(), 1u);
  EXPECT_EQ(run.fixer->Gaps()[0].time, 52000000 + 100 * 10000);
  EXPECT_EQ(run.fixer->Gaps()[0].drift, 2000000);
  EXPECT_EQ(fs::file_size(run.gapFile), sizeof(TGapEntry));
  // Every sample passes, without time stamps.
  EXPECT_EQ(run.capture->bytes.size(), size_t(400) * kBlockBytes);
  for (int64_t position : run.capture->positions) EXPECT_EQ(position, -1);
}

TEST(TimestampFixer, OverlapsSmallDriftsTheTailAndGivenGapData) {
  FixerRun overlap;
  ASSERT_TRUE(overlap.Run(40, [](int k) { return k >= 30 ? -500000 : 0; }));
  EXPECT_TRUE(overlap.Logged("Audio overlaps for 50ms at playtime 0:00:03."));
  // 6 ms is under the 7 ms that make a file, and an old file goes away.
  FixerRun small;
  std::ofstream(small.gapFile) << "old";
  ASSERT_TRUE(small.Run(40, [](int k) { return k >= 30 ? 60000 : 0; }));
  EXPECT_FALSE(fs::exists(small.gapFile));
  // A gap in the last 30 seconds is not reported.
  FixerRun tail;
  ASSERT_TRUE(tail.Run(40, [](int k) { return k >= 150 ? 2000000 : 0; }));
  EXPECT_FALSE(fs::exists(tail.gapFile));
  EXPECT_TRUE(tail.log.empty());
  // Given gap data (a rerun), it only passes the samples on.
  TGapEntry entry{1, 2};
  FixerRun given(std::string(reinterpret_cast<char*>(&entry), sizeof entry));
  ASSERT_TRUE(given.Run(40, [](int k) { return k >= 50 ? 2000000 : 0; }));
  EXPECT_FALSE(fs::exists(given.gapFile));
  EXPECT_EQ(given.capture->bytes.size(), size_t(400) * kBlockBytes);
}

// Compressed audio keeps its stamps; PCM of 20 bits is refused.
TEST(TimestampFixer, CompressedAudioPassesAndOddPcmIsRefused) {
  auto fixer = TTimestampFixer::Create("", "");
  auto capture = TCapture::Create();
  fixer->SetUpStream(capture);
  ASSERT_TRUE(fixer->InitAudio("ac3", 0, 0, 0, false, 0));
  std::vector<uint8_t> frame(1792, 0x0B);
  ASSERT_TRUE(fixer->Write(0, false, frame.data(), uint32_t(frame.size()), 123, true));
  ASSERT_TRUE(fixer->Finish());
  EXPECT_EQ(capture->bytes, frame);
  EXPECT_EQ(capture->positions, (std::vector<int64_t>{123}));

  FixerRun odd;
  SetLogHook([&](int, const std::string& text) { odd.log.push_back(text); });
  EXPECT_FALSE(odd.fixer->InitAudio("pcm", 2, 20, 48000, false, 0));
  SetLogHook(nullptr);
  EXPECT_TRUE(odd.Logged("The timestamp fixer received a non-supported data format."));
}

}  // namespace
}  // namespace sonvex::pcmtest
