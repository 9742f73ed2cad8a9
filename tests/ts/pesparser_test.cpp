// TPesParser: time line, DSI jumps, unbounded packets, refusals, and the parser battery.
#include "ts/pesparser.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/battery.h"
#include "support/capture.h"
#include "ts/tsbuilder.h"

namespace sonvex::tstest {
namespace {

struct PesRun {
  std::shared_ptr<TPesParser> parser;
  std::shared_ptr<TCapture> capture = TCapture::Create();
  explicit PesRun(bool raw) : parser(TPesParser::Create(raw)) {
    parser->SetUpStream(capture);
    parser->InitAudio("ac3", 0, 0, 0, false, 0);
  }
  // As a TS demuxer feeds it: an empty flushing block ahead of each packet.
  bool Packet(const Bytes& pes) {
    return parser->Write(0, false, nullptr, 0, -1, true) &&
           parser->Write(0, false, pes.data(), uint32_t(pes.size()), -1, false);
  }
  bool Feed(const Bytes& data, bool flush = false) {
    return parser->Write(0, false, data.data(), uint32_t(data.size()), -1, flush);
  }
  // Positions of the blocks with data, in 90 kHz ticks.
  std::vector<int64_t> Ticks() const {
    std::vector<int64_t> out;
    for (size_t i = 0; i < capture->blocks.size(); i++)
      if (capture->blocks[i]) out.push_back(capture->positions[i] == -1 ? -1 : std::llround(double(capture->positions[i]) * 9 / 1000));
    return out;
  }
};

Bytes Payload(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; i++) b[i] = uint8_t(seed + i * 7);
  return b;
}

// A private stream 2 DSI packet carrying the start and end presentation times of its unit.
Bytes MakeDsi(uint32_t start, uint32_t end) {
  BitWriter w;
  w.Put(32, 0x000001BF);  // start code, private_stream_2
  w.Put(16, 60);          // PES_packet_length
  w.Put(8, 1);            // substream id: DSI
  for (int i = 0; i < 44; i++) w.Put(8, 0);  // fields before the PTM pair
  w.Put(32, start);       // start PTM
  w.Put(32, end);         // end PTM
  for (int i = 0; i < 7; i++) w.Put(8, 0);
  return w.bytes;
}

TEST(PesParser, TimelineStartsAtZeroAndFollowsSteps) {
  PesRun run(false);
  for (int64_t pts : {900000, 902880, 905760}) ASSERT_TRUE(run.Packet(MakePes(0xBD, pts, Payload(100, 1))));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0, 2880, 5760}));
  EXPECT_EQ(run.parser->FirstPts(), 0);
  EXPECT_EQ(run.capture->bytes.size(), 300u);
}

TEST(PesParser, RawModeKeepsTheStreamsOwnPts) {
  PesRun run(true);
  ASSERT_TRUE(run.Packet(MakePes(0xC0, 123456, Payload(50, 2))));
  ASSERT_TRUE(run.Packet(MakePes(0xC0, -1, Payload(50, 3))));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{123456, -1}));
  EXPECT_EQ(run.parser->FirstPts(), 123456);
  EXPECT_EQ(run.capture->positions[0], 123456 * 1000 / 9);
}

TEST(PesParser, WrapOfThe32BitPtsCountsAsNoStep) {
  PesRun run(false);
  for (int64_t pts : {0xFFFFF000LL, 0x100LL, 0x100LL + 2880}) ASSERT_TRUE(run.Packet(MakePes(0xBD, pts, Payload(10, 1))));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0, 0, 2880}));
}

TEST(PesParser, BackwardStepOfSixtySecondsIsRealOneTickMoreIsAJump) {
  PesRun exact(false);
  ASSERT_TRUE(exact.Packet(MakePes(0xBD, 6000000, Payload(10, 1))));
  ASSERT_TRUE(exact.Packet(MakePes(0xBD, 6000000 - 5400000, Payload(10, 1))));
  ASSERT_TRUE(exact.parser->Finish());
  EXPECT_EQ(exact.Ticks(), (std::vector<int64_t>{0, -5400000}));

  PesRun jump(false);
  ASSERT_TRUE(jump.Packet(MakePes(0xBD, 6000000, Payload(10, 1))));
  ASSERT_TRUE(jump.Packet(MakePes(0xBD, 6000000 - 5400001, Payload(10, 1))));
  ASSERT_TRUE(jump.parser->Finish());
  EXPECT_EQ(jump.Ticks(), (std::vector<int64_t>{0, 0}));
}

TEST(PesParser, DsiGapTurnsAFarJumpIntoTheStatedOverlap) {
  PesRun run(false);
  Bytes stream = MakeDsi(5000, 10000900);
  for (uint8_t b : MakePes(0xBD, 10000000, Payload(20, 1))) stream.push_back(b);
  // The next unit starts 9,999,000 ticks before the previous one ended: PTS 100 is 900 ticks
  // earlier than the last PTS once the jump is taken out.
  for (uint8_t b : MakeDsi(1900, 50000)) stream.push_back(b);
  for (uint8_t b : MakePes(0xBD, 100, Payload(20, 2))) stream.push_back(b);
  ASSERT_TRUE(run.Feed(stream));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0, -900}));
}

TEST(PesParser, DsiWithStartEqualToPreviousEndChangesNothing) {
  PesRun run(false);
  Bytes stream = MakeDsi(5000, 10000900);
  for (uint8_t b : MakePes(0xBD, 10000000, Payload(20, 1))) stream.push_back(b);
  for (uint8_t b : MakeDsi(10000900, 20000000)) stream.push_back(b);
  for (uint8_t b : MakePes(0xBD, 100, Payload(20, 2))) stream.push_back(b);
  ASSERT_TRUE(run.Feed(stream));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0, 0}));
}

TEST(PesParser, UnboundedVideoPacketWaitsForTheFlush) {
  PesRun run(false);
  Bytes pes = MakePes(0xE0, 1000, Payload(5000, 4), false);
  ASSERT_TRUE(run.Feed(pes));
  EXPECT_TRUE(run.capture->bytes.empty());
  ASSERT_TRUE(run.Feed({}, true));
  EXPECT_EQ(run.capture->bytes, Payload(5000, 4));
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0}));

  // The last one has no packet behind it: the end of the stream closes it.
  PesRun last(false);
  ASSERT_TRUE(last.Feed(pes));
  ASSERT_TRUE(last.parser->Finish());
  EXPECT_EQ(last.capture->bytes, Payload(5000, 4));
}

TEST(PesParser, ZeroStuffingIsSkippedAndUnknownCodesAreRefused) {
  PesRun run(false);
  Bytes stream = {0, 0, 0, 0, 0};
  for (uint8_t b : MakePes(0xBD, 0, Payload(30, 5))) stream.push_back(b);
  ASSERT_TRUE(run.Feed(stream));
  ASSERT_TRUE(run.parser->Finish());
  EXPECT_EQ(run.capture->bytes, Payload(30, 5));

  LogCatcher log;
  PesRun refused(false);
  Bytes fa = MakePes(0xFA, 0, Payload(30, 5));
  fa.resize(3000, 0xAA);
  EXPECT_FALSE(refused.Feed(fa));
  EXPECT_FALSE(refused.parser->IsValid());
  EXPECT_TRUE(log.Has("This doesn't seem to be a valid PES packet."));
}

// A damaged header loses its own packet only, said once: without units (program stream data)
// the packet's length leads to the next one; in a TS the next unit start does, however long the
// damaged packet claims to be.
TEST(PesParser, DamagedHeaderDropsItsPacketOnly) {
  for (bool units : {false, true}) {
    SCOPED_TRACE(units);
    LogCatcher log;
    PesRun run(false);
    Bytes bad = MakePes(0xBD, 0, Payload(10, 1));
    bad[8] = 200;  // PES_header_data_length far past the packet's end
    Bytes bad2 = MakePes(0xBD, 2880, Payload(10, 3));
    bad2[8] = 0;  // too short for the PTS
    if (units) bad2[5] = 0xF0;  // and a length that reaches far past the packet
    Bytes good = MakePes(0xBD, 5760, Payload(10, 2));
    if (units) {
      ASSERT_TRUE(run.Packet(bad) && run.Packet(bad2) && run.Packet(good));
    } else {
      Bytes all = bad;
      all.insert(all.end(), bad2.begin(), bad2.end());
      all.insert(all.end(), good.begin(), good.end());
      ASSERT_TRUE(run.Feed(all, true));
    }
    EXPECT_TRUE(run.parser->Finish());
    EXPECT_EQ(log.lines, std::vector<std::string>{"The source file is invalid: a damaged PES packet was skipped."});
    EXPECT_EQ(run.capture->bytes, Payload(10, 2));
  }
}

TEST(PesParser, SeamClosesTheOpenPacketAndKeepsTheTimelineContinuous) {
  PesRun run(false);
  ASSERT_TRUE(run.Packet(MakePes(0xBD, 1000000, Payload(10, 1))));
  // The clip ended at 1,002,880; the next one begins at 5,000,000: a seamless join.
  run.parser->NotifySeam(true, 5000000 - 1002880);
  run.parser->NotifySeam(false, 0);
  ASSERT_TRUE(run.Packet(MakePes(0xBD, 5000000, Payload(10, 2))));
  ASSERT_TRUE(run.parser->Finish());
  ASSERT_EQ(run.capture->seams.size(), 2u);
  EXPECT_EQ(run.Ticks(), (std::vector<int64_t>{0, 2880}));
}

TEST(PesParser, PassesTheParserBattery) {
  Bytes stream, expected;
  for (int i = 0; i < 40; i++) {
    Bytes payload = Payload(300 + i * 37, uint8_t(i));
    Bytes pes = MakePes(i % 2 ? 0xBD : 0xC0, 90000 + i * 2880, payload);
    stream.insert(stream.end(), pes.begin(), pes.end());
    expected.insert(expected.end(), payload.begin(), payload.end());
  }
  RunParserBattery([] { return TPesParser::Create(false); }, stream, expected);
}

}  // namespace
}  // namespace sonvex::tstest
