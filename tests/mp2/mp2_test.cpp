// MPEG-1 audio: header parser, reader, delayer and gap realizer, on synthetic headers, the
// generated corpus stream and the MP2 tracks that ffmpeg copies out of real transport streams.
#include "mp2/mp2bitstream.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"
#include "support/battery.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

// A frame header and `size` bytes of frame in all.
std::vector<uint8_t> Mp2Header(uint32_t layerCode, uint32_t rateIndex, uint32_t rateCode,
                               uint32_t padding, uint32_t mode, bool mpeg1 = true) {
  BitWriter w;
  w.Put(12, 0xFFF);       // syncword
  w.Put(1, mpeg1);        // ID: 1 = MPEG-1
  w.Put(2, layerCode);    // layer
  w.Put(1, 1);            // protection_bit: no CRC
  w.Put(4, rateIndex);    // bitrate_index
  w.Put(2, rateCode);     // sampling_frequency
  w.Put(1, padding);      // padding_bit
  w.Put(1, 0);            // private_bit
  w.Put(2, mode);         // mode
  w.Put(2, 0);            // mode_extension
  w.Put(1, 0);            // copyright
  w.Put(1, 1);            // original
  w.Put(2, 0);            // emphasis
  return w.bytes;
}

// A stream of `count` frames with the given header, bodies filled with a counter.
std::vector<uint8_t> Mp2Stream(const std::vector<uint8_t>& header, uint32_t frameSize,
                               uint32_t count) {
  std::vector<uint8_t> stream;
  for (uint32_t i = 0; i < count; i++) {
    stream.insert(stream.end(), header.begin(), header.end());
    stream.resize(stream.size() + frameSize - header.size(), uint8_t(i));
  }
  return stream;
}

TEST(Mp2Frame, HeaderFieldsByLayer) {
  struct {
    uint32_t layerCode, rateIndex, rateCode, padding, mode;
    uint32_t bitrate, sampleRate, frameSize, channels;
    const char* text;
  } rows[] = {
      {2, 11, 1, 0, 0, 224000, 48000, 672, 2, "2.0"},         // layer 2
      {2, 14, 2, 1, 1, 384000, 32000, 1729, 2, "joint 2.0"},  // padded
      {3, 14, 0, 0, 2, 448000, 44100, 484, 2, "1+1"},         // layer 1: 121 slots of 4 bytes
      {3, 1, 1, 1, 3, 32000, 48000, 36, 1, "1.0"},            // layer 1, padded slot
      {1, 9, 1, 0, 3, 128000, 48000, 384, 1, "1.0"},          // layer 3, mono
      {1, 9, 1, 0, 1, 128000, 48000, 384, 2, "joint 2.0"},    // layer 3, stereo: same table
  };
  for (auto& row : rows) {
    auto header = Mp2Header(row.layerCode, row.rateIndex, row.rateCode, row.padding, row.mode);
    TMp2FrameInfo info;
    ASSERT_EQ(ParseMp2Frame(header.data(), uint32_t(header.size()), info), 0);
    EXPECT_EQ(info.bitrate, row.bitrate);
    EXPECT_EQ(info.sampleRate, row.sampleRate);
    EXPECT_EQ(info.frameSize, row.frameSize);
    EXPECT_EQ(info.channels, row.channels);
    EXPECT_EQ(info.channelText, row.text);
  }
}

TEST(Mp2Frame, Refusals) {
  TMp2FrameInfo info;
  auto good = Mp2Header(2, 11, 1, 0, 0);
  EXPECT_EQ(ParseMp2Frame(good.data(), 2, info), 1);  // too short
  for (auto header : {Mp2Header(2, 11, 1, 0, 0, false),  // MPEG-2 low sample rate
                      Mp2Header(0, 11, 1, 0, 0),         // no layer
                      Mp2Header(2, 15, 1, 0, 0),         // bad bit rate
                      Mp2Header(2, 11, 3, 0, 0)})        // bad sampling frequency
    EXPECT_EQ(ParseMp2Frame(header.data(), 4, info), 1);
  auto freeFormat = Mp2Header(2, 0, 1, 0, 0);  // a good header, of no size
  ASSERT_EQ(ParseMp2Frame(freeFormat.data(), 4, info), 0);
  EXPECT_EQ(info.frameSize, 0u);
}

std::shared_ptr<TCapture> ReadMp2(const std::vector<uint8_t>& stream, bool exactStart, bool& ok,
                                  size_t piece = 4096) {
  return Drive(TMp2Reader::Create("", "", exactStart), stream, piece, ok);
}

TEST(Mp2Reader, CorpusStreamListsAndCopiesBitExact) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/mp2_20_224k.mp2"));
  ASSERT_EQ(bytes.size(), 168000u);
  auto reader = TMp2Reader::Create();
  bool ok = false;
  auto capture = Drive(reader, bytes, 16384, ok);
  ASSERT_TRUE(ok);
  // ffprobe: mp2, 2 channels, 48000 Hz, 224000 bit/s, 6 s, 250 packets.
  EXPECT_EQ(reader->AudioDetails()->Description(),
            "MP2, 2.0 channels, 0:00:06, 224kbit/s, 48khz");
  EXPECT_EQ(capture->blocks.size(), 250u);
  EXPECT_TRUE(capture->bytes == bytes);
}

TEST(Mp2Reader, JunkInFrontAndRefusals) {
  auto frames = Mp2Stream(Mp2Header(2, 11, 1, 0, 0), 672, 20);
  std::vector<uint8_t> stream(12287, 0x11);
  stream.insert(stream.end(), frames.begin(), frames.end());
  bool ok = false;
  EXPECT_TRUE(ReadMp2(stream, false, ok)->bytes == frames);
  EXPECT_TRUE(ok);
  stream.insert(stream.begin(), 0x11);  // one byte of junk too many
  TLogLines log;
  ReadMp2(stream, false, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log.Count("This doesn't seem to be a valid MP2 stream."), 1);
  ReadMp2(Mp2Stream(Mp2Header(2, 0, 1, 0, 0), 600, 20), true, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log.Count("MP2 streams with \"free\" bitrate are not supported."), 1);
  ReadMp2(std::vector<uint8_t>(10000, 0), true, ok);
  EXPECT_EQ(log.Count("This doesn't seem to be a valid MP2 stream."), 2);
  ReadMp2(std::vector<uint8_t>(100, 0), true, ok);
  EXPECT_EQ(log.Count("The stream doesn't seem to contain any valid MP2 frames."), 1);
}

TEST(Mp2Reader, DamageEndsTheRunAndAShortTailIsSkipped) {
  auto header = Mp2Header(2, 11, 1, 0, 0);
  auto stream = Mp2Stream(header, 672, 20);
  auto damaged = stream;
  damaged[672 * 10 + 1] = 0x00;
  TLogLines log;
  bool ok = true;
  auto capture = ReadMp2(damaged, true, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log.Count("This track is not clean. Processing aborted."), 1);
  EXPECT_EQ(log.Count("Please clean the track with delaycut and then retry sonvex."), 1);
  EXPECT_EQ(capture->bytes.size(), 672u * 10);

  // A tail too short for a header is skipped with a warning; a tail with a header goes out.
  auto cut = stream;
  cut.resize(672 * 19 + 2);
  TLogLines log2;
  capture = ReadMp2(cut, true, ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(log2.Count("The last MP2 frame is incomplete and thus gets skipped."), 1);
  EXPECT_EQ(capture->bytes.size(), 672u * 19);
  cut = stream;
  cut.resize(672 * 19 + 100);
  capture = ReadMp2(cut, true, ok);
  EXPECT_TRUE(ok);
  EXPECT_TRUE(capture->bytes == cut);
}

TEST(Mp2Reader, PaddingFollowsEachFrame) {
  // 44.1 kHz layer 2 at 128 kbit/s: 417 bytes, 418 with padding, alternating.
  std::vector<uint8_t> stream;
  std::vector<uint32_t> sizes;
  for (uint32_t i = 0; i < 30; i++) {
    auto header = Mp2Header(2, 8, 0, i % 2, 0);
    uint32_t size = 417 + i % 2;
    auto frame = Mp2Stream(header, size, 1);
    stream.insert(stream.end(), frame.begin(), frame.end());
    sizes.push_back(size);
  }
  bool ok = false;
  auto capture = ReadMp2(stream, true, ok, 1000);
  ASSERT_TRUE(ok);
  EXPECT_EQ(capture->blocks, sizes);
}

// Sends `frames` frames of one stream through a stage, one per Write.
std::shared_ptr<TCapture> FrameByFrame(const UpStreamRef& stage, const std::vector<uint8_t>& stream,
                                       uint32_t frameSize, bool& ok) {
  auto capture = TCapture::Create();
  stage->AppendUpStream(capture);
  ok = stage->InitAudio("mp2", 2, 24, 48000, false, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += frameSize)
    ok = stage->Write(0, false, stream.data() + at, frameSize, -1, false);
  if (ok) ok = stage->Finish();
  return capture;
}

std::vector<uint8_t> Frames(const std::vector<uint8_t>& stream, std::vector<int> indexes) {
  std::vector<uint8_t> out;
  for (int i : indexes)
    out.insert(out.end(), stream.begin() + i * 672, stream.begin() + (i + 1) * 672);
  return out;
}

TEST(Mp2Delayer, WholeFramesRoundedToTheNearest) {
  auto stream = Mp2Stream(Mp2Header(2, 11, 1, 0, 0), 672, 10);  // 14 ms x 224 kbit/s frames
  struct {
    int32_t delay;
    std::vector<int> frames;
    int64_t totalSize;
  } rows[] = {
      {100, {0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 0},  // 2800 bytes: 4.17 frames
      {-50, {2, 3, 4, 5, 6, 7, 8, 9}, 0},                    // 1400 bytes: 2.08 frames
      {10, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 6720},            // 280 bytes: under half a frame
      {-1000, {}, 0},                                        // more than the stream
  };
  for (auto& row : rows) {
    TLogLines log;
    auto delayer = TMp2Delayer::Create();
    delayer->SetDelay(0, row.delay / 2);
    delayer->SetDelay(1, row.delay - row.delay / 2);
    bool ok = false;
    auto capture = FrameByFrame(delayer, stream, 672, ok);
    ASSERT_TRUE(ok) << row.delay;
    EXPECT_TRUE(capture->bytes == Frames(stream, row.frames)) << row.delay;
    EXPECT_EQ(log.Count("Applying MP2 delay..."), 1);
    EXPECT_EQ(capture->audioInits.at(0).totalSize, row.totalSize) << row.delay;
    EXPECT_TRUE(capture->delaysSeen.empty()) << "the delayer applies the delay itself";
  }
  TLogLines log;
  auto broken = TMp2Delayer::Create();
  broken->AppendUpStream(TCapture::Create());
  ASSERT_TRUE(broken->InitAudio("mp2", 2, 24, 48000, false, 0));
  std::vector<uint8_t> junk(672, 0);
  EXPECT_FALSE(broken->Write(0, false, junk.data(), 672, -1, false));
  EXPECT_EQ(log.Count("Applying MP2 delay failed."), 1);
}

std::string GapData(std::vector<TGapEntry> records) {
  records.insert(records.begin(), TGapEntry{0, 0});
  return std::string(reinterpret_cast<const char*>(records.data()), records.size() * 16);
}

// Frame numbers from..to-1 of each range, one after the other.
std::vector<int> Ranges(std::initializer_list<std::pair<int, int>> ranges) {
  std::vector<int> out;
  for (auto [from, to] : ranges)
    for (int i = from; i < to; i++) out.push_back(i);
  return out;
}

TEST(Mp2GapRealizer, GapsRepeatAndOverlapsDrop) {
  auto stream = Mp2Stream(Mp2Header(2, 11, 1, 0, 0), 672, 120);
  struct {
    std::vector<TGapEntry> records;
    std::vector<int> frames;
  } rows[] = {
      // A 48 ms gap (2 frames) at 2 s: 81 frames go by, then the newest two come again.
      {{{20000000, 480000}}, Ranges({{0, 81}, {79, 81}, {81, 120}})},
      // A 48 ms overlap at 2 s: the two frames after the 83rd are dropped.
      {{{20000000, -480000}}, Ranges({{0, 83}, {85, 120}})},
      // Only the leading zero record: the first frame is held back, the rest pass.
      {{}, Ranges({{1, 120}})},
  };
  for (auto& row : rows) {
    TLogLines log;
    bool ok = false;
    auto capture = FrameByFrame(TMp2GapRealizer::Create(GapData(row.records)), stream, 672, ok);
    ASSERT_TRUE(ok);
    EXPECT_TRUE(capture->bytes == Frames(stream, row.frames)) << &row - rows;
    EXPECT_EQ(log.Count("Realizing MP2 gaps..."), row.records.empty() ? 0 : 1);
  }
  TLogLines log;
  auto realizer = TMp2GapRealizer::Create(GapData({{20000000, 480000}}));
  realizer->AppendUpStream(TCapture::Create());
  ASSERT_TRUE(realizer->InitAudio("mp2", 2, 24, 48000, false, 0));
  std::vector<uint8_t> junk(672, 0);
  EXPECT_FALSE(realizer->Write(0, false, junk.data(), 672, -1, false));
  EXPECT_EQ(log.Count("The mp2 gap realizer received invalid data."), 1);
}

// A damaged or hostile gap file: records far beyond any stream's length neither overflow nor
// make the stage repeat frames without end.
TEST(Mp2GapRealizer, RecordsBeyondReasonAreHeld) {
  auto stream = Mp2Stream(Mp2Header(2, 11, 1, 0, 0), 672, 50);
  for (TGapEntry record : {TGapEntry{INT64_MAX, INT64_MAX}, TGapEntry{INT64_MIN, INT64_MIN},
                           TGapEntry{0, INT64_MAX}, TGapEntry{INT64_MAX, INT64_MIN}}) {
    TLogLines quiet;
    bool ok = false;
    auto capture = FrameByFrame(TMp2GapRealizer::Create(GapData({record})), stream, 672, ok);
    EXPECT_TRUE(ok);
    // At most an hour of inserted frames (1 hour / 14 ms = 257143), and never a partial frame.
    EXPECT_LE(capture->bytes.size(), size_t(672) * (50 + 257143));
    EXPECT_EQ(capture->bytes.size() % 672, 0u);
  }
}

}  // namespace
}  // namespace sonvex::thdtest
