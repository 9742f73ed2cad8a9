// TMpeg2Reader on synthetic streams: the announcement, pulldown detection, removal and keeping,
// the mixed content restart with its exact words, refusals, streams without group headers, and
// the parser battery.
#include "video/mpeg2reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "framework/bitreader.h"

#include "run/runstate.h"
#include "support/battery.h"
#include "video/videobitwriter.h"
#include "video/videotestutil.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;
namespace {

std::vector<uint8_t> Unit(uint8_t code, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> unit{0, 0, 1, code};
  Append(unit, payload);
  return unit;
}

struct Mpeg2Params {
  uint32_t width = 720, height = 480, aspect = 3, rateCode = 4;
  bool progressiveSequence = false;
};

std::vector<uint8_t> SequenceHeader(const Mpeg2Params& p) {
  BitWriter w;
  w.Put(12, p.width);    // horizontal_size_value
  w.Put(12, p.height);   // vertical_size_value
  w.Put(4, p.aspect);    // aspect_ratio_information
  w.Put(4, p.rateCode);  // frame_rate_code
  w.Put(18, 15000);      // bit_rate_value
  w.PutBit(1);           // marker_bit
  w.Put(10, 112);        // vbv_buffer_size_value
  w.PutBit(0);           // constrained_parameters_flag
  w.PutBit(0);           // load_intra_quantiser_matrix
  w.PutBit(0);           // load_non_intra_quantiser_matrix
  w.Align();
  return Unit(0xB3, w.bytes);
}

std::vector<uint8_t> SequenceExtension(const Mpeg2Params& p) {
  BitWriter w;
  w.Put(4, 1);                       // extension_start_code_identifier: sequence extension
  w.Put(8, 0x48);                    // profile_and_level_indication: Main@Main
  w.PutBit(p.progressiveSequence);   // progressive_sequence
  w.Put(2, 1);                       // chroma_format: 4:2:0
  w.Put(2, 0);                       // horizontal_size_extension
  w.Put(2, 0);                       // vertical_size_extension
  w.Put(12, 0);                      // bit_rate_extension
  w.PutBit(1);                       // marker_bit
  w.Put(8, 0);                       // vbv_buffer_size_extension
  w.PutBit(0);                       // low_delay
  w.Put(2, 0);                       // frame_rate_extension_n
  w.Put(5, 0);                       // frame_rate_extension_d
  w.Align();
  return Unit(0xB5, w.bytes);
}

std::vector<uint8_t> Group() {
  return Unit(0xB8, {0x00, 0x08, 0x00, 0x40});  // time_code, closed_gop, broken_link
}

std::vector<uint8_t> Picture(uint32_t reference, uint32_t type) {
  BitWriter w;
  w.Put(10, reference);  // temporal_reference
  w.Put(3, type);        // picture_coding_type
  w.Put(16, 0xFFFF);     // vbv_delay
  w.Put(8, 0xFF);        // f_code fields and extra_bit_picture, simplified
  w.Align();
  return Unit(0x00, w.bytes);
}

std::vector<uint8_t> PictureCoding(uint32_t structure, bool tff, bool rff, bool progressive) {
  BitWriter w;
  w.Put(4, 8);            // extension_start_code_identifier: picture coding extension
  w.Put(16, 0xFFFF);      // f_code[0][0] .. f_code[1][1]
  w.Put(2, 0);            // intra_dc_precision
  w.Put(2, structure);    // picture_structure
  w.PutBit(tff);          // top_field_first
  w.PutBit(1);            // frame_pred_frame_dct
  w.PutBit(0);            // concealment_motion_vectors
  w.PutBit(0);            // q_scale_type
  w.PutBit(0);            // intra_vlc_format
  w.PutBit(0);            // alternate_scan
  w.PutBit(rff);          // repeat_first_field
  w.PutBit(1);            // chroma_420_type
  w.PutBit(progressive);  // progressive_frame
  w.PutBit(0);            // composite_display_flag
  w.Align();
  return Unit(0xB5, w.bytes);
}

std::vector<uint8_t> Slice() { return Unit(0x01, std::vector<uint8_t>(40, 0x5A)); }

enum class Content { film, video, interlaced };

// Groups of 6 frames, each group led by a sequence header and its extension.
std::vector<uint8_t> MakeStream(const Mpeg2Params& p, const std::vector<Content>& groups,
                                bool groupHeaders = true) {
  std::vector<uint8_t> stream;
  for (Content content : groups) {
    Append(stream, SequenceHeader(p));
    Append(stream, SequenceExtension(p));
    if (groupHeaders) Append(stream, Group());
    for (uint32_t i = 0; i < 6; i++) {
      Append(stream, Picture(i, i == 0 ? 1 : 2));
      bool film = content == Content::film;
      // 3:2 pulldown: every other frame repeats its first field, the field order alternating.
      Append(stream, PictureCoding(3, film && (i % 4 >= 2), film && (i % 2 == 0),
                                   content != Content::interlaced));
      Append(stream, Slice());
    }
  }
  return stream;
}

std::shared_ptr<TMpeg2Reader> Detector() { return TMpeg2Reader::Create(); }

std::string Describe(const std::shared_ptr<TMpeg2Reader>& reader, const std::vector<uint8_t>& s,
                     size_t piece = 16384) {
  ReaderRun run = PushStream(reader, s, piece);
  EXPECT_TRUE(run.ok);
  return reader->VideoDetails()->Description();
}

TEST(Mpeg2Reader, AnnouncesWhatTheHeadersSay) {
  Mpeg2Params p;
  auto reader = Detector();
  EXPECT_EQ(Describe(reader, MakeStream(p, {Content::film, Content::film, Content::film})),
            "MPEG2, 480p24 /1.001 (16:9) with pulldown flags");
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 18u);
  EXPECT_EQ(Describe(Detector(), MakeStream(p, {Content::interlaced, Content::interlaced})),
            "MPEG2, 480i60 /1.001 (16:9)");
  Mpeg2Params hd{1920, 1088, 1, 1};  // square pixels, 24000/1001
  EXPECT_EQ(Describe(Detector(), MakeStream(hd, {Content::video, Content::video})),
            "MPEG2, 1080p24 /1.001 (30:17)");
  Mpeg2Params pal{720, 576, 2, 3};
  EXPECT_EQ(Describe(Detector(), MakeStream(pal, {Content::interlaced, Content::video})),
            "MPEG2, 576i50 (4:3)");
  // -speedup on a 29.97 stream is dropped; on 24p it makes 25p.
  EXPECT_EQ(Describe(TMpeg2Reader::Create(true, false, true),
                     MakeStream(p, {Content::video, Content::video})),
            "MPEG2, 480p30 /1.001 (16:9)");
  EXPECT_EQ(Describe(TMpeg2Reader::Create(true, false, true),
                     MakeStream(hd, {Content::video, Content::video})),
            "MPEG2, 1080p25 (30:17)");
}

TEST(Mpeg2Reader, StreamsWithoutGroupHeadersAreAnnouncedToo) {
  Mpeg2Params p;
  auto reader = Detector();
  EXPECT_EQ(Describe(reader, MakeStream(p, {Content::video, Content::video, Content::video},
                                        false)),
            "MPEG2, 480p30 /1.001 (16:9)");
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 18u);
}

TEST(Mpeg2Reader, RefusesWithExactWords) {
  Mpeg2Params p;
  std::vector<uint8_t> stream = MakeStream(p, {Content::video, Content::video});
  ReaderRun run = PushStream(Detector(), std::vector<uint8_t>(stream.begin() + 1, stream.end()));
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This doesn't seem to be a valid MPEG2 stream."});
  p.aspect = 5;
  run = PushStream(Detector(), MakeStream(p, {Content::video}));
  EXPECT_EQ(run.lines,
            std::vector<std::string>{"2 This MPEG2 aspect ratio is currently not supported."});
  p.aspect = 2, p.rateCode = 9;
  run = PushStream(Detector(), MakeStream(p, {Content::video}));
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This MPEG2 framerate is currently not supported."});
  // Ten MiB of units behind a sequence header that never gets its extension.
  std::vector<uint8_t> endless = SequenceHeader(Mpeg2Params{});
  while (endless.size() <= 0xA00000) Append(endless, Slice());
  run = PushStream(Detector(), endless, 1 << 20);
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This doesn't seem to be a valid MPEG2 stream."});
}

// The film stream with its pulldown removed, as the reader should write it.
std::vector<uint8_t> Stripped(const std::vector<uint8_t>& film) {
  std::vector<uint8_t> out = film;
  bool first = true;
  for (size_t i = 0; i + 8 < out.size(); i++) {
    if (out[i] != 0 || out[i + 1] != 0 || out[i + 2] != 1) continue;
    if (out[i + 3] == 0xB3 && first) {
      out[i + 7] = uint8_t((out[i + 7] & 0xF0) | 1);  // 30000/1001 becomes 24000/1001
      first = false;
    }
    if (out[i + 3] == 0xB5 && (out[i + 4] >> 4) == 8)
      out[i + 7] &= uint8_t(~0x82);  // no repeat_first_field; top_field_first off below 720 lines
  }
  return out;
}

TEST(Mpeg2Reader, PulldownIsRemovedOrKept) {
  Mpeg2Params p;
  std::vector<uint8_t> film = MakeStream(p, {Content::film, Content::film, Content::film});
  auto strip = TMpeg2Reader::Create(false, false, false, false, true, "", "", 3, true, true);
  ReaderRun run = PushStream(strip, film, 100);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"0 Removing MPEG2 pulldown..."});
  EXPECT_EQ(run.capture->bytes, Stripped(film));
  EXPECT_EQ(strip->VideoDetails()->Description(), "MPEG2, 480p24 /1.001 (16:9) with pulldown flags");
  EXPECT_EQ(strip->FieldCount(), 36);  // two half frames for every frame

  auto keep = TMpeg2Reader::Create(false, true, false, false, true, "", "", 3, false, true);
  run = PushStream(keep, film, 100);
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.lines.empty());
  EXPECT_EQ(run.capture->bytes, film);
  EXPECT_EQ(keep->VideoDetails()->Description(), "MPEG2, 480p30 /1.001 (16:9)");
  EXPECT_EQ(keep->FieldCount(), 45);  // the repeated fields stay in the timing
  // The last slice comes after 45 half frames of 1/59.94 s, 9 of them repeated fields.
  EXPECT_EQ(run.capture->positions.back(), 45 * 5000 * 1001 / 30);
}

TEST(Mpeg2Reader, MixedContentAsksForASecondPass) {
  Mpeg2Params p;
  std::vector<uint8_t> mixed =
      MakeStream(p, {Content::film, Content::film, Content::video, Content::film});
  rerunNeeded = false;
  rerunTrack = -1;
  auto strip = TMpeg2Reader::Create(false, false, false, false, true, "", "", 4, true, true);
  ReaderRun run = PushStream(strip, mixed);
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines, (std::vector<std::string>{
                           "0 Removing MPEG2 pulldown...",
                           "1 The MPEG2 stream is a mixture of video and movie content.",
                           "1 The pulldown cannot be removed from this type of MPEG2 stream.",
                           "1 Will have to abort processing and redo everything."}));
  EXPECT_TRUE(rerunNeeded);
  EXPECT_EQ(rerunTrack, 4);

  rerunNeeded = false;
  rerunTrack = -1;
  auto gaps = TMpeg2Reader::Create(false, false, false, false, true, "", "/nonexistent/x.gaps",
                                   7, false, true);
  run = PushStream(gaps, mixed);
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines, (std::vector<std::string>{
                           "1 The MPEG2 stream is a mixture of video and movie content.",
                           "1 This type of MPEG2 stream cannot be muxed with 24p timestamps.",
                           "1 Will have to abort processing and redo everything."}));
  EXPECT_TRUE(rerunNeeded);
  EXPECT_EQ(rerunTrack, 7);

  // The second pass keeps the pulldown and goes through.
  rerunNeeded = false;
  rerunTrack = -1;
  auto again = TMpeg2Reader::Create(false, true, false, false, true, "", "", 4, true, true);
  run = PushStream(again, mixed);
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, mixed);
  EXPECT_FALSE(rerunNeeded);
}

TEST(Mpeg2Reader, SequenceEndNeverLeavesAndOnlyTheFirstHeaderIsLookedAt) {
  Mpeg2Params p;
  std::vector<uint8_t> stream = MakeStream(p, {Content::video, Content::video});
  std::vector<uint8_t> ended = stream;
  Append(ended, Unit(0xB7, {}));
  ReaderRun run = PushStream(Detector(), ended, 5);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, stream);
}

TEST(Mpeg2Reader, GapsAreCountedInHalfFrames) {
  std::string gapFile = (std::filesystem::temp_directory_path() /
                         ("sonvex_mpeg2_gap_" + std::to_string(getpid())))
                            .string();
  Mpeg2Params p;
  auto reader = TMpeg2Reader::Create(false, false, false, false, true, "", gapFile, 1);
  auto capture = TCapture::Create();
  reader->AppendUpStream(capture);
  std::vector<std::string> lines;
  SetLogHook([&](int level, const std::string& text) {
    lines.push_back(std::to_string(level) + " " + text);
  });
  // One group per Write, stamped with the time of its first picture; from group 5 on the
  // source runs 10 frames (20 half frames) ahead.
  bool ok = true;
  for (int g = 0; ok && g < 40; g++) {
    std::vector<uint8_t> group = MakeStream(p, {Content::video});
    int64_t halfFrames = g * 12 + (g >= 5 ? 20 : 0);
    ok = reader->Write(0, false, group.data(), uint32_t(group.size()),
                       halfFrames * 5000 * 1001 / 30, false);
  }
  if (ok) ok = reader->Finish();
  SetLogHook(nullptr);
  ASSERT_TRUE(ok);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "1 Video has a gap of 10 frames at playtime 0:00:01.");
  EXPECT_EQ(lines.size(), 5u);
  std::vector<uint8_t> file = ReadBytes(gapFile);
  std::filesystem::remove(gapFile);
  ASSERT_EQ(file.size(), 16u);
  EXPECT_EQ(Le64(file.data()), 60u);
  EXPECT_EQ(Le64(file.data() + 8), 20u);
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 240u);
}

TEST(Mpeg2Reader, InitialDelayCountsPicturesAheadOfTheFirstTimestamp) {
  Mpeg2Params p;
  auto reader = TMpeg2Reader::Create(false, false, false, false, true);
  reader->AppendUpStream(TCapture::Create());
  std::vector<uint8_t> group = MakeStream(p, {Content::video});
  ASSERT_TRUE(reader->Write(0, false, group.data(), uint32_t(group.size()), -1, false));
  EXPECT_FALSE(reader->HasTimestamps());
  for (int g = 1; g < 4; g++)
    ASSERT_TRUE(reader->Write(0, false, group.data(), uint32_t(group.size()), g * 2000000, false));
  ASSERT_TRUE(reader->Finish());
  EXPECT_TRUE(reader->HasTimestamps());
  EXPECT_EQ(reader->InitialDelay(), -6 * 1000 * 1001 / 30000);  // six pictures at 29.97 Hz
}

TEST(Mpeg2Reader, ParserBattery) {
  Mpeg2Params p;
  std::vector<uint8_t> stream =
      MakeStream(p, {Content::film, Content::film, Content::film, Content::film});
  RunParserBattery([] { return TMpeg2Reader::Create(); }, stream, stream);
  RunParserBattery([] { return TMpeg2Reader::Create(false, false, false, false, false); }, stream,
                   stream, [](IUpStream& stage, int64_t) {
                     return stage.InitVideo("mpeg2", false, false, 0, 0, 0, 0, 0, 0, "");
                   });
}

}  // namespace
}  // namespace sonvex::videotest
