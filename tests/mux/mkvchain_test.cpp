// Chain building for a ".mkv" destination: codecs without a muxing stage are refused with
// "Unsupported video format." before anything is read; a damaged video gap file stops the
// build. Also the writer's frame time and the H.264 muxing stage on a short stream.
#include <gtest/gtest.h>

#include <fstream>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "mux/pushvideosource.h"
#include "run/runtracks.h"
#include "support/capture.h"
#include "support/e2e.h"
#include "video/h264muxer.h"

namespace sonvex::test {
namespace {

// A stage that only holds the details of a bare video stream of codec `format`.
UpStreamRef VideoDetailsOf(const std::string& format) {
  auto stage = TPassThrough::Create();
  stage->SetVideoDetails(format, format, false, false, 1920, 1080, 16, 9, 24000, 1001);
  return stage;
}

std::vector<std::string> BuildAndRun(const std::string& codec, const TempDir& dir,
                                     const std::string& gapContent = "") {
  std::string source = dir / "src.bin", dest = dir / "out.mkv";
  std::ofstream(source) << "0123456789";
  if (!gapContent.empty()) std::ofstream(dest + ".gaps", std::ios::binary) << gapContent;
  auto details = VideoDetailsOf(codec);
  TSourceInfo info;
  info.videoDetails = details->VideoDetails();
  TOptions options;
  options.sources = {source};
  TAction action;
  action.track = 1;
  action.dest = dest;
  options.actions = {action};
  std::vector<std::string> lines;
  SetLogHook([&lines](int level, const std::string& text) {
    lines.push_back(std::to_string(level) + " " + text);
  });
  TPassResult result;
  EXPECT_FALSE(RunTracks(options, info, result));
  SetLogHook(nullptr);
  EXPECT_FALSE(fs::exists(dest));
  return lines;
}

TEST(MkvChain, Refusals) {
  struct Case {
    const char* codec;
    std::string gaps;
    const char* line;
  };
  const Case cases[] = {
      {"hevc", "", "2 [v01] Unsupported video format."},
      {"h264", std::string(20, '\1'), "2 [v01] Video gap description file seems to be invalid."},
  };
  for (const Case& c : cases) {
    TempDir dir;
    auto lines = BuildAndRun(c.codec, dir, c.gaps);
    ASSERT_FALSE(lines.empty()) << c.codec;
    EXPECT_EQ(lines.back(), c.line);
  }
}

TEST(MkvChain, AverageTimePerFrame) {
  EXPECT_EQ(TPushVideoSource::AverageTimePerFrame(24000, 1001), 417083u);
  EXPECT_EQ(TPushVideoSource::AverageTimePerFrame(25000, 1000), 400000u);
  EXPECT_EQ(TPushVideoSource::AverageTimePerFrame(60000, 1001), 166833u);
  EXPECT_EQ(TPushVideoSource::AverageTimePerFrame(999, 1000), 0u);
}

TEST(MkvChain, AvcConfigurationFromHeaders) {
  std::string sps = {0x67, 0x64, 0x00, 0x29, char(0xAC)};
  std::string pps = {0x68, char(0xEE), 0x3C};
  std::string headers = std::string{0, 5} + sps + std::string{0, 3} + pps;
  std::string expected = std::string{1, 0x64, 0x00, 0x29, char(0xFF), char(0xE1)} +
                         std::string{0, 5} + sps + std::string{1, 0, 3} + pps;
  EXPECT_EQ(TPushVideoSource::AvcConfiguration(headers), expected);
  EXPECT_EQ(TPushVideoSource::AvcConfiguration(std::string{0, 3} + pps), "");
  EXPECT_EQ(TPushVideoSource::AvcConfiguration(std::string{0, 9} + sps), "");
}

// NAL units of a tiny stream: SPS (POC type 0, 4 bits of POC lsb), PPS, then per frame a
// delimiter and one slice with the given type and POC lsb.
std::string Nal(std::initializer_list<int> bytes) {
  std::string unit = {0, 0, 0, 1};
  for (int b : bytes) unit.push_back(char(b));
  return unit;
}

TEST(MkvChain, H264MuxerOrdersAShortStreamAtFinish) {
  auto muxer = Th264Muxer::Create();
  auto capture = TCapture::Create();
  muxer->SetUpStream(capture);
  ASSERT_TRUE(muxer->InitVideo("h264", false, false, 16, 16, 1, 1, 24000, 1000, ""));
  // profile 66, level 10; sps id 0 (1), log2_max_frame_num-4 = 0 (1), poc type 0 (1),
  // log2_max_poc_lsb-4 = 0 (1), 1 ref frame (010), no gaps (0), width-1 = 0 (1),
  // height-1 = 0 (1), frame_mbs_only (1), direct8x8 (1), no cropping (0), no VUI (0), stop bit.
  std::string sps = Nal({0x67, 66, 0, 10, 0xF4, 0xF2});
  std::string pps = Nal({0x68, 0b11001000});
  // Slices: first_mb 0 (1), slice_type (ue), pps 0 (1), frame_num (4 bits), [idr_pic_id 0
  // (1)], poc lsb (4 bits). IDR I (type 7 = 0001000), P (5 = 00110), B (6 = 00111).
  std::string idr = Nal({0x65, 0b10001000, 0b10000100, 0b00000000});  // I, frame 0, poc 0
  std::string p = Nal({0x41, 0x9A, 0x28});  // P, frame 1, poc 4
  std::string b = Nal({0x01, 0x9E, 0x44});  // B, frame 2, poc 2
  std::string aud = Nal({0x09, 0xF0});
  std::string eos = Nal({0x0A});
  int64_t frame = 10000000 / 24;
  std::vector<std::pair<std::string, int64_t>> units = {
      {aud, 0}, {sps, 0}, {pps, 0}, {idr, 0}, {aud, frame}, {p, frame},
      {aud, 2 * frame}, {b, 2 * frame}, {eos, 2 * frame}};
  for (auto& [unit, position] : units)
    ASSERT_TRUE(muxer->Write(0, false, reinterpret_cast<const uint8_t*>(unit.data()),
                             uint32_t(unit.size()), position, false));
  EXPECT_TRUE(capture->blocks.empty());  // a run-in waits for its end
  ASSERT_TRUE(muxer->Finish());
  // Decoding order I P B; presentation 0, 2, 1 frames; only the IDR frame is a sync point.
  ASSERT_EQ(capture->positions.size(), 3u);
  EXPECT_EQ(capture->positions[0], 0);
  EXPECT_EQ(capture->positions[1], 2 * frame);
  EXPECT_EQ(capture->positions[2], frame);
  EXPECT_EQ(capture->flushes, (std::vector<bool>{true, false, false}));
  // The first block: SPS, PPS, slice, each behind a 4 byte length; no delimiter, no end unit.
  std::string first = std::string{0, 0, 0, 6} + sps.substr(4) + std::string{0, 0, 0, 2} +
                      pps.substr(4) + std::string{0, 0, 0, 4} + idr.substr(4);
  ASSERT_EQ(capture->blocks[0], first.size());
  EXPECT_EQ(std::string(capture->bytes.begin(), capture->bytes.begin() + long(first.size())),
            first);
  EXPECT_EQ(capture->blocks[2], 4 + b.size() - 4);
}

}  // namespace
}  // namespace sonvex::test
