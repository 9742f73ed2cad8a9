// The EVO/VOB stages on built streams: the packet walk's tables and repairs, the demuxer's
// timeline and authoring line, the PCM and subpicture readers, the repairer.
#include <gtest/gtest.h>

#include "evo/evobuilder.h"
#include "evo/evodemuxer.h"
#include "evo/evopackets.h"
#include "evo/evopcmreader.h"
#include "evo/evorepairer.h"
#include "evo/evosubreader.h"
#include "support/capture.h"

namespace sonvex::evotest {
namespace {

using test::TCapture;

struct TSeen {
  TEvoStream stream;
  Bytes payload;
  int64_t pts;
};

// Records what the walk finds.
struct TRecorder : IEvoPacketSink {
  std::vector<TSeen> payloads;
  std::vector<std::pair<uint32_t, uint32_t>> dsi;
  int widened = 0;
  void EvoDsi(uint32_t start, uint32_t end) override { dsi.push_back({start, end}); }
  void EvoStream(const TEvoStream&) override {}
  bool EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                  int64_t pts) override {
    payloads.push_back({stream, Bytes(payload, payload + size), pts});
    return true;
  }
  void EvoWidened() override { widened++; }
};

TEvoPacketWalk::TStop WalkAll(TEvoPacketWalk& walk, const Bytes& stream, TRecorder& sink) {
  TEvoPacketWalk::TStop stop;
  walk.Walk(stream.data(), uint32_t(stream.size()), true, sink, stop);
  return stop;
}

TEST(EvoPacketWalk, PrivateStreamTablesOfParserAndDemuxer) {
  struct Case {
    uint8_t substream;
    const char* parserTag;  // nullptr: no stream
    uint32_t parserId;
    const char* demuxerTag;
    uint32_t demuxerId;
    size_t dropped;
  } cases[] = {
      {0x20, "evo/sub", 0, "evo/sub", 0, 1},  {0x3F, "evo/sub", 31, "evo/sub", 31, 1},
      {0x80, "ac3", 0, "ac3", 0, 4},          {0x89, "dts", 1, "dts", 1, 4},
      {0x9A, "dts", 10, nullptr, 0, 4},       {0xC1, "ac3", 1, "ac3", 1, 4},
      {0xC9, "ac3", 9, "ac3", 9, 4},          {0xA1, "evo/pcm", 1, "evo/pcm", 1, 4},
      {0xA9, "evo/pcm", 9, nullptr, 0, 4},    {0xB2, "thd", 2, "thd", 2, 5},
      {0xBA, "thd", 10, nullptr, 0, 5},       {0x50, nullptr, 0, nullptr, 0, 0},
  };
  for (const Case& c : cases) {
    Bytes payload = Filled(40, 3);
    payload[0] = c.substream;
    Bytes stream = Pes(0xBD, 9000, payload);
    for (bool demuxer : {false, true}) {
      const char* tag = demuxer ? c.demuxerTag : c.parserTag;
      TEvoPacketWalk walk(demuxer);
      TRecorder sink;
      EXPECT_EQ(WalkAll(walk, stream, sink), TEvoPacketWalk::TStop::Wait);
      SCOPED_TRACE(std::to_string(c.substream) + (demuxer ? " demuxer" : " parser"));
      if (!tag) {
        EXPECT_TRUE(sink.payloads.empty());
        continue;
      }
      ASSERT_EQ(sink.payloads.size(), 1u);
      EXPECT_STREQ(sink.payloads[0].stream.tag, tag);
      EXPECT_EQ(sink.payloads[0].stream.id, demuxer ? c.demuxerId : c.parserId);
      EXPECT_EQ(sink.payloads[0].payload, Bytes(payload.begin() + c.dropped, payload.end()));
      EXPECT_EQ(sink.payloads[0].pts, 9000);
    }
  }
}

TEST(EvoPacketWalk, VideoStreamIdsAndExtendedVc1) {
  struct Case {
    uint8_t streamId;
    uint8_t extension;  // for 0xFD
    const char* tag;
    uint32_t id;
  } cases[] = {
      {0xE0, 0, "mpeg2", 0}, {0xE1, 0, "mpeg2", 1}, {0xE2, 0, "h264", 0},
      {0xE3, 0, "h264", 1},  {0xC5, 0, "mp2", 5},    {0xFD, 0x55, "vc1", 0},
      {0xFD, 0x56, "vc1", 1}, {0xFD, 0x57, nullptr, 0},
  };
  for (const Case& c : cases) {
    Bytes stream = Pes(c.streamId, -1, Filled(30, 1));
    if (c.streamId == 0xFD) {
      // PES extension with extension 2: its length byte, then the stream id extension.
      Bytes payload = Filled(30, 1);
      size_t length = 3 + 3 + payload.size();
      stream = {0x00, 0x00, 0x01, 0xFD, uint8_t(length >> 8), uint8_t(length), 0x81, 0x01, 3,
                0x01, 0x81, c.extension};
      Append(stream, payload);
    }
    TEvoPacketWalk walk(true);
    TRecorder sink;
    WalkAll(walk, stream, sink);
    SCOPED_TRACE(c.streamId);
    if (!c.tag) {
      EXPECT_TRUE(sink.payloads.empty());
      continue;
    }
    ASSERT_EQ(sink.payloads.size(), 1u);
    EXPECT_STREQ(sink.payloads[0].stream.tag, c.tag);
    EXPECT_EQ(sink.payloads[0].stream.id, c.id);
    EXPECT_EQ(sink.payloads[0].stream.isVideo, c.streamId != 0xC5);
    EXPECT_EQ(sink.payloads[0].payload, Filled(30, 1));
  }
}

TEST(EvoPacketWalk, VobOrEvoFromSystemHeaderElseMuxRate) {
  struct Case {
    int lastStream;  // -1: no system header
    uint32_t muxRate;
    const char* tag;
  } cases[] = {
      {0xFD, 25200, "evo/pcm"}, {0xE0, 75600, "vob/pcm"},
      {-1, 25200, "vob/pcm"},   {-1, 75600, "evo/pcm"},
  };
  for (const Case& c : cases) {
    Bytes stream = PackHeader(c.muxRate);
    if (c.lastStream >= 0) Append(stream, SystemHeader(uint8_t(c.lastStream)));
    Bytes payload = Filled(20, 0);
    payload[0] = 0xA0;
    Append(stream, Pes(0xBD, 100, payload));
    TEvoPacketWalk walk(false);
    TRecorder sink;
    WalkAll(walk, stream, sink);
    ASSERT_EQ(sink.payloads.size(), 1u);
    EXPECT_STREQ(sink.payloads[0].stream.tag, c.tag) << c.lastStream << " " << c.muxRate;
  }
}

TEST(EvoPacketWalk, ShortLengthsWidenToTheNextStartCodeAndForeignCodesStop) {
  Bytes payload = Filled(100, 5);
  Bytes stream = PackHeader();
  Append(stream, Pes(0xE0, 3000, payload, -3));
  Append(stream, PackHeader());
  Append(stream, Dsi(100, 200));
  TEvoPacketWalk walk(true);
  TRecorder sink;
  EXPECT_EQ(WalkAll(walk, stream, sink), TEvoPacketWalk::TStop::Wait);
  EXPECT_EQ(sink.widened, 1);
  ASSERT_EQ(sink.payloads.size(), 1u);
  EXPECT_EQ(sink.payloads[0].payload, payload);
  ASSERT_EQ(sink.dsi.size(), 1u);
  EXPECT_EQ(sink.dsi[0], std::make_pair(100u, 200u));

  Bytes foreign = PackHeader();
  Append(foreign, Bytes{0x00, 0x00, 0x01, 0xB3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  TEvoPacketWalk second(true);
  TRecorder none;
  EXPECT_EQ(WalkAll(second, foreign, none), TEvoPacketWalk::TStop::BadCode);
}

TEST(EvoDemuxer, OneTimelineForAllStreamsAndTheAuthoringLineOnce) {
  TEvoDemuxer::ResetAuthoringMessage();
  Bytes stream = PackHeader();
  Append(stream, Pes(0xE0, 90000, Filled(50, 1)));
  Bytes audio = {0x80, 1, 0, 1};
  Append(audio, Filled(60, 2));
  Append(stream, Pes(0xBD, 90000 - 900, audio, -2));
  Append(stream, Pes(0xBD, 90000 + 2880, audio));
  PadToPack(stream);
  TLogLines log;
  std::vector<std::shared_ptr<TCapture>> captures;
  for (int i = 0; i < 2; i++) {
    auto demuxer = TEvoDemuxer::Create(false, true, 0, 2);
    auto capture = TCapture::Create();
    demuxer->SetUpStream(capture);
    ASSERT_TRUE(demuxer->InitContainer("evo", 0, 0));
    ASSERT_TRUE(demuxer->Write(0, false, stream.data(), uint32_t(stream.size()), -1, false));
    ASSERT_TRUE(demuxer->Finish());
    captures.push_back(capture);
  }
  EXPECT_EQ(log.Count("This EVO/VOB file contains authoring faults. Will try to work around that."),
            1u);
  EXPECT_EQ(log.Count("Extracting audio track number 2..."), 2u);
  const auto& c = *captures[0];
  ASSERT_EQ(c.audioInits.size(), 1u);
  EXPECT_EQ(c.audioInits[0].format, "ac3");
  // Positions in 100 ns ticks on the common timeline that the video's PTS started.
  ASSERT_EQ(c.positions.size(), 2u);
  EXPECT_EQ(c.positions[0], -900 * 1000 / 9);
  EXPECT_EQ(c.positions[1], 2880 * 1000 / 9);
  // The packet declared 2 bytes short comes out whole.
  Bytes expected(audio.begin() + 4, audio.end());
  Append(expected, Bytes(audio.begin() + 4, audio.end()));
  EXPECT_EQ(c.bytes, expected);
}

// PCM reader: headers, refusals, the pair layout.
struct PcmRun {
  std::shared_ptr<TEvoPcmReader> reader = TEvoPcmReader::Create();
  std::shared_ptr<TCapture> capture = TCapture::Create();
  explicit PcmRun(const char* tag) {
    reader->SetUpStream(capture);
    EXPECT_TRUE(reader->InitAudio(tag, 0, 0, 0, false, 0));
  }
  bool Write(const Bytes& block, int64_t position = -1) {
    return reader->Write(0, false, block.data(), uint32_t(block.size()), position, false);
  }
};

TEST(EvoPcmReader, HeadersAndRefusals) {
  struct Case {
    const char* tag;
    Bytes header;
    uint32_t channels, bits, rate;
    const char* failure;
  } cases[] = {
      {"vob/pcm", {0x00, 0x05, 0x80}, 6, 16, 48000, nullptr},          // DVD 5.1
      {"vob/pcm", {0x00, 0x91, 0x80}, 2, 24, 96000, nullptr},          // DVD 24 bit, 96 kHz
      {"vob/pcm", {0x00, 0x41, 0x80}, 2, 24, 48000, nullptr},          // 20 bits travel as 24
      {"vob/pcm", {0x00, 0xC1, 0x80}, 0, 0, 0, "The evo pcm reader received an unsupported bitdepth."},
      {"vob/pcm", {0x00, 0x31, 0x80}, 0, 0, 0, "The evo pcm reader received an unsupported sample rate."},
      {"vob/pcm", {0x00, 0x01}, 0, 0, 0, "The evo pcm reader received an incorrectly sized data block."},
      {"evo/pcm", {0x01, 0x25, 0x80, 0, 0}, 6, 24, 192000, nullptr},   // q = 2
      {"evo/pcm", {0x00, 0x81, 0x80, 0, 0}, 2, 24, 48000, nullptr},    // q = 1: 20 bits
      {"evo/pcm", {0x00, 0x08, 0x80, 0, 0}, 0, 0, 0, "The evo pcm reader received an unsupported channel number."},
      {"evo/pcm", {0x01, 0x81, 0x80, 0, 0}, 0, 0, 0, "The evo pcm reader received an unsupported PCM format."},
      {"evo/pcm", {0x00, 0x31, 0x80, 0, 0}, 0, 0, 0, "The evo pcm reader received an unsupported sample rate."},
  };
  for (const Case& c : cases) {
    TLogLines log;
    PcmRun run(c.tag);
    Bytes block = c.header;
    if (!c.failure) Append(block, Filled(c.channels * 2 * (c.bits == 16 ? 4 : 6), 9));
    bool ok = run.Write(block);
    SCOPED_TRACE(std::string(c.tag) + " " + std::to_string(c.header[1]));
    if (c.failure) {
      EXPECT_FALSE(ok);
      EXPECT_EQ(log.Count(c.failure), 1u);
      continue;
    }
    ASSERT_TRUE(ok);
    ASSERT_EQ(run.capture->audioInits.size(), 1u);
    EXPECT_EQ(run.capture->audioInits[0].channels, c.channels);
    EXPECT_EQ(run.capture->audioInits[0].bits, c.bits);
    EXPECT_EQ(run.capture->audioInits[0].sampleRate, c.rate);
    EXPECT_TRUE(run.capture->audioInits[0].bigEndian);
  }
}

TEST(EvoPcmReader, PairsOf24And20BitSamplesBecomePlainSamples) {
  // Two channels, 24 bit: L0 R0 L1 R1 upper words, then their low bytes; the block ends one byte
  // into the next pair, which waits for the following block.
  PcmRun run24("vob/pcm");
  Bytes block = {0x00, 0x81, 0x80, 0x11, 0x12, 0x21, 0x22, 0x31, 0x32, 0x41, 0x42,
                 0xA1, 0xA2, 0xA3, 0xA4, 0x55};
  ASSERT_TRUE(run24.Write(block, 5000));
  EXPECT_EQ(run24.capture->bytes, (Bytes{0x11, 0x12, 0xA1, 0x21, 0x22, 0xA2, 0x31, 0x32, 0xA3,
                                          0x41, 0x42, 0xA4}));
  Bytes rest = {0x00, 0x81, 0x80, 0x56, 0x61, 0x62, 0x71, 0x72, 0x81, 0x82, 0xB1, 0xB2, 0xB3, 0xB4};
  ASSERT_TRUE(run24.Write(rest, 6000));
  EXPECT_EQ(Bytes(run24.capture->bytes.begin() + 12, run24.capture->bytes.end()),
            (Bytes{0x55, 0x56, 0xB1, 0x61, 0x62, 0xB2, 0x71, 0x72, 0xB3, 0x81, 0x82, 0xB4}));

  // Two channels, 20 bit: one nibble per sample, the high one first, at the top of the low byte.
  PcmRun run20("evo/pcm");
  Bytes block20 = {0x00, 0x81, 0x80, 0, 0, 0x11, 0x12, 0x21, 0x22, 0x31, 0x32, 0x41, 0x42,
                   0xAB, 0xCD};
  ASSERT_TRUE(run20.Write(block20));
  EXPECT_EQ(run20.capture->bytes, (Bytes{0x11, 0x12, 0xA0, 0x21, 0x22, 0xB0, 0x31, 0x32, 0xC0,
                                          0x41, 0x42, 0xD0}));
}

TEST(EvoPcmReader, SamplesAheadOfTheFirstTimeStampAreANegativeDelay) {
  PcmRun run("vob/pcm");
  Bytes block = {0x00, 0x01, 0x80};
  Append(block, Filled(4 * 480, 1));  // 480 stereo 16 bit samples: 10 ms
  ASSERT_TRUE(run.Write(block));
  EXPECT_FALSE(run.reader->HasTimestamps());
  ASSERT_TRUE(run.Write(block, 1000));
  EXPECT_TRUE(run.reader->HasTimestamps());
  EXPECT_EQ(run.reader->InitialDelay(), -10);
}

TEST(EvoSubReader, UnitsGetSpHeadsTimesAndPads) {
  auto reader = TEvoSubReader::Create();
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  reader->SetDelay(1, 100);
  ASSERT_TRUE(reader->InitSubtitle("evo/sub"));
  EXPECT_EQ(reader->SubtitleDetails()->Description(), "Subtitle");
  // A DVD unit of 9 bytes in two pieces, then an HD DVD unit (16-bit size 0, 32-bit size 10).
  Bytes dvd = {0x00, 0x09, 0x00, 0x04, 1, 2, 3, 4, 5};
  Bytes hd = {0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 7, 7, 7, 7};
  ASSERT_TRUE(reader->Write(0, false, dvd.data(), 4, 2000000, false));
  ASSERT_TRUE(reader->Write(0, false, dvd.data() + 4, 5, -1, false));
  ASSERT_TRUE(reader->Write(0, false, hd.data(), uint32_t(hd.size()), 2000000 + 10000000, false));
  Bytes expected = {'S', 'P', 0x28, 0x23, 0, 0, 0, 0, 0, 0};  // 100 ms: 9000 ticks
  Append(expected, dvd);
  expected.push_back(0xFF);
  Bytes second = {'S', 'P', 0xB8, 0x82, 0x01, 0, 0, 0, 0, 0};  // 1.1 s: 99000 ticks
  Append(expected, second);
  Append(expected, hd);
  EXPECT_EQ(capture->bytes, expected);
  // The delay is in the time stamps; it goes no further.
  EXPECT_TRUE(capture->delaysSeen.empty());
}

// Repairer: a unit of two packets behind a DSI packet, in three packs whose clock starts at `scr`
// and rises by 10.
Bytes Unit(uint32_t start, uint32_t end, uint32_t pts, uint64_t scr) {
  Bytes b = PackHeader(75600, scr);
  Append(b, Dsi(start, end));
  Append(b, PackHeader(75600, scr + 10));
  Append(b, Pes(0xE0, pts, Filled(64, 4), 0, pts - 3003));
  Append(b, PackHeader(75600, scr + 20));
  Append(b, Pes(0xE0, -1, Filled(64, 6)));
  return b;
}

Bytes Repair(const Bytes& stream, TLogLines& log) {
  auto repairer = TEvoRepairer::Create();
  auto capture = TCapture::Create();
  repairer->SetUpStream(capture);
  EXPECT_TRUE(repairer->InitContainer("evo", 0, 0));
  EXPECT_TRUE(repairer->Write(0, false, stream.data(), uint32_t(stream.size()), -1, false));
  EXPECT_TRUE(repairer->Finish());
  return capture->bytes;
}

TEST(EvoRepairer, ContinuousTimesStayAndAJumpIsLaidOnTheRunningTime) {
  Bytes continuous = Unit(9000, 54045, 9000, 4000);
  Append(continuous, Unit(54045, 99090, 54045, 49045));
  TLogLines quiet;
  EXPECT_EQ(Repair(continuous, quiet), continuous);
  EXPECT_EQ(quiet.Count("Fixing EVO/VOB timestamps..."), 0u);

  // Times, DTS and the clock of the packs move with their unit.
  Bytes joined = Unit(9000, 54045, 9000, 4000);
  Append(joined, Unit(900000, 945045, 900000, 895000));
  Append(joined, Unit(945045, 990090, 945045, 940045));
  TLogLines log;
  Bytes repaired = Repair(joined, log);
  EXPECT_EQ(log.Count("Fixing EVO/VOB timestamps..."), 1u);
  Bytes expected = Unit(9000, 54045, 9000, 4000);
  Append(expected, Unit(54045, 99090, 54045, 49045));
  Append(expected, Unit(99090, 144135, 99090, 94090));
  EXPECT_EQ(repaired, expected);
}

// The first part's last packs were sent later than the second part's first pack would come when
// moved with its unit: the clock runs on from the last pack by its last step instead.
TEST(EvoRepairer, TheClockOfThePacksNeverRunsBack) {
  Bytes joined = Unit(9000, 54045, 9000, 50000);
  Append(joined, Unit(900000, 945045, 900000, 895000));
  Append(joined, Unit(945045, 990090, 945045, 940045));
  TLogLines log;
  Bytes expected = Unit(9000, 54045, 9000, 50000);
  Append(expected, Unit(54045, 99090, 54045, 50030));
  Append(expected, Unit(99090, 144135, 99090, 95075));
  EXPECT_EQ(Repair(joined, log), expected);
}

}  // namespace
}  // namespace sonvex::evotest
