// Leading junk in front of a container: an M2TS with 805 bytes in front lists and demuxes as the
// M2TS itself, never as a bare stream found inside it.
#include <gtest/gtest.h>

#include <fstream>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

TEST(LeadingJunk, ContainerBehindJunkWinsOverABareStreamInside) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  fs::path clean = CorpusDir() / "public/m2ts/Test_H264_DTS1.m2ts";
  std::string bytes = ReadFile(clean);
  ASSERT_FALSE(bytes.empty());
  std::string junk(805, '\0');
  for (size_t i = 0; i < junk.size(); i++) junk[i] = char((i * 7 + 3) & 255);
  std::ofstream(dir / "junk.m2ts", std::ios::binary) << junk << bytes;

  RunResult plain = RunSonvex({clean.string()}, dir.path());
  RunResult junky = RunSonvex({"junk.m2ts"}, dir.path());
  ASSERT_EQ(plain.exitCode, 0);
  EXPECT_EQ(junky.exitCode, 0);
  EXPECT_NE((junky.out + junky.err).find("Skipped 805 bytes of leading junk."), std::string::npos)
      << junky.out << junky.err;
  // The listing is that of the clean file, line for line.
  auto plainLines = plain.Lines(), junkLines = junky.Lines();
  std::vector<std::string> listed;
  for (const auto& line : junkLines)
    if (line.find("leading junk") == std::string::npos) listed.push_back(line);
  EXPECT_EQ(listed, plainLines);

  // Track 4 (AC3 on PID 0x1102) demuxes as ffmpeg copies it out of the clean file.
  RunResult r = RunSonvex({"junk.m2ts", "4:", "out.ac3", "-keepDialnorm"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  ASSERT_EQ(RunShell("ffmpeg -v error -y -i " + ShellQuote(clean.string()) +
                         " -map 0:i:0x1102 -c copy -f ac3 ff.ac3",
                     dir.path())
                .exitCode,
            0);
  EXPECT_EQ(ReadFile(dir / "out.ac3"), ReadFile(dir / "ff.ac3"));
}

}  // namespace
}  // namespace sonvex::test
