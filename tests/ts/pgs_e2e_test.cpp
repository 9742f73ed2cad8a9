// The sonvex binary on PGS subtitles and Dolby Vision layers in M2TS, against ffprobe's facts and
// ffmpeg's `-c copy` payloads: subtitle tracks are listed after the audio tracks with the
// languages ffprobe reports, in its order; a PGS track demuxed to .sup is byte-identical to
// `ffmpeg -map 0:s:N -c copy -f sup`; both layers of a dual-layer title are listed and demux
// byte-identically. Files beyond the corpus are made here with ffmpeg's mpegts muxer.
#include <gtest/gtest.h>

#include <fstream>

#include "disc/languages.h"
#include "support/e2e.h"

namespace sonvex::test {
namespace {

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

// ffprobe's language tags of the subtitle streams, in its order ("" for none).
std::vector<std::string> ProbeSubtitleLanguages(const fs::path& file, const fs::path& dir) {
  RunResult r = RunShell("ffprobe -v error -select_streams s -show_entries stream=index:"
                         "stream_tags=language -of csv=p=0 " + ShellQuote(file.string()), dir);
  // Streams inside a program come twice: in the program (without tags) and in the file's list.
  std::vector<std::string> languages, seen;
  for (const std::string& line : Split(r.out)) {
    size_t comma = line.find(',');
    std::string index = line.substr(0, comma);
    std::string language = comma == std::string::npos ? "" : line.substr(comma + 1);
    auto at = std::find(seen.begin(), seen.end(), index);
    if (at == seen.end()) {
      seen.push_back(index);
      languages.push_back(language);
    } else if (!language.empty()) {
      languages[size_t(at - seen.begin())] = language;
    }
  }
  return languages;
}

TEST(PgsListing, BluRayCutListsItsSubtitlesWithFfprobesLanguages) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
  fs::path source = CorpusDir() / "public/m2ts/Test_H264_DTS1.m2ts";
  std::vector<std::string> languages = ProbeSubtitleLanguages(source, dir.path());
  ASSERT_EQ(languages.size(), 21u);
  RunResult run = RunSonvex({source.string()}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  std::vector<std::string> lines = run.Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "M2TS, 1 video track, 9 audio tracks, 21 subtitle tracks, 0:00:01");
  // Tracks 1 video, 2..10 audio, then the subtitles.
  for (size_t i = 0; i < languages.size(); i++) {
    std::string want = std::to_string(11 + i) + ": PGS, " + LanguageName(languages[i]);
    EXPECT_TRUE(run.HasLine(want)) << want << "\n" << run.out;
  }
}

// A source, its subtitle track as sonvex numbers it, and ffmpeg's subtitle stream index.
struct SupCase {
  const char* name;
  const char* make;  // ffmpeg arguments that make "in.m2ts" (empty: the corpus file is used)
  const char* corpusFile;
  const char* track;
  const char* listed;  // the track's listing line
  const char* md5;     // the corpus README's md5 of ffmpeg's output, or ""
};

// The subtitles of sintel-en.sup begin at 107.25 s.
const SupCase kSupCases[] = {
    {"CorpusFile", "", "gen/bd_h264_pgs.m2ts", "2", "2: PGS", "55f4efd44164c380b0a06aa6213214c2"},
    {"SubtitlesWithAudio", "-f lavfi -i sine=d=3 -i SUP -map 0 -map 1 -c:a ac3 -c:s copy", "", "2",
     "2: PGS", ""},
    // Met while probing the file's start: the track's own start is its time 0.
    {"SubtitlesFourSecondsBehindAudio",
     "-f lavfi -i sine=d=40 -itsoffset 4 -i SUP -map 0 -map 1 -c:a ac3 -c:s copy", "", "2",
     "2: PGS", ""},
    // Beyond the probing: the file's start is.
    {"SubtitlesEightSecondsBehindAudio",
     "-f lavfi -i sine=d=40 -itsoffset 8 -i SUP -map 0 -map 1 -c:a ac3 -c:s copy", "", "2",
     "2: PGS", ""},
    {"SubtitlesJustAheadOfAudio",
     "-itsoffset 107.5 -f lavfi -i sine=d=3 -i SUP -map 0 -map 1 -c:a ac3 -c:s copy", "", "2",
     "2: PGS", ""},
};

class PgsDemux : public ::testing::TestWithParam<SupCase> {};

TEST_P(PgsDemux, SupIsByteIdenticalToFfmpegs) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  const SupCase& c = GetParam();
  TempDir dir;
  std::string source = (CorpusDir() / c.corpusFile).string();
  if (*c.make) {
    std::string args = c.make;
    args.replace(args.find("SUP"), 3, ShellQuote((CorpusDir() / "public/sup/sintel-en.sup").string()));
    RunResult made = RunShell("ffmpeg -v error -y " + args + " -mpegts_m2ts_mode 1 -f mpegts in.m2ts",
                              dir.path());
    ASSERT_EQ(made.exitCode, 0) << made.err;
    source = dir / "in.m2ts";
  }
  RunResult listing = RunSonvex({source}, dir.path());
  ASSERT_EQ(listing.exitCode, 0) << listing.out << listing.err;
  EXPECT_TRUE(listing.HasLine(c.listed)) << listing.out;

  RunResult run = RunSonvex({source, std::string(c.track) + ":", "out.sup"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("[s0" + std::string(c.track) + "] Extracting subtitle track number " +
                          c.track + "..."))
      << run.out;
  RunResult oracle = RunShell("ffmpeg -v error -i " + ShellQuote(source) +
                                  " -map 0:s:0 -c copy -f sup ff.sup", dir.path());
  ASSERT_EQ(oracle.exitCode, 0) << oracle.err;
  ASSERT_GT(fs::file_size(dir / "ff.sup"), 0u);
  EXPECT_EQ(Md5(dir / "out.sup"), Md5(dir / "ff.sup"));
  if (*c.md5) {
    EXPECT_EQ(Md5(dir / "out.sup"), c.md5);
  }
}

INSTANTIATE_TEST_SUITE_P(Pgs, PgsDemux, ::testing::ValuesIn(kSupCases),
                         [](const auto& info) { return std::string(info.param.name); });

// -demux names a subtitle track by its text (and language, where known), as EVO subtitles are
// named, and writes what "2: out.sup" writes.
TEST(PgsDemuxNames, DemuxWritesTheSubtitleTrack) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  fs::path source = CorpusDir() / "gen/bd_h264_pgs.m2ts";
  RunResult run = RunSonvex({source.string(), "-demux"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("[s02] Creating file \"bd_h264_pgs - 2 - PGS.sup\"...")) << run.out;
  EXPECT_EQ(Md5(dir / "bd_h264_pgs - 2 - PGS.sup"), "55f4efd44164c380b0a06aa6213214c2");
  RunResult check = RunSonvex({source.string(), "-check"}, dir.path());
  EXPECT_EQ(check.exitCode, 0) << check.out << check.err;
  EXPECT_TRUE(check.HasLine("[s02] Extracting subtitle track number 2...")) << check.out;
}

// Text subtitles (stream type 0x92) are listed but not extracted. The stream is one of ffmpeg's
// with the PGS entry of its PMT turned into a text subtitle entry.
TEST(PgsDemuxNames, TextSubtitlesAreRefused) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  RunResult made = RunShell("ffmpeg -v error -y -f lavfi -i sine=d=2 -i " +
                                ShellQuote((CorpusDir() / "public/sup/sintel-en.sup").string()) +
                                " -map 0 -map 1 -c:a ac3 -c:s copy -mpegts_m2ts_mode 1 "
                                "-streamid 1:0x1800 -f mpegts pgs.m2ts",
                            dir.path());
  ASSERT_EQ(made.exitCode, 0) << made.err;
  std::string stream = ReadFile(dir / "pgs.m2ts");
  const std::string entry("\x90\xF8\x00", 3);  // stream_type, reserved bits and PID 0x1800
  size_t replaced = 0;
  for (size_t at = stream.find(entry); at != std::string::npos; at = stream.find(entry, at + 3)) {
    stream[at] = char(0x92);
    replaced++;
  }
  ASSERT_GT(replaced, 0u);
  std::ofstream(dir / "text.m2ts", std::ios::binary) << stream;
  RunResult listing = RunSonvex({"text.m2ts"}, dir.path());
  ASSERT_EQ(listing.exitCode, 0) << listing.out << listing.err;
  EXPECT_TRUE(listing.HasLine("2: Text subtitles")) << listing.out;
  RunResult run = RunSonvex({"text.m2ts", "2:", "out.sup"}, dir.path());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE((run.out + run.err).find("TS/M2TS subtitles are not supported yet."), std::string::npos)
      << run.out << run.err;
  EXPECT_FALSE(fs::exists(dir / "out.sup"));
}

// Dual-layer Dolby Vision: base layer on 0x1011, enhancement layer on 0x1015. ffmpeg's muxer
// writes no Dolby Vision descriptor, so the PID tells the layer.
TEST(DolbyVision, DualLayerListsAndDemuxesBothLayers) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  RunResult encoders = RunShell("ffmpeg -hide_banner -encoders", dir.path());
  if (encoders.out.find("libx265") == std::string::npos) GTEST_SKIP() << "no libx265";
  RunResult made = RunShell(
      "ffmpeg -v error -y -f lavfi -i testsrc=size=320x180:rate=24000/1001:duration=1 "
      "-f lavfi -i testsrc2=size=160x90:rate=24000/1001:duration=1 -map 0:v -map 1:v "
      "-pix_fmt yuv420p -c:v libx265 -x265-params log-level=none -mpegts_m2ts_mode 1 "
      "-streamid 0:0x1011 -streamid 1:0x1015 -f mpegts dual.m2ts",
      dir.path());
  ASSERT_EQ(made.exitCode, 0) << made.err;
  RunResult listing = RunSonvex({"dual.m2ts"}, dir.path());
  ASSERT_EQ(listing.exitCode, 0) << listing.out << listing.err;
  EXPECT_TRUE(listing.HasLine("M2TS, 2 video tracks, 0:00:01")) << listing.out;
  EXPECT_TRUE(listing.HasLine("1: h265/HEVC, 320x180 24p /1.001 (16:9), 8 bits")) << listing.out;
  EXPECT_TRUE(listing.HasLine(
      "2: h265/HEVC, 160x90 24p /1.001 (16:9), 8 bits, Dolby Vision enhancement layer"))
      << listing.out;

  RunResult run = RunSonvex({"dual.m2ts", "-demux"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const char* names[] = {"dual - 1 - h265, 320x180 24p.h265", "dual - 2 - h265, 160x90 24p.h265"};
  for (int i = 0; i < 2; i++) {
    std::string oracle = "ff" + std::to_string(i) + ".hevc";
    ASSERT_EQ(RunShell("ffmpeg -v error -i dual.m2ts -map 0:" + std::to_string(i) +
                           " -c copy -f hevc " + oracle, dir.path()).exitCode, 0);
    ASSERT_TRUE(fs::exists(dir / names[i])) << run.out;
    EXPECT_EQ(Md5(dir / names[i]), Md5(dir / oracle)) << names[i];
  }
}

// A single-layer stream that carries Dolby Vision RPU units (NAL type 62) is marked.
TEST(DolbyVision, RpuUnitsMarkASingleLayerStream) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string stream = ReadFile(CorpusDir() / "gen/uhd_hdr10_2160p24.hevc");
  // An RPU unit at the end of the first access unit, ahead of the second delimiter.
  size_t second = stream.find(std::string("\0\0\x01\x46", 4), 8);
  ASSERT_NE(second, std::string::npos);
  if (stream[second - 1] == 0) second--;
  stream.insert(second, std::string("\0\0\x01\x7C\x01\x08\x09\x0A\x0B", 9));
  std::ofstream(dir / "rpu.hevc", std::ios::binary) << stream;
  RunResult run = RunSonvex({"rpu.hevc"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("h265/HEVC, 2160p24 /1.001 (16:9), 10 bits, HDR10, Dolby Vision"))
      << run.out;
}

}  // namespace
}  // namespace sonvex::test
