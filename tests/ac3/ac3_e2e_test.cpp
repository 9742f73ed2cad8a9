// The AC3 path through the real sonvex binary: an untouched copy is bit-exact, a delay repeats
// or drops whole frames, and a damaged stream stops the run with exit code 1 and no output.
#include <gtest/gtest.h>

#include "ac3testutil.h"

namespace sonvex::ac3test {
namespace {

TEST(Ac3EndToEnd, UntouchedCopyIsBitExact) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  for (const char* name : {"gen/ac3_20_192k.ac3", "gen/eac3_51_640k.eac3"}) {
    std::string source = CorpusDir() + "/" + name;
    std::string dest = dir / (std::string("y") + fs::path(name).extension().string());
    RunResult r = RunSonvex({source, dest}, dir.path());
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(ReadBytes(dest), ReadBytes(source)) << name;
  }
  // A stream with a real dialnorm keeps it with -keepDialnorm; the cut last frame is left out.
  std::string source = CorpusDir() + "/public/ac3/monsters_inc_5.1_448_small.ac3";
  RunResult r = RunSonvex({source, dir / "kept.ac3", "-keepDialnorm"}, dir.path());
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  auto in = ReadBytes(source), out = ReadBytes(dir / "kept.ac3");
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.size() % 1792, 0u);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin()));
}

TEST(Ac3EndToEnd, DelayByWholeFrames) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string source = CorpusDir() + "/gen/ac3_20_192k.ac3";
  auto in = ReadBytes(source);
  std::vector<uint8_t> later;
  // +100 ms: 3.125 frames of 32 ms, so the first frame comes three more times.
  for (int i = 0; i < 3; i++) later.insert(later.end(), in.begin(), in.begin() + 768);
  later.insert(later.end(), in.begin(), in.end());
  RunResult r = RunSonvex({source, dir / "later.ac3", "+100ms"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(ReadBytes(dir / "later.ac3"), later);
  // -112 ms: 3.5 frames, rounded away from zero: four frames go.
  r = RunSonvex({source, dir / "earlier.ac3", "-112ms"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(ReadBytes(dir / "earlier.ac3"), std::vector<uint8_t>(in.begin() + 4 * 768, in.end()));
}

TEST(Ac3EndToEnd, DamagedStreamFailsAndLeavesNoOutput) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  auto stream = ReadBytes(CorpusDir() + "/gen/ac3_20_192k.ac3");
  stream[768 * 60 + 300] ^= 0x08;
  WriteBytes(dir / "x.ac3", stream);
  RunResult r = RunSonvex({dir / "x.ac3", dir / "y.ac3"}, dir.path());
  EXPECT_EQ(r.exitCode, 1);
  std::string output = r.out + r.err;
  EXPECT_NE(output.find("This track is not clean. Processing aborted."), std::string::npos) << output;
  EXPECT_NE(output.find("Please clean the track with delaycut and then retry sonvex."),
            std::string::npos);
  EXPECT_FALSE(fs::exists(dir / "y.ac3"));
}

}  // namespace
}  // namespace sonvex::ac3test
