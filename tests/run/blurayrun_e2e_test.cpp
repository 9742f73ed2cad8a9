// The sonvex binary on Blu-ray transport streams, end to end: LPCM tracks to WAV and FLAC in WAV
// channel order, the gap description file written by a first run and used by the second,
// joined M2TS files against the whole file, several tracks in one pass, and "-demux".
// Oracles: ffmpeg's decodes and "-c copy" payloads as the corpus tables list them, and ffmpeg
// or ffprobe reading what sonvex wrote.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

std::string Gen(const std::string& name) { return (CorpusDir() / "gen" / name).string(); }

// The rows of a corpus table (tab-separated, first line the column names).
std::vector<std::map<std::string, std::string>> ReadTable(const std::string& table) {
  std::vector<std::map<std::string, std::string>> rows;
  std::istringstream in(ReadFile(CorpusDir() / "gen" / table));
  std::vector<std::string> head;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> cells;
    std::istringstream fields(line);
    for (std::string cell; std::getline(fields, cell, '\t');) cells.push_back(cell);
    if (head.empty()) {
      head = cells;
      continue;
    }
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < head.size() && i < cells.size(); i++) row[head[i]] = cells[i];
    rows.push_back(row);
  }
  return rows;
}

// A row of a corpus table, by the values of some of its columns; empty if there is none.
std::map<std::string, std::string> Row(const std::string& table,
                                       const std::map<std::string, std::string>& match) {
  for (auto& row : ReadTable(table)) {
    bool all = true;
    for (const auto& [column, value] : match) all = all && row[column] == value;
    if (all) return row;
  }
  return {};
}

// ffmpeg's "-f md5" digest of the PCM in `file`, as the given sample format: "MD5=" stripped.
std::string PcmMd5(const fs::path& file, const std::string& codec) {
  RunResult r = RunShell("ffmpeg -nostdin -hide_banner -loglevel error -i " +
                             ShellQuote(file.string()) + " -map 0:a:0 -c:a " + codec + " -f md5 -",
                         file.parent_path());
  return r.out.rfind("MD5=", 0) == 0 ? r.out.substr(4, 32) : r.out + r.err;
}

// What ffprobe says of the first audio stream of `file`, as "key=value" lines.
std::string ProbeAudio(const fs::path& file, const std::string& entries) {
  return RunShell("ffprobe -v error -select_streams a:0 -show_entries stream=" + entries +
                      " -of default=noprint_wrappers=1 " + ShellQuote(file.string()),
                  file.parent_path())
      .out;
}

class BlurayRun : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_CORPUS();
    SKIP_WITHOUT_TOOL("ffmpeg");
    SKIP_WITHOUT_TOOL("ffprobe");
  }
  TempDir dir;
};

// Blu-ray LPCM stores 5.1 as L R C Ls Rs LFE and 7.1 as L R C Ls Rs Lb Rb LFE, big-endian.
// WAV and FLAC files hold the speaker-mask order, which is the order of ffmpeg's decode.
TEST_F(BlurayRun, LpcmTracksToWavAndFlacInWavOrder) {
  const std::string source = Gen("bd_lpcm_variants.m2ts");
  for (const std::string ext : {".wav", ".flac"}) {
    // All four tracks in one pass: 2.0/16, 5.1/24, 7.1/24, 2.0/24 at 96 kHz.
    std::vector<std::string> args = {source};
    for (int stream = 1; stream <= 4; stream++) {
      args.push_back(std::to_string(stream + 1) + ":");
      args.push_back("t" + std::to_string(stream) + ext);
    }
    RunResult run = RunSonvex(args, dir.path());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    for (int stream = 1; stream <= 4; stream++) {
      SCOPED_TRACE("track " + std::to_string(stream + 1) + " to " + ext);
      auto ref = Row("REFERENCE_DECODES.tsv",
                     {{"file", "bd_lpcm_variants.m2ts"}, {"stream", std::to_string(stream)}});
      ASSERT_FALSE(ref.empty());
      const fs::path file = dir.path() / ("t" + std::to_string(stream) + ext);
      // PCM that was never decoded has one output, in its own depth: no twins.
      ASSERT_TRUE(fs::exists(file)) << run.out;
      EXPECT_EQ(PcmMd5(file, ref["pcm"]), ref["md5_pcm"]);
      EXPECT_EQ(ProbeAudio(file, "channels,sample_rate"),
                "sample_rate=" + ref["sample_rate"] + "\nchannels=" + ref["channels"] + "\n");
      // The remap says so where it happens, only for the streams that need it.
      EXPECT_EQ(run.HasLine("[a0" + std::to_string(stream + 1) + "] Remapping channels..."),
                ref["channels"] == "6" || ref["channels"] == "8");
    }
  }
}

// 200 ms of AC3 missing in the middle of the track. The first run finds it, reports it and
// writes "out.ac3.gaps"; the same command line again fills it with whole repeated frames.
TEST_F(BlurayRun, GapFileFromTheFirstRunIsUsedByTheSecond) {
  const std::vector<std::string> args = {Gen("bd_gap_long_200ms.m2ts"), "2:", "out.ac3"};
  RunResult first = RunSonvex(args, dir.path());
  ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
  const std::string report =
      "[a02] Audio has a gap of 200ms at playtime 0:00:05.\n"
      "[a02] The audio file was demuxed without making use of the gap/overlap information.\n"
      "[a02] Please rerun the same sonvex command line. That will correct the gaps/overlaps.\n";
  EXPECT_NE(first.out.find(report), std::string::npos) << first.out;
  EXPECT_FALSE(first.HasLine("[a02] Audio gap description file detected, will be used for processing..."));
  // The untouched first output is ffmpeg's payload.
  auto demux = Row("DEMUX_REFERENCE.tsv", {{"container", "bd_gap_long_200ms.m2ts"}, {"stream", "1"}});
  EXPECT_EQ(Md5(dir.path() / "out.ac3"), demux["md5_es"]);
  const uint64_t firstSize = fs::file_size(dir.path() / "out.ac3");

  // One record of 16 bytes: the time of the gap and its drift, 200 ms in 100 ns ticks.
  std::string gaps = ReadFile(dir.path() / "out.ac3.gaps");
  ASSERT_EQ(gaps.size(), 16u);
  int64_t time = 0, drift = 0;
  std::memcpy(&time, gaps.data(), 8);
  std::memcpy(&drift, gaps.data() + 8, 8);
  EXPECT_EQ(drift, 2000000);
  EXPECT_EQ((time + 5000) / 10000 / 1000, 5);  // within the sixth second: "0:00:05"

  RunResult second = RunSonvex(args, dir.path());
  ASSERT_EQ(second.exitCode, 0) << second.out << second.err;
  EXPECT_TRUE(second.HasLine("[a02] Audio gap description file detected, will be used for processing..."))
      << second.out;
  EXPECT_TRUE(second.HasLine("[a02] Realizing (E-)AC3 gaps..."));
  EXPECT_EQ(second.out.find("Audio has a gap"), std::string::npos);
  // 192 kbit/s at 48 kHz: 768 byte frames of 32 ms. 200 ms are 6.25 frames, and the realizer
  // rounds to the nearest frame: ((ticks * bitrate) / 8000 / frameSize + 5000) / 10000 = 6.
  const int64_t frames = ((drift * 192000) / 8000 / 768 + 5000) / 10000;
  EXPECT_EQ(frames, 6);
  EXPECT_EQ(fs::file_size(dir.path() / "out.ac3"), firstSize + uint64_t(frames) * 768);
  // ffmpeg takes every frame: 1536 samples each, none dropped as damaged.
  EXPECT_EQ(ProbeAudio(dir.path() / "out.ac3", "codec_name,channels"), "codec_name=ac3\nchannels=2\n");
  RunResult decode = RunShell("ffmpeg -nostdin -v error -i out.ac3 -f s16le decoded.raw", dir.path());
  ASSERT_EQ(decode.exitCode, 0) << decode.err;
  EXPECT_EQ(decode.err, "");
  EXPECT_EQ(fs::file_size(dir.path() / "decoded.raw"), (firstSize / 768 + 6) * 1536 * 2 * 2);
}

// A check run reports the gap and writes nothing: no ".gaps" file for a later check run of any
// other source to pick up, and an old one (here an empty, invalid one) is not read.
TEST_F(BlurayRun, CheckWritesNoGapFileAndReadsNone) {
  RunResult first = RunSonvex({Gen("bd_gap_long_200ms.m2ts"), "-check"}, dir.path());
  ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
  EXPECT_TRUE(first.HasLine("[a02] Audio has a gap of 200ms at playtime 0:00:05.")) << first.out;
  EXPECT_EQ(ListFiles(dir.path()), std::vector<std::string>{"bd_gap_long_200ms - Log.txt"});
  { std::ofstream(dir / "%check%.ac3.gaps"); }
  RunResult second = RunSonvex({Gen("bd_gap_long_200ms.m2ts"), "-check"}, dir.path());
  EXPECT_EQ(second.exitCode, 0) << second.out;
  EXPECT_EQ(second.out.find("Audio gap description file"), std::string::npos) << second.out;
}

// The chain reads ".gaps" files through the gap tracker's reader: an empty file is refused, and
// a tail shorter than a record is ignored.
TEST_F(BlurayRun, GapFilesAreReadByTheOneReader) {
  const std::vector<std::string> args = {Gen("bd_gap_long_200ms.m2ts"), "2:", "out.ac3"};
  { std::ofstream(dir / "out.ac3.gaps"); }
  RunResult empty = RunSonvex(args, dir.path());
  EXPECT_EQ(empty.exitCode, 1);
  EXPECT_TRUE(empty.HasLine("[a02] Audio gap description file seems to be invalid.")) << empty.out;
  EXPECT_FALSE(fs::exists(dir.path() / "out.ac3"));
  { std::ofstream(dir / "out.ac3.gaps", std::ios::binary) << std::string(20, '\0'); }
  RunResult tail = RunSonvex(args, dir.path());
  EXPECT_EQ(tail.exitCode, 0) << tail.out;
  EXPECT_TRUE(tail.HasLine("[a02] Audio gap description file detected, will be used for processing..."));
}

// Two M2TS files joined with "+" are one title: the same listing as the file they were cut
// from, and each audio track byte for byte the same ("-keepDialnorm": the TrueHD track has a
// dialnorm that would be neutralised, alike in both, but the oracle is ffmpeg's payload).
// The continuity counters break where the second file starts; "-ignoreDiscon" lets that pass
// (see JoinedFilesNeedNoSwitch below).
TEST_F(BlurayRun, JoinedFilesGiveTheWholeFilesTracks) {
  const std::string joined = Gen("bd_join_part1.m2ts") + "+" + Gen("bd_join_part2.m2ts");
  RunResult listJoined = RunSonvex({joined}, dir.path());
  RunResult listWhole = RunSonvex({Gen("bd_join_full.m2ts")}, dir.path());
  ASSERT_EQ(listJoined.exitCode, 0);
  EXPECT_EQ(listJoined.out, listWhole.out);
  EXPECT_NE(listJoined.out.find("2: AC3, 5.1 channels, 448kbit/s, 48khz\n3: TrueHD, 2.0 channels"),
            std::string::npos)
      << listJoined.out;

  RunResult run = RunSonvex({joined, "2:", "j.ac3", "-keepDialnorm", "3:", "j.thd",
                             "-keepDialnorm", "-ignoreDiscon"},
                            dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  RunResult whole = RunSonvex({Gen("bd_join_full.m2ts"), "2:", "f.ac3", "-keepDialnorm", "3:",
                               "f.thd", "-keepDialnorm"},
                              dir.path());
  ASSERT_EQ(whole.exitCode, 0) << whole.out << whole.err;
  for (const auto& [stream, ext] : std::vector<std::pair<std::string, std::string>>{
           {"1", ".ac3"}, {"2", ".thd"}}) {
    auto ref = Row("DEMUX_REFERENCE.tsv", {{"container", "bd_join_full.m2ts"}, {"stream", stream}});
    EXPECT_EQ(Md5(dir.path() / ("f" + ext)), ref["md5_es"]) << ext;
    EXPECT_EQ(Md5(dir.path() / ("j" + ext)), ref["md5_es"]) << ext;
  }
}

// Joined files whose time stamps run on across the cut must join without a word about
// continuity: the source stage has to announce the seam (which resets the demuxer's counters)
// also when the stamps join up. Disabled until the source stage does.
TEST_F(BlurayRun, JoinedFilesNeedNoSwitch) {
  const std::string joined = Gen("bd_join_part1.m2ts") + "+" + Gen("bd_join_part2.m2ts");
  RunResult run = RunSonvex({joined, "2:", "j.ac3", "3:", "j.thd"}, dir.path());
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_EQ(run.out.find("damaged (discontinuity)"), std::string::npos) << run.out;
  auto ac3 = Row("DEMUX_REFERENCE.tsv", {{"container", "bd_join_full.m2ts"}, {"stream", "1"}});
  EXPECT_EQ(Md5(dir.path() / "j.ac3"), ac3["md5_es"]);
}

// Five tracks of four codecs out of one pass, each ffmpeg's "-c copy" payload. The chain edits
// two of them by default: DTS gets its bit depth patched and TrueHD its dialnorm neutralised,
// so the options that keep them as they are stand behind those destinations.
TEST_F(BlurayRun, SeveralTracksInOnePass) {
  RunResult run = RunSonvex({Gen("bd_h264_multi.m2ts"), "2:", "a.ac3", "3:", "b.eac3", "4:",
                             "c.dts", "-dontPatchDts", "5:", "d.thd", "-keepDialnorm", "7:",
                             "e.ac3"},
                            dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_EQ(run.out.find("Patching bitdepth"), std::string::npos);
  EXPECT_EQ(run.out.find("Removing dialog normalization"), std::string::npos);
  const std::pair<const char*, const char*> files[] = {
      {"a.ac3", "1"}, {"b.eac3", "2"}, {"c.dts", "3"}, {"d.thd", "4"}, {"e.ac3", "7"}};
  for (const auto& [name, stream] : files) {
    auto ref = Row("DEMUX_REFERENCE.tsv", {{"container", "bd_h264_multi.m2ts"}, {"stream", stream}});
    EXPECT_EQ(Md5(dir.path() / name), ref["md5_es"]) << name;
  }
  EXPECT_EQ(ListFiles(dir.path()), (std::vector<std::string>{"a - Log.txt", "a.ac3", "b.eac3",
                                                             "c.dts", "d.thd", "e.ac3"}));

  // Without those options the two edited tracks keep their size and lose their identity.
  TempDir plain;
  RunResult edited = RunSonvex({Gen("bd_h264_multi.m2ts"), "4:", "c.dts", "5:", "d.thd"},
                               plain.path());
  ASSERT_EQ(edited.exitCode, 0) << edited.out;
  EXPECT_TRUE(edited.HasLine("[a04] Patching bitdepth to 24 bits..."));
  EXPECT_TRUE(edited.HasLine("[a05] Removing dialog normalization..."));
  EXPECT_EQ(fs::file_size(plain.path() / "c.dts"), fs::file_size(dir.path() / "c.dts"));
  EXPECT_NE(Md5(plain.path() / "c.dts"), Md5(dir.path() / "c.dts"));
  EXPECT_EQ(fs::file_size(plain.path() / "d.thd"), fs::file_size(dir.path() / "d.thd"));
  EXPECT_NE(Md5(plain.path() / "d.thd"), Md5(dir.path() / "d.thd"));
}

// "-demux" writes the video and every audio track in one pass, named stem - number -
// description; the options behind it reach every track.
TEST_F(BlurayRun, DemuxWritesVideoAndAudioInOnePass) {
  fs::copy_file(Gen("bd_h264_multi.m2ts"), dir.path() / "bd_h264_multi.m2ts");
  RunResult run = RunSonvex({"bd_h264_multi.m2ts", "-demux", "-dontPatchDts", "-keepDialnorm"},
                            dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const std::string stem = "bd_h264_multi - ";
  const std::vector<std::string> want = {
      "bd_h264_multi - 1 - h264, 1080p24.h264",
      "bd_h264_multi - 2 - AC3, 5.1 channels, 640kbps, 48khz.ac3",
      "bd_h264_multi - 3 - E-AC3, 5.1 channels, 640kbps, 48khz.eac3",
      "bd_h264_multi - 4 - DTS, 5.1 channels, 16 bits, 1,536kbps, 48khz.dts",
      "bd_h264_multi - 5 - TrueHD, 5.1 channels, 48khz.thd",
      "bd_h264_multi - 6 - PCM, 5.1 channels, 24 bits, 6,912kbps, 48khz.pcm",
      "bd_h264_multi - 7 - AC3, 2.0 channels, 192kbps, 48khz.ac3",
      "bd_h264_multi - Log.txt",
      "bd_h264_multi.m2ts",
  };
  ASSERT_EQ(ListFiles(dir.path()), want) << run.out;
  const std::pair<int, const char*> audio[] = {{1, "1"}, {2, "2"}, {3, "3"}, {4, "4"}, {6, "7"}};
  for (const auto& [index, stream] : audio) {
    auto ref = Row("DEMUX_REFERENCE.tsv", {{"container", "bd_h264_multi.m2ts"}, {"stream", stream}});
    EXPECT_EQ(Md5(dir.path() / want[size_t(index)]), ref["md5_es"]) << want[size_t(index)];
  }
  // The video: every frame of the track, as ffprobe counts them.
  RunResult probe = RunShell("ffprobe -v error -count_frames -show_entries "
                             "stream=codec_name,width,height,nb_read_frames -of csv=p=0 " +
                                 ShellQuote(want[0]),
                             dir.path());
  EXPECT_EQ(probe.out, "h264,1920,1080,144\n");
  // The LPCM track: its 5.1 channels were put into WAV order behind the reader, and the ".pcm"
  // end turns the bytes back to big-endian but leaves that order, as a remap was made: read as
  // big-endian 24-bit samples it is ffmpeg's decode of the track.
  auto pcm = Row("REFERENCE_DECODES.tsv", {{"file", "bd_h264_multi.m2ts"}, {"stream", "6"}});
  RunResult decoded = RunShell("ffmpeg -nostdin -v error -f s24be -ar 48000 -ac 6 -i " +
                                   ShellQuote(want[5]) + " -c:a pcm_s24le -f md5 -",
                               dir.path());
  EXPECT_EQ(decoded.out, "MD5=" + pcm["md5_pcm"] + "\n");
}

}  // namespace
}  // namespace sonvex::test
