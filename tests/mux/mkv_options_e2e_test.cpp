// The sonvex binary writing Matroska, beyond the plain corpus runs: -24p retimes a 30p H.264
// stream, the header patch leaves a file that has the value alone, a stream without sync
// points is refused with nothing left behind, and a ".mkv" destination demuxes the audio beside
// it. Test streams are made with ffmpeg's libx264; skipped when tools or corpus are absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "framework/console.h"
#include "mux/mkvframerate.h"
#include "support/e2e.h"

namespace sonvex::test {
namespace {

bool HaveX264() {
  return HaveTool("ffmpeg") &&
         RunShell("sh -c 'ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libx264'",
                  fs::current_path())
                 .exitCode == 0;
}

// A small H.264 stream: `frames` frames of 30000/1001 progressive video, one IDR picture every
// `keyint` frames, with B-frames (so that the picture order count is of type 0) or without
// (type 2).
std::string MakeH264(const TempDir& dir, int frames, int keyint, int bframes = 2) {
  std::string name = dir / "src.h264";
  std::string command =
      "ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=64x64:rate=30000/1001 -frames:v " +
      std::to_string(frames) + " -c:v libx264 -bf " + std::to_string(bframes) + " -x264-params keyint=" +
      std::to_string(keyint) + ":min-keyint=" + std::to_string(keyint) +
      ":scenecut=0:aud=1 -f h264 " + ShellQuote(name);
  RunShell(command, dir.path());
  return name;
}

std::string MkvInfo(const std::string& file, const fs::path& dir) {
  return RunShell("mkvinfo " + ShellQuote(file) + " 2>&1", dir).out;
}

// Presentation times in ms of the video packets, sorted.
std::vector<int64_t> SortedPts(const std::string& file, const fs::path& dir) {
  std::vector<int64_t> pts;
  std::istringstream in(RunShell("ffprobe -v error -select_streams v:0 -show_entries packet=pts "
                                 "-of csv=p=0 " + ShellQuote(file), dir).out);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) pts.push_back(std::stoll(line));
  std::sort(pts.begin(), pts.end());
  return pts;
}

TEST(MkvOptions, Force24pRetimesA30pStream) {
  SKIP_WITHOUT_TOOL("mkvinfo");
  if (!HaveX264()) GTEST_SKIP() << "ffmpeg without libx264";
  TempDir dir;
  std::string source = MakeH264(dir, 60, 30);
  struct Case {
    std::vector<std::string> options;
    const char* duration;  // mkvinfo's default duration
    int64_t lastPts;       // ms of frame 59
  };
  const Case cases[] = {
      {{}, "Default duration: 00:00:00.033366667", 1969},
      {{"-24p"}, "Default duration: 00:00:00.041708333", 2461},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {source, dir / "out.mkv"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    RunResult run = RunSonvex(args, dir.path());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(MkvInfo(dir / "out.mkv", dir.path()).find(c.duration), std::string::npos);
    auto pts = SortedPts(dir / "out.mkv", dir.path());
    ASSERT_EQ(pts.size(), 60u);
    EXPECT_EQ(pts.front(), 0);
    EXPECT_EQ(pts.back(), c.lastPts);
  }
}

// Sources for the rate table: 30i (field coded, tff) and film flagged 3:2 for 60 fields a
// second (fake interlaced, pic_struct pulldown), both made with libx264.
std::string MakeInterlacedH264(const TempDir& dir, bool film) {
  std::string name = dir / (film ? "film.h264" : "i30.h264");
  std::string params = film ? "pulldown=32:fake-interlaced=1" : "tff=1";
  RunShell("ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=64x64:rate=" +
               std::string(film ? "24000/1001 -frames:v 48" : "30000/1001 -frames:v 60") +
               (film ? "" : " -flags +ildct+ilme") + " -c:v libx264 -x264-params keyint=24:min-keyint=24:"
               "scenecut=0:aud=1:" + params + " -f h264 " + ShellQuote(name),
           dir.path());
  return name;
}

// Fields that each frame of a stream lasts beyond the first two (ffprobe's repeat_pict), in
// display order.
std::vector<int> RepeatedFields(const std::string& file, const fs::path& dir) {
  std::vector<int> repeats;
  std::string text = RunShell("ffprobe -v error -show_entries frame=repeat_pict -of csv=p=0 " +
                                  ShellQuote(file), dir).out;
  for (char c : text)
    if (c >= '0' && c <= '9') repeats.push_back(c - '0');
  return repeats;
}

// The rate options on interlaced, film and PAL sources: the default duration that the header
// patch writes (as mkvinfo reads it) and the presentation time of every frame.
TEST(MkvOptions, RateOptionsChangeTheDefaultDurationAndTheTiming) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("mkvinfo");
  if (!HaveX264()) GTEST_SKIP() << "ffmpeg without libx264";
  TempDir dir;
  std::string i30 = MakeInterlacedH264(dir, false), film = MakeInterlacedH264(dir, true);
  std::string pal = (CorpusDir() / "gen/mpeg2_576i25.m2v").string();
  std::string telecined = (CorpusDir() / "gen/mpeg2_480p24_pulldown.m2v").string();
  std::string film24 = (CorpusDir() / "gen/h264_1080p24.h264").string();
  struct Case {
    std::string source;
    std::vector<std::string> options;
    const char* duration;  // mkvinfo's default duration
    double frameMs;        // time of a frame, or of a field pair where repeated fields stay
    size_t frames;
    bool repeatedFieldsStay = false;
  };
  const Case cases[] = {
      {i30, {}, "00:00:00.033366667", 1001 / 30.0, 60},
      {i30, {"-24p"}, "00:00:00.041708333", 1001 / 24.0, 60},
      {film, {}, "00:00:00.041708333", 1001 / 24.0, 48},
      {film, {"-24p"}, "00:00:00.041708333", 1001 / 24.0, 48},
      {film, {"-30p"}, "00:00:00.033366667", 1001 / 30.0, 48},
      {film24, {"-30p"}, "00:00:00.033366667", 1001 / 30.0, 144},
      {pal, {"-24p"}, "00:00:00.040000000", 40.0, 150},
      {pal, {"-slowdown"}, "00:00:00.041708333", 1001 / 24.0, 150},
      {telecined, {"-stripPulldown"}, "00:00:00.041708333", 1001 / 24.0, 144},
      {telecined, {"-60i"}, "00:00:00.033366667", 1001 / 30.0, 144, true},
  };
  for (const Case& c : cases) {
    std::string label = fs::path(c.source).filename().string() + (c.options.empty() ? "" : " " + c.options[0]);
    std::vector<std::string> args = {c.source, dir / "out.mkv"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    RunResult run = RunSonvex(args, dir.path());
    ASSERT_EQ(run.exitCode, 0) << label << run.out << run.err;
    EXPECT_TRUE(run.HasLine("Added fps value to MKV header.")) << label;
    EXPECT_NE(MkvInfo(dir / "out.mkv", dir.path()).find(std::string("Default duration: ") + c.duration),
              std::string::npos) << label;
    std::vector<int64_t> pts = SortedPts(dir / "out.mkv", dir.path());
    ASSERT_EQ(pts.size(), c.frames) << label;
    std::vector<int> repeats = c.repeatedFieldsStay ? RepeatedFields(c.source, dir.path()) : std::vector<int>();
    double expected = 0;
    for (size_t k = 0; k < pts.size(); k++) {
      EXPECT_LE(std::abs(double(pts[k]) - expected), 1.0) << label << " frame " << k;
      expected += c.frameMs * (1 + (k < repeats.size() ? repeats[k] / 2.0 : 0));
    }
    fs::remove(dir / "out.mkv");
  }
}

TEST(MkvOptions, PatchingAgainLeavesTheFileAlone) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string mkv = dir / "out.mkv";
  RunResult run = RunSonvex({(CorpusDir() / "gen/h264_1080p24.h264").string(), mkv}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("Added fps value to MKV header."));
  std::string before = ReadFile(mkv);
  std::vector<std::string> lines;
  SetLogHook([&lines](int level, const std::string& text) {
    lines.push_back(std::to_string(level) + " " + text);
  });
  TMkvPatchResult result = PatchMkvFrameRate(mkv, 24000, 1001);
  SetLogHook(nullptr);
  EXPECT_EQ(result, TMkvPatchResult::alreadySet);
  EXPECT_EQ(lines, std::vector<std::string>{"0 This MKV already has the fps value set."});
  EXPECT_TRUE(ReadFile(mkv) == before);
}

TEST(MkvOptions, StreamWithoutSyncPointsIsRefused) {
  if (!HaveX264()) GTEST_SKIP() << "ffmpeg without libx264";
  TempDir dir;
  // One IDR picture, then 1,099 frames that can't be seeked to.
  std::string source = MakeH264(dir, 1100, 2000);
  RunResult run = RunSonvex({source, dir / "out.mkv"}, dir.path());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.HasLine("[v01] Unfortunately the Haali Muxer cannot handle this source file."))
      << run.out;
  EXPECT_TRUE(run.HasLine("[v01] It doesn't contain enough seek/recovery points.")) << run.out;
  EXPECT_FALSE(run.HasLine("Done."));
  EXPECT_FALSE(fs::exists(dir / "out.mkv"));
  // With a sync point every 900 frames the same stream goes through.
  source = MakeH264(dir, 1100, 900);
  run = RunSonvex({source, dir / "out.mkv"}, dir.path());
  EXPECT_EQ(run.exitCode, 0) << run.out;
}

TEST(MkvOptions, PictureOrderWithoutCountIsRefused) {
  if (!HaveX264()) GTEST_SKIP() << "ffmpeg without libx264";
  TempDir dir;
  RunResult run = RunSonvex({MakeH264(dir, 30, 30, 0), dir / "out.mkv"}, dir.path());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.HasLine("[v01] The h264 muxer doesn't support this stream type yet.")) << run.out;
  EXPECT_FALSE(fs::exists(dir / "out.mkv"));
}

TEST(MkvOptions, AudioIsDemuxedBesideTheMkv) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  RunResult run = RunSonvex(
      {(CorpusDir() / "public/m2ts/Test_H264_AC3.m2ts").string(), dir / "movie.mkv"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  std::string ac3 = "movie - 2 - AC3, 5.1 channels, 640kbps, 48khz.ac3";
  EXPECT_EQ(ListFiles(dir.path()),
            (std::vector<std::string>{ac3, "movie - Log.txt", "movie.mkv"}));
  // The AC3 file holds every frame of the track, as ffprobe counts them in the source.
  auto frames = [&](const std::string& file, const std::string& select) {
    return RunShell("ffprobe -v error -select_streams " + select +
                        " -count_packets -show_entries stream=nb_read_packets -of csv=p=0 " +
                        ShellQuote(file),
                    dir.path())
        .out.substr(0, 3);
  };
  EXPECT_EQ(frames(dir / ac3, "a:0"),
            frames((CorpusDir() / "public/m2ts/Test_H264_AC3.m2ts").string(), "a:0"));
}


// A disc title into Matroska: the chapters text and every audio track beside the MKV, named as
// demux names with the MKV's stem (lossless audio as FLAC). Oracles: the disc corpus's ffmpeg
// "-c copy" of the joined clips and chapter text, and ffmpeg's decode of the TrueHD track.
TEST(MkvOptions, DiscTitleWritesChaptersAndAudioBeside) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  fs::path disc = CorpusDir() / "gen/disc/bd-d3-join";
  if (!fs::is_directory(disc)) GTEST_SKIP() << "no disc corpus";
  auto oracle = [](const fs::path& table, const std::string& key, int column) {
    std::istringstream in(ReadFile(table));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind(key, 0) != 0) continue;
      std::istringstream fields(line);
      std::string field;
      for (int i = 0; i <= column && std::getline(fields, field, '\t');) i++;
      return field;
    }
    return std::string();
  };
  TempDir dir;
  RunResult run = RunSonvex({disc.string(), "1)", dir / "movie.mkv"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  std::string ac3 = "movie - 3 - AC3, 5.1 channels, 448kbps, 48khz, English.ac3";
  std::string thd = "movie - 4 - TrueHD, 2.0 channels, 48khz, Japanese.flac";
  EXPECT_EQ(ListFiles(dir.path()),
            (std::vector<std::string>{ac3, thd, "movie - Chapters.txt", "movie - Log.txt", "movie.mkv"}));
  fs::path discOracles = CorpusDir() / "gen/disc/ORACLES.tsv";
  EXPECT_EQ(Md5(dir.path() / "movie - Chapters.txt"), oracle(discOracles, "bd.bd-d3-join.t1.chapters_txt_md5\t", 1));
  EXPECT_EQ(Md5(dir.path() / ac3), oracle(discOracles, "bd.bd-d3-join.t1.demux.0x1100.ac3.md5\t", 1));
  std::string decoded = RunShell("ffmpeg -nostdin -v error -i " + ShellQuote(dir / thd) +
                                     " -c:a pcm_s24le -f md5 -", dir.path()).out;
  EXPECT_EQ(decoded.substr(0, 4 + 32), "MD5=" +
            oracle(CorpusDir() / "gen/REFERENCE_DECODES.tsv", "bd_join_full.m2ts\t2\t0x1101\ttruehd\t", 10));
  // The MKV holds every frame of the joined clips' video.
  auto frames = [&](const std::string& file) {
    return RunShell("ffprobe -v error -select_streams v:0 -count_packets -show_entries "
                    "stream=nb_read_packets -of csv=p=0 " + ShellQuote(file), dir.path()).out;
  };
  EXPECT_EQ(frames(dir / "movie.mkv").substr(0, 4), frames((CorpusDir() / "gen/bd_join_full.m2ts").string()).substr(0, 4));
}


// HEVC has no muxing stage: a bare stream and an M2TS with audio beside the video both stop
// before anything is written, the audio that would go beside the MKV included.
TEST(MkvOptions, HevcIsRefused) {
  SKIP_WITHOUT_CORPUS();
  for (const char* file : {"gen/uhd_hdr10_2160p24.hevc", "gen/bd_uhd_hevc_ac3.m2ts"}) {
    TempDir dir;
    RunResult run = RunSonvex({(CorpusDir() / file).string(), dir / "out.mkv"}, dir.path());
    EXPECT_EQ(run.exitCode, 1) << file;
    EXPECT_TRUE(run.HasLine("[v01] Unsupported video format.")) << file << run.out << run.err;
    EXPECT_FALSE(run.HasLine("Done.")) << file;
    EXPECT_EQ(ListFiles(dir.path()), std::vector<std::string>{"out - Log.txt"}) << file;
  }
}

}  // namespace
}  // namespace sonvex::test
