// The AC3 and E-AC3 paths through the real sonvex binary, as a table: untouched copies are
// bit-exact, a delay repeats or drops whole frames (E-AC3: whole units), a damaged stream stops
// the run with exit code 1 and no output, Blu-ray 7.1 lists, copies, gives its AC3 core and
// decodes, and junk in front is skipped. Oracles: ffprobe, ffmpeg's -c copy and -bsf:a eac3_core,
// the corpus README's digest, and the corpus files themselves.
#include "ac3testutil.h"
#include "support/e2e_table.h"

namespace sonvex::ac3test {
namespace {

const std::string kAc3 = "{corpus}/gen/ac3_20_192k.ac3";  // 768-byte frames of 32 ms
const std::string kWall = "{corpus}/public/eac3/the_great_wall_7.1.eac3";  // 4608-byte units
const std::string kJunk = "{corpus}/public/eac3/csi_miami_stereo_128_spx_junk352.eac3";
const std::string kMonsters = "{corpus}/public/ac3/monsters_inc_5.1_448_small.ac3";
const std::string kWallCore = "b704bf851e99b7442e9bed368b60e6ca";  // the corpus README
const std::string kFfCore = "ffmpeg -v error -i " + kWall + " -c copy -bsf:a eac3_core -f ac3 -";
const std::string kWallFacts =
    "test \"$(ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate,channels,"
    "bit_rate -of csv=p=0 " + kWall + ")\" = 48000,8,1152000";
const std::string kWallM2ts = "ffmpeg -v error -i " + kWall + " -c copy -f mpegts -mpegts_m2ts_mode 1 gw.m2ts";
const char* const kNotClean = "This track is not clean. Processing aborted.";

TEST(Ac3EndToEnd, Table) {
  std::vector<TE2eCase> cases = {
      {.name = "AC3 copy", .args = {kAc3, "y.ac3"}, .same = {{"y.ac3", kAc3}}},
      {.name = "E-AC3 copy",
       .args = {"{corpus}/gen/eac3_51_640k.eac3", "y.eac3"},
       .same = {{"y.eac3", "{corpus}/gen/eac3_51_640k.eac3"}}},
      // A real dialnorm kept with -keepDialnorm; the cut last frame is left out.
      {.name = "keepDialnorm",
       .args = {kMonsters, "kept.ac3", "-keepDialnorm"},
       .same = {{"kept.ac3", "$ head -c $(( $(stat -c %s " + kMonsters + ") / 1792 * 1792 )) " + kMonsters}}},
      // +100 ms: 3.125 frames of 32 ms, so the first frame comes three more times.
      {.name = "delay +100ms",
       .args = {kAc3, "later.ac3", "+100ms"},
       .same = {{"later.ac3", "$ for i in 1 2 3; do head -c 768 " + kAc3 + "; done; cat " + kAc3}}},
      // -112 ms: 3.5 frames, rounded away from zero: four frames go.
      {.name = "delay -112ms", .args = {kAc3, "earlier.ac3", "-112ms"},
       .same = {{"earlier.ac3", "$ tail -c +3073 " + kAc3}}},
      {.name = "damaged AC3",
       .args = {"x.ac3", "y.ac3"},
       .exitCode = 1,
       .messages = {kNotClean, "Please clean the track with delaycut and then retry sonvex."},
       .absent = {"y.ac3"},
       .make = [](const fs::path& dir) {
         auto stream = ReadBytes(CorpusDir() + "/gen/ac3_20_192k.ac3");
         stream[768 * 60 + 300] ^= 0x08;
         WriteBytes(dir / "x.ac3", stream);
       }},
      {.name = "7.1 listing",
       .args = {kWall},
       .lines = {"E-AC3, 7.1 channels, 0:00:05, 1,152kbit/s, 48khz"},
       .before = {kWallFacts},
       .tools = {"ffprobe"}},
      {.name = "7.1 copies under every E-AC3 name",
       .args = {kWall, "copy.ddp", "-keepDialnorm"},
       .same = {{"copy.ddp", kWall}}},
      {.name = ".ec3", .args = {kWall, "copy.ec3", "-keepDialnorm"}, .same = {{"copy.ec3", kWall}}},
      {.name = ".dd+", .args = {kWall, "copy.dd+", "-keepDialnorm"}, .same = {{"copy.dd+", kWall}}},
      {.name = "7.1 as .ac3 is its AC3 part",
       .args = {kWall, "part.ac3", "-keepDialnorm"},
       .same = {{"part.ac3", kWallCore}, {"$ " + kFfCore, kWallCore}},
       .tools = {"ffmpeg"}},
      {.name = "7.1 -core", .args = {kWall, "core.eac3", "-core", "-keepDialnorm"},
       .same = {{"core.eac3", kWallCore}}},
      {.name = "7.1 decodes every channel",
       .args = {kWall, "all.wav"},
       .same = {{"$ ffprobe -v error -show_entries stream=channels -of csv=p=0 all*.wav", "$ echo 8"}},
       .tools = {"ffprobe"}},
      // The same track in an M2TS as ffmpeg muxes it.
      {.name = "7.1 in M2TS listing",
       .args = {"gw.m2ts"},
       .lines = {"1: E-AC3, 7.1 channels, 1,152kbit/s, 48khz"},
       .before = {kWallM2ts},
       .tools = {"ffmpeg"}},
      {.name = "7.1 in M2TS demux",
       .args = {"gw.m2ts", "1:", "out.eac3", "-keepDialnorm"},
       .same = {{"out.eac3", "$ ffmpeg -v error -i gw.m2ts -c copy -f eac3 -"}},
       .before = {kWallM2ts},
       .tools = {"ffmpeg"}},
      {.name = "7.1 delay +100ms",
       .args = {kWall, "later.eac3", "+100ms", "-keepDialnorm"},
       .same = {{"later.eac3", "$ for i in 1 2 3; do head -c 4608 " + kWall + "; done; cat " + kWall}}},
      {.name = "7.1 delay -64ms",
       .args = {kWall, "earlier.eac3", "-64ms", "-keepDialnorm"},
       .same = {{"earlier.eac3", "$ tail -c +9217 " + kWall}}},
      {.name = "352 bytes of junk listing",
       .args = {kJunk},
       .lines = {"E-AC3, 2.0 channels, 0:00:21, 128kbit/s, 48khz, dialnorm: -27dB"},
       .messages = {"Skipped 352 bytes of leading junk."}},
      // ffmpeg copies the junk along; the stream is what stands behind it.
      {.name = "352 bytes of junk copy",
       .args = {kJunk, "copy.eac3", "-keepDialnorm"},
       .same = {{"copy.eac3", "$ ffmpeg -v error -i " + kJunk + " -c copy -f eac3 - | tail -c +353"}},
       .tools = {"ffmpeg"}},
  };
  RunE2eTable(cases);
}

// Dialnorm removal patches the AC3 core and the dependent frame of every unit, with good CRCs.
TEST(Ac3EndToEnd, DialnormRemovalPatchesEveryFrameOfTheUnit) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  auto stream = ReadBytes(CorpusDir() + "/public/eac3/the_great_wall_7.1.eac3");
  ASSERT_EQ(stream.size() % 4608, 0u);
  // Give every frame a dialnorm of -27 dB first, with its CRCs redone.
  for (size_t at = 0; at < stream.size(); at += 4608) {
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
  RunResult r = RunSonvex({"dn.eac3", "out.eac3"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("E-AC3, 7.1 channels, 0:00:05, 1,152kbit/s, 48khz, dialnorm: -27dB")) << r.out;
  EXPECT_NE((r.out + r.err).find("Removing dialog normalization..."), std::string::npos);
  auto out = ReadBytes(dir / "out.eac3");
  ASSERT_EQ(out.size(), stream.size());
  for (size_t at = 0; at < out.size(); at += 4608) {
    TAc3FrameInfo core, dep;
    ASSERT_EQ(ParseAc3Frame(out.data() + at, 2304, core), kAc3Good) << "unit at " << at;
    ASSERT_EQ(ParseEac3Frame(out.data() + at + 2304, 2304, dep), kAc3Good) << "unit at " << at;
    EXPECT_EQ(core.dialnorm, 0);
    EXPECT_EQ((out[at + 2309] & 7) * 4 + (out[at + 2310] >> 6), 0);
  }
}

}  // namespace
}  // namespace sonvex::ac3test
