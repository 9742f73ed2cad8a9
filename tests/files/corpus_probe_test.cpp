// The source probe against files nobody here wrote: its play time and first time stamp agree with
// ffprobe's packet stamps, duration and start time, and joined parts of one title read as their
// concatenation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>

#include "files/filetest_support.h"
#include "files/sourcefiles.h"
#include "support/capture.h"

namespace sonvex::filestest {
namespace {

const fs::path kCorpus = SONVEX_CORPUS;

double Field(const std::string& text, const std::string& key) {
  size_t at = text.find(key + "=");
  if (at == std::string::npos) return NAN;
  std::string value = text.substr(at + key.size() + 1);
  value = value.substr(0, value.find_first_of(" \n,|"));
  if (size_t slash = value.find('/'); slash != std::string::npos) {
    double d = std::atof(value.substr(slash + 1).c_str());
    return d > 0 ? std::atof(value.c_str()) / d : NAN;
  }
  return value.empty() || value == "N/A" ? NAN : std::atof(value.c_str());
}

// From ffprobe's packet list: the PTS of the video packets (or of all packets, if there is no
// video), in 90 kHz ticks.
std::set<int64_t> RunFfprobe(const fs::path& file) {
  std::string command = "ffprobe -v error -show_entries packet=pts,stream_index:stream=index,"
                        "codec_type -of compact \"" + file.string() + "\" 2>/dev/null";
  std::set<int64_t> all, video;
  std::vector<std::pair<int, int64_t>> packets;
  std::set<int> videoStreams;
  std::istringstream lines(Pipe(command));
  for (std::string text; std::getline(lines, text);) {
    if (text.rfind("stream|", 0) == 0 && text.find("codec_type=video") != std::string::npos)
      videoStreams.insert(int(Field(text, "index")));
    double pts = Field(text, "pts");
    if (text.rfind("packet|", 0) == 0 && !std::isnan(pts))
      packets.push_back({int(Field(text, "stream_index")), int64_t(pts)});
  }
  for (auto [stream, pts] : packets) {
    all.insert(pts);
    if (videoStreams.count(stream)) video.insert(pts);
  }
  return video.empty() ? all : video;
}

// The probe's stamps are those of ffprobe's packet list.
TEST(SourceProbeCorpus, PublicTransportStreamsMatchFfprobePackets) {
  if (!fs::exists(kCorpus / "public")) GTEST_SKIP() << "corpus absent";
  SKIP_WITHOUT_TOOL("ffprobe");
  int checked = 0;
  for (const char* folder : {"m2ts", "ts"}) {
    if (!fs::exists(kCorpus / "public" / folder)) continue;
    for (const auto& entry : fs::directory_iterator(kCorpus / "public" / folder)) {
      std::string ext = entry.path().extension().string();
      if (ext != ".m2ts" && ext != ".ts" && ext != ".mts") continue;
      SCOPED_TRACE(entry.path().string());
      std::set<int64_t> stamps = RunFfprobe(entry.path());
      ASSERT_FALSE(stamps.empty());
      auto source = TSourceFiles::Create({entry.path().string()}, 24000, 1001, 0);
      EXPECT_TRUE(source->IsTs());
      // The file begins with one of the packets' stamps (the first one behind the program
      // tables) and ends with the largest.
      int64_t first = source->FirstStamps()[0];
      EXPECT_TRUE(stamps.count(first)) << first;
      EXPECT_EQ(source->LastStamps()[0], *stamps.rbegin() + 3753);
      EXPECT_EQ(source->PlayTime(), *stamps.rbegin() - first);
      checked++;
    }
  }
  EXPECT_GT(checked, 0);
}

// Program streams: the span of the video time stamps is ffprobe's video duration less at most
// one frame, and the first stamp is the video's start.
TEST(SourceProbeCorpus, PublicProgramStreamsMatchFfprobe) {
  if (!fs::exists(kCorpus / "public" / "vob")) GTEST_SKIP() << "corpus absent";
  SKIP_WITHOUT_TOOL("ffprobe");
  int checked = 0;
  for (const auto& entry : fs::directory_iterator(kCorpus / "public" / "vob")) {
    if (entry.path().extension() != ".vob") continue;
    SCOPED_TRACE(entry.path().string());
    std::string command = "ffprobe -v error -select_streams v:0 -show_entries "
                          "stream=start_time,duration,r_frame_rate -of compact \"" +
                          entry.path().string() + "\" 2>/dev/null";
    std::string text = Pipe(command);
    double duration = Field(text, "duration"), start = Field(text, "start_time");
    double frame = 1 / Field(text, "r_frame_rate");
    ASSERT_FALSE(std::isnan(duration) || std::isnan(start) || std::isnan(frame)) << text;
    auto source = TSourceFiles::Create({entry.path().string()}, 30000, 1001, 0);
    EXPECT_TRUE(source->IsEvo());
    double playTime = double(source->PlayTime()) / 90000;
    EXPECT_LE(playTime, duration + 0.001);
    EXPECT_GE(playTime, duration - frame - 0.001);
    EXPECT_NEAR(double(source->FirstStamps()[0]) / 90000, start, 0.001);
    checked++;
  }
  EXPECT_GT(checked, 0);
}

TEST(SourceProbeCorpus, JoinedPartsOfOneTitleReadAsOne) {
  fs::path part1 = kCorpus / "gen" / "bd_join_part1.m2ts";
  fs::path part2 = kCorpus / "gen" / "bd_join_part2.m2ts";
  if (!fs::exists(part1) || !fs::exists(part2)) GTEST_SKIP() << "corpus absent";
  auto source = TSourceFiles::Create({part1.string(), part2.string()}, 24000, 1001, 0);
  ASSERT_TRUE(source->IsValid());
  auto capture = TCapture::Create();
  source->SetUpStream(capture);
  ASSERT_TRUE(source->Write(0, false, nullptr, 0, -1, false));
  std::vector<uint8_t> expected = ReadWhole(part1);
  std::vector<uint8_t> second = ReadWhole(part2);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_TRUE(capture->bytes == expected);
  // The boundary is still a seam, so that the stages behind start afresh, with a jump of less
  // than a millisecond (the parts' stamps were rounded to milliseconds by the muxer).
  ASSERT_EQ(capture->seams.size(), 2u);
  EXPECT_TRUE(capture->seams[0].first);
  EXPECT_LT(std::abs(capture->seams[0].second), 90);
  EXPECT_EQ(capture->containerInits.front(), "m2ts");
  // The two parts together last as long as the whole title.
  auto full = TSourceFiles::Create({(kCorpus / "gen" / "bd_join_full.m2ts").string()}, 24000,
                                   1001, 0);
  EXPECT_NEAR(double(source->PlayTime()), double(full->PlayTime()), 3753 + 90);
}

TEST(SourceProbeCorpus, UnrelatedFilesJoinWithOneSeam) {
  fs::path a = kCorpus / "gen" / "bd_join_part2.m2ts";
  fs::path b = kCorpus / "gen" / "bd_h264_multi.m2ts";
  if (!fs::exists(a) || !fs::exists(b)) GTEST_SKIP() << "corpus absent";
  auto source = TSourceFiles::Create({a.string(), b.string()}, 24000, 1001, 0);
  auto capture = TCapture::Create();
  source->SetUpStream(capture);
  ASSERT_TRUE(source->Write(0, false, nullptr, 0, -1, false));
  // b begins at its own start (about 1.48 s) long before a ended (about 11.5 s).
  int64_t jump = source->FirstStamps()[1] - source->LastStamps()[0];
  ASSERT_LT(jump, -90000);
  EXPECT_EQ(capture->seams, (std::vector<std::pair<bool, int64_t>>{{true, jump}, {false, jump}}));
}

}  // namespace
}  // namespace sonvex::filestest
