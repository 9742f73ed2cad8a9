// TAc3Reader: the parser battery, the listing facts against ffprobe, the first-frame rules, the
// end of a damaged stream, and time stamps.
#include "ac3/ac3reader.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "ac3testutil.h"
#include "framework/bitreader.h"
#include "support/battery.h"

namespace sonvex::ac3test {
namespace {

// Pushes `stream` through a fresh reader in pieces; the reader and its capture stay reachable.
struct ReaderRun {
  std::shared_ptr<TAc3Reader> reader;
  std::shared_ptr<TCapture> capture;
  bool ok = false;
};
ReaderRun RunReader(const std::vector<uint8_t>& stream, size_t piece = 4096,
                    bool exactStart = false) {
  auto reader = TAc3Reader::Create("", "", exactStart);
  PushResult r = Push(reader, stream, piece);
  return {reader, r.capture, r.ok};
}

std::vector<uint8_t> Ac3Stream(int frames) { return Repeat(MakeAc3Frame({}), frames); }

std::map<std::string, std::string> Probe(const std::string& file) {
  return ProbeFacts(file, "stream=channels,sample_rate,bit_rate,channel_layout,nb_read_packets:"
                          "format=duration", "-count_packets");
}

std::string LayoutText(const std::string& ffprobeLayout) {
  if (ffprobeLayout == "stereo") return "2.0";
  if (ffprobeLayout == "mono") return "1.0";
  if (ffprobeLayout == "5.1(side)" || ffprobeLayout == "5.1") return "5.1";
  return ffprobeLayout;
}

std::vector<std::string> CorpusAc3Files() {
  std::vector<std::string> files;
  for (const char* folder : {"gen", "public/ac3", "public/eac3"}) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusDir() + "/" + folder, error)) {
      std::string ext = entry.path().extension().string();
      if (ext == ".ac3" || ext == ".eac3") files.push_back(entry.path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Every AC3 and E-AC3 file of the corpus: one frame per block, the frame count, and the facts
// of the listing as ffprobe sees them.
TEST(Ac3Reader, ListingFactsMatchFfprobe) {
  SKIP_WITHOUT_CORPUS();
  if (!HaveTool("ffprobe")) GTEST_SKIP() << "ffprobe absent";
  auto files = CorpusAc3Files();
  ASSERT_GE(files.size(), 9u);
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    auto stream = ReadBytes(file);
    auto facts = Probe(file);
    ReaderRun run = RunReader(stream, 16384);
    ASSERT_TRUE(run.ok);
    auto details = run.reader->AudioDetails();
    bool eac3 = file.ends_with(".eac3");
    EXPECT_EQ(details->Format(), eac3 ? "eac3" : "ac3");
    EXPECT_EQ(std::to_string(details->Channels()), facts["channels"]);
    EXPECT_EQ(std::to_string(details->SampleRate()), facts["sample_rate"]);
    EXPECT_EQ(std::to_string(details->Bitrate()), facts["bit_rate"]);
    EXPECT_EQ(details->ChannelLayout(), LayoutText(facts["channel_layout"]));
    // The listing's length comes from the file size and the bit rate.
    double seconds = std::stod(facts["duration"]);
    EXPECT_NEAR(details->Duration(), seconds * 1000, 2.0);
    std::string expected = std::string(eac3 ? "E-AC3" : "AC3") + ", " +
                           LayoutText(facts["channel_layout"]) + " channels, " +
                           HoursMinutesSeconds(uint32_t(seconds * 1000 + 0.5)) + ", " +
                           GroupThousands(std::stoul(facts["bit_rate"]) / 1000) + "kbit/s, 48khz";
    EXPECT_EQ(details->Description().substr(0, expected.size()), expected);
    // One frame per block; a cut last frame is left out, junk in front is dropped.
    size_t frames = std::stoul(facts["nb_read_packets"]);
    uint64_t sent = run.capture->bytes.size();
    EXPECT_TRUE(run.capture->blocks.size() == frames || run.capture->blocks.size() + 1 == frames);
    EXPECT_TRUE(std::search(stream.begin(), stream.end(), run.capture->bytes.begin(),
                            run.capture->bytes.end()) != stream.end() || sent == 0);
  }
}

// Streams made by ffmpeg's encoders with a dialnorm, and E-AC3 at 44.1 kHz, whose bit rate the
// listing computes as at 48 kHz.
TEST(Ac3Reader, DialnormAndEac3At44100InTheListing) {
  if (!HaveTool("ffmpeg") || !HaveTool("ffprobe")) GTEST_SKIP() << "ffmpeg absent";
  TempDir dir;
  struct Case {
    const char* name;
    const char* args;
    uint32_t rate;
  };
  for (Case c : {Case{"d.ac3", "-ac 6 -c:a ac3 -b:a 384k", 48000},
                 Case{"h.eac3", "-ac 2 -c:a eac3 -b:a 192k", 44100},
                 Case{"h.ac3", "-ac 2 -c:a ac3 -b:a 192k", 44100}}) {
    SCOPED_TRACE(c.name);
    std::string file = dir / c.name;
    int code = -1;
    Pipe("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=" +
             std::to_string(c.rate) + ":duration=3 " + c.args + " -dialnorm -27 '" + file + "'",
         &code);
    ASSERT_EQ(code, 0);
    auto facts = Probe(file);
    ReaderRun run = RunReader(ReadBytes(file), 5000);
    ASSERT_TRUE(run.ok);
    auto details = run.reader->AudioDetails();
    EXPECT_EQ(details->Dialnorm(), 27);
    EXPECT_EQ(std::to_string(details->SampleRate()), facts["sample_rate"]);
    EXPECT_EQ(std::to_string(details->Channels()), facts["channels"]);
    bool eac3 = std::string(c.name).ends_with(".eac3");
    double bitrate = std::stod(facts["bit_rate"]);
    if (eac3 && c.rate == 44100) bitrate = bitrate * 48000 / 44100;
    EXPECT_NEAR(details->Bitrate(), bitrate, bitrate / 100);
    std::string text = details->Description();
    std::string rateText = c.rate == 44100 ? ", 44.1khz" : ", 48khz";
    EXPECT_TRUE(text.ends_with(rateText + ", dialnorm: -27dB")) << text;
    EXPECT_TRUE(text.starts_with(std::string(eac3 ? "E-AC3, " : "AC3, ") +
                                 LayoutText(facts["channel_layout"]) + " channels, 0:00:03, "))
        << text;
  }
}

TEST(Ac3Reader, JunkInFrontIsDroppedUpToTheLimit) {
  SKIP_WITHOUT_CORPUS();
  auto junkFile = ReadBytes(CorpusDir() + "/public/eac3/csi_miami_stereo_128_spx_junk352.eac3");
  ReaderRun run = RunReader(junkFile, 1000);
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(std::equal(run.capture->bytes.begin(), run.capture->bytes.end(),
                         junkFile.begin() + 352));
  EXPECT_EQ(run.capture->bytes.size() % 512, 0u);  // whole 128 kbit/s frames
  // Format detection wants the frame at byte 0.
  EXPECT_FALSE(RunReader(junkFile, 1000, true).ok);

  // Up to 12287 bytes of junk, of any length and in pieces that split frames, are dropped.
  auto frames = Ac3Stream(40);
  for (auto [junkSize, piece] : {std::pair{2300, 4104}, {2311, 4104}, {2339, 4104},
                                 {12287, 1000}, {12287, 4097}, {12287, 100000}}) {
    ReaderRun accepted = RunReader(Concat({std::vector<uint8_t>(size_t(junkSize), 0x0B), frames}),
                                   size_t(piece));
    EXPECT_TRUE(accepted.ok) << junkSize << " " << piece;
    EXPECT_EQ(accepted.capture->bytes, frames) << junkSize << " " << piece;
  }
  std::vector<uint8_t> junk(12288, 0x0B);
  LogRecorder log;
  ReaderRun refused = RunReader(Concat({junk, frames}), 4096);
  EXPECT_FALSE(refused.ok);
  EXPECT_TRUE(refused.capture->bytes.empty());
  EXPECT_TRUE(log.Has(2, "This doesn't seem to be a valid (E-)AC3 stream."));
}

TEST(Ac3Reader, DamagedFrameAtStartIsSkippedButInMidStreamEndsTheRun) {
  auto good = MakeAc3Frame({});
  auto bad = good;
  bad[300] ^= 0x40;
  ReaderRun start = RunReader(Concat({bad, Repeat(good, 10)}));
  EXPECT_TRUE(start.ok);
  EXPECT_EQ(start.capture->bytes, Repeat(good, 10));

  LogRecorder log;
  auto stream = Concat({Repeat(good, 10), bad, Repeat(good, 10)});
  ReaderRun middle = RunReader(stream, 5000);
  EXPECT_FALSE(middle.ok);
  EXPECT_EQ(middle.capture->bytes, Repeat(good, 10));
  EXPECT_EQ(log.lines, (std::vector<std::pair<int, std::string>>{
                           {2, "This track is not clean. Processing aborted."},
                           {2, "Please clean the track with delaycut and then retry sonvex."}}));
  // A dead stage stays dead.
  EXPECT_FALSE(middle.reader->Write(0, false, good.data(), uint32_t(good.size()), -1, false));
}

// What the reader says when the stream does not start as a clean (E-)AC3 stream.
TEST(Ac3Reader, FirstFrameJudgement) {
  auto frame = MakeAc3Frame({});
  std::vector<uint8_t> truehd = {0x0F, 0x2E, 0x12, 0x34, 0xF8, 0x72, 0x6F, 0xBA};
  truehd.resize(6000, 0);
  struct Case {
    std::vector<uint8_t> stream;
    bool exactStart;
    const char* message;
  };
  const Case cases[] = {
      {frame, false, "This track is not clean. Processing aborted."},  // no frame behind it
      {Concat({frame, truehd}), false, "This is a TrueHD/AC3 stream and not an AC3 stream."},
      {RandomBytes(50000, 7), false, "This doesn't seem to be a valid (E-)AC3 stream."},
      {{}, false, "The stream doesn't seem to contain any valid (E-)AC3 frames."},
      // An E-AC3 frame with a reserved rate code at byte 0.
      {Repeat(MakeEac3Frame({.fscod = 3, .numblkscod = 3}), 10), true,
       "Parsing of (E-)AC3 headers failed."}};
  for (const Case& c : cases) {
    LogRecorder log;
    EXPECT_FALSE(RunReader(c.stream, 4096, c.exactStart).ok) << c.message;
    ASSERT_FALSE(log.lines.empty()) << c.message;
    EXPECT_EQ(log.lines[0], (std::pair<int, std::string>{2, c.message}));
    if (&c == &cases[1]) {
      EXPECT_FALSE(log.Has(2, "This track is not clean. Processing aborted."));
    }
  }
}

TEST(Ac3Reader, CutLastFrameIsSkippedWithAWarning) {
  auto frames = Ac3Stream(20);
  std::vector<uint8_t> cut(frames.begin(), frames.end() - 100);
  LogRecorder log;
  ReaderRun run = RunReader(cut, 3000);
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, Ac3Stream(19));
  EXPECT_TRUE(log.Has(1, "The last (E-)AC3 frame is incomplete and thus gets skipped."));
  EXPECT_EQ(run.capture->finished, 1);
}

TEST(Ac3Reader, Eac3StreamLosesLeadingDependentFrame) {
  auto dependent = RearPairFrame();
  auto unit = Concat({MakeEac3Frame({}), dependent});
  auto stream = Concat({dependent, Repeat(unit, 12)});
  ReaderRun run = RunReader(stream, 777, true);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, Repeat(unit, 12));
  for (uint32_t size : run.capture->blocks) EXPECT_EQ(size, unit.size());
  EXPECT_EQ(run.reader->AudioDetails()->Description(),
            "E-AC3, 7.1 channels, 0:00:00, 320kbit/s, 48khz, dialnorm: -24dB");
}

// One independent and six dependent frames per unit (7,168 bytes), pushed in blocks of every
// size from 1 byte up to the stream's length (every larger block is one push): the reader sends
// the same units whatever the blocks.
TEST(Eac3Bluray, UnitsLargerThanTheWindowAreJudgedWhenWhole) {
  std::vector<uint8_t> unit = MakeEac3Frame({.words = 512});
  for (int i = 0; i < 6; i++)
    unit = Concat({unit, MakeEac3Frame({.streamType = 1, .words = 512, .acmod = 2, .lfe = 0})});
  ASSERT_EQ(unit.size(), 7168u);
  const std::vector<uint8_t> stream = Repeat(unit, 4);
  auto make = [] { return UpStreamRef(TAc3Reader::Create("", "", false)); };
  for (size_t piece = 1; piece <= stream.size(); piece++) {
    PushResult result = PushInPieces(make, stream, piece);
    ASSERT_TRUE(result.ok) << "blocks of " << piece << " bytes";
    ASSERT_EQ(result.blocks, std::vector<uint32_t>(4, 7168)) << "blocks of " << piece << " bytes";
  }
}

// Frames of 32 ms pushed one by one with container stamps.
struct StampedRun {
  std::shared_ptr<TAc3Reader> reader;
  std::shared_ptr<TCapture> capture = TCapture::Create();
  bool ok = true;
};
StampedRun RunStamped(int frames, const std::function<int64_t(int)>& stampOf,
                      const std::string& gapFile, const std::string& gapData = {},
                      int32_t delayMs = 0) {
  StampedRun run;
  run.reader = TAc3Reader::Create(gapFile, gapData, false);
  run.reader->AppendUpStream(run.capture);
  if (delayMs) run.reader->SetDelay(0, delayMs);
  auto frame = MakeAc3Frame({});
  run.ok = run.reader->InitAudio("ac3", 0, 0, 0, false, 0);
  for (int i = 0; run.ok && i < frames; i++)
    run.ok = run.reader->Write(0, false, frame.data(), uint32_t(frame.size()), stampOf(i), false);
  run.ok = run.ok && run.reader->Finish();
  return run;
}

constexpr int64_t kFrame = 320000;        // 32 ms in ticks
constexpr int64_t kStart = 1000000000;    // the container's clock does not start at 0

TEST(Ac3Reader, GapIsReportedAndWritten) {
  TempDir dir;
  std::string gapFile = dir / "out.ac3.gaps";
  LogRecorder log;
  // 200 ms missing after frame 200, 100 ms more after frame 300; 1300 frames = 41.6 s.
  auto stamp = [](int i) {
    return kStart + i * kFrame + (i >= 200 ? 2000000 : 0) + (i >= 300 ? 1000000 : 0);
  };
  StampedRun run = RunStamped(1300, stamp, gapFile, {}, 1000);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes.size(), 1300u * 768);
  EXPECT_TRUE(log.Has(1, "Audio has a gap of 200ms at playtime 0:00:08."));
  EXPECT_TRUE(log.Has(1, "Audio has a gap of 100ms at playtime 0:00:11."));
  EXPECT_TRUE(log.Has(1, "The audio file was demuxed without making use of the gap/overlap information."));
  EXPECT_TRUE(log.Has(1, "Please rerun the same sonvex command line. That will correct the gaps/overlaps."));
  auto bytes = ReadBytes(gapFile);
  ASSERT_EQ(bytes.size(), 32u);
  // Times carry the 1000 ms delay; drift is cumulated.
  EXPECT_EQ(int64_t(Le64(bytes.data())), 200 * kFrame + 2000000 + 10000000);
  EXPECT_EQ(int64_t(Le64(bytes.data() + 8)), 2000000);
  EXPECT_EQ(int64_t(Le64(bytes.data() + 16)), 300 * kFrame + 3000000 + 10000000);
  EXPECT_EQ(int64_t(Le64(bytes.data() + 24)), 3000000);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), run.reader->VideoDetails()->GapData());
}

TEST(Ac3Reader, OverlapAndSmallJitter) {
  TempDir dir;
  std::string gapFile = dir / "out.ac3.gaps";
  LogRecorder log;
  // 100 ms of overlap at frame 100, and 3 ms of jitter everywhere else.
  auto stamp = [](int i) {
    return kStart + i * kFrame - (i >= 100 ? 1000000 : 0) + (i % 2 ? 30000 : 0);
  };
  StampedRun run = RunStamped(1100, stamp, gapFile);
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(log.Has(1, "Audio overlaps for 100ms at playtime 0:00:03."));
  EXPECT_EQ(ReadBytes(gapFile).size(), 16u);
}

// Gaps in the last 30 seconds are not reported and an old gap file goes; gap data given to the
// reader (a rerun) means no tracking and the file stays.
TEST(Ac3Reader, LateGapsAndGivenGapData) {
  TempDir dir;
  std::string gapFile = dir / "out.ac3.gaps";
  auto stamp = [](int i) { return kStart + i * kFrame + (i >= 200 ? 2000000 : 0); };
  WriteBytes(gapFile, std::vector<uint8_t>(16, 1));
  StampedRun rerun = RunStamped(1300, stamp, gapFile, std::string(32, '\0'));
  ASSERT_TRUE(rerun.ok);
  EXPECT_EQ(ReadBytes(gapFile), std::vector<uint8_t>(16, 1));
  EXPECT_TRUE(rerun.reader->Gaps().empty());
  LogRecorder log;
  // 1100 frames = 35.2 s; the gap at 6.4 s is 28.8 s before the end.
  StampedRun run = RunStamped(1100, stamp, gapFile);
  ASSERT_TRUE(run.ok);
  EXPECT_FALSE(fs::exists(gapFile));
  EXPECT_TRUE(log.lines.empty());
}

TEST(Ac3Reader, InitialDelayCountsFramesBeforeTheFirstStamp) {
  // A frame is checked once 3848 bytes wait behind it: with one 768-byte frame per Write, the
  // Writes 5 to 9 each check one frame before the first stamp comes with Write 10.
  StampedRun run = RunStamped(20, [](int i) { return i < 10 ? int64_t(-1) : kStart + i * kFrame; },
                              "");
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.reader->InitialDelay(), -5 * 32);
  StampedRun none = RunStamped(20, [](int) { return int64_t(-1); }, "");
  EXPECT_FALSE(none.reader->HasTimestamps());
  EXPECT_EQ(none.reader->InitialDelay(), -20 * 32);
}

}  // namespace
}  // namespace sonvex::ac3test
