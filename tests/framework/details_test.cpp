// Description strings and container track lists.
#include "framework/details.h"

#include <gtest/gtest.h>

#include "framework/smallstages.h"

namespace sonvex {
namespace {

std::string Audio(const char* name, uint32_t channels, const char* layout, uint32_t duration,
                  uint32_t bits, uint32_t rate, uint32_t bitrate, int32_t dialnorm) {
  auto stage = TPassThrough::Create();
  stage->SetAudioDetails("x", name, layout, "", duration, channels, 0, bits, rate, bitrate,
                         dialnorm, 0, false);
  return stage->AudioDetails()->Description();
}

TEST(AudioDescription, BuildsEveryPart) {
  EXPECT_EQ(Audio("AC3", 6, "", 3723400, 0, 48000, 448000, 27),
            "AC3, 5.1 channels, 1:02:03, 448kbit/s, 48khz, dialnorm: -27dB");
  EXPECT_EQ(Audio("DTS Master Audio", 8, "", 0, 24, 96000, 1536000, 31),
            "DTS Master Audio, 7.1 channels, 24 bits, 1,536kbit/s, 96khz");
  EXPECT_EQ(Audio("E-AC3", 2, "", 0, 0, 44100, 0, 32), "E-AC3, 2.0 channels, 44.1khz, dialnorm: invalid!");
  // A zero hundreds digit ends the kHz text: 22050 reads as 22.
  EXPECT_EQ(Audio("RAW/PCM", 5, "", 0, 16, 22050, 0, 0), "RAW/PCM, 5 channels, 16 bits, 22khz");
  EXPECT_EQ(Audio("MP2", 2, "2/0", 1499, 0, 44150, 0, 0), "MP2, 2/0 channels, 0:00:01, 44.15khz");
}

TEST(AudioDescription, DerivesMaskAndLayout) {
  auto stage = TPassThrough::Create();
  stage->SetAudioDetails("pcm", "RAW/PCM", "", "", 0, 2, 0, 16, 48000, 0, 0, 0, false);
  EXPECT_EQ(stage->AudioDetails()->ChannelMask(), 3u);
  EXPECT_EQ(stage->AudioDetails()->ChannelLayout(), "2.0");
  stage->SetAudioDetails("pcm", "RAW/PCM", "", "", 0, 9, 0, 16, 48000, 0, 0, 0, false);
  EXPECT_EQ(stage->AudioDetails()->ChannelMask(), 0xFFFFFFFFu);
}

TEST(VideoDescription, ShorthandRateAspectAndPulldown) {
  auto stage = TPassThrough::Create();
  stage->SetVideoDetails("h264", "h264/AVC", false, false, 1920, 1080, 16, 9, 24000, 1001);
  EXPECT_EQ(stage->VideoDetails()->Description(), "h264/AVC, 1080p24 /1.001 (16:9)");
  stage->SetVideoDetails("mpeg2", "MPEG2", true, true, 720, 480, 4, 3, 30000, 1001);
  EXPECT_EQ(stage->VideoDetails()->Description(), "MPEG2, 480i30 /1.001 (4:3) with pulldown flags");
  stage->SetVideoDetails("vc1", "VC-1", false, false, 1280, 720, 1, 1, 60000, 1000);
  EXPECT_EQ(stage->VideoDetails()->Description(), "VC-1, 1280x720 60p");
  stage->SetVideoDetails("vc1", "VC-1", false, false, 1280, 720, 1, 1, 0, 1000);
  EXPECT_EQ(stage->VideoDetails()->Description(), "VC-1, unknown details");
}

TEST(Container, TracksSortByIdAndDelaysAreRelative) {
  auto stage = TPassThrough::Create();
  stage->SetContainerDetails("m2ts", "M2TS", 3599500);
  auto reader = TPassThrough::Create();
  stage->AddAudioTrack(0x1101, reader, 1500);
  stage->AddAudioTrack(0x1100, reader, 1600);
  stage->AddVideoTrack(0x1011, reader, 1400);
  auto details = stage->ContainerDetails();
  details->SetInitialDelay(1400);
  stage->AddAudioTrack(0x1102, reader, 1450);
  TTrackEntry entry;
  ASSERT_TRUE(details->GetAudio(0, entry));
  EXPECT_EQ(entry.id, 0x1100);
  EXPECT_EQ(entry.delay, 200);
  ASSERT_TRUE(details->GetAudio(2, entry));
  EXPECT_EQ(entry.delay, 50);
  EXPECT_FALSE(details->GetAudio(3, entry));
  EXPECT_EQ(details->Description(), "M2TS, 1 video track, 3 audio tracks, 1:00:00");
}

}  // namespace
}  // namespace sonvex
