// TTsParser on synthetic streams: packet size, PAT/PMT, descriptors, classification, track lists
// and delays, listing lines, and the damaged-stream messages.
#include "ts/tsparser.h"

#include <gtest/gtest.h>

#include "framework/smallstages.h"
#include "ts/tsbuilder.h"
#include "ts/tsreaders.h"
#include "ts/tsstandin.h"

namespace sonvex::tstest {
namespace {

struct ParseResult {
  bool ok = false;
  std::shared_ptr<TTsParser> parser;
  std::shared_ptr<IContainerFormatDetails> container;
  std::vector<int32_t> videoPids, audioPids;
  std::vector<int32_t> videoDelays, audioDelays;
  std::vector<std::string> audioFormats;
};

ParseResult Parse(const Bytes& stream, bool listPids = false, size_t piece = 0) {
  ParseResult r;
  r.parser = TTsParser::Create(listPids);
  // The stream bodies here are no real audio or video: every stream gets the stand-in reader,
  // which knows the codec and the time stamps; Blu-ray PCM keeps its real reader.
  r.parser->SetReaderFactory([](const std::string& tag, bool dtsOption) {
    UpStreamRef standIn = CreateTsStreamStandIn(tag);
    return standIn ? standIn : CreateTsTrackReader(tag, dtsOption);
  });
  r.parser->SetUpStream(TFileSimulator::Create());
  r.ok = r.parser->InitContainer("?", int64_t(stream.size()), 0);
  if (!piece) piece = stream.size() ? stream.size() : 1;
  for (size_t at = 0; r.ok && at < stream.size(); at += piece)
    r.ok = r.parser->Write(0, false, stream.data() + at, uint32_t(std::min(piece, stream.size() - at)), -1, false);
  if (r.ok) r.ok = r.parser->Finish();
  r.container = r.parser->ContainerDetails();
  TTrackEntry e;
  for (int32_t i = 0; r.container->GetVideo(i, e); i++) {
    r.videoPids.push_back(e.id);
    r.videoDelays.push_back(e.delay);
  }
  for (int32_t i = 0; r.container->GetAudio(i, e); i++) {
    r.audioPids.push_back(e.id);
    r.audioDelays.push_back(e.delay);
    r.audioFormats.push_back(e.details->AudioDetails()->Format());
  }
  return r;
}

// A Blu-ray LPCM frame: 4 byte header (stereo, 48 kHz, 16 bits) and 5 ms of samples.
Bytes LpcmPayload() {
  BitWriter w;
  w.Put(16, 960);  // audio_data_payload_size
  w.Put(4, 3);     // channel_assignment: stereo
  w.Put(4, 1);     // sampling_frequency: 48 kHz
  w.Put(2, 1);     // bits_per_sample: 16
  w.Put(6, 0);     // start flag, reserved
  for (int i = 0; i < 960; i++) w.Put(8, uint8_t(i));
  return w.bytes;
}

// PAT, PMT (PID 0x100), then `count` PES packets per stream, interleaved, 2880 ticks apart.
Bytes BuildStream(const std::vector<PmtStream>& streams, const std::vector<int64_t>& firstPts,
                  bool m2ts = true, int count = 6) {
  TsMuxer mux(m2ts);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, streams));
  for (int n = 0; n < count; n++) {
    if (n == 1) mux.Put(0x100, MakePmt(1, streams));  // PMTs repeat
    for (size_t s = 0; s < streams.size(); s++) {
      Bytes payload = streams[s].type == 0x80 ? LpcmPayload() : Bytes(600, uint8_t(n));
      uint8_t id = streams[s].type == 0x1B || streams[s].type == 0xEA ? 0xE0 : 0xBD;
      mux.Put(streams[s].pid, MakePes(id, firstPts[s] + n * 2880, payload));
    }
  }
  return mux.stream;
}

TEST(TsParser, FindsThePacketSizeFromTheData) {
  std::vector<PmtStream> streams = {{0x81, 0x1100, {}}};
  for (bool m2ts : {false, true}) {
    ParseResult r = Parse(BuildStream(streams, {90000}, m2ts));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.parser->IsM2ts(), m2ts);
    EXPECT_EQ(r.parser->PacketSize(), m2ts ? 192u : 188u);
    EXPECT_EQ(r.container->Format(), m2ts ? "m2ts" : "ts");
    EXPECT_EQ(r.container->Name(), m2ts ? "M2TS" : "TS");
  }
}

TEST(TsParser, ShortAndAmbiguousStreamsWaitWithoutError) {
  Bytes stream = BuildStream({{0x81, 0x1100, {}}}, {0});
  stream.resize(10 * 192 - 1);
  ParseResult short1 = Parse(stream);
  EXPECT_TRUE(short1.ok);
  EXPECT_EQ(short1.container->AudioCount(), 0);

  // Sync bytes at both spacings for every tested packet: no decision, no error.
  Bytes both(40 * 192, 0x47);
  ParseResult ambiguous = Parse(both);
  EXPECT_TRUE(ambiguous.ok);
  EXPECT_EQ(ambiguous.container->AudioCount(), 0);
}

TEST(TsParser, RefusesAStreamThatDoesNotBeginOnAPacket) {
  LogCatcher log;
  Bytes stream = BuildStream({{0x81, 0x1100, {}}}, {0}, false);
  stream.insert(stream.begin(), 0x00);
  ParseResult r = Parse(stream);
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(log.Has("This doesn't seem to be a valid TS/M2TS file."));
}

TEST(TsParser, TracksComeInPidOrderWithDelaysRelativeToTheFirstVideo) {
  std::vector<PmtStream> streams = {
      {0x81, 0x1102, {}}, {0x1B, 0x1011, {}}, {0x80, 0x1100, Registration("HDMV")}, {0x83, 0x1101, {}}};
  // Video at 10 s; audio 100 ms, 0 ms and 50 ms later.
  for (size_t piece : {size_t(0), size_t(1000), size_t(192)}) {
    ParseResult r = Parse(BuildStream(streams, {909000, 900000, 900000, 904500}), false, piece);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.videoPids, (std::vector<int32_t>{0x1011}));
    EXPECT_EQ(r.videoDelays, (std::vector<int32_t>{0}));
    EXPECT_EQ(r.audioPids, (std::vector<int32_t>{0x1100, 0x1101, 0x1102}));
    EXPECT_EQ(r.audioDelays, (std::vector<int32_t>{0, 50, 100}));
    EXPECT_EQ(r.audioFormats, (std::vector<std::string>{"pcm", "thd", "ac3"}));
    EXPECT_EQ(r.container->Description(), "M2TS, 1 video track, 3 audio tracks");
  }
}

TEST(TsParser, DescriptorsRefineTheStreamType) {
  std::vector<PmtStream> streams = {
      {0x06, 0x1100, Registration("DTS2")},            // private data registered as DTS
      {0x83, 0x1101, Registration("AC-3")},            // TrueHD stays TrueHD
      {0x06, 0x1102, {0x6A, 1, 0}},                    // DVB AC-3 descriptor
      {0x80, 0x1103, {}},                              // 0x80 without HDMV: MPEG-2 video
      {0x0F, 0x1104, {}},                              // AAC: listed, no track
      {0x06, 0x1105, Registration("VC-1")}};           // VC-1 video
  LogCatcher log;
  ParseResult r = Parse(BuildStream(streams, {0, 0, 0, 0, 0, 0}), true);
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.audioPids, (std::vector<int32_t>{0x1100, 0x1101, 0x1102}));
  EXPECT_EQ(r.audioFormats, (std::vector<std::string>{"dts", "thd", "ac3"}));
  EXPECT_EQ(r.videoPids, (std::vector<int32_t>{0x1103, 0x1105}));
  EXPECT_TRUE(log.Has("PID: 256/4352 ($06), \"DTS2\", DTS"));
  EXPECT_TRUE(log.Has("PID: 256/4353 ($83), \"AC-3\", TrueHD"));
  EXPECT_TRUE(log.Has("PID: 256/4354 ($06), DVB AC3, AC3"));
  EXPECT_TRUE(log.Has("PID: 256/4355 ($80), MPEG2"));
  EXPECT_TRUE(log.Has("PID: 256/4356 ($0F), AAC (MPEG-2 Part 7 Audio)"));
  EXPECT_TRUE(log.Has("PID: 256/4357 ($06), \"VC-1\", VC-1"));
  // A PMT repeated with the same contents prints nothing twice.
  EXPECT_EQ(log.Count("PID: 256/4352 ($06), \"DTS2\", DTS"), 1);
}

TEST(TsParser, LanguageAndUnknownDescriptorsAppearInTheListingOnly) {
  LogCatcher log;
  Bytes descriptors = {0x0A, 4, 'd', 'e', 'u', 0, 0x52, 1, 7};
  ParseResult r = Parse(BuildStream({{0x81, 0x1100, descriptors}}, {0}), true);
  ASSERT_TRUE(r.ok);
  EXPECT_TRUE(log.Has("PID: 256/4352 ($81), deu, descriptor $52, AC3"));
  EXPECT_EQ(r.audioPids.size(), 1u);
}

TEST(TsParser, TwoProgramsLandInOneListInPidOrder) {
  TsMuxer mux(false);
  mux.Put(0, MakePat({{1, 0x100}, {2, 0x200}}));
  mux.Put(0x100, MakePmt(1, {{0x81, 0x300, {}}}));
  mux.Put(0x200, MakePmt(2, {{0x81, 0x250, {}}}));
  for (int n = 0; n < 6; n++)
    for (uint16_t pid : {0x300, 0x250}) mux.Put(pid, MakePes(0xBD, 1000 + n * 2880, Bytes(500, 1)));
  ParseResult r = Parse(mux.stream);
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.audioPids, (std::vector<int32_t>{0x250, 0x300}));
}

TEST(TsParser, ChangedProgramTypeEndsTheStage) {
  LogCatcher log;
  TsMuxer mux(false);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x81, 0x300, {}}}));
  mux.Put(0x100, MakePmt(1, {{0x82, 0x300, {}}}));
  mux.stream.resize(mux.stream.size() + 10 * 188, 0);
  for (size_t i = mux.stream.size() - 10 * 188; i < mux.stream.size(); i += 188) mux.stream[i] = 0x47, mux.stream[i + 1] = 0x1F, mux.stream[i + 2] = 0xFF, mux.stream[i + 3] = 0x10;
  ParseResult r = Parse(mux.stream);
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(log.Has("The program type (768) changes from $81 to $82."));
  EXPECT_FALSE(r.container->IsValid());
}

TEST(TsParser, PmtPidUsedForVideoEndsTheStage) {
  LogCatcher log;
  TsMuxer mux(false);
  mux.Put(0, MakePat({{1, 0x100}, {2, 0x200}}));
  mux.Put(0x100, MakePmt(1, {{0x1B, 0x200, {}}}));
  for (int i = 0; i < 10; i++) mux.Put(0x1FFF, Bytes(184, 0xFF), false);
  ParseResult r = Parse(mux.stream);
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(log.Has("The program type (512) changes from PMT to video."));
}

TEST(TsParser, DamagedPacketsGiveTheirMessages) {
  Bytes good = BuildStream({{0x81, 0x1100, {}}}, {0}, false);
  struct Case {
    size_t packet;
    int byte;
    uint8_t value;
    const char* message;
  } cases[] = {
      {20, 0, 0x46, "This TS/M2TS file seems to be damaged (sync byte missing)."},
      {20, 1, 0x80, "This TS/M2TS file seems to be damaged (transport error indicated)."},
  };
  for (const Case& c : cases) {
    LogCatcher log;
    Bytes bad = good;
    bad[c.packet * 188 + size_t(c.byte)] |= c.value;
    if (c.byte == 0) bad[c.packet * 188] = c.value;
    ParseResult r = Parse(bad);
    EXPECT_FALSE(r.ok) << c.message;
    EXPECT_TRUE(log.Has(c.message)) << c.message;
  }
  // An adaptation field that claims the whole packet and more.
  LogCatcher log;
  Bytes bad = good;
  bad[20 * 188 + 3] = 0x30;
  bad[20 * 188 + 4] = 190;
  EXPECT_FALSE(Parse(bad).ok);
  EXPECT_TRUE(log.Has("This TS/M2TS file seems to be damaged (adaptation field too big)."));
}

TEST(TsParser, RefusesWrongFormatsAndMissingAnnouncements) {
  LogCatcher log;
  auto parser = TTsParser::Create(false);
  parser->SetUpStream(TFileSimulator::Create());
  EXPECT_FALSE(parser->InitContainer("evo", 0, 0));
  EXPECT_TRUE(log.Has("The ts parser received a non-supported data format."));
  auto second = TTsParser::Create(false);
  second->SetUpStream(TFileSimulator::Create());
  uint8_t byte = 0x47;
  EXPECT_FALSE(second->Write(0, false, &byte, 1, -1, false));
  EXPECT_TRUE(log.Has("The ts parser didn't receive the format information."));
  auto third = TTsParser::Create(false);
  EXPECT_FALSE(third->InitContainer("?", 0, 0));
  EXPECT_TRUE(log.Has("The ts parser upstream property is not set."));
}

}  // namespace
}  // namespace sonvex::tstest
