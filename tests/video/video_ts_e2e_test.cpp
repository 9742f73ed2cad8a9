// The sonvex binary on the generated transport streams of the corpus, against ffprobe's facts in
// gen/MANIFEST_STREAMS.tsv: the listed delay of every track, measured from the earliest listed
// track, equals the difference of ffprobe's start times (the earliest presentation time of each
// stream) to the millisecond, and the frame count that the run prints for the video track equals
// ffprobe's count of decoded frames. One extraction of the video track per file gives both the
// listing and the count. Skipped when the corpus is absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <regex>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

struct StreamFacts {
  uint32_t pid = 0;
  std::string type;   // "video" or "audio"
  std::string codec;  // ffprobe's codec_name
  double start = 0;   // start_time in seconds
  std::string frames; // nb_read_frames
};

// The rows of MANIFEST_STREAMS.tsv for `file`, in the table's order.
std::vector<StreamFacts> ManifestStreams(const std::string& file) {
  std::istringstream table(ReadFile(CorpusDir() / "gen" / "MANIFEST_STREAMS.tsv"));
  std::string line;
  std::getline(table, line);
  std::map<std::string, size_t> column;
  {
    std::istringstream head(line);
    std::string name;
    for (size_t i = 0; std::getline(head, name, '\t'); i++) column[name] = i;
  }
  std::vector<StreamFacts> rows;
  while (std::getline(table, line)) {
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '\t');) cells.push_back(cell);
    auto at = [&](const char* name) {
      size_t i = column.at(name);
      return i < cells.size() ? cells[i] : std::string();
    };
    if (at("file") != file) continue;
    StreamFacts s;
    s.pid = uint32_t(std::stoul(at("id"), nullptr, 16));
    s.type = at("type");
    s.codec = at("codec_name");
    s.start = std::stod(at("start_time"));
    s.frames = at("nb_read_frames");
    rows.push_back(s);
  }
  return rows;
}

// The tracks as sonvex numbers them: the video track, then one audio track per PID in PID order.
// AAC gets no track; the AC3 part of a TrueHD/AC3 PID is no track of its own.
std::vector<StreamFacts> ListedTracks(const std::vector<StreamFacts>& streams) {
  std::vector<StreamFacts> video, audio;
  for (const StreamFacts& s : streams) {
    if (s.type == "video") video.push_back(s);
    bool seen = std::any_of(audio.begin(), audio.end(),
                            [&](const StreamFacts& a) { return a.pid == s.pid; });
    if (s.type == "audio" && s.codec != "aac" && !seen) audio.push_back(s);
  }
  std::stable_sort(audio.begin(), audio.end(),
                   [](const StreamFacts& a, const StreamFacts& b) { return a.pid < b.pid; });
  video.insert(video.end(), audio.begin(), audio.end());
  return video;
}

// The delay in the listing line of track `number`: ", <n>ms"; 0 when the line has none.
// Returns false if there is no line for the track.
bool ListedDelay(const RunResult& run, size_t number, int& delay) {
  static const std::regex kDelay(", (-?[0-9]+)ms(,|$)");
  std::string prefix = std::to_string(number) + ": ";
  for (const std::string& line : run.Lines()) {
    if (line.rfind(prefix, 0) != 0) continue;
    std::smatch match;
    delay = std::regex_search(line, match, kDelay) ? std::stoi(match[1]) : 0;
    return true;
  }
  return false;
}

class GeneratedTransportStream : public ::testing::TestWithParam<const char*> {};

TEST_P(GeneratedTransportStream, DelaysAndVideoFrameCountMatchFfprobe) {
  SKIP_WITHOUT_CORPUS();
  const std::string file = GetParam();
  std::vector<StreamFacts> tracks = ListedTracks(ManifestStreams(file));
  ASSERT_FALSE(tracks.empty()) << file << " is not in MANIFEST_STREAMS.tsv";
  ASSERT_EQ(tracks.front().type, "video");

  TempDir dir;
  RunResult run = RunSonvex({(CorpusDir() / "gen" / file).string(), "1:", "video.h264"},
                            dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

  double earliest = tracks.front().start;
  for (const StreamFacts& t : tracks) earliest = std::min(earliest, t.start);
  for (size_t i = 0; i < tracks.size(); i++) {
    int delay = 0;
    ASSERT_TRUE(ListedDelay(run, i + 1, delay)) << "no line for track " << i + 1 << "\n" << run.out;
    double expected = (tracks[i].start - earliest) * 1000;
    EXPECT_LT(std::fabs(delay - expected), 1.0)
        << file << " track " << i + 1 << " (PID " << tracks[i].pid << ", " << tracks[i].codec
        << "): listed " << delay << "ms, ffprobe's start times give " << expected << "ms";
  }
  EXPECT_TRUE(run.HasLine("Video track 1 contains " + tracks.front().frames + " frames."))
      << run.out;
}

INSTANTIATE_TEST_SUITE_P(Corpus, GeneratedTransportStream,
                         ::testing::Values("bd_audio_delay100ms.m2ts", "bd_gap_audio200ms.m2ts",
                                           "bd_gap_long_200ms.m2ts", "bd_h264_multi.m2ts",
                                           "bd_join_full.m2ts", "bd_join_part1.m2ts",
                                           "bd_join_part2.m2ts", "bd_lpcm_variants.m2ts",
                                           "ts_h264_eac3_ac3_aac.ts"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           for (char& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

}  // namespace
}  // namespace sonvex::test
