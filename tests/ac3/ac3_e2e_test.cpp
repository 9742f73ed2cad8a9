// The AC3 path through the real sonvex binary: an untouched copy is bit-exact, a delay repeats
// or drops whole frames, and a damaged stream stops the run with exit code 1 and no output.
#include <gtest/gtest.h>

#include "ac3testutil.h"

namespace sonvex::ac3test {
namespace {

// Runs sonvex with its log kept in the scratch folder; returns the exit code.
int RunSonvex(const ScratchDir& dir, const std::string& arguments, std::string* output) {
  return RunCommand("XDG_STATE_HOME='" + dir.path.string() + "' '" SONVEX_BINARY "' " + arguments +
                        " 2>&1",
                    output);
}

TEST(Ac3EndToEnd, UntouchedCopyIsBitExact) {
  SKIP_WITHOUT_AC3_CORPUS();
  ScratchDir dir;
  for (const char* name : {"gen/ac3_20_192k.ac3", "gen/eac3_51_640k.eac3"}) {
    std::string source = CorpusDir() + "/" + name;
    std::string dest = dir / (std::string("y") + std::filesystem::path(name).extension().string());
    std::string output;
    EXPECT_EQ(RunSonvex(dir, "'" + source + "' '" + dest + "'", &output), 0) << output;
    EXPECT_EQ(ReadBytes(dest), ReadBytes(source)) << name;
  }
  // A stream with a real dialnorm keeps it with -keepDialnorm.
  std::string source = CorpusDir() + "/public/ac3/monsters_inc_5.1_448_small.ac3";
  std::string dest = dir / "kept.ac3";
  std::string output;
  EXPECT_EQ(RunSonvex(dir, "'" + source + "' '" + dest + "' -keepDialnorm", &output), 0) << output;
  auto in = ReadBytes(source), out = ReadBytes(dest);
  ASSERT_FALSE(out.empty());
  // The cut last frame of the sample is left out.
  EXPECT_EQ(out.size() % 1792, 0u);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin()));
}

TEST(Ac3EndToEnd, DelayByWholeFrames) {
  SKIP_WITHOUT_AC3_CORPUS();
  ScratchDir dir;
  std::string source = CorpusDir() + "/gen/ac3_20_192k.ac3";
  auto in = ReadBytes(source);
  std::vector<uint8_t> first(in.begin(), in.begin() + 768);
  std::string output;
  // +100 ms: 3.125 frames of 32 ms, so the first frame comes three more times.
  ASSERT_EQ(RunSonvex(dir, "'" + source + "' '" + (dir / "later.ac3") + "' +100ms", &output), 0)
      << output;
  EXPECT_EQ(ReadBytes(dir / "later.ac3"), Concat({Repeat(first, 3), in}));
  // -112 ms: 3.5 frames, rounded away from zero: four frames go.
  ASSERT_EQ(RunSonvex(dir, "'" + source + "' '" + (dir / "earlier.ac3") + "' -112ms", &output), 0)
      << output;
  EXPECT_EQ(ReadBytes(dir / "earlier.ac3"), std::vector<uint8_t>(in.begin() + 4 * 768, in.end()));
}

TEST(Ac3EndToEnd, DamagedStreamFailsAndLeavesNoOutput) {
  SKIP_WITHOUT_AC3_CORPUS();
  ScratchDir dir;
  auto stream = ReadBytes(CorpusDir() + "/gen/ac3_20_192k.ac3");
  stream[768 * 60 + 300] ^= 0x08;
  WriteBytes(dir / "x.ac3", stream);
  std::string output;
  EXPECT_EQ(RunSonvex(dir, "'" + (dir / "x.ac3") + "' '" + (dir / "y.ac3") + "'", &output), 1);
  EXPECT_NE(output.find("This track is not clean. Processing aborted."), std::string::npos) << output;
  EXPECT_NE(output.find("Please clean the track with delaycut and then retry sonvex."),
            std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir / "y.ac3"));
}

}  // namespace
}  // namespace sonvex::ac3test
