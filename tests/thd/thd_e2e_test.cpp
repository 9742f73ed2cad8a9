// The sonvex binary on TrueHD, MLP, TrueHD/AC3 and MP2 files, as a table: listings of bare files
// (through format detection), splitting, dialnorm removal, delay and damage, against ffmpeg's
// copies and decodes.
#include "thd/thdbitstream.h"
#include "thd/thdtestutil.h"
#include "support/e2e_table.h"

namespace sonvex::thdtest {
namespace {

const std::string kThd = "{corpus}/gen/truehd_20_48k.thd";
const std::string kSplit = "{corpus}/public/truehd/dts1_truehd_ac3_interleaved.thdac3";
const std::string kMp2 = "{corpus}/gen/mp2_20_224k.mp2";
const std::string kMp2Ts = "{corpus}/public/ts/h264_intra_first_mp2x2.ts";
const std::string kXdcam = "{corpus}/public/ts/xdcam8mp2.ts";
// The Blu-ray track holding kSplit: ffprobe gives PID 0x1100 as stream 1 (truehd) and 2 (ac3).
const std::string kM2ts = "{corpus}/public/m2ts/Test_H264_DTS1.m2ts";

std::string Decode(const std::string& file, const std::string& format) {
  return "$ ffmpeg -v error -i " + file + " -f " + format + " -";
}

TEST(ThdEndToEnd, Table) {
  std::vector<TE2eCase> cases = {
      {.name = "TrueHD listing", .args = {"{corpus}/gen/truehd_51_48k.thd"},
       .lines = {"TrueHD, 5.1 channels, 48khz, dialnorm: -2dB"}},
      {.name = "MLP listing", .args = {"{corpus}/gen/mlp_20_48k.mlp"},
       .lines = {"MLP, 2.0 channels, 16 bits, 48khz"}},
      {.name = "MLP 5.1 listing", .args = {"{corpus}/public/truehd/fbb_6ch.mlp"},
       .lines = {"MLP, 5.1 channels, 24 bits, 48khz"}},
      {.name = "object audio listing", .args = {"{corpus}/public/truehd/fba_atmos_obj.mlp"},
       .lines = {"TrueHD, 7.1 channels, 48khz"}},
      {.name = "TrueHD/AC3 listing", .args = {kSplit}, .lines = {"TrueHD/AC3, 7.1 channels, 48khz"}},
      {.name = "TrueHD half",
       .args = {kSplit, "ours.thd"},
       .messages = {"Extracting TrueHD stream..."},
       .same = {{"ours.thd", "$ ffmpeg -v error -i " + kM2ts + " -map 0:1 -c copy -f truehd -"}},
       .tools = {"ffmpeg"}},
      // The AC-3 half loses its dialnorm, which the decoder doesn't apply: the samples are
      // those of ffmpeg's copy.
      {.name = "AC3 half",
       .args = {kSplit, "ours.ac3"},
       .messages = {"Extracting AC3 stream..."},
       .same = {{Decode("ours.ac3", "s16le"), Decode("ff.ac3", "s16le")},
                {"$ stat -c %s ours.ac3", "$ stat -c %s ff.ac3"}},
       .before = {"ffmpeg -v error -i " + kM2ts + " -map 0:2 -c copy -f ac3 ff.ac3"},
       .tools = {"ffmpeg"}},
      {.name = "keepDialnorm", .args = {kThd, "kept.thd", "-keepDialnorm"}, .same = {{"kept.thd", kThd}}},
      {.name = "dialnorm removed",
       .args = {kThd, "patched.thd"},
       .lines = {"TrueHD, 2.0 channels, 48khz, dialnorm: -2dB"},
       .messages = {"Removing dialog normalization..."},
       .same = {{Decode("patched.thd", "s32le"), Decode(kThd, "s32le")}},
       .tools = {"ffmpeg"}},
      {.name = "MP2 listing", .args = {kMp2}, .lines = {"MP2, 2.0 channels, 0:00:06, 224kbit/s, 48khz"}},
      // MP2 tracks of transport streams, demuxed as ffmpeg copies them.
      {.name = "MP2 in TS", .args = {kMp2Ts}, .lines = {"2: MP2, 2.0 channels, 224kbit/s, 48khz"}},
      {.name = "MP2 in XDCAM TS", .args = {kXdcam, "2:", "a.mp2"},
       .lines = {"2: MP2, 2.0 channels, 384kbit/s, 48khz"},
       .same = {{"a.mp2", "$ ffmpeg -v error -i " + kXdcam + " -map 0:a:0 -c copy -f mp2 -"}},
       .tools = {"ffmpeg"}},
      // 100 ms at 224 kbit/s are 2800 bytes: four frames of 672 bytes go.
      {.name = "MP2 delay",
       .args = {kMp2, "out.mp2", "-100ms"},
       .messages = {"Applying MP2 delay..."},
       .same = {{"out.mp2", "$ tail -c +2689 " + kMp2}}},
  };
  RunE2eTable(cases);
}

// One unit header in the middle loses its parity: reported once, copied around the damage.
TEST(ThdEndToEnd, DamagedTrueHdIsReportedAndCopiedAroundTheDamage) {
  SKIP_WITHOUT_CORPUS();
  TempDir scratch;
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  size_t at = 0;
  for (int unit = 0; unit < 3001; unit++) at += ThdUnitSize(bytes.data() + at);
  bytes[at + 2] ^= 0x40;
  WriteBytes(scratch / "damaged.thd", bytes);
  RunResult r = RunSonvex({"damaged.thd", "out.thd", "-keepDialnorm"}, scratch.path());
  std::string output = r.out + r.err;
  EXPECT_EQ(r.exitCode, 0) << output;
  size_t first = output.find("This track is not clean.");
  ASSERT_NE(first, std::string::npos) << output;
  EXPECT_EQ(output.find("This track is not clean.", first + 1), std::string::npos);
  auto out = ReadBytes(scratch / "out.thd");
  EXPECT_LT(out.size(), bytes.size());
  EXPECT_GT(out.size(), bytes.size() * 9 / 10);
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + long(at), bytes.begin()));
}

}  // namespace
}  // namespace sonvex::thdtest
