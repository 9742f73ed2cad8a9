// The sonvex binary writing Matroska from every video stream of the corpus, checked against
// ffprobe, ffmpeg and mkvinfo: the file opens without errors and holds one video track of
// language "und"; it has as many frames as ffprobe counts in the source, each frame's payload
// equals the source's (ffmpeg -c copy, with the NAL units normalised by filter_units for
// H.264), presentation times rise strictly in display order, the default duration is the frame
// rate's, and the key frames are the source's. Then the rate options, the refusals and the
// files written beside a ".mkv". Skipped when the corpus or the tools are absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

std::string Shell(const std::string& command, const fs::path& dir) {
  return RunShell("sh -c " + ShellQuote(command), dir).out;
}

// Size and md5 of every video packet, as ffmpeg -c copy gives them.
std::vector<std::string> FrameHashes(const std::string& file, const std::string& bsf,
                                     const fs::path& dir) {
  std::string command = "ffmpeg -nostdin -v error -i " + ShellQuote(file) + " -map 0:v:0 -c copy " +
                        (bsf.empty() ? "" : "-bsf:v " + bsf + " ") +
                        "-f framemd5 - | grep -v '^#' | awk -F, '{print $5,$6}'";
  return SplitLines(Shell(command, dir));
}

// ffprobe's packets of the first video stream: "pts,flags" in decoding order.
struct Packet {
  int64_t pts;
  bool key;
};
std::vector<Packet> Packets(const std::string& file, const fs::path& dir) {
  std::vector<Packet> packets;
  for (const std::string& line :
       SplitLines(Shell("ffprobe -v error -select_streams v:0 -show_entries packet=pts,flags "
                        "-of csv=p=0 " + ShellQuote(file),
                        dir))) {
    auto comma = line.find(',');
    if (comma == std::string::npos) continue;
    std::string pts = line.substr(0, comma);
    packets.push_back({pts == "N/A" ? -1 : std::stoll(pts), line.find('K', comma) != std::string::npos});
  }
  return packets;
}

std::string MkvInfo(const std::string& file, const fs::path& dir) {
  return RunShell("mkvinfo " + ShellQuote(file) + " 2>&1", dir).out;
}

// The default duration mkvinfo shows, in ns; 0 if none.
int64_t DefaultDuration(const std::string& info) {
  auto at = info.find("Default duration: ");
  if (at == std::string::npos) return 0;
  int h = 0, m = 0;
  long long ns = 0;
  double s = 0;
  std::sscanf(info.c_str() + at + 18, "%d:%d:%lf", &h, &m, &s);
  auto dot = info.find('.', at + 18);
  if (dot != std::string::npos) ns = std::stoll(info.substr(dot + 1, 9));
  return int64_t(ns) + int64_t(std::floor(s)) * 1000000000;
}

struct MkvCase {
  const char* file;
  const char* codec;       // "h264" or "mpeg2"
  std::vector<std::string> options;
  int64_t duration;        // expected default duration, ns
  bool samePayload;        // the frames leave untouched (no pulldown rewriting)
  bool repeatedFields = false;  // kept 3:2 pulldown: a frame lasts 1 or 1.5 frame times
};

const MkvCase kCases[] = {
    {"gen/h264_1080p24.h264", "h264", {}, 41708333, true},
    {"gen/h264_1080p24.h264", "h264", {"-speedup"}, 40000000, true},
    {"gen/bd_h264_multi.m2ts", "h264", {}, 41708333, true},
    {"public/m2ts/Test_H264.m2ts", "h264", {}, 41708333, true},
    {"public/m2ts/Test_H264_AC3.m2ts", "h264", {}, 41708333, true},
    {"public/m2ts/Test_H264_DTS1.m2ts", "h264", {}, 41708333, true},
    {"gen/mpeg2_576i25.m2v", "mpeg2", {}, 40000000, true},
    {"gen/mpeg2_480p24_pulldown.m2v", "mpeg2", {}, 41708333, false},
    {"gen/mpeg2_480p24_pulldown.m2v", "mpeg2", {"-keepPulldown"}, 33366667, true, true},
    {"gen/mpeg2_480p24_pulldown.m2v", "mpeg2", {"-30p"}, 33366667, true, true},
    {"public/video/tcela-6.m2v", "mpeg2", {}, 33333333, true},
};

class MkvCorpus : public ::testing::TestWithParam<MkvCase> {};

TEST_P(MkvCorpus, MatchesTheSource) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("mkvinfo");
  const MkvCase& c = GetParam();
  TempDir dir;
  std::string source = (CorpusDir() / c.file).string();
  std::string mkv = dir / "out.mkv";
  std::vector<std::string> args = {source, mkv};
  args.insert(args.end(), c.options.begin(), c.options.end());
  RunResult run = RunSonvex(args, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("Added fps value to MKV header.")) << run.out;

  // Opens cleanly in both readers, one video track of language "und".
  RunResult probe = RunShell("ffprobe -v error -show_entries stream=codec_type,codec_name:"
                             "stream_tags=language -of csv=p=0 " + ShellQuote(mkv),
                             dir.path());
  EXPECT_EQ(probe.err, "");
  std::string expected =
      std::string(c.codec == std::string("h264") ? "h264" : "mpeg2video") + ",video";
  EXPECT_EQ(probe.out.substr(0, expected.size()), expected);
  std::string info = MkvInfo(mkv, dir.path());
  EXPECT_EQ(info.find("Error"), std::string::npos) << info;
  EXPECT_EQ(info.find("Warning"), std::string::npos) << info;
  EXPECT_NE(info.find("Language: und"), std::string::npos) << info;
  EXPECT_EQ(DefaultDuration(info), c.duration) << info;

  // Frames and their payloads.
  std::string bsfMkv = c.codec == std::string("h264") ? "h264_mp4toannexb,filter_units=remove_types=9-12" : "";
  std::string bsfSource = c.codec == std::string("h264") ? "filter_units=remove_types=9-12" : "";
  auto ours = FrameHashes(mkv, bsfMkv, dir.path());
  auto theirs = FrameHashes(source, bsfSource, dir.path());
  ASSERT_EQ(ours.size(), theirs.size());
  ASSERT_FALSE(ours.empty());
  if (c.samePayload) {
    for (size_t i = 0; i + 1 < ours.size(); i++) ASSERT_EQ(ours[i], theirs[i]) << "frame " << i;
    // The sequence end code of an MPEG-2 stream never reaches the file.
    std::string source4 = Shell("tail -c 4 " + ShellQuote(source) + " | od -An -tx1", dir.path());
    if (ours.back() != theirs.back()) {
      EXPECT_NE(source4.find("00 00 01 b7"), std::string::npos);
      EXPECT_EQ(std::stol(ours.back()) + 4, std::stol(theirs.back()));
    }
  }

  // Presentation times: all distinct, and in display order one frame apart.
  auto packets = Packets(mkv, dir.path());
  auto sourcePackets = Packets(source, dir.path());
  ASSERT_EQ(packets.size(), ours.size());
  std::vector<int64_t> pts;
  for (const Packet& p : packets) pts.push_back(p.pts);
  std::sort(pts.begin(), pts.end());
  for (size_t i = 1; i < pts.size(); i++) {
    ASSERT_GT(pts[i], pts[i - 1]) << "frame " << i;
    int64_t step = (pts[i] - pts[i - 1]) * 1000000;
    bool oneFrame = std::abs(step - c.duration) <= 1000000;
    bool oneAndHalf = c.repeatedFields && std::abs(step - c.duration * 3 / 2) <= 1000000;
    EXPECT_TRUE(oneFrame || oneAndHalf) << "frame " << i << ": " << step << " ns";
  }
  // Key frames where the source has its random access points.
  ASSERT_EQ(sourcePackets.size(), packets.size());
  for (size_t i = 0; i < packets.size(); i++)
    EXPECT_EQ(packets[i].key, sourcePackets[i].key) << "frame " << i;
}

INSTANTIATE_TEST_SUITE_P(Corpus, MkvCorpus, ::testing::ValuesIn(kCases));

}  // namespace
}  // namespace sonvex::test
