// The sonvex binary on EVO and VOB files: listings against the corpus oracles and ffprobe's start
// times, every track demuxed against the elementary stream that went in (PCM through WAV and FLAC
// against the samples, subpictures against the units), DVD VOBs against ffmpeg's "-c copy", joined
// files, the joined-file action, authoring faults and foreign data.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "support/e2e.h"

namespace sonvex::evotest {
namespace {

using namespace ::sonvex::test;

std::string Evo(const std::string& name) { return (CorpusDir() / "gen/evo" / name).string(); }
std::string Vob(const std::string& name) { return (CorpusDir() / "public/vob" / name).string(); }

const std::map<std::string, std::string>& Oracles() {
  static const std::map<std::string, std::string> table = [] {
    std::map<std::string, std::string> t;
    std::ifstream in(Evo("ORACLES.tsv"));
    for (std::string line; std::getline(in, line);) {
      size_t tab = line.find('\t');
      if (tab != std::string::npos) t[line.substr(0, tab)] = line.substr(tab + 1);
    }
    return t;
  }();
  return table;
}
std::string Oracle(const std::string& key) {
  auto at = Oracles().find(key);
  return at == Oracles().end() ? "" : at->second;
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, by);) parts.push_back(part);
  return parts;
}

// The track lines of a listing: number, description, delay in ms.
struct TListed {
  std::string text;
  int delay = 0;
};
std::map<int, TListed> Listed(const RunResult& run) {
  std::map<int, TListed> tracks;
  for (const std::string& line : run.Lines()) {
    size_t colon = line.find(": ");
    if (colon == std::string::npos || colon == 0 || !std::isdigit(uint8_t(line[0]))) continue;
    TListed t{line.substr(colon + 2)};
    size_t comma = t.text.rfind(", ");
    if (t.text.size() > 2 && t.text.substr(t.text.size() - 2) == "ms" && comma != std::string::npos) {
      t.delay = std::atoi(t.text.c_str() + comma + 2);
      t.text.resize(comma);
    }
    tracks[std::atoi(line.c_str())] = t;
  }
  return tracks;
}

// ffprobe's start time of each stream, by its id as ffprobe prints it ("0x1e0", "0x80").
std::map<std::string, double> StartTimes(const std::string& file) {
  RunResult r = RunShell("ffprobe -v quiet -show_entries stream=id,start_time -of csv=p=0 " +
                             ShellQuote(file),
                         fs::temp_directory_path());
  std::map<std::string, double> times;
  for (const std::string& line : r.Lines()) {
    auto cells = Split(line, ',');
    if (cells.size() == 2) times[cells[0]] = std::atof(cells[1].c_str());
  }
  return times;
}

// The oracle's stream field ("0xE0", "0xBD/0x80") as ffprobe names the stream.
std::string FfprobeId(const std::string& stream) {
  std::string id = stream.substr(stream.find('/') == std::string::npos ? 0 : stream.find('/') + 1);
  for (char& c : id) c = char(std::tolower(uint8_t(c)));
  return stream.find('/') == std::string::npos ? "0x1" + id.substr(2) : id;
}

const char* CodecText(const std::string& codec) {
  static const std::map<std::string, const char*> names = {
      {"mpeg2", "MPEG2"}, {"h264", "h264/AVC"}, {"ac3", "AC3"},       {"eac3", "E-AC3"},
      {"dts", "DTS"},     {"lpcm", "RAW/PCM"},  {"spu-dvd", "Subtitle"}, {"spu-hd", "Subtitle"}};
  return names.at(codec);
}

struct TCorpusFile {
  const char* key;      // the oracle's name
  const char* sources;  // the command line's source
};
const TCorpusFile kFiles[] = {
    {"evo_dev_mpeg2_ac3_lpcm.evo", "evo_dev_mpeg2_ac3_lpcm.evo"},
    {"evo_dev_damaged_len.evo", "evo_dev_damaged_len.evo"},
    {"evo_dev_h264_eac3_subs.evo", "evo_dev_h264_eac3_subs.evo"},
    {"vob_dev_mpeg2_lpcm51_ac3.vob", "vob_dev_mpeg2_lpcm51_ac3.vob"},
    {"evo_dev_join", "evo_dev_join_1.evo+evo_dev_join_2.evo"},
};

std::string SourceArg(const TCorpusFile& f) {
  std::string arg;
  for (const std::string& part : Split(f.sources, '+')) arg += (arg.empty() ? "" : "+") + Evo(part);
  return arg;
}
bool Joined(const TCorpusFile& f) { return std::string(f.sources).find('+') != std::string::npos; }

TEST(EvoEndToEnd, ListingsMatchTheOraclesAndFfprobeStartTimes) {
  if (!HaveCorpus()) {
    GTEST_SKIP() << "reference corpus not present";
  }
  if (!HaveTool("ffprobe")) {
    GTEST_SKIP() << "ffprobe not installed";
  }
  TempDir dir;
  for (const TCorpusFile& f : kFiles) {
    SCOPED_TRACE(f.key);
    RunResult run = RunSonvex({SourceArg(f)}, dir.path());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    auto listed = Listed(run);
    const int base = Joined(f) ? 1 : 0;
    if (Joined(f)) {
      EXPECT_EQ(listed[1].text, "Joined EVO file");
    }
    auto oracleTracks = Split(Oracle(std::string(f.key) + ".tracks"), ' ');
    ASSERT_EQ(listed.size(), oracleTracks.size() + base) << run.out;
    EXPECT_NE(run.out.find(std::string(Oracle(std::string(f.key) + ".container")) + ", "),
              std::string::npos);
    auto starts = StartTimes(Joined(f) ? Evo(Split(f.sources, '+')[0]) : Evo(f.sources));
    double earliest = 1e30;
    for (size_t n = 1; n <= oracleTracks.size(); n++) {
      std::string key = std::string(f.key) + ".track" + std::to_string(n);
      if (Oracle(key + ".class") != "subtitle")
        earliest = std::min(earliest, starts[FfprobeId(Oracle(key + ".stream"))]);
    }
    for (size_t n = 1; n <= oracleTracks.size(); n++) {
      std::string key = std::string(f.key) + ".track" + std::to_string(n);
      const TListed& t = listed[int(n) + base];
      EXPECT_EQ(t.text.rfind(CodecText(Oracle(key + ".codec")), 0), 0u) << t.text;
      if (Oracle(key + ".class") == "subtitle") continue;
      double start = starts[FfprobeId(Oracle(key + ".stream"))];
      EXPECT_NEAR(t.delay, (start - earliest) * 1000, 1.0) << key;
    }
  }
}

// The samples of a WAV or FLAC file as ffmpeg decodes them, little-endian, 2 or 3 bytes each.
std::string DecodedMd5(const std::string& file, int bits, const fs::path& dir) {
  std::string format = bits == 16 ? "-f s16le" : "-c:a pcm_s24le -f s24le";
  RunShell("ffmpeg -v error -y -i " + ShellQuote(file) + " " + format + " decoded.raw", dir);
  return Md5(dir / "decoded.raw");
}

// The units of a SUP file without their heads and pads, and their time stamps.
std::pair<std::string, std::vector<uint32_t>> SupUnits(const std::string& file, const fs::path& dir) {
  std::string d = ReadFile(file), units;
  std::vector<uint32_t> stamps;
  auto at = [&](size_t i) { return uint32_t(uint8_t(d[i])); };
  for (size_t o = 0; o + 10 <= d.size();) {
    EXPECT_EQ(d.substr(o, 2), "SP");
    stamps.push_back(at(o + 2) | at(o + 3) << 8 | at(o + 4) << 16 | at(o + 5) << 24);
    o += 10;
    uint32_t n = at(o) << 8 | at(o + 1);
    if (n == 0) n = at(o + 2) << 24 | at(o + 3) << 16 | at(o + 4) << 8 | at(o + 5);
    units += d.substr(o, n);
    o += n + (n & 1);
  }
  std::ofstream(dir / "units.bin", std::ios::binary) << units;
  return {Md5(dir / "units.bin"), stamps};
}

TEST(EvoEndToEnd, EveryTrackComesOutAsItWentIn) {
  if (!HaveCorpus()) {
    GTEST_SKIP() << "reference corpus not present";
  }
  if (!HaveTool("ffmpeg")) {
    GTEST_SKIP() << "ffmpeg not installed";
  }
  static const std::map<std::string, std::string> kExtension = {
      {"mpeg2", ".m2v"}, {"h264", ".h264"}, {"ac3", ".ac3"}, {"eac3", ".eac3"}, {"dts", ".dts"}};
  for (const TCorpusFile& f : kFiles) {
    TempDir dir;
    SCOPED_TRACE(f.key);
    auto listed = Listed(RunSonvex({SourceArg(f)}, dir.path()));
    const int base = Joined(f) ? 1 : 0;
    const std::string key0 = f.key;
    for (int n = 1; !Oracle(key0 + ".track" + std::to_string(n) + ".class").empty(); n++) {
      std::string key = key0 + ".track" + std::to_string(n);
      std::string number = std::to_string(n + base) + ":";
      std::string codec = Oracle(key + ".codec");
      // A container delay would be applied to the stream or named in the file: it is taken back.
      std::string undo = "-" + std::to_string(listed[n + base].delay) + "ms";
      if (codec == "lpcm") {
        RunResult run = RunSonvex({SourceArg(f), number, "out.wav", number, "out.flac"}, dir.path());
        ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
        std::string want = Oracle(key + ".pcm_wav_order_le_md5");
        if (want.empty()) want = Oracle(key + ".pcm_stream_order_le_md5");
        int bits = Oracle(key + ".pcm_format").find("24 bit") != std::string::npos ? 24 : 16;
        EXPECT_EQ(DecodedMd5(dir / "out.wav", bits, dir.path()), want) << key;
        EXPECT_EQ(DecodedMd5(dir / "out.flac", bits, dir.path()), want) << key;
      } else if (Oracle(key + ".class") == "subtitle") {
        RunResult run = RunSonvex({SourceArg(f), number, "out.sup"}, dir.path());
        ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
        auto [md5, stamps] = SupUnits(dir / "out.sup", dir.path());
        EXPECT_EQ(md5, Oracle(key + ".spu_md5"));
        auto unitPts = Split(Oracle(key + ".unit_pts"), ',');
        ASSERT_EQ(stamps.size(), unitPts.size());
        for (size_t i = 1; i < stamps.size(); i++)
          EXPECT_EQ(stamps[i] - stamps[0], std::stoul(unitPts[i]) - std::stoul(unitPts[0]));
      } else {
        std::string out = "out" + kExtension.at(codec);
        RunResult run = RunSonvex({SourceArg(f), number, out, undo, "-dontPatchDts"}, dir.path());
        ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
        EXPECT_EQ(Md5(dir / out), Oracle(key + ".es_md5")) << key << "\n" << run.out;
      }
    }
  }
}

TEST(EvoEndToEnd, DvdVobsListAndDemuxAsFfmpegSeesThem) {
  if (!HaveCorpus()) {
    GTEST_SKIP() << "reference corpus not present";
  }
  if (!HaveTool("ffmpeg")) {
    GTEST_SKIP() << "ffmpeg not installed";
  }
  struct Case {
    const char* file;
    int track;
    const char* dest;
    const char* ffmpeg;  // what ffmpeg writes of the same stream
    const char* line;    // the listing line of the track
    const char* undo;    // takes back the track's delay
  } cases[] = {
      {"coolitnow_lpcm.vob", 1, "v.m2v", "-map 0:0 -c copy -f mpeg2video", "1: MPEG2, 480i60 /1.001 (4:3), 571ms", "-571ms"},
      {"coolitnow_lpcm.vob", 2, "a.wav", "-map 0:1 -c:a pcm_s24le -f s24le", "2: RAW/PCM, 2.0 channels, 24 bits, 2,304kbit/s, 48khz", "-0ms"},
      {"dvd_single_frame.vob", 1, "v.m2v", "-map 0:0 -c copy -f mpeg2video", "1: MPEG2, 576p25 (16:9)", "-0ms"},
      {"dvd_single_frame.vob", 2, "s.sup", "-map 0:1 -c copy -f data", "2: Subtitle", "-0ms"},
      {"dvd_single_frame.vob", 3, "s.sup", "-map 0:2 -c copy -f data", "3: Subtitle", "-0ms"},
  };
  for (const Case& c : cases) {
    TempDir dir;
    SCOPED_TRACE(std::string(c.file) + " " + c.dest);
    RunResult run =
        RunSonvex({Vob(c.file), std::to_string(c.track) + ":", c.dest, c.undo}, dir.path());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.HasLine(c.line)) << run.out;
    RunShell("ffmpeg -v quiet -i " + ShellQuote(Vob(c.file)) + " " + c.ffmpeg + " ff.bin", dir.path());
    // The MPEG-2 reader keeps a sequence end code to itself; ffmpeg writes it.
    std::string theirs = ReadFile(dir / "ff.bin");
    if (theirs.size() >= 4 && theirs.compare(theirs.size() - 4, 4, std::string("\0\0\1\xB7", 4)) == 0)
      std::ofstream(dir / "ff.bin", std::ios::binary) << theirs.substr(0, theirs.size() - 4);
    std::string ours = Md5(dir / c.dest);
    if (std::string(c.dest) == "a.wav") ours = DecodedMd5(dir / c.dest, 24, dir.path());
    if (std::string(c.dest) == "s.sup") ours = SupUnits(dir / c.dest, dir.path()).first;
    EXPECT_EQ(ours, Md5(dir / "ff.bin"));
  }
}

TEST(EvoEndToEnd, JoinedFileActionMakesOneContinuousFile) {
  if (!HaveCorpus()) {
    GTEST_SKIP() << "reference corpus not present";
  }
  if (!HaveTool("ffprobe")) {
    GTEST_SKIP() << "ffprobe not installed";
  }
  TempDir dir;
  std::string parts = Evo("evo_dev_rejoin_1.evo") + "+" + Evo("evo_dev_rejoin_2.evo");
  RunResult run = RunSonvex({parts, "1:", "joined.evo"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("1: Joined EVO file"));
  EXPECT_TRUE(run.HasLine("Fixing EVO/VOB timestamps..."));
  EXPECT_EQ(Md5(dir / "joined.evo"), Oracle("evo_dev_rejoin.repaired.md5_derived"));

  // Time stamps of each audio and video stream run on without a jump of more than a second.
  RunResult packets = RunShell(
      "ffprobe -v quiet -show_entries packet=codec_type,pts -of csv=p=0 joined.evo", dir.path());
  std::map<std::string, std::vector<long>> stamps;
  for (const std::string& line : packets.Lines()) {
    auto cells = Split(line, ',');
    if (cells.size() == 2 && cells[1] != "N/A" && cells[0] != "data")
      stamps[cells[0]].push_back(std::stol(cells[1]));
  }
  ASSERT_GE(stamps.size(), 2u);
  for (auto& [stream, list] : stamps) {
    std::sort(list.begin(), list.end());
    for (size_t i = 1; i < list.size(); i++) EXPECT_LT(list[i] - list[i - 1], 90000) << stream;
  }
  // The one file lists the same tracks as the joined parts.
  auto joined = Listed(run);
  auto single = Listed(RunSonvex({"joined.evo"}, dir.path()));
  ASSERT_EQ(single.size() + 1, joined.size());
  for (auto& [n, t] : single) EXPECT_EQ(t.text, joined[n + 1].text);
}

TEST(EvoEndToEnd, AuthoringFaultsAreBorneAndForeignDataStops) {
  if (!HaveCorpus()) {
    GTEST_SKIP() << "reference corpus not present";
  }
  TempDir dir;
  RunResult damaged = RunSonvex({Evo("evo_dev_damaged_len.evo"), "-demux"}, dir.path());
  ASSERT_EQ(damaged.exitCode, 0) << damaged.out << damaged.err;
  size_t count = 0;
  for (const std::string& line : damaged.Lines())
    if (line == "This EVO/VOB file contains authoring faults. Will try to work around that.") count++;
  EXPECT_EQ(count, 1u) << damaged.out;

  // A raw MPEG-2 video stream joined behind an EVO: its first start code is no EVO/VOB code.
  TempDir foreign;
  RunShell("ffmpeg -v quiet -i " + ShellQuote(Evo("evo_dev_mpeg2_ac3_lpcm.evo")) +
               " -map 0:v -c copy -f mpeg2video tail.m2v",
           foreign.path());
  RunResult run = RunSonvex({Evo("evo_dev_mpeg2_ac3_lpcm.evo") + "+tail.m2v", "3:", "out.ac3",
                             "4:", "out.wav"},
                            foreign.path());
  EXPECT_EQ(run.exitCode, 1);
  // Both actions read the same parts; whichever reaches the foreign data first stops the run.
  EXPECT_TRUE(run.HasLine("[a03] This doesn't seem to be a valid EVO/VOB file.") ||
              run.HasLine("[a04] This doesn't seem to be a valid EVO/VOB file."))
      << run.out;
  EXPECT_FALSE(fs::exists(foreign.path() / "out.ac3"));
  EXPECT_FALSE(fs::exists(foreign.path() / "out.wav"));
}

}  // namespace
}  // namespace sonvex::evotest
