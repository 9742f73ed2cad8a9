// PGS subtitles in transport streams: TPgsReader's SUP framing of PES packets, and TTsParser's
// subtitle tracks (language, PID order, time origin) and Dolby Vision enhancement layers, on
// synthetic streams.
#include "ts/pgsreader.h"

#include <gtest/gtest.h>

#include "framework/smallstages.h"
#include "support/capture.h"
#include "ts/tsbuilder.h"
#include "ts/tsdemuxhead.h"
#include "ts/tsparser.h"
#include "ts/tsreaders.h"
#include "ts/tsstandin.h"
#include "video/h265reader.h"

namespace sonvex::tstest {
namespace {

// A PES packet of private stream 1 with PTS and, when dts >= 0, DTS.
Bytes PgsPes(int64_t pts, int64_t dts, const Bytes& payload) {
  auto stamp = [](BitWriter& w, uint32_t prefix, int64_t value) {
    w.Put(4, prefix);
    w.Put(3, uint64_t(value) >> 30);
    w.Put(1, 1);
    w.Put(15, uint64_t(value) >> 15);
    w.Put(1, 1);
    w.Put(15, uint64_t(value));
    w.Put(1, 1);
  };
  uint32_t headerData = dts >= 0 ? 10 : 5;
  BitWriter w;
  w.Put(24, 1);
  w.Put(8, 0xBD);
  w.Put(16, 3 + headerData + payload.size());
  w.Put(8, 0x81);
  w.Put(8, dts >= 0 ? 0xC0 : 0x80);
  w.Put(8, headerData);
  stamp(w, dts >= 0 ? 3 : 2, pts);
  if (dts >= 0) stamp(w, 1, dts);
  w.PutBytes(payload);
  return w.bytes;
}

// A segment: type, 16-bit size, body.
Bytes Segment(uint8_t type, const Bytes& body) {
  Bytes s = {type, uint8_t(body.size() >> 8), uint8_t(body.size())};
  s.insert(s.end(), body.begin(), body.end());
  return s;
}

Bytes SupHead(uint32_t pts, uint32_t dts) {
  Bytes h = {'P', 'G'};
  for (int i = 3; i >= 0; i--) h.push_back(uint8_t(pts >> (8 * i)));
  for (int i = 3; i >= 0; i--) h.push_back(uint8_t(dts >> (8 * i)));
  return h;
}

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// Null packets, so that the stream passes the packet size test (10 packets).
void Pad(TsMuxer& mux) {
  for (int i = 0; i < 10; i++) mux.Packet(0x1FFF, Bytes(184, 0xFF), false);
}

struct PesIn {
  int64_t pts, dts;
  Bytes payload;
};

struct ReaderCase {
  const char* name;
  int64_t origin;
  std::vector<PesIn> packets;
  Bytes expected;
};

const Bytes kPcs = Segment(0x16, Bytes(19, 1));
const Bytes kEnd = Segment(0x80, {});
const Bytes kOds = Segment(0x15, Bytes(300, 7));

const ReaderCase kReaderCases[] = {
    {"PtsOnlyGivesDtsEqualToPts", 90000, {{90000, -1, kPcs}, {93003, -1, kEnd}},
     Join({SupHead(0, 0), kPcs, SupHead(3003, 3003), kEnd})},
    {"EverySegmentOfAPacketGetsTheHead", 1000, {{4000, 2000, Join({kOds, kEnd})}},
     Join({SupHead(3000, 1000), kOds, SupHead(3000, 1000), kEnd})},
    {"UnknownOriginIsTheFirstPacket", -1, {{500000, -1, kPcs}, {590000, 580000, kEnd}},
     Join({SupHead(0, 0), kPcs, SupHead(90000, 80000), kEnd})},
    {"ClockWrapRunsOn", (int64_t(1) << 33) - 100, {{50, -1, kPcs}},
     Join({SupHead(150, 150), kPcs})},
    {"PacketAheadOfTheOriginGoesNegative", 1000, {{900, -1, kEnd}},
     Join({SupHead(uint32_t(-100), uint32_t(-100)), kEnd})},
    {"DtsBehindPtsTakesPts", 0, {{100, 200, kEnd}}, Join({SupHead(100, 100), kEnd})},
    {"CutSegmentIsDropped", 0, {{0, -1, Join({kPcs, Bytes{0x15, 0x10, 0}})}},
     Join({SupHead(0, 0), kPcs})},
};

class PgsReaderTable : public ::testing::TestWithParam<ReaderCase> {};

// Packets arrive as the TS demuxer sends them: an empty flushing block ahead of each, the
// packet in 184 byte pieces.
TEST_P(PgsReaderTable, FramesSegmentsAsSup) {
  const ReaderCase& c = GetParam();
  auto reader = TPgsReader::Create(c.origin);
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  ASSERT_TRUE(reader->InitSubtitle("pgs"));
  for (const PesIn& in : c.packets) {
    Bytes pes = PgsPes(in.pts, in.dts, in.payload);
    ASSERT_TRUE(reader->Write(0, false, nullptr, 0, -1, true));
    for (size_t at = 0; at < pes.size(); at += 184)
      ASSERT_TRUE(reader->Write(0, false, pes.data() + at,
                                uint32_t(std::min<size_t>(184, pes.size() - at)), -1, false));
  }
  ASSERT_TRUE(reader->Finish());
  EXPECT_EQ(capture->bytes, c.expected);
  EXPECT_EQ(capture->finished, 1);
}

INSTANTIATE_TEST_SUITE_P(Pgs, PgsReaderTable, ::testing::ValuesIn(kReaderCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PgsReader, RefusesOtherFormatsAndUnannouncedData) {
  LogCatcher log;
  auto reader = TPgsReader::Create();
  reader->SetUpStream(TFileSimulator::Create());
  EXPECT_FALSE(reader->InitSubtitle("sup"));
  EXPECT_TRUE(log.Has("The pgs reader received a non-supported data format."));
  auto fresh = TPgsReader::Create();
  fresh->SetUpStream(TFileSimulator::Create());
  uint8_t byte = 0;
  EXPECT_FALSE(fresh->Write(0, false, &byte, 1, -1, false));
  EXPECT_TRUE(log.Has("The pgs reader didn't receive the format information."));
}

// Damage: a segment cut off by its packet's end, and a run of data longer than any PES packet,
// are dropped with one warning; the packets around them come through.
TEST(PgsReader, DamageIsDroppedWithOneWarning) {
  LogCatcher log;
  auto reader = TPgsReader::Create(0);
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  ASSERT_TRUE(reader->InitSubtitle("pgs"));
  Bytes cut = PgsPes(10, -1, Join({kEnd, Bytes{0x15, 0x10}}));
  Bytes endless(70000, 0x55);
  Bytes good = PgsPes(20, -1, kEnd);
  for (const Bytes* block : {&cut, &endless, &good}) {
    ASSERT_TRUE(reader->Write(0, false, nullptr, 0, -1, true));
    ASSERT_TRUE(reader->Write(0, false, block->data(), uint32_t(block->size()), -1, false));
  }
  ASSERT_TRUE(reader->Finish());
  EXPECT_EQ(capture->bytes, Join({SupHead(10, 10), kEnd, SupHead(20, 20), kEnd}));
  EXPECT_EQ(log.Count("The pgs reader skipped a damaged packet."), 1);
}

// A seam between clips: the next clip's times continue from the jump.
TEST(PgsReader, SeamShiftsTheFollowingClip) {
  auto reader = TPgsReader::Create(1000);
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  ASSERT_TRUE(reader->InitSubtitle("pgs"));
  Bytes first = PgsPes(2000, -1, kEnd), second = PgsPes(500000, -1, kEnd);
  reader->Write(0, false, first.data(), uint32_t(first.size()), -1, false);
  reader->NotifySeam(true, 400000);
  reader->NotifySeam(false, 400000);
  reader->Write(0, false, nullptr, 0, -1, true);
  reader->Write(0, false, second.data(), uint32_t(second.size()), -1, false);
  ASSERT_TRUE(reader->Finish());
  EXPECT_EQ(capture->bytes, Join({SupHead(1000, 1000), kEnd, SupHead(99000, 99000), kEnd}));
}

// The TS demux head of a subtitle track ends in the PGS reader: the PID's packets come out as SUP.
TEST(PgsReader, DemuxHeadTurnsThePidIntoSup) {
  TsMuxer mux(true);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x90, 0x1200, {}}, {0x81, 0x1100, {}}}));
  mux.Put(0x1100, PgsPes(7000, -1, Bytes(50, 0)));
  mux.Put(0x1200, PgsPes(9000, -1, kOds));
  mux.Put(0x1200, PgsPes(9900, -1, kEnd));
  Pad(mux);
  TTsHeadRequest request;
  request.pid = 0x1200;
  request.trackNumber = 3;
  request.isSubtitle = true;
  request.timeOrigin = 7000;
  LogCatcher log;
  UpStreamRef head = BuildTsDemuxHead(request);
  auto capture = TCapture::Create();
  head->AppendUpStream(capture);
  ASSERT_TRUE(head->InitContainer("?", int64_t(mux.stream.size()), 0));
  ASSERT_TRUE(head->Write(0, false, mux.stream.data(), uint32_t(mux.stream.size()), -1, false));
  ASSERT_TRUE(head->Finish());
  EXPECT_TRUE(log.Has("Extracting subtitle track number 3..."));
  EXPECT_EQ(capture->bytes, Join({SupHead(2000, 2000), kOds, SupHead(2900, 2900), kEnd}));
}

struct Listed {
  std::shared_ptr<TTsParser> parser;
  std::shared_ptr<IContainerFormatDetails> container;
};

Listed ParseStream(const Bytes& stream) {
  Listed r;
  r.parser = TTsParser::Create(false);
  r.parser->SetReaderFactory([](const std::string& tag, bool dtsOption) {
    UpStreamRef standIn = tag == "h265" ? nullptr : CreateTsStreamStandIn(tag);
    return standIn ? standIn : CreateTsTrackReader(tag, dtsOption);
  });
  r.parser->SetUpStream(TFileSimulator::Create());
  r.parser->InitContainer("?", int64_t(stream.size()), 0);
  r.parser->Write(0, false, stream.data(), uint32_t(stream.size()), -1, false);
  r.parser->Finish();
  r.container = r.parser->ContainerDetails();
  return r;
}

Bytes Language(const char* code) { return {0x0A, 4, uint8_t(code[0]), uint8_t(code[1]), uint8_t(code[2]), 0}; }

TEST(TsParserSubtitles, ListedFromThePmtInPidOrderWithLanguages) {
  TsMuxer mux(true);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x90, 0x1201, Language("fra")},
                             {0x92, 0x1800, Language("deu")},
                             {0x90, 0x1200, Language("ENG")}}));
  Pad(mux);
  Listed r = ParseStream(mux.stream);
  ASSERT_TRUE(r.container->IsValid());
  ASSERT_EQ(r.container->SubtitleCount(), 3);
  struct Want {
    int32_t pid;
    const char* format;
    const char* description;
    const char* language;
  };
  const Want wants[] = {{0x1200, "sup", "PGS", "eng"},
                        {0x1201, "sup", "PGS", "fra"},
                        {0x1800, "textst", "Text subtitles", "deu"}};
  for (int32_t i = 0; i < 3; i++) {
    TTrackEntry entry;
    ASSERT_TRUE(r.container->GetSubtitle(i, entry));
    auto details = entry.details->SubtitleDetails();
    EXPECT_EQ(entry.id, wants[i].pid);
    EXPECT_EQ(details->Format(), wants[i].format);
    EXPECT_EQ(details->Description(), wants[i].description);
    EXPECT_EQ(details->Language(), wants[i].language);
  }
}

// The time origin: the subtitle stream's own first PTS when it comes within 5 s of the file's
// start, else the file's start, the earliest first PTS of audio and video (or of subtitles, when
// they start less than a second ahead of those, or when nothing else has one).
struct OriginCase {
  int64_t audioPts, subtitlePts, origin;
};
const OriginCase kOriginCases[] = {
    {500000, 600000, 600000},
    {500000, 450000, 450000},
    {500000, 1500000, 500000},
    {500000, -1, 500000},
    {-1, 300000, 300000},
};

class TsParserOrigin : public ::testing::TestWithParam<OriginCase> {};

TEST_P(TsParserOrigin, FollowsTheEarliestStream) {
  const OriginCase& c = GetParam();
  TsMuxer mux(true);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x81, 0x1100, {}}, {0x90, 0x1200, {}}}));
  if (c.subtitlePts >= 0) mux.Put(0x1200, PgsPes(c.subtitlePts, -1, kEnd));
  if (c.audioPts >= 0) mux.Put(0x1100, MakePes(0xBD, c.audioPts, Bytes(100, 0)));
  Pad(mux);
  Listed r = ParseStream(mux.stream);
  TTrackEntry entry;
  ASSERT_TRUE(r.container->GetSubtitle(0, entry));
  auto timing = Query<IPgsTiming>(entry.details);
  ASSERT_TRUE(timing);
  EXPECT_EQ(timing->TimeOrigin(), c.origin);
}

INSTANTIATE_TEST_SUITE_P(Pgs, TsParserOrigin, ::testing::ValuesIn(kOriginCases));

// Dual-layer Dolby Vision: the enhancement layer is a second HEVC stream, told by its Dolby
// Vision descriptor (no base layer in it) or, without one, by the Blu-ray PID 0x1015.
TEST(TsParserDolbyVision, EnhancementLayerByDescriptorOrPid) {
  const Bytes elDescriptor = {0xB0, 5, 1, 0, uint8_t(7 << 1), uint8_t(6 << 3 | 0x06), 0};
  const Bytes blDescriptor = {0xB0, 5, 1, 0, uint8_t(7 << 1), uint8_t(6 << 3 | 0x07), 0};
  TsMuxer mux(true);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x24, 0x1011, blDescriptor},
                             {0x24, 0x1015, {}},
                             {0x24, 0x1020, elDescriptor},
                             {0x24, 0x1030, {}}}));
  Pad(mux);
  // No pictures are fed, so no track is reported: the marks are read off the readers that the
  // parser's factory made, in PMT order.
  std::vector<std::pair<uint32_t, std::shared_ptr<Th265Reader>>> made;
  auto parser = TTsParser::Create(false);
  uint32_t order = 0;
  const uint32_t pids[] = {0x1011, 0x1015, 0x1020, 0x1030};
  parser->SetReaderFactory([&](const std::string& tag, bool) -> UpStreamRef {
    auto reader = Th265Reader::Create();
    if (tag == "h265") made.push_back({pids[order++], reader});
    return reader;
  });
  parser->SetUpStream(TFileSimulator::Create());
  parser->InitContainer("?", int64_t(mux.stream.size()), 0);
  parser->Write(0, false, mux.stream.data(), uint32_t(mux.stream.size()), -1, false);
  ASSERT_EQ(made.size(), 4u);
  const bool expected[] = {false, true, true, false};
  for (size_t i = 0; i < 4; i++)
    EXPECT_EQ(made[i].second->IsEnhancementLayer(), expected[i]) << std::hex << made[i].first;
}

}  // namespace
}  // namespace sonvex::tstest
