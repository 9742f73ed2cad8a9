// Disc folders end to end with the sonvex binary: title listings of every disc of the corpus
// against its expected listings, the relative tries and case of folders, title numbers out of
// range, a title run to its joined clips (demux bytes against ffmpeg's "-c copy" of the clips,
// the chapter text, "-demux" names), UHD playlists, and a playlist file as the source.
// Oracles: the corpus's expected/ listings and ORACLES.tsv (libbluray's parsers with the title
// rules on top), libbluray's bd_list_titles, and runs on the clips joined by hand.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>

#include "disc/disctestutil.h"
#include "support/e2e.h"

namespace sonvex::test {
namespace {

fs::path DiscCorpus() { return CorpusDir() / "gen" / "disc"; }

std::map<std::string, std::string> Oracles() {
  std::map<std::string, std::string> facts;
  std::istringstream in(ReadFile(DiscCorpus() / "ORACLES.tsv"));
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    size_t tab = line.find('\t');
    size_t tab2 = line.find('\t', tab + 1);
    facts[line.substr(0, tab)] = line.substr(tab + 1, tab2 == std::string::npos ? tab2 : tab2 - tab - 1);
  }
  return facts;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// A writable copy of a corpus disc (the corpus files are read-only).
fs::path CopyDisc(const std::string& name, const TempDir& dir) {
  fs::path target = dir.path() / name;
  RunShell("cp -a " + ShellQuote((DiscCorpus() / name).string()) + " " + ShellQuote(target.string()) +
               " && chmod -R u+w " + ShellQuote(target.string()),
           dir.path());
  return target;
}

// The listing without the HD DVD track lines, whose layout the oracle leaves open.
std::string TitleLines(const std::string& listing, bool hdDvd) {
  std::string kept;
  for (const std::string& line : Split(listing, '\n'))
    if (!hdDvd || line.rfind("   - ", 0) != 0) kept += line + "\n";
  return kept;
}

class DiscTitles : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_CORPUS();
    if (!fs::is_directory(DiscCorpus())) GTEST_SKIP() << "no disc corpus";
    oracle = Oracles();
  }
  std::map<std::string, std::string> oracle;
  TempDir dir;
};

TEST_F(DiscTitles, EveryCorpusDiscListsItsTitles) {
  for (const auto& entry : fs::directory_iterator(DiscCorpus() / "expected")) {
    std::string file = entry.path().filename().string();
    if (file.size() < 13 || file.substr(file.size() - 12) != ".listing.txt") continue;
    std::string disc = file.substr(0, file.size() - 12);
    bool hdDvd = disc.rfind("hd-", 0) == 0;
    RunResult run = RunSonvex({(DiscCorpus() / disc).string()}, dir.path());
    EXPECT_EQ(run.exitCode, 0) << disc;
    EXPECT_EQ(TitleLines(run.out, hdDvd), TitleLines(ReadFile(entry.path()), hdDvd)) << disc;
    if (!hdDvd) { EXPECT_EQ(Md5(entry.path()), oracle["bd." + disc + ".listing_md5"]) << disc; }
  }
}

TEST_F(DiscTitles, FoldersOfTheDiscAndLowerCaseFindTheSameTitles) {
  for (const auto& [key, value] : oracle) {
    if (key.rfind("bd.", 0) != 0 || key.size() < 11 || key.substr(key.size() - 11) != ".found_from")
      continue;
    std::string disc = key.substr(3, key.size() - 14);
    std::string expected = ReadFile(DiscCorpus() / "expected" / (disc + ".listing.txt"));
    for (const std::string& from : Split(value, ',')) {
      RunResult run = RunSonvex({(DiscCorpus() / disc / from).string()}, dir.path());
      EXPECT_EQ(run.out, expected) << disc << " from " << from;
    }
  }
}

TEST_F(DiscTitles, NoDiscAndTitleNumbersOutOfRange) {
  RunResult none = RunSonvex({(DiscCorpus() / "bd-bigbuckbunny").string()}, dir.path());
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_EQ(none.out + none.err, oracle["bd.bd-bigbuckbunny.select_bad"] + "\n");
  for (const char* title : {"1)", "0)"}) {
    RunResult run = RunSonvex({(DiscCorpus() / "bd-bigbuckbunny").string(), title}, dir.path());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out + run.err, oracle["bd.bd-bigbuckbunny.select_bad"] + "\n") << title;
  }
  for (const auto& [disc, titles] : std::map<std::string, int>{
           {"bd-d3-join", 1}, {"bd-d7-missing", 3}, {"bd-synth-dev", 5}, {"hd-x001", 1},
           {"hd-synth-dev", 2}}) {
    std::string kind = disc.substr(0, 2);
    for (int number : {0, titles + 1}) {
      RunResult run =
          RunSonvex({(DiscCorpus() / disc).string(), std::to_string(number) + ")"}, dir.path());
      EXPECT_EQ(run.exitCode, 1) << disc << " " << number;
      EXPECT_EQ(run.out + run.err, oracle[kind + "." + disc + ".select_bad"] + "\n")
          << disc << " " << number;
    }
  }
}

// "n)" on a disc whose clips are real: the joined clips run as any joined source.
TEST_F(DiscTitles, TitleRunsItsJoinedClips) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  fs::path disc = CopyDisc("bd-d3-join", dir);
  RunResult run = RunSonvex({disc.string(), "1)", "3:", "a.ac3"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("1: Chapters, 21 chapters")) << run.out;
  EXPECT_TRUE(run.HasLine("3: AC3, 5.1 channels, 448kbit/s, 48khz, English")) << run.out;
  EXPECT_EQ(Md5(dir.path() / "a.ac3"), oracle["bd.bd-d3-join.t1.demux.0x1100.ac3.md5"]);

  // By hand: the same clips joined with "+" give the same bytes.
  fs::path stream = disc / "BDMV" / "STREAM";
  RunResult hand = RunSonvex({(stream / "00006.m2ts").string() + "+" + (stream / "00007.m2ts").string(),
                              "3:", "b.ac3"},
                             dir.path());
  ASSERT_EQ(hand.exitCode, 0) << hand.out << hand.err;
  EXPECT_EQ(ReadFile(dir.path() / "a.ac3"), ReadFile(dir.path() / "b.ac3"));

  RunResult chapters = RunSonvex({disc.string(), "1)", "1:", "ch.txt"}, dir.path());
  ASSERT_EQ(chapters.exitCode, 0) << chapters.out << chapters.err;
  EXPECT_EQ(Md5(dir.path() / "ch.txt"), oracle["bd.bd-d3-join.t1.chapters_txt_md5"]);
  EXPECT_EQ(ReadFile(dir.path() / "ch.txt"),
            ReadFile(DiscCorpus() / "expected" / "bd-d3-join.t1.chapters.txt"));
}

TEST_F(DiscTitles, DemuxOfATitleNamesFilesWithChaptersAndLanguages) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  fs::path disc = CopyDisc("bd-d3-join", dir);
  fs::path out = dir.path() / "out";
  fs::create_directories(out);
  RunResult run = RunSonvex({disc.string(), "1)", "-demux"}, out);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  std::vector<std::string> files = ListFiles(out);
  EXPECT_EQ(files, (std::vector<std::string>{
                       "00006 - 2 - h264, 1080p24.h264",
                       "00006 - 3 - AC3, 5.1 channels, 448kbps, 48khz, English.ac3",
                       "00006 - 4 - TrueHD, 2.0 channels, 48khz, Japanese.thd",
                       "00006 - Chapters.txt", "00006 - Log.txt"}));
  EXPECT_EQ(Md5(out / "00006 - 2 - h264, 1080p24.h264"), oracle["bd.bd-d3-join.t1.demux.0x1011.h264.md5"]);
  EXPECT_EQ(Md5(out / "00006 - Chapters.txt"), oracle["bd.bd-d3-join.t1.chapters_txt_md5"]);
}

// The first title of every corpus disc with analysable clips writes its chapter text.
TEST_F(DiscTitles, ChapterTextOfTheFirstTitle) {
  for (const auto& [key, value] : oracle) {
    std::smatch m;
    static const std::regex pattern(R"(^(bd|hd)\.(.+)\.t1\.chapters_txt_md5$)");
    if (!std::regex_match(key, m, pattern) || m[1] == "hd") continue;  // EVO clips are empty
    std::string disc = m[2];
    RunResult run = RunSonvex({(DiscCorpus() / disc).string(), "1)", "1:", disc + ".txt"}, dir.path());
    if (oracle["bd." + disc + ".t1.chapters"] == "0") continue;
    ASSERT_EQ(run.exitCode, 0) << disc << run.out << run.err;
    EXPECT_EQ(Md5(dir.path() / (disc + ".txt")), value) << disc;
  }
}

TEST_F(DiscTitles, UhdPlaylistsAgainstLibbluray) {
  SKIP_WITHOUT_TOOL("bd_list_titles");
  fs::path disc = disctest::WrapPublicDisc(CorpusDir() / "public" / "bluray" / "bdpl-disc5", dir);
  RunResult run = RunSonvex({disc.string()}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("   - h265/HEVC, 2160p24 /1.001 (16:9)")) << run.out;
  // libbluray: "duration: 02:05:04 chapters:  29 angles:  1 clips:   2 (playlist: 00001.mpls)"
  RunResult bd = RunShell("bd_list_titles -a " + ShellQuote(disc.string()), dir.path());
  std::regex row(R"(duration: (\d+):(\d+):(\d+) chapters: +(\d+) angles: +\d+ clips: +(\d+) \(playlist: (\d+\.mpls)\))");
  std::set<std::string> longOnes;
  std::map<std::string, std::pair<int, int>> facts;  // seconds, clips
  for (auto it = std::sregex_iterator(bd.out.begin(), bd.out.end(), row); it != std::sregex_iterator(); ++it) {
    int seconds = std::stoi((*it)[1]) * 3600 + std::stoi((*it)[2]) * 60 + std::stoi((*it)[3]);
    facts[(*it)[6]] = {seconds, std::stoi((*it)[5])};
    if (seconds >= 900) longOnes.insert((*it)[6]);
  }
  ASSERT_FALSE(longOnes.empty()) << bd.out << bd.err;
  std::regex title(R"(^\d+\) (\d+\.mpls), ((?:\d+\.m2ts\+?)+), (\d+):(\d+):(\d+)$)");
  std::set<std::string> listed;
  for (const std::string& line : run.Lines()) {
    std::smatch m;
    if (!std::regex_match(line, m, title)) continue;
    listed.insert(m[1]);
    int seconds = std::stoi(m[3]) * 3600 + std::stoi(m[4]) * 60 + std::stoi(m[5]);
    auto [theirSeconds, theirClips] = facts[m[1]];
    EXPECT_LE(std::abs(seconds - theirSeconds), 1) << line;
    EXPECT_EQ(int(Split(m[2], '+').size()), theirClips) << line;
  }
  EXPECT_EQ(listed, longOnes) << run.out;
}

// A playlist file as the source runs that playlist, also when it is too short to be a title.
TEST_F(DiscTitles, PlaylistFileAsSource) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  fs::path disc = CopyDisc("bd-d3-join", dir);
  fs::path playlists = disc / "BDMV" / "PLAYLIST";
  RunResult run = RunSonvex({(playlists / "00002.mpls").string(), "3:", "p.ac3"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("1: Chapters, 21 chapters")) << run.out;
  EXPECT_EQ(Md5(dir.path() / "p.ac3"), oracle["bd.bd-d3-join.t1.demux.0x1100.ac3.md5"]);

  // Ten minutes of clip 6 with two marks: no title of the disc, yet a source of its own.
  disctest::WriteBytes(playlists / "00800.mpls",
                       disctest::MakeMpls({{{6}, 0, disctest::Minutes45(10)}},
                                          {{0, 0}, {0, disctest::Minutes45(5)}}));
  RunResult listing = RunSonvex({disc.string()}, dir.path());
  EXPECT_EQ(listing.out.find("00800"), std::string::npos) << listing.out;
  RunResult shortOne = RunSonvex({(playlists / "00800.mpls").string(), "1:", "short.txt"}, dir.path());
  ASSERT_EQ(shortOne.exitCode, 0) << shortOne.out << shortOne.err;
  EXPECT_TRUE(shortOne.HasLine("1: Chapters, 2 chapters")) << shortOne.out;
  EXPECT_EQ(ReadFile(dir.path() / "short.txt"),
            "CHAPTER01=00:00:00.000\r\nCHAPTER01NAME=\r\nCHAPTER02=00:05:00.000\r\nCHAPTER02NAME=\r\n");
}

TEST_F(DiscTitles, M2tsWithoutChaptersAsksForThemInVain) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  fs::path disc = CopyDisc("bd-d3-join", dir);
  // Clip 7 alone is no playlist's clip list: no chapters, but the clip info's languages.
  RunResult run = RunSonvex({(disc / "BDMV" / "STREAM" / "00007.m2ts").string(), "c.txt"},
                            dir.path());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE((run.out + run.err).find("\nDidn't find chapter information for this source.\n"),
            std::string::npos)
      << run.out << run.err;
  EXPECT_TRUE(run.HasLine("2: AC3, 5.1 channels, 448kbit/s, 48khz, 6ms, English")) << run.out;
  EXPECT_FALSE(fs::exists(dir.path() / "c.txt"));
}

}  // namespace
}  // namespace sonvex::test
