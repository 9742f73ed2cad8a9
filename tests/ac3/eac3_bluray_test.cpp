// E-AC3 as Blu-ray carries it: units that open with an AC3 frame (7.1 with its AC3 core), units
// larger than the reader's window, and a stream behind leading junk. Oracles: ffprobe, ffmpeg's
// -c copy and -bsf:a eac3_core, the corpus README.
#include <gtest/gtest.h>

#include "ac3/ac3reader.h"
#include "ac3testutil.h"
#include "support/battery.h"

namespace sonvex::ac3test {
namespace {

const std::string kGreatWall = "/public/eac3/the_great_wall_7.1.eac3";
const std::string kJunk352 = "/public/eac3/csi_miami_stereo_128_spx_junk352.eac3";
constexpr uint32_t kGreatWallUnit = 4608;  // AC3 frame of 2304 bytes, dependent frame of 2304

std::string Probe(const std::string& file, const std::string& entries) {
  std::string out;
  RunCommand("ffprobe -v error -select_streams a:0 -show_entries stream=" + entries +
                 " -of csv=p=0 '" + file + "'",
             &out);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

TEST(Eac3Bluray, SevenOneListsAsFfprobeSeesIt) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
  std::string source = CorpusDir() + kGreatWall;
  // ffprobe: rate, channels and the bit rate of the whole unit.
  std::string facts = Probe(source, "channels,sample_rate,bit_rate");
  ASSERT_EQ(facts, "48000,8,1152000");
  RunResult r = RunSonvex({source}, dir.path());
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("E-AC3, 7.1 channels, 0:00:05, 1,152kbit/s, 48khz")) << r.out;
}

// Copy (all E-AC3 names), the AC3 part (.ac3 and -core) and a decode with every channel.
TEST(Eac3Bluray, SevenOneCopiesAndGivesItsAc3Core) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string source = CorpusDir() + kGreatWall;
  ASSERT_EQ(RunCommand("ffmpeg -v error -y -i '" + source +
                       "' -c copy -bsf:a eac3_core -f ac3 '" + dir / "ff_core.ac3" + "'"),
            0);
  const std::string coreMd5 = "b704bf851e99b7442e9bed368b60e6ca";  // the corpus README
  EXPECT_EQ(Md5(dir / "ff_core.ac3"), coreMd5);
  struct Case {
    std::string dest;
    std::vector<std::string> extra;
    std::string expectedMd5;
  };
  const std::string whole = Md5(source);
  const Case cases[] = {
      {"copy.eac3", {"-keepDialnorm"}, whole}, {"copy.ec3", {"-keepDialnorm"}, whole},
      {"copy.dd+", {"-keepDialnorm"}, whole},  {"copy.ddp", {"-keepDialnorm"}, whole},
      {"part.ac3", {"-keepDialnorm"}, coreMd5}, {"core.eac3", {"-core", "-keepDialnorm"}, coreMd5},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{source, c.dest};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    RunResult r = RunSonvex(args, dir.path());
    EXPECT_EQ(r.exitCode, 0) << c.dest << r.out << r.err;
    EXPECT_EQ(Md5(dir / c.dest), c.expectedMd5) << c.dest;
  }
  RunResult r = RunSonvex({source, "all.wav"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  std::string wav;
  for (const auto& name : ListFiles(dir.path()))
    if (name.rfind("all", 0) == 0 && name.size() > 4 && name.substr(name.size() - 4) == ".wav")
      wav = name;
  ASSERT_FALSE(wav.empty());
  EXPECT_EQ(Probe(dir / wav, "channels"), "8");
}

// The same 7.1 track in an M2TS (as ffmpeg muxes it): listed, and demuxed as ffmpeg copies it.
TEST(Eac3Bluray, SevenOneInAnM2tsListsAndDemuxes) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string source = CorpusDir() + kGreatWall;
  ASSERT_EQ(RunCommand("ffmpeg -v error -y -i '" + source + "' -c copy -f mpegts -mpegts_m2ts_mode 1 '" +
                       dir / "gw.m2ts" + "'"),
            0);
  RunResult r = RunSonvex({"gw.m2ts"}, dir.path());
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("1: E-AC3, 7.1 channels, 1,152kbit/s, 48khz")) << r.out;
  r = RunSonvex({"gw.m2ts", "1:", "out.eac3", "-keepDialnorm"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  ASSERT_EQ(RunCommand("ffmpeg -v error -y -i '" + dir / "gw.m2ts" + "' -c copy -f eac3 '" +
                       dir / "ff.eac3" + "'"),
            0);
  EXPECT_EQ(ReadBytes(dir / "out.eac3"), ReadBytes(dir / "ff.eac3"));
}

// Units behind an AC3 core: dependent frames and an independent E-AC3 frame (Atmos/JOC) all
// belong to the unit; only the next AC3 frame opens a new one.
TEST(Eac3Bluray, EverythingBehindTheCoreBelongsToTheUnit) {
  const auto core = MakeAc3Frame({.frmsizecod = 30, .acmod = 7, .lfe = 1});
  const auto rear = RearPairFrame();
  const auto joc = MakeEac3Frame({.words = 256});
  struct Case {
    std::vector<uint8_t> unit;
    const char* text;
    uint32_t channels;
  };
  const Case cases[] = {
      {Concat({core, rear}), "7.1", 8},
      {Concat({core, rear, joc}), "7.1", 8},
      {Concat({core, joc}), "5.1", 6},
  };
  for (const Case& c : cases) {
    auto stream = Repeat(c.unit, 3);
    TEac3UnitInfo info;
    ASSERT_EQ(ParseEac3Unit(stream.data(), uint32_t(stream.size()), 0, info), kAc3Good);
    EXPECT_TRUE(info.ac3Core);
    EXPECT_EQ(info.unitSize, c.unit.size());
    EXPECT_EQ(info.coreSize, core.size());
    EXPECT_EQ(info.channelText, c.text);
    EXPECT_EQ(info.channels, c.channels);
    // 448 kbit/s of core, scaled by the unit's size.
    EXPECT_EQ(info.bitrate, uint32_t(uint64_t(448000) * c.unit.size() / core.size()));
  }
}

// Dialnorm removal patches the AC3 core and the dependent frame of every unit, with good CRCs.
TEST(Eac3Bluray, DialnormRemovalPatchesEveryFrameOfTheUnit) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  auto stream = ReadBytes(CorpusDir() + kGreatWall);
  ASSERT_EQ(stream.size() % kGreatWallUnit, 0u);
  // Give every frame a dialnorm of -27 dB first, with its CRCs redone.
  for (size_t at = 0; at < stream.size(); at += kGreatWallUnit) {
    uint8_t* core = stream.data() + at;
    uint16_t word = uint16_t(core[6] << 8 | core[7]);
    uint32_t shift = Ac3DialnormShift(word);
    word = uint16_t((word & ~(31u << shift)) | (27u << shift));
    core[6] = uint8_t(word >> 8);
    core[7] = uint8_t(word);
    uint16_t crc1 = Ac3Crc1(core, 2304), crc2 = Ac3Crc2(core, 2304);
    core[2] = uint8_t(crc1), core[3] = uint8_t(crc1 >> 8);
    core[2302] = uint8_t(crc2), core[2303] = uint8_t(crc2 >> 8);
    uint8_t* dep = core + 2304;
    dep[5] = uint8_t((dep[5] & 0xF8) | (27 >> 2));
    dep[6] = uint8_t((dep[6] & 0x3F) | ((27 & 3) << 6));
    uint16_t crc = Eac3Crc(dep, 2304);
    dep[2302] = uint8_t(crc), dep[2303] = uint8_t(crc >> 8);
  }
  WriteBytes(dir / "dn.eac3", stream);
  RunResult r = RunSonvex({"dn.eac3"}, dir.path());
  EXPECT_TRUE(r.HasLine("E-AC3, 7.1 channels, 0:00:05, 1,152kbit/s, 48khz, dialnorm: -27dB")) << r.out;
  r = RunSonvex({"dn.eac3", "out.eac3"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_NE((r.out + r.err).find("Removing dialog normalization..."), std::string::npos);
  auto out = ReadBytes(dir / "out.eac3");
  ASSERT_EQ(out.size(), stream.size());
  for (size_t at = 0; at < out.size(); at += kGreatWallUnit) {
    TAc3FrameInfo core, dep;
    ASSERT_EQ(ParseAc3Frame(out.data() + at, 2304, core), kAc3Good) << "unit at " << at;
    ASSERT_EQ(ParseEac3Frame(out.data() + at + 2304, 2304, dep), kAc3Good) << "unit at " << at;
    EXPECT_EQ(core.dialnorm, 0);
    EXPECT_EQ((out[at + 2309] & 7) * 4 + (out[at + 2310] >> 6), 0);
  }
}

// A delay repeats or drops whole units (32 ms each).
TEST(Eac3Bluray, DelayWorksOnWholeUnits) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string source = CorpusDir() + kGreatWall;
  auto in = ReadBytes(source);
  RunResult r = RunSonvex({source, "later.eac3", "+100ms", "-keepDialnorm"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  std::vector<uint8_t> later = Repeat({in.begin(), in.begin() + kGreatWallUnit}, 3);
  later.insert(later.end(), in.begin(), in.end());
  EXPECT_EQ(ReadBytes(dir / "later.eac3"), later);
  r = RunSonvex({source, "earlier.eac3", "-64ms", "-keepDialnorm"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(ReadBytes(dir / "earlier.eac3"),
            std::vector<uint8_t>(in.begin() + 2 * kGreatWallUnit, in.end()));
}

// One independent and six dependent frames per unit (7,168 bytes), pushed in blocks of every
// size from 1 byte up to the stream's length (every larger block is one push): the reader sends
// the same units whatever the blocks. The Blu-ray 7.1 stream goes through the battery too.
TEST(Eac3Bluray, UnitsLargerThanTheWindowAreJudgedWhenWhole) {
  std::vector<uint8_t> unit = MakeEac3Frame({.words = 512});
  for (int i = 0; i < 6; i++)
    unit = Concat({unit, MakeEac3Frame({.streamType = 1, .words = 512, .acmod = 2, .lfe = 0})});
  ASSERT_EQ(unit.size(), 7168u);
  const std::vector<uint8_t> stream = Repeat(unit, 4);
  auto make = [] { return UpStreamRef(TAc3Reader::Create("", "", false)); };
  for (size_t piece = 1; piece <= stream.size(); piece++) {
    test::PushResult result = test::PushInPieces(make, stream, piece);
    ASSERT_TRUE(result.ok) << "blocks of " << piece << " bytes";
    ASSERT_EQ(result.blocks, std::vector<uint32_t>(4, 7168)) << "blocks of " << piece << " bytes";
  }
  if (!HaveCorpus()) return;
  auto bluray = ReadBytes(CorpusDir() + kGreatWall);
  bluray.resize(kGreatWallUnit * 40);
  test::RunParserBattery(make, bluray, bluray);
  test::RunParserBattery([] { return UpStreamRef(TAc3Reader::Create()); }, bluray, bluray);
}

// 352 bytes of junk: detection says so and reads from behind it.
TEST(Eac3Bluray, JunkInFrontIsSkippedWithAWarning) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string source = CorpusDir() + kJunk352;
  ASSERT_EQ(Probe(source, "channels,sample_rate"), "48000,2");
  RunResult r = RunSonvex({source}, dir.path());
  EXPECT_EQ(r.exitCode, 0);
  std::string all = r.out + r.err;
  EXPECT_NE(all.find("Skipped 352 bytes of leading junk."), std::string::npos) << all;
  EXPECT_TRUE(r.HasLine("E-AC3, 2.0 channels, 0:00:21, 128kbit/s, 48khz, dialnorm: -27dB")) << all;
  r = RunSonvex({source, "copy.eac3", "-keepDialnorm"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  ASSERT_EQ(RunCommand("ffmpeg -v error -y -i '" + source + "' -c copy -f eac3 '" +
                       dir / "ff.eac3" + "'"),
            0);
  // ffmpeg copies the junk along; the stream is what stands behind it.
  auto copied = ReadBytes(dir / "ff.eac3");
  ASSERT_GT(copied.size(), 352u);
  EXPECT_EQ(ReadBytes(dir / "copy.eac3"),
            std::vector<uint8_t>(copied.begin() + 352, copied.end()));
}

}  // namespace
}  // namespace sonvex::ac3test
