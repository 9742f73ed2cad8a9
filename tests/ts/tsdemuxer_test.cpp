// TTsDemuxer on synthetic streams: announcement, continuity judging and the switch, the
// discontinuity indicator, seams, and damaged streams.
#include "ts/tsdemuxer.h"

#include <gtest/gtest.h>

#include "support/capture.h"
#include "ts/pesparser.h"
#include "ts/tsbuilder.h"

namespace sonvex::tstest {
namespace {

struct DemuxRun {
  std::shared_ptr<TTsDemuxer> demuxer;
  std::shared_ptr<TPesParser> pes = TPesParser::Create(false);
  std::shared_ptr<TCapture> capture = TCapture::Create();
  bool ok = false;
  DemuxRun(const Bytes& stream, uint32_t pid, bool ignore = false, size_t piece = 0) {
    demuxer = TTsDemuxer::Create(pid, 3, ignore);
    demuxer->SetUpStream(pes);
    pes->SetUpStream(capture);
    ok = demuxer->InitContainer("?", 0, 0);
    if (!piece) piece = stream.size();
    for (size_t at = 0; ok && at < stream.size(); at += piece)
      ok = demuxer->Write(0, false, stream.data() + at, uint32_t(std::min(piece, stream.size() - at)), -1, false);
    if (ok) ok = demuxer->Finish();
  }
};

// PAT, PMT with an AC3 (0x1100) and an MP2 (0x1101) stream, then PES packets of both.
TsMuxer Prologue(bool m2ts = false) {
  TsMuxer mux(m2ts);
  mux.Put(0, MakePat({{1, 0x100}}));
  mux.Put(0x100, MakePmt(1, {{0x81, 0x1100, {}}, {0x03, 0x1101, {}}}));
  return mux;
}

Bytes Frame(int n) { return Bytes(400, uint8_t(n)); }

TEST(TsDemuxer, ExtractsOnePidAndAnnouncesItsFormat) {
  for (bool m2ts : {false, true}) {
    TsMuxer mux = Prologue(m2ts);
    Bytes expected;
    for (int n = 0; n < 8; n++) {
      mux.Put(0x1100, MakePes(0xBD, 90000 + n * 2880, Frame(n)));
      mux.Put(0x1101, MakePes(0xC0, 90000 + n * 2160, Frame(100 + n)));
      Bytes f = Frame(n);
      expected.insert(expected.end(), f.begin(), f.end());
    }
    LogCatcher log;
    for (size_t piece : {size_t(0), size_t(1), size_t(777)}) {
      DemuxRun run(mux.stream, 0x1100, false, piece);
      ASSERT_TRUE(run.ok);
      EXPECT_EQ(run.capture->bytes, expected);
      ASSERT_EQ(run.capture->audioInits.size(), 1u);
      EXPECT_EQ(run.capture->audioInits[0].format, "ac3");
      EXPECT_EQ(run.capture->containerInits.size(), 0u);
    }
    EXPECT_TRUE(log.Has("Extracting audio track number 3..."));
  }
}

TEST(TsDemuxer, ContinuityBreakStopsWithThreeLines) {
  TsMuxer mux = Prologue();
  for (int n = 0; n < 4; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  mux.counters[0x1100] = uint8_t(mux.counters[0x1100] + 5);  // five packets lost
  for (int n = 4; n < 8; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  LogCatcher log;
  DemuxRun run(mux.stream, 0x1100);
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(log.Count("This TS/M2TS file seems to be damaged (discontinuity)."), 1);
  EXPECT_TRUE(log.Has("You can use the \"-ignoreDiscon\" switch to make sonvex ignore discontinuities."));
  EXPECT_TRUE(log.Has("Doing that might result in artifacts during playback, though."));

  // With the switch: one line, once, and the run goes on.
  mux.counters[0x1100] = uint8_t(mux.counters[0x1100] + 3);
  for (int n = 8; n < 12; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  LogCatcher log2;
  DemuxRun ignoring(mux.stream, 0x1100, true);
  EXPECT_TRUE(ignoring.ok);
  EXPECT_EQ(log2.Count("This TS/M2TS file seems to be damaged (discontinuity)."), 1);
  EXPECT_FALSE(log2.Has("Doing that might result in artifacts during playback, though."));
  EXPECT_EQ(ignoring.capture->bytes.size(), 12u * 400);
}

TEST(TsDemuxer, OtherPidsAndIndicatedDiscontinuitiesAreNotFaults) {
  TsMuxer mux = Prologue();
  for (int n = 0; n < 4; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  mux.counters[0x1101] = 9;  // a jump on a PID nobody asked for
  mux.Put(0x1101, MakePes(0xC0, 0, Frame(50)));
  // A jump announced by the discontinuity_indicator.
  Bytes pes = MakePes(0xBD, 4 * 2880, Frame(4));
  mux.Packet(0x1100, Bytes(pes.begin(), pes.begin() + 100), true, 12, true);
  mux.Put(0x1100, Bytes(pes.begin() + 100, pes.end()), false);
  // A packet without payload repeats the counter: adaptation field only.
  Bytes only = {0x47, 0x11, 0x00, uint8_t(0x20 | ((mux.counters[0x1100] + 15) & 15)), 183, 0};
  only.resize(188, 0xFF);
  mux.stream.insert(mux.stream.end(), only.begin(), only.end());
  for (int n = 5; n < 8; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  LogCatcher log;
  DemuxRun run(mux.stream, 0x1100);
  EXPECT_TRUE(run.ok);
  EXPECT_FALSE(log.Has("This TS/M2TS file seems to be damaged (discontinuity)."));
  EXPECT_EQ(run.capture->bytes.size(), 8u * 400);
}

TEST(TsDemuxer, SeamResetsTheCounters) {
  TsMuxer first = Prologue(true);
  for (int n = 0; n < 4; n++) first.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  TsMuxer second = Prologue(true);
  second.counters[0x1100] = 7;
  for (int n = 4; n < 8; n++) second.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));

  auto demuxer = TTsDemuxer::Create(0x1100, 1, false);
  auto pes = TPesParser::Create(false);
  auto capture = TCapture::Create();
  demuxer->SetUpStream(pes);
  pes->SetUpStream(capture);
  ASSERT_TRUE(demuxer->InitContainer("m2ts", 0, 900000));
  ASSERT_TRUE(demuxer->Write(0, false, first.stream.data(), uint32_t(first.stream.size()), -1, false));
  demuxer->NotifySeam(true, 0);
  demuxer->NotifySeam(false, 0);
  ASSERT_TRUE(demuxer->Write(0, false, second.stream.data(), uint32_t(second.stream.size()), -1, false));
  ASSERT_TRUE(demuxer->Finish());
  EXPECT_EQ(capture->bytes.size(), 8u * 400);
  EXPECT_EQ(capture->seams.size(), 2u);
}

TEST(TsDemuxer, DamagedStreamsGiveTheirMessages) {
  TsMuxer mux = Prologue();
  for (int n = 0; n < 12; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  const size_t at = 15 * 188;
  struct Case {
    size_t offset;
    uint8_t value;
    const char* message;
  } cases[] = {
      {at, 0x00, "This TS/M2TS file seems to be damaged (sync byte missing)."},
      {at + 1, uint8_t(mux.stream[at + 1] | 0x80), "This TS/M2TS file seems to be damaged (transport error indicated)."},
  };
  for (const Case& c : cases) {
    Bytes bad = mux.stream;
    bad[c.offset] = c.value;
    LogCatcher log;
    DemuxRun run(bad, 0x1100);
    EXPECT_FALSE(run.ok) << c.message;
    EXPECT_TRUE(log.Has(c.message)) << c.message;
  }
  // A PAT packet whose table_id is not 0 (behind the stuffing and the pointer_field).
  Bytes bad = mux.stream;
  bad[4 + 1 + bad[4] + 1] = 0x42;
  LogCatcher log;
  DemuxRun run(bad, 0x1100);
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(log.Has("This TS/M2TS file seems to be damaged (incorrect table_id)."));
}

TEST(TsDemuxer, TruncatedFileEndsWithTheWholePacketsItHas) {
  TsMuxer mux = Prologue();
  for (int n = 0; n < 6; n++) mux.Put(0x1100, MakePes(0xBD, n * 2880, Frame(n)));
  Bytes cut(mux.stream.begin(), mux.stream.end() - 100);
  DemuxRun run(cut, 0x1100);
  EXPECT_TRUE(run.ok);
  // The last PES lost its end: its declared length is never reached, so it is not sent.
  EXPECT_EQ(run.capture->bytes.size(), 5u * 400);
}

TEST(TsDemuxer, RefusesWrongFormatsAndMissingAnnouncements) {
  LogCatcher log;
  auto demuxer = TTsDemuxer::Create(0x1100, 1, false);
  demuxer->SetUpStream(TCapture::Create());
  EXPECT_FALSE(demuxer->InitContainer("evo", 0, 0));
  EXPECT_TRUE(log.Has("The ts demuxer received a non-supported data format."));
  auto second = TTsDemuxer::Create(0x1100, 1, false);
  second->SetUpStream(TCapture::Create());
  uint8_t byte = 0x47;
  EXPECT_FALSE(second->Write(0, false, &byte, 1, -1, false));
  EXPECT_TRUE(log.Has("The ts demuxer didn't receive the format information."));
  auto third = TTsDemuxer::Create(0x1100, 1, false);
  EXPECT_FALSE(third->InitContainer("?", 0, 0));
  EXPECT_TRUE(log.Has("The ts demuxer upstream property is not set."));
}

}  // namespace
}  // namespace sonvex::tstest
