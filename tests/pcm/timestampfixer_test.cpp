// TTimestampFixer: gaps and overlaps of time stamped PCM, the 30 second tail, the gap file.
#include "pcm/timestampfixer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/capture.h"
#include "ts/tsbuilder.h"

namespace sonvex::tstest {
namespace {

constexpr uint32_t kBlockBytes = 4800 * 4;  // 100 ms of 48 kHz stereo 16-bit
constexpr int64_t kBlockTicks = 1000000;    // 100 ms in 100 ns ticks

struct FixerRun {
  std::string gapFile;
  std::shared_ptr<TTimestampFixer> fixer;
  std::shared_ptr<TCapture> capture = TCapture::Create();
  explicit FixerRun(const std::string& name, const std::string& gapData = "") {
    gapFile = (std::filesystem::temp_directory_path() / name).string();
    fixer = TTimestampFixer::Create(gapFile, gapData);
    fixer->SetUpStream(capture);
  }
  ~FixerRun() { std::filesystem::remove(gapFile); }
  // `seconds` of audio in 100 ms blocks; `jump(k)` is added to the stamp of block k.
  bool Run(int seconds, const std::function<int64_t(int)>& jump) {
    if (!fixer->InitAudio("pcm", 2, 16, 48000, false, 0)) return false;
    Bytes block(kBlockBytes, 0x11);
    for (int k = 0; k < seconds * 10; k++)
      if (!fixer->Write(0, false, block.data(), kBlockBytes, 7770000 + k * kBlockTicks + jump(k), false))
        return false;
    return fixer->Finish();
  }
};

TEST(TimestampFixer, ReportsAGapOlderThanThirtySecondsAndWritesTheFile) {
  LogCatcher log;
  FixerRun run("sonvex_fixer_gap.gaps");
  run.fixer->SetDelay(1, 100);
  ASSERT_TRUE(run.Run(40, [](int k) { return k >= 50 ? 2000000 : 0; }));
  EXPECT_TRUE(log.Has("Audio has a gap of 200ms at playtime 0:00:05."));
  EXPECT_TRUE(log.Has("The audio file was demuxed without making use of the gap/overlap information."));
  EXPECT_TRUE(log.Has("Please rerun the same sonvex command line. That will correct the gaps/overlaps."));
  ASSERT_EQ(run.fixer->Gaps().size(), 1u);
  EXPECT_EQ(run.fixer->Gaps()[0].time, 52000000 + 100 * 10000);
  EXPECT_EQ(run.fixer->Gaps()[0].drift, 2000000);
  ASSERT_TRUE(std::filesystem::exists(run.gapFile));
  EXPECT_EQ(std::filesystem::file_size(run.gapFile), sizeof(TGapEntry));
  // Every sample passes, without time stamps.
  EXPECT_EQ(run.capture->bytes.size(), size_t(400) * kBlockBytes);
  for (int64_t position : run.capture->positions) EXPECT_EQ(position, -1);
}

TEST(TimestampFixer, OverlapsAndSmallDriftsAndTheTail) {
  {
    LogCatcher log;
    FixerRun run("sonvex_fixer_overlap.gaps");
    ASSERT_TRUE(run.Run(40, [](int k) { return k >= 30 ? -500000 : 0; }));
    EXPECT_TRUE(log.Has("Audio overlaps for 50ms at playtime 0:00:03."));
  }
  {
    // 6 ms is under the 7 ms that make a file, and an old file goes away.
    FixerRun run("sonvex_fixer_small.gaps");
    std::ofstream(run.gapFile) << "old";
    ASSERT_TRUE(run.Run(40, [](int k) { return k >= 30 ? 60000 : 0; }));
    EXPECT_FALSE(std::filesystem::exists(run.gapFile));
  }
  {
    // A gap in the last 30 seconds is not reported.
    LogCatcher log;
    FixerRun run("sonvex_fixer_tail.gaps");
    ASSERT_TRUE(run.Run(40, [](int k) { return k >= 150 ? 2000000 : 0; }));
    EXPECT_FALSE(std::filesystem::exists(run.gapFile));
    EXPECT_TRUE(log.lines.empty());
  }
}

TEST(TimestampFixer, GivenGapDataOrNoStampsItOnlyCounts) {
  TGapEntry entry{1, 2};
  FixerRun run("sonvex_fixer_given.gaps", std::string(reinterpret_cast<char*>(&entry), sizeof entry));
  ASSERT_TRUE(run.Run(40, [](int k) { return k >= 50 ? 2000000 : 0; }));
  EXPECT_FALSE(std::filesystem::exists(run.gapFile));
  EXPECT_EQ(run.capture->bytes.size(), size_t(400) * kBlockBytes);
}

TEST(TimestampFixer, CompressedAudioPassesThroughWithItsStamps) {
  auto fixer = TTimestampFixer::Create("", "");
  auto capture = TCapture::Create();
  fixer->SetUpStream(capture);
  ASSERT_TRUE(fixer->InitAudio("ac3", 0, 0, 0, false, 0));
  Bytes frame(1792, 0x0B);
  ASSERT_TRUE(fixer->Write(0, false, frame.data(), uint32_t(frame.size()), 123, true));
  ASSERT_TRUE(fixer->Finish());
  EXPECT_EQ(capture->bytes, frame);
  EXPECT_EQ(capture->positions, (std::vector<int64_t>{123}));
  EXPECT_EQ(capture->audioInits[0].format, "ac3");
}

TEST(TimestampFixer, RefusesBadFormats) {
  LogCatcher log;
  auto fixer = TTimestampFixer::Create("", "");
  fixer->SetUpStream(TCapture::Create());
  EXPECT_FALSE(fixer->InitAudio("pcm", 2, 20, 48000, false, 0));
  EXPECT_TRUE(log.Has("The timestamp fixer received a non-supported data format."));
  auto second = TTimestampFixer::Create("", "");
  second->SetUpStream(TCapture::Create());
  uint8_t byte = 0;
  EXPECT_FALSE(second->Write(0, false, &byte, 1, -1, false));
  EXPECT_TRUE(log.Has("The timestamp fixer didn't receive the format information."));
}

}  // namespace
}  // namespace sonvex::tstest
