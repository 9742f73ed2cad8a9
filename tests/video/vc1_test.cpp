// TVc1Reader and TVc1PulldownRemover on synthetic Advanced Profile streams: the announcement,
// refusals with their exact words, "-skip<n>", fields glued to their frame, the removal of
// pulldown flags, and the parser battery.
#include <gtest/gtest.h>

#include "framework/bitreader.h"
#include "support/battery.h"
#include "video/vc1pulldownremover.h"
#include "video/vc1reader.h"
#include "video/videobitwriter.h"
#include "video/videotestutil.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;
namespace {

struct Vc1Params {
  uint32_t profile = 3, level = 3, chroma = 1;
  uint32_t width = 1920, height = 1080;
  bool pulldown = true, interlace = true, tfcntr = false;
  bool displayExtension = true;
  uint32_t rateValue = 3, rateDivider = 2;  // 30000/1001
};

std::vector<uint8_t> SequenceHeader(const Vc1Params& p) {
  BitWriter w;
  w.Put(2, p.profile);                 // PROFILE
  w.Put(3, p.level);                   // LEVEL
  w.Put(2, p.chroma);                  // COLORDIFF_FORMAT
  w.Put(3, 7);                         // FRMRTQ_POSTPROC
  w.Put(5, 31);                        // BITRTQ_POSTPROC
  w.PutBit(0);                         // POSTPROCFLAG
  w.Put(12, (p.width - 2) / 2);        // MAX_CODED_WIDTH
  w.Put(12, (p.height - 2) / 2);       // MAX_CODED_HEIGHT
  w.PutBit(p.pulldown);                // PULLDOWN
  w.PutBit(p.interlace);               // INTERLACE
  w.PutBit(p.tfcntr);                  // TFCNTRFLAG
  w.PutBit(0);                         // FINTERPFLAG
  w.PutBit(1);                         // reserved
  w.PutBit(0);                         // PSF
  w.PutBit(p.displayExtension);        // DISPLAY_EXT
  if (p.displayExtension) {
    w.Put(14, p.width - 1);            // DISP_HORIZ_SIZE
    w.Put(14, p.height - 1);           // DISP_VERT_SIZE
    w.PutBit(1);                       // ASPECT_RATIO_FLAG
    w.Put(4, 1);                       // ASPECT_RATIO: square samples
    w.PutBit(1);                       // FRAMERATE_FLAG
    w.PutBit(0);                       // FRAMERATEIND
    w.Put(8, p.rateValue);             // FRAMERATENR
    w.Put(4, p.rateDivider);           // FRAMERATEDR
    w.PutBit(0);                       // COLOR_FORMAT_FLAG
  }
  w.PutBit(0);                         // HRD_PARAM_FLAG
  w.Trailing();
  return StartCodeUnit(0x0F, w.bytes);
}

std::vector<uint8_t> EntryPoint() { return StartCodeUnit(0x0E, {0x48, 0x0A, 0x8A, 0x80}); }

// A progressive frame (FCM 0) whose first byte holds the picture type and the field flags.
std::vector<uint8_t> Frame(uint8_t first) {
  std::vector<uint8_t> payload(40, 0x5A);
  payload[0] = first;
  return StartCodeUnit(0x0D, payload);
}

// First bytes of an I, P and B frame with TFF and RFF set, and the same with TFF alone.
constexpr uint8_t kFlagged[3] = {0x6C, 0x30, 0x58};
constexpr uint8_t kUnflagged[3] = {0x68, 0x20, 0x50};

std::vector<uint8_t> MakeStream(const Vc1Params& p, int sequences, bool flagged = true) {
  std::vector<uint8_t> stream;
  for (int s = 0; s < sequences; s++) {
    Append(stream, SequenceHeader(p));
    Append(stream, EntryPoint());
    for (int i = 0; i < 3; i++) Append(stream, Frame(flagged ? kFlagged[i] : kUnflagged[i]));
  }
  return stream;
}

TEST(Vc1Reader, AnnouncesAndCountsFrames) {
  Vc1Params p;
  auto reader = TVc1Reader::Create();
  ReaderRun run = PushStream(reader, MakeStream(p, 2));
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(reader->VideoDetails()->Description(), "VC-1, 1080p30 /1.001 (16:9) with pulldown flags");
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 6u);
  EXPECT_EQ(run.capture->bytes, MakeStream(p, 2));
  p.pulldown = false;
  reader = TVc1Reader::Create();
  ASSERT_TRUE(PushStream(reader, MakeStream(p, 1)).ok);
  EXPECT_EQ(reader->VideoDetails()->Description(), "VC-1, 1080i60 /1.001 (16:9)");
  p.interlace = false, p.rateValue = 1, p.width = 1280, p.height = 720;
  reader = TVc1Reader::Create("", 0, true);  // -speedup
  ASSERT_TRUE(PushStream(reader, MakeStream(p, 1)).ok);
  EXPECT_EQ(reader->VideoDetails()->Description(), "VC-1, 1280x720 25p (16:9)");
}

TEST(Vc1Reader, SecondFieldStaysWithItsFrame) {
  Vc1Params p;
  std::vector<uint8_t> stream = SequenceHeader(p);
  Append(stream, EntryPoint());
  for (int i = 0; i < 4; i++) {
    Append(stream, Frame(0x6C));
    Append(stream, StartCodeUnit(0x0C, std::vector<uint8_t>(30, 0x33)));  // second field
  }
  auto reader = TVc1Reader::Create();
  ReaderRun run = PushStream(reader, stream, 3);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 4u);
  EXPECT_EQ(run.capture->bytes, stream);
  EXPECT_EQ(run.capture->blocks.size(), 6u);  // header, entry point, four frames with their fields
}

TEST(Vc1Reader, RefusesWithExactWords) {
  auto refuse = [](const Vc1Params& p) {
    ReaderRun run = PushStream(TVc1Reader::Create(), MakeStream(p, 1));
    EXPECT_FALSE(run.ok);
    return run.lines.size() == 1 ? run.lines[0] : std::string("?");
  };
  Vc1Params p;
  p.profile = 1;
  EXPECT_EQ(refuse(p), "2 Currently only Advanced Profile VC-1 streams are supported.");
  p = {}, p.level = 5;
  EXPECT_EQ(refuse(p), "2 Currently only VC-1 profiles up to Level 4 are supported.");
  p = {}, p.chroma = 2;
  EXPECT_EQ(refuse(p), "2 Currently only 4:2:0 chroma format is supported.");
  p = {}, p.rateValue = 0;
  EXPECT_EQ(refuse(p), "2 This VC-1 framerate is currently not supported.");
  p = {}, p.rateDivider = 3;
  EXPECT_EQ(refuse(p), "2 This VC-1 framerate divider is currently not supported.");
  p = {}, p.displayExtension = false;
  EXPECT_EQ(refuse(p), "2 This VC-1 framerate is currently not supported.");
  std::vector<uint8_t> noHeader = EntryPoint();
  Append(noHeader, MakeStream(Vc1Params{}, 1));
  ReaderRun run = PushStream(TVc1Reader::Create(), noHeader);
  EXPECT_EQ(run.lines, std::vector<std::string>{"2 This doesn't seem to be a valid VC-1 stream."});
}

TEST(Vc1Reader, SkipStartsAtALaterSequenceHeader) {
  Vc1Params p;
  std::vector<uint8_t> stream = MakeStream(p, 3);
  auto reader = TVc1Reader::Create("", 2);
  ReaderRun run = PushStream(reader, stream, 11);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"0 Skipped 2 sequence headers..."});
  EXPECT_EQ(run.capture->bytes, MakeStream(p, 1));
  EXPECT_EQ(reader->VideoDetails()->FrameCount(), 3u);
}

TEST(Vc1PulldownRemover, FilmBecomes24HzInEverySequenceHeader) {
  Vc1Params p;
  auto reader = TVc1Reader::Create();
  auto remover = TVc1PulldownRemover::Create();
  reader->SetUpStream(remover);
  ReaderRun run = PushStream(reader, MakeStream(p, 3), 64);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"0 Removing VC-1 pulldown flags..."});
  Vc1Params film = p;
  film.rateValue = 1;
  EXPECT_EQ(run.capture->bytes, MakeStream(film, 3, false));

  // With a TFCNTR field the flags are looked for further on.
  p.tfcntr = true;
  reader = TVc1Reader::Create();
  remover = TVc1PulldownRemover::Create();
  reader->SetUpStream(remover);
  std::vector<uint8_t> counted = SequenceHeader(p);
  Append(counted, Frame(0x30));
  run = PushStream(reader, counted);
  ASSERT_TRUE(run.ok);
  size_t frame = SequenceHeader(p).size();
  EXPECT_EQ(Be32(run.capture->bytes.data() + frame + 4), (Be32(counted.data() + frame + 4) &
                                                          ~0x00300000u) | 0x02000000u);
}

TEST(Vc1PulldownRemover, InterlacedStreamPassesUntouched) {
  Vc1Params p;
  p.pulldown = false;
  std::vector<uint8_t> stream = MakeStream(p, 2);
  auto reader = TVc1Reader::Create();
  reader->SetUpStream(TVc1PulldownRemover::Create());
  ReaderRun run = PushStream(reader, stream);
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.lines.empty());
  EXPECT_EQ(run.capture->bytes, stream);

  auto remover = TVc1PulldownRemover::Create();
  remover->SetUpStream(TCapture::Create());
  std::vector<std::string> lines;
  SetLogHook([&](int level, const std::string& text) { lines.push_back(text); });
  EXPECT_FALSE(remover->Write(0, false, stream.data(), 8, -1, false));
  EXPECT_FALSE(TVc1PulldownRemover::Create()->InitVideo("vc1", false, true, 0, 0, 0, 0, 0, 0, ""));
  auto other = TVc1PulldownRemover::Create();
  other->SetUpStream(TCapture::Create());
  EXPECT_FALSE(other->InitVideo("h264", false, true, 0, 0, 0, 0, 0, 0, ""));
  SetLogHook(nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "The VC-1 pulldown remover didn't receive the format information.",
                       "The VC-1 pulldown remover upstream property is not set.",
                       "The VC-1 pulldown remover received a non-supported data format."}));
}

TEST(Vc1Reader, ParserBattery) {
  Vc1Params p;
  std::vector<uint8_t> stream = MakeStream(p, 12);
  RunParserBattery([] { return TVc1Reader::Create(); }, stream, stream);
  RunParserBattery([] { return TVc1Reader::Create(); }, stream, stream,
                   [](IUpStream& stage, int64_t) {
                     return stage.InitVideo("vc1", false, false, 0, 0, 0, 0, 0, 0, "");
                   });
}

}  // namespace
}  // namespace sonvex::videotest
