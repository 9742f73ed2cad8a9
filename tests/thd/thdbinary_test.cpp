// The sonvex binary on TrueHD, TrueHD/AC3 and MP2 files: listings, splitting, dialnorm removal
// and delay, against ffmpeg's copies and decodes.
#include "thd/thdbitstream.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

// Runs sonvex in `dir`; the output holds both of its streams.
struct TRun {
  int code;
  std::string output;
};
TRun Sonvex(const TempDir& dir, const std::vector<std::string>& args) {
  RunResult r = RunSonvex(args, dir.path());
  return {r.exitCode, r.out + r.err};
}

std::string Quoted(const std::string& path) { return ShellQuote(path); }

std::string DecodeMd5(const std::string& path, const std::string& format) {
  return RunCommand("ffmpeg -v error -i " + Quoted(path) + " -f " + format + " - 2>/dev/null | md5sum");
}

TEST(ThdBinary, SplitsTheBlurayTrackAsFfmpegDoes) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir scratch;
  std::string payload = CorpusPath("public/truehd/dts1_truehd_ac3_interleaved.thdac3");
  std::string m2ts = CorpusPath("public/m2ts/Test_H264_DTS1.m2ts");
  // ffprobe: PID 0x1100 is stream 1 (truehd) and stream 2 (ac3) of this file.
  RunCommand("ffmpeg -v error -y -i " + Quoted(m2ts) + " -map 0:1 -c copy -f truehd " +
             Quoted(scratch / "ffmpeg.thd") + " -map 0:2 -c copy -f ac3 " +
             Quoted(scratch / "ffmpeg.ac3"));

  TRun list = Sonvex(scratch, {payload});
  EXPECT_EQ(list.code, 0);
  EXPECT_NE(list.output.find("TrueHD/AC3, 7.1 channels, 48khz\n"), std::string::npos)
      << list.output;

  TRun thd = Sonvex(scratch, {payload, scratch / "ours.thd"});
  EXPECT_EQ(thd.code, 0) << thd.output;
  EXPECT_NE(thd.output.find("Extracting TrueHD stream..."), std::string::npos);
  EXPECT_TRUE(ReadBytes(scratch / "ours.thd") == ReadBytes(scratch / "ffmpeg.thd"));

  // The AC-3 part loses its dialnorm on the way, which the decoder doesn't apply: the samples
  // are those of ffmpeg's copy.
  TRun ac3 = Sonvex(scratch, {payload, scratch / "ours.ac3"});
  EXPECT_EQ(ac3.code, 0) << ac3.output;
  EXPECT_NE(ac3.output.find("Extracting AC3 stream..."), std::string::npos);
  EXPECT_EQ(fs::file_size(scratch / "ours.ac3"),
            fs::file_size(scratch / "ffmpeg.ac3"));
  EXPECT_EQ(DecodeMd5(scratch / "ours.ac3", "s16le"), DecodeMd5(scratch / "ffmpeg.ac3", "s16le"));
}

TEST(ThdBinary, DialnormRemovedOrKept) {
  SKIP_WITHOUT_CORPUS();
  TempDir scratch;
  std::string source = CorpusPath("gen/truehd_20_48k.thd");
  TRun kept = Sonvex(scratch, {source, scratch / "kept.thd", "-keepDialnorm"});
  EXPECT_EQ(kept.code, 0) << kept.output;
  EXPECT_TRUE(ReadBytes(scratch / "kept.thd") == ReadBytes(source));
  EXPECT_EQ(kept.output.find("Removing dialog normalization..."), std::string::npos);

  TRun patched = Sonvex(scratch, {source, scratch / "patched.thd"});
  EXPECT_EQ(patched.code, 0) << patched.output;
  EXPECT_NE(patched.output.find("Removing dialog normalization..."), std::string::npos);
  auto bytes = ReadBytes(scratch / "patched.thd");
  EXPECT_EQ(bytes.size(), fs::file_size(source));
  EXPECT_FALSE(bytes == ReadBytes(source));
  SKIP_WITHOUT_TOOL("ffmpeg");
  EXPECT_EQ(DecodeMd5(scratch / "patched.thd", "s32le"), DecodeMd5(source, "s32le"));
  TRun listed = Sonvex(scratch, {scratch / "patched.thd"});
  EXPECT_NE(listed.output.find("TrueHD, 2.0 channels, 48khz\n"), std::string::npos)
      << listed.output;
}

TEST(ThdBinary, Mp2DelayedByWholeFrames) {
  SKIP_WITHOUT_CORPUS();
  TempDir scratch;
  std::string source = CorpusPath("gen/mp2_20_224k.mp2");
  auto bytes = ReadBytes(source);
  TRun run = Sonvex(scratch, {source, scratch / "out.mp2", "-100ms"});
  EXPECT_EQ(run.code, 0) << run.output;
  EXPECT_NE(run.output.find("MP2, 2.0 channels, 0:00:06, 224kbit/s, 48khz\n"), std::string::npos);
  EXPECT_NE(run.output.find("Applying MP2 delay..."), std::string::npos);
  // 100 ms at 224 kbit/s are 2800 bytes: four frames of 672 bytes go.
  EXPECT_TRUE(ReadBytes(scratch / "out.mp2") ==
              std::vector<uint8_t>(bytes.begin() + 4 * 672, bytes.end()));
}

TEST(ThdBinary, DamagedTrueHdIsReportedAndCopiedAroundTheDamage) {
  SKIP_WITHOUT_CORPUS();
  TempDir scratch;
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  // Somewhere in the middle, one unit header loses its parity.
  size_t at = 0;
  for (int unit = 0; unit < 3001; unit++) at += ThdUnitSize(bytes.data() + at);
  bytes[at + 2] ^= 0x40;
  WriteBytes(scratch / "damaged.thd", bytes);
  TRun run = Sonvex(scratch, {scratch / "damaged.thd", scratch / "out.thd", "-keepDialnorm"});
  EXPECT_EQ(run.code, 0) << run.output;
  size_t first = run.output.find("This track is not clean.");
  ASSERT_NE(first, std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("This track is not clean.", first + 1), std::string::npos);
  auto out = ReadBytes(scratch / "out.thd");
  EXPECT_LT(out.size(), bytes.size());
  EXPECT_GT(out.size(), bytes.size() * 9 / 10);
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + long(at), bytes.begin()));
}

}  // namespace
}  // namespace sonvex::thdtest
