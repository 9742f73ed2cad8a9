// Th264Reader on synthetic streams: the announcement (size, cropping, aspect, rate, pulldown,
// rate switches), refusals with their exact words, unit timing, initial delay, the gap table and
// its replay, and the parser battery.
#include "video/h264reader.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "framework/bitreader.h"
#include "support/battery.h"
#include "video/videobitwriter.h"
#include "video/videotestutil.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;
namespace {

struct SpsParams {
  uint32_t widthMbs = 120, heightUnits = 68;  // 1920 x 1088
  bool frameMbsOnly = true;
  uint32_t cropBottom = 0;
  uint32_t aspectIdc = 1;
  bool timing = true;
  uint32_t units = 1001, scale = 48000;
  bool picStruct = false;
};

std::vector<uint8_t> MakeSps(const SpsParams& p) {
  BitWriter w;
  w.Put(8, 100);                     // profile_idc: High
  w.Put(8, 0);                       // constraint flags
  w.Put(8, 41);                      // level_idc
  w.Ue(0);                           // seq_parameter_set_id
  w.Ue(1);                           // chroma_format_idc: 4:2:0
  w.Ue(0);                           // bit_depth_luma_minus8
  w.Ue(0);                           // bit_depth_chroma_minus8
  w.PutBit(0);                       // qpprime_y_zero_transform_bypass_flag
  w.PutBit(0);                       // seq_scaling_matrix_present_flag
  w.Ue(0);                           // log2_max_frame_num_minus4
  w.Ue(0);                           // pic_order_cnt_type
  w.Ue(2);                           // log2_max_pic_order_cnt_lsb_minus4
  w.Ue(4);                           // max_num_ref_frames
  w.PutBit(0);                       // gaps_in_frame_num_value_allowed_flag
  w.Ue(p.widthMbs - 1);              // pic_width_in_mbs_minus1
  w.Ue(p.heightUnits - 1);           // pic_height_in_map_units_minus1
  w.PutBit(p.frameMbsOnly);          // frame_mbs_only_flag
  if (!p.frameMbsOnly) w.PutBit(1);  // mb_adaptive_frame_field_flag
  w.PutBit(1);                       // direct_8x8_inference_flag
  w.PutBit(p.cropBottom != 0);       // frame_cropping_flag
  if (p.cropBottom) {
    w.Ue(0);                         // frame_crop_left_offset
    w.Ue(0);                         // frame_crop_right_offset
    w.Ue(0);                         // frame_crop_top_offset
    w.Ue(p.cropBottom);              // frame_crop_bottom_offset
  }
  w.PutBit(1);                       // vui_parameters_present_flag
  w.PutBit(1);                       // aspect_ratio_info_present_flag
  w.Put(8, p.aspectIdc);             // aspect_ratio_idc
  w.PutBit(0);                       // overscan_info_present_flag
  w.PutBit(0);                       // video_signal_type_present_flag
  w.PutBit(0);                       // chroma_loc_info_present_flag
  w.PutBit(p.timing);                // timing_info_present_flag
  if (p.timing) {
    w.Put(32, p.units);              // num_units_in_tick
    w.Put(32, p.scale);              // time_scale
    w.PutBit(1);                     // fixed_frame_rate_flag
  }
  w.PutBit(0);                       // nal_hrd_parameters_present_flag
  w.PutBit(0);                       // vcl_hrd_parameters_present_flag
  w.PutBit(p.picStruct);             // pic_struct_present_flag
  w.PutBit(0);                       // bitstream_restriction_flag
  w.Trailing();
  return StartCodeUnit(0x67, w.bytes, true);
}

std::vector<uint8_t> Aud() { return StartCodeUnit(0x09, {0xF0}, true); }
std::vector<uint8_t> Pps() { return StartCodeUnit(0x68, {0xEE, 0x3C, 0x80}); }
// Picture timing SEI without HRD delays: pic_struct and the trailing bits.
std::vector<uint8_t> PictureTiming(uint32_t picStruct) {
  return StartCodeUnit(0x06, {0x01, 0x01, uint8_t(picStruct << 4 | 0x08), 0x80});
}
std::vector<uint8_t> Slice(bool idr) {
  std::vector<uint8_t> payload(60, 0x5A);
  return StartCodeUnit(idr ? 0x65 : 0x41, payload);
}

std::vector<uint8_t> MakeStream(const SpsParams& p, int frames, int picStruct = -1) {
  std::vector<uint8_t> stream;
  for (int i = 0; i < frames; i++) {
    Append(stream, Aud());
    if (i == 0) {
      Append(stream, MakeSps(p));
      Append(stream, Pps());
    }
    if (picStruct >= 0) Append(stream, PictureTiming(uint32_t(picStruct)));
    Append(stream, Slice(i == 0));
  }
  return stream;
}

std::string Describe(const std::shared_ptr<Th264Reader>& reader, const std::vector<uint8_t>& s) {
  ReaderRun run = PushStream(reader, s);
  EXPECT_TRUE(run.ok);
  return reader->VideoDetails()->Description();
}

TEST(H264Reader, AnnouncesSizeAspectAndRate) {
  SpsParams p;
  EXPECT_EQ(Describe(Th264Reader::Create(), MakeStream(p, 3)), "h264/AVC, 1080p24 /1.001 (16:9)");
  p.cropBottom = 4;  // 8 lines of 4:2:0 cropped away: a real 1080
  EXPECT_EQ(Describe(Th264Reader::Create(), MakeStream(p, 3)), "h264/AVC, 1080p24 /1.001 (16:9)");
  SpsParams small;
  small.widthMbs = 80, small.heightUnits = 45, small.units = 1, small.scale = 100;
  EXPECT_EQ(Describe(Th264Reader::Create(), MakeStream(small, 3)), "h264/AVC, 1280x720 50p (16:9)");
  SpsParams interlaced;
  interlaced.frameMbsOnly = false, interlaced.heightUnits = 34, interlaced.units = 1;
  interlaced.scale = 50;
  auto reader = Th264Reader::Create();
  EXPECT_EQ(Describe(reader, MakeStream(interlaced, 3)), "h264/AVC, 1080i50 (16:9)");
  EXPECT_TRUE(reader->VideoDetails()->Interlaced());
  SpsParams anamorphic;
  anamorphic.widthMbs = 45, anamorphic.heightUnits = 30, anamorphic.aspectIdc = 3;  // 10:11
  EXPECT_EQ(Describe(Th264Reader::Create(), MakeStream(anamorphic, 3)),
            "h264/AVC, 480p24 /1.001 (15:11)");
}

TEST(H264Reader, PictureTimingPulldownAndRateSwitches) {
  SpsParams film;
  film.scale = 60000, film.picStruct = true;  // 60000/1001 progressive with picture timing
  auto reader = Th264Reader::Create();
  EXPECT_EQ(Describe(reader, MakeStream(film, 3, 3)),
            "h264/AVC, 1080p24 /1.001 (16:9) with pulldown flags");
  EXPECT_TRUE(reader->VideoDetails()->Pulldown());
  EXPECT_EQ(Describe(Th264Reader::Create(), MakeStream(film, 3, 0)), "h264/AVC, 1080p30 /1.001 (16:9)");
  // -30p turns a 24p film into 30p; -24p does the reverse.
  EXPECT_EQ(Describe(Th264Reader::Create("", true), MakeStream(film, 3, 3)),
            "h264/AVC, 1080p30 /1.001 (16:9) with pulldown flags");
  EXPECT_EQ(Describe(Th264Reader::Create("", false, true), MakeStream(film, 3, 0)),
            "h264/AVC, 1080p24 /1.001 (16:9)");
  // -slowdown on a 24p stream is silently dropped; -speedup makes it 25p.
  SpsParams p;
  EXPECT_EQ(Describe(Th264Reader::Create("", false, false, false, true), MakeStream(p, 3)),
            "h264/AVC, 1080p24 /1.001 (16:9)");
  EXPECT_EQ(Describe(Th264Reader::Create("", false, false, true, false), MakeStream(p, 3)),
            "h264/AVC, 1080p25 (16:9)");
}

TEST(H264Reader, RefusesWithExactWords) {
  SpsParams p;
  std::vector<uint8_t> stream = MakeStream(p, 3);
  std::vector<uint8_t> spsFirst(stream.begin() + long(Aud().size()), stream.end());
  ReaderRun run = PushStream(Th264Reader::Create(), spsFirst);
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This doesn't seem to be a valid h264/AVC stream."});

  p.aspectIdc = 17;
  run = PushStream(Th264Reader::Create(), MakeStream(p, 3));
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This h264 aspect ratio is currently not supported."});

  // Two SPS ahead of any PPS: the announcement never came.
  SpsParams q;
  std::vector<uint8_t> twice = Aud();
  Append(twice, MakeSps(q));
  Append(twice, Slice(true));
  Append(twice, Aud());
  Append(twice, MakeSps(q));
  Append(twice, Slice(false));
  run = PushStream(Th264Reader::Create(), twice);
  EXPECT_EQ(run.lines, std::vector<std::string>{
                           "2 This h264 stream doesn't seem to contain a picture parameter set."});
  q.scale = 60000, q.picStruct = true;
  twice = Aud();
  Append(twice, MakeSps(q));
  Append(twice, Pps());
  Append(twice, Slice(true));
  Append(twice, Aud());
  Append(twice, MakeSps(q));
  run = PushStream(Th264Reader::Create(), twice);
  EXPECT_EQ(run.lines,
            std::vector<std::string>{
                "2 This h264 stream doesn't seem to contain picture timing information."});

  auto reader = Th264Reader::Create();
  reader->AppendUpStream(TCapture::Create());
  reader->SetSilent(true);
  EXPECT_FALSE(reader->InitVideo("vc1", false, false, 0, 0, 0, 0, 0, 0, ""));
  EXPECT_TRUE(Th264Reader::Create()->InitVideo("h264", false, false, 0, 0, 0, 0, 0, 0, "") ==
              false);  // no upstream
}

TEST(H264Reader, UnitsCarryFrameTimesAndEndOfSequenceIsDropped) {
  SpsParams p;
  std::vector<uint8_t> stream = MakeStream(p, 4);
  std::vector<uint8_t> withEnd = stream;
  Append(withEnd, StartCodeUnit(0x0A, {}));
  auto reader = Th264Reader::Create();
  ReaderRun run = PushStream(reader, withEnd, 7);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, stream);
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 4u);
  // AUD, SPS, PPS, slice; then AUD and slice for each further frame.
  ASSERT_EQ(run.capture->positions.size(), 10u);
  EXPECT_EQ(run.capture->positions[0], 0);
  EXPECT_EQ(run.capture->positions[3], 0);
  EXPECT_EQ(run.capture->positions[4], 10010000 / 24);
  EXPECT_EQ(run.capture->positions[9], 3 * 10010000 / 24);
}

TEST(H264Reader, InitialDelayCountsFramesAheadOfTheFirstTimestamp) {
  SpsParams p;
  std::vector<uint8_t> stream = MakeStream(p, 6);
  auto reader = Th264Reader::Create();
  reader->AppendUpStream(TCapture::Create());
  EXPECT_FALSE(reader->HasTimestamps());
  size_t frameSize = Aud().size() + Slice(false).size();
  size_t first = stream.size() - 5 * frameSize;
  // The first frame starts the stream; frames 1 and 2 come without a time stamp.
  ASSERT_TRUE(reader->Write(0, false, stream.data(), uint32_t(first + 2 * frameSize), -1, false));
  for (size_t at = first + 2 * frameSize; at < stream.size(); at += frameSize)
    ASSERT_TRUE(reader->Write(0, false, stream.data() + at, uint32_t(frameSize),
                              int64_t(at) * 1000, false));
  ASSERT_TRUE(reader->Finish());
  EXPECT_TRUE(reader->HasTimestamps());
  EXPECT_EQ(reader->InitialDelay(), -2 * 1000 * 1001 / 24000);
}

// Pushes one frame per Write with the time stamp `stamp(frame)`.
bool PushFramesWithStamps(const std::shared_ptr<Th264Reader>& reader, int frames,
                          const std::function<int64_t(int)>& stamp,
                          std::shared_ptr<TCapture>& capture) {
  SpsParams p;
  capture = TCapture::Create();
  reader->AppendUpStream(capture);
  for (int i = 0; i < frames; i++) {
    std::vector<uint8_t> frame = Aud();
    if (i == 0) {
      Append(frame, MakeSps(p));
      Append(frame, Pps());
    }
    Append(frame, Slice(i == 0));
    if (!reader->Write(0, false, frame.data(), uint32_t(frame.size()), stamp(i), false))
      return false;
  }
  return reader->Finish();
}

TEST(H264Reader, GapsAreReportedWrittenAndReplayed) {
  std::string gapFile =
      (std::filesystem::temp_directory_path() / ("sonvex_h264_gap_" + std::to_string(getpid())))
          .string();
  auto frameTime = [](int64_t frame) { return frame * 10010000 / 24; };
  auto stamp = [&](int i) { return frameTime(i < 50 ? i : i + 10); };
  auto reader = Th264Reader::Create(gapFile);
  std::shared_ptr<TCapture> capture;
  std::vector<std::string> lines;
  SetLogHook([&](int level, const std::string& text) {
    lines.push_back(std::to_string(level) + " " + text);
  });
  bool ok = PushFramesWithStamps(reader, 300, stamp, capture);
  SetLogHook(nullptr);
  ASSERT_TRUE(ok);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "1 Video has a gap of 10 frames at playtime 0:00:02.",
                       "1 The MKV file was created without making use of the gap/overlap information.",
                       "1 Please check whether audio is in sync. If it is in sync everything is fine.",
                       "1 Otherwise you can ask sonvex to repeat the muxing. It will then automatically",
                       "1 make use of the detailed gap/overlap information."}));
  std::vector<uint8_t> file = ReadBytes(gapFile);
  std::filesystem::remove(gapFile);
  ASSERT_EQ(file.size(), 16u);
  EXPECT_EQ(Le64(file.data()), 50u);
  EXPECT_EQ(Le64(file.data() + 8), 10u);
  EXPECT_EQ(reader->VideoDetails()->GapData(), std::string(file.begin(), file.end()));
  // Frames are still sent on a clean count: frame 60 at the time of frame 60.
  EXPECT_EQ(capture->positions.back(), frameTime(299));

  // The second pass replays the table: from frame 50 on, frames keep their source times.
  auto replay = Th264Reader::Create(gapFile, false, false, false, false, false,
                                    std::string(file.begin(), file.end()));
  ASSERT_TRUE(PushFramesWithStamps(replay, 300, stamp, capture));
  EXPECT_EQ(capture->positions.back(), frameTime(309));
  EXPECT_FALSE(std::filesystem::exists(gapFile));

  // Small jitter near the end is no gap: nothing is said and no file is written.
  auto quiet = Th264Reader::Create(gapFile);
  lines.clear();
  SetLogHook([&](int level, const std::string& text) { lines.push_back(text); });
  ok = PushFramesWithStamps(quiet, 300, [&](int i) { return frameTime(i < 250 ? i : i + 10); },
                            capture);
  SetLogHook(nullptr);
  ASSERT_TRUE(ok);
  EXPECT_TRUE(lines.empty());
  EXPECT_FALSE(std::filesystem::exists(gapFile));
}

TEST(H264Reader, ParserBattery) {
  SpsParams p;
  std::vector<uint8_t> stream = MakeStream(p, 40);
  RunParserBattery([] { return Th264Reader::Create(); }, stream, stream);
  // Behind a demuxer the stream is announced as video.
  RunParserBattery([] { return Th264Reader::Create(); }, stream, stream,
                   [](IUpStream& stage, int64_t) {
                     return stage.InitVideo("h264", false, false, 0, 0, 0, 0, 0, 0, "");
                   });
}

}  // namespace
}  // namespace sonvex::videotest
