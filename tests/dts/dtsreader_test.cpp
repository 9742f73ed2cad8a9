// TDtsReader: the corpus streams against ffprobe, and synthetic streams for the edge cases.
#include "dts/dtsreader.h"

#include "dts/dtstestutil.h"
#include "framework/bitreader.h"

namespace sonvex::dtstest {
namespace {

const char* const kNotClean = "This track is not clean. Processing aborted.";
const char* const kClean = "Please clean the track with delaycut and then retry sonvex.";

// ffprobe's profile names and ours.
std::string NameOfProfile(const std::string& profile) {
  if (profile == "DTS 96/24") return "DTS-96/24";
  if (profile == "DTS-HD HRA") return "DTS Hi-Res";
  if (profile == "DTS-HD MA") return "DTS Master Audio";
  return profile;
}

// Every raw DTS stream of the corpus: name, channels, bits, rate and bit rate as ffprobe sees
// them, and as the file names give them ("<kind>_<layout>_<bits>_<kHz>_..." and "dts1_dtsma_51_16").
TEST(DtsReaderCorpus, ListingAgreesWithFfprobeAndFileNames) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  struct Case {
    const char* file;
    const char* tag;
    uint32_t channels, bits, rate;
  };
  const Case cases[] = {
      {"public/dts/core_51_24_48_768_0.dts", "dts", 6, 24, 48000},
      {"public/dts/dts_es_61.dts", "dts", 7, 24, 48000},
      {"public/dts/x96_51_24_96_1509.dts", "dts", 6, 24, 96000},
      {"public/dts/xbr_51_24_48_3840.dts", "dtshr", 6, 24, 48000},
      {"public/dts/xch_61_24_48_768.dts", "dts", 7, 24, 48000},
      {"public/dts/xll_51_16_192_768_0.dts", "dtsma", 6, 16, 192000},
      {"public/dts/xll_51_24_48_768.dts", "dtsma", 6, 24, 48000},
      {"public/dts/xll_71_24_48_768_0.dts", "dtsma", 8, 24, 48000},
      {"public/dts/dts1_dtsma_51_16.dtshd", "dtsma", 6, 16, 48000},
      {"gen/dts_51_768k.dts", "dts", 6, 16, 48000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto bytes = ReadBytes(CorpusDir() / c.file);
    ASSERT_FALSE(bytes.empty());
    auto run = RunReader(bytes);
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.capture->bytes, bytes);  // no padding in these: every byte is a frame's
    auto details = run.reader->AudioDetails();
    auto facts = DtsFacts(CorpusDir() / c.file);
    EXPECT_EQ(details->Format(), c.tag);
    EXPECT_EQ(details->Name(), NameOfProfile(facts["profile"]));
    EXPECT_EQ(std::to_string(details->Channels()), facts["channels"]);
    EXPECT_EQ(details->Channels(), c.channels);
    EXPECT_EQ(std::to_string(details->SampleRate()), facts["sample_rate"]);
    EXPECT_EQ(details->Bits(), c.bits);
    if (facts["bits_per_raw_sample"] != "N/A") {
      EXPECT_EQ(std::to_string(details->Bits()), facts["bits_per_raw_sample"]);
    }
    if (details->Format() == "dts") {
      EXPECT_EQ(std::to_string(details->Bitrate()), facts["bit_rate"]);
    } else if (details->Format() == "dtsma") {
      EXPECT_EQ(details->Bitrate(), 0u);
      EXPECT_EQ(details->Duration(), 0u);
    }
    EXPECT_EQ(details->Description().rfind(details->Name() + ", " + details->ChannelLayout() +
                                               " channels", 0),
              0u)
        << details->Description();
  }
}

// 96/24 is shown at 96 kHz but timed at the core's 48 kHz.
TEST(DtsReader, NinetySixKhzIsTimedAtFortyEight) {
  auto stream = Repeat(CoreFrame({.extId = 2, .extAudio = true}), 300);
  auto run = RunReader(stream);
  ASSERT_TRUE(run.ok);
  auto details = run.reader->AudioDetails();
  EXPECT_EQ(details->SampleRate(), 96000u);
  EXPECT_EQ(details->Duration(), 300u * 512 * 1000 / 48000);
  EXPECT_EQ(run.reader->InitialDelay(), -10);  // one frame: 512 samples at 48 kHz
  EXPECT_FALSE(run.reader->HasTimestamps());
}

TEST(DtsReader, ZeroPaddingIsRemovedAndReportedOnce) {
  auto frame = CoreFrame({});
  std::vector<uint8_t> stream, expected;
  for (int i = 0; i < 5; i++) {
    stream.insert(stream.end(), frame.begin(), frame.end());
    stream.insert(stream.end(), 1018, 0);
    expected.insert(expected.end(), frame.begin(), frame.end());
  }
  auto run = RunReader(stream, TDtsReader::Create(), 700);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, expected);
  EXPECT_EQ(run.capture->blocks, std::vector<uint32_t>(5, 1006));
  EXPECT_EQ(run.log, (LogLines{{0, "Removing DTS zero padding..."}}));
}

TEST(DtsReader, BrokenSyncInMidStreamEndsTheRun) {
  auto stream = Repeat(CoreFrame({}), 10);
  stream[1006 * 6 + 1] = 0x00;  // sync of the 7th frame
  auto run = RunReader(stream);
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, kNotClean));
  EXPECT_TRUE(run.Logged(2, kClean));
  EXPECT_EQ(run.capture->blocks.size(), 6u);
}

TEST(DtsReader, HiResFollowedByPlainCoreIsNotClean) {
  auto hd = HdFrame(kXbr, 300);
  auto stream = Repeat(hd, 3);
  auto core = CoreFrame({});
  stream.insert(stream.end(), core.begin(), core.end());
  stream.insert(stream.end(), hd.begin(), hd.end());
  auto run = RunReader(stream);
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, kNotClean));
  EXPECT_EQ(run.reader->AudioDetails()->Format(), "dtshr");
  EXPECT_EQ(run.capture->blocks.size(), 3u);
}

TEST(DtsReader, InconsistentSubstream) {
  // At the first frame: an unexpected error.
  auto bad = HdFrame(kXll, 300, -4);
  auto good = HdFrame(kXll, 300);
  auto run = RunReader(Repeat(bad, 3));
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, "The DTS reader raised an unexpected error."));
  // Later: the "not clean" pair.
  auto stream = Repeat(good, 3);
  stream.insert(stream.end(), bad.begin(), bad.end());
  stream.insert(stream.end(), good.begin(), good.end());
  run = RunReader(stream);
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, kNotClean));
  EXPECT_TRUE(run.Logged(2, kClean));
}

TEST(DtsReader, StartOfStream) {
  auto frames = Repeat(CoreFrame({}), 4);
  std::vector<uint8_t> junk = {0x12};
  junk.insert(junk.end(), frames.begin(), frames.end());
  // Exact start: one byte of junk refuses the stream.
  auto run = RunReader(junk, TDtsReader::Create("", "", true));
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, "This doesn't seem to be a valid DTS file."));
  // Otherwise the junk is dropped, whatever the piece size.
  std::vector<uint8_t> lead(5000, 0x7F);
  lead.insert(lead.end(), frames.begin(), frames.end());
  for (size_t piece : {size_t(1), size_t(333), size_t(100000)}) {
    run = RunReader(lead, TDtsReader::Create(), piece);
    ASSERT_TRUE(run.ok) << piece;
    EXPECT_EQ(run.capture->bytes, frames);
  }
  // Sync words with bad headers in front are stepped over, also when pushed byte by byte.
  std::vector<uint8_t> falseSyncs = {0x00};  // a stream that starts with a sync isn't searched
  for (int i = 0; i < 200; i++) falseSyncs.insert(falseSyncs.end(), {0x7F, 0xFE, 0x80, 0x01, 0, 0});
  falseSyncs.insert(falseSyncs.end(), frames.begin(), frames.end());
  run = RunReader(falseSyncs, TDtsReader::Create(), 1);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->bytes, frames);
  // No frame within the first 0x64000 bytes.
  std::vector<uint8_t> far(0x64000, 0x11);
  far.insert(far.end(), frames.begin(), frames.end());
  run = RunReader(far);
  EXPECT_FALSE(run.ok);
  EXPECT_TRUE(run.Logged(2, "This doesn't seem to be a valid DTS stream."));
  // A single frame has no sync behind it.
  run = RunReader(Repeat(CoreFrame({}), 1));
  EXPECT_FALSE(run.ok);
}

TEST(DtsReader, LastFrameIncompleteIsSkipped) {
  auto stream = Repeat(CoreFrame({}), 4);
  stream.resize(stream.size() - 100);
  auto run = RunReader(stream);
  EXPECT_TRUE(run.ok);
  EXPECT_TRUE(run.Logged(1, "The last DTS frame is incomplete and thus gets skipped."));
  EXPECT_EQ(run.capture->blocks.size(), 3u);
}

TEST(DtsReader, FirstFrameTwiceAndHeaderDump) {
  auto stream = Repeat(CoreFrame({}), 3);
  auto run = RunReader(stream, TDtsReader::Create("", "", false, true, true));
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.capture->blocks.size(), 4u);
  EXPECT_EQ(std::count(run.log.begin(), run.log.end(), std::pair<int, std::string>{0, "+ DTS-Core"}), 1);
}

TEST(DtsReader, OutdatedEsIsReported) {
  auto run = RunReader(Repeat(EsFrame(0x200, 1006 - 0x200), 3));
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.Logged(1, "The DTS-ES information is stored in an outdated format."));
  EXPECT_EQ(run.reader->AudioDetails()->Channels(), 7u);
}

TEST(DtsReader, EmptyStream) {
  auto run = RunReader({});
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.log, (LogLines{{2, "The stream doesn't seem to contain any valid DTS frames."}}));
}

// A 40 s stream, each frame in its own block stamped as a demuxer would, with a jump of `jump`
// ticks in the stamps from frame 500 (5.3 s) on.
ReaderRun RunStamped(int64_t jump, const std::string& gapFile) {
  auto frame = CoreFrame({});
  const int frames = 3750;
  ReaderRun run;
  TLog logged;
  run.capture = TCapture::Create();
  run.reader = TDtsReader::Create(gapFile);
  run.reader->AppendUpStream(run.capture);
  bool ok = run.reader->InitAudio("?", 1, 8, 48000, false, int64_t(frame.size()) * frames);
  for (int i = 0; ok && i < frames; i++) {
    int64_t stamp = int64_t(i) * 10000 * 512 * 1000 / 48000 + (i >= 500 ? jump : 0);
    ok = run.reader->Write(0, false, frame.data(), uint32_t(frame.size()), stamp, false);
  }
  run.ok = ok && run.reader->Finish();
  run.log = logged.lines;
  return run;
}

TEST(DtsReaderGaps, GapIsReportedAndWritten) {
  TempDir dir;
  const std::string gapFile = dir / "out.dts.gaps";
  auto run = RunStamped(2000000, gapFile);  // 200 ms
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.reader->HasTimestamps());
  ASSERT_EQ(run.reader->Gaps().size(), 1u);
  // The gap stands where the stamps resume, 5.53 s, shown rounded to whole seconds.
  EXPECT_TRUE(run.Logged(1, "Audio has a gap of 200ms at playtime 0:00:06."));
  EXPECT_TRUE(run.Logged(
      1, "Please rerun the same sonvex command line. That will correct the gaps/overlaps."));
  auto bytes = ReadBytes(gapFile);
  ASSERT_EQ(bytes.size(), 16u);
  EXPECT_EQ(int64_t(Le64(bytes.data() + 8)), 2000000);
  // 6.8 ms is a drift (above 5 ms) but below the DTS threshold of 7 ms: nothing is reported, and
  // the old file goes.
  run = RunStamped(68000, gapFile);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.reader->Gaps().size(), 1u);
  EXPECT_FALSE(fs::exists(gapFile));
  for (auto& line : run.log) EXPECT_NE(line.first, 1) << line.second;
}

}  // namespace
}  // namespace sonvex::dtstest
