// The sonvex binary on the HEVC files of the corpus, against ffprobe's facts and ffmpeg's
// `-c copy` payloads: the listing shows size, rate, bit depth and HDR10 as ffprobe reports them,
// the frame count equals ffprobe's count of frames, the demuxed HEVC track is byte-identical to
// `ffmpeg -map 0:0 -c copy -f hevc`, and -check runs clean. Skipped when the corpus is absent.
#include <gtest/gtest.h>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

struct HevcCase {
  const char* file;         // under gen/
  const char* destination;  // the demux destination
};

constexpr HevcCase kHevcCases[] = {
    {"bd_uhd_hevc_ac3.m2ts", "1:video.h265"},
    {"uhd_hdr10_2160p24.hevc", "video.hevc"},
};

// One value of ffprobe's first video stream.
std::string ProbeVideo(const fs::path& file, const std::string& entry, const fs::path& dir) {
  RunResult r = RunShell("ffprobe -v error -select_streams v:0 -show_entries stream=" + entry +
                             " -of default=nw=1:nk=1 " + ShellQuote(file.string()),
                         dir);
  std::string value = r.out.substr(0, r.out.find('\n'));
  return value;
}

class HevcCorpus : public ::testing::TestWithParam<HevcCase> {};

TEST_P(HevcCorpus, ListingCountAndPayloadMatchFfmpeg) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  const HevcCase& c = GetParam();
  fs::path source = CorpusDir() / "gen" / c.file;
  TempDir dir;
  EXPECT_EQ(ProbeVideo(source, "color_transfer", dir.path()), "smpte2084");
  EXPECT_EQ(ProbeVideo(source, "color_primaries", dir.path()), "bt2020");
  RunResult sideData = RunShell("ffprobe -v error -select_streams v:0 -read_intervals %+#1 "
                                "-show_frames " + ShellQuote(source.string()), dir.path());
  ASSERT_NE(sideData.out.find("Mastering display metadata"), std::string::npos);
  std::string width = ProbeVideo(source, "width", dir.path());
  std::string height = ProbeVideo(source, "height", dir.path());
  std::string rate = ProbeVideo(source, "r_frame_rate", dir.path());
  ASSERT_EQ(width + "x" + height + " " + rate, "3840x2160 24000/1001");
  RunResult frames = RunShell("ffprobe -v error -select_streams v:0 -count_frames -show_entries "
                              "stream=nb_read_frames -of default=nw=1:nk=1 " +
                                  ShellQuote(source.string()), dir.path());
  std::string count = frames.out.substr(0, frames.out.find('\n'));

  RunResult run = RunSonvex({source.string(), c.destination}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_NE(run.out.find("h265/HEVC, 2160p24 /1.001 (16:9), 10 bits, HDR10"), std::string::npos)
      << run.out;
  EXPECT_TRUE(run.HasLine("Video track 1 contains " + count + " frames.")) << run.out;
  // A track out of a container gets its delay into the name ("v DELAY 5ms.h265").
  std::string produced;
  for (const std::string& name : ListFiles(dir.path()))
    if (name.size() > 5 && (name.ends_with(".h265") || name.ends_with(".hevc")))
      produced = dir / name;
  ASSERT_FALSE(produced.empty()) << run.out;
  RunResult oracle = RunShell("ffmpeg -v error -i " + ShellQuote(source.string()) +
                                  " -map 0:0 -c copy -f hevc .oracle", dir.path());
  ASSERT_EQ(oracle.exitCode, 0) << oracle.err;
  EXPECT_EQ(Md5(produced), Md5(dir.path() / ".oracle"));

  RunResult check = RunSonvex({source.string(), "-check"}, dir.path());
  EXPECT_EQ(check.exitCode, 0) << check.out << check.err;
}

INSTANTIATE_TEST_SUITE_P(Corpus, HevcCorpus, ::testing::ValuesIn(kHevcCases));

}  // namespace
}  // namespace sonvex::test
