// Every title of every disc of the corpus against ORACLES.tsv (libbluray's playlist facts and
// Python's XML reading with the title rules on top): playlist, angle, length, clips and
// chapter times to the millisecond; for HD DVD files, length, name and chapter names.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "disc/bluray.h"
#include "disc/disctestutil.h"
#include "disc/hddvd.h"

namespace sonvex::disctest {
namespace {

fs::path DiscCorpus() { return test::CorpusDir() / "gen" / "disc"; }

std::map<std::string, std::string> Oracles() {
  std::map<std::string, std::string> facts;
  std::istringstream in(test::ReadFile(DiscCorpus() / "ORACLES.tsv"));
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    size_t tab = line.find('\t'), tab2 = line.find('\t', tab + 1);
    facts[line.substr(0, tab)] = line.substr(tab + 1, tab2 == std::string::npos ? tab2 : tab2 - tab - 1);
  }
  return facts;
}

std::string Join(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (size_t i = 0; i < parts.size(); i++) text += (i ? separator : "") + parts[i];
  return text;
}

class DiscCorpusTitles : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_CORPUS();
    if (!fs::is_directory(DiscCorpus())) GTEST_SKIP() << "no disc corpus";
    oracle = Oracles();
  }
  std::vector<std::string> Discs(const std::string& kind) {
    std::vector<std::string> discs;
    for (const auto& [key, value] : oracle)
      if (key.rfind(kind + ".", 0) == 0 && key.size() > 7 && key.substr(key.size() - 7) == ".titles")
        discs.push_back(key.substr(kind.size() + 1, key.size() - kind.size() - 8));
    return discs;
  }
  std::map<std::string, std::string> oracle;
};

TEST_F(DiscCorpusTitles, BluRayTitlesAndChaptersToTheMillisecond) {
  std::vector<std::string> discs = Discs("bd");
  ASSERT_GE(discs.size(), 7u);
  for (const std::string& disc : discs) {
    TM2tsPlaylists list = FindBluRayPlaylists((DiscCorpus() / disc).string(), true);
    ASSERT_EQ(std::to_string(list.size()), oracle["bd." + disc + ".titles"]) << disc;
    for (int n = 1; n <= int(list.size()); n++) {
      const TM2tsPlaylist& p = list[size_t(TitleIndex(list, n - 1))];
      std::string key = "bd." + disc + ".t" + std::to_string(n) + ".";
      EXPECT_EQ(p.Name, oracle[key + "playlist"]) << key;
      EXPECT_EQ(std::to_string(p.Angle), oracle[key + "angle"]) << key;
      EXPECT_EQ(std::to_string(p.Duration), oracle[key + "duration_ms"]) << key;
      EXPECT_EQ(TitleTimeText(p.Duration), oracle[key + "time"]) << key;
      std::vector<std::string> clips, times;
      for (const TM2tsPlayItem& item : p.Items) clips.push_back(Clip5(item.Clips[0]) + ".m2ts");
      for (const TChapter& chapter : p.Chapters) times.push_back(std::to_string(chapter.Time));
      EXPECT_EQ(Join(clips, "+"), oracle[key + "clips"]) << key;
      EXPECT_EQ(std::to_string(p.Chapters.size()), oracle[key + "chapters"]) << key;
      EXPECT_EQ(Join(times, ","), oracle[key + "chapter_ms"]) << key;
    }
  }
}

TEST_F(DiscCorpusTitles, HdDvdTitlesAndChapters) {
  std::vector<std::string> discs = Discs("hd");
  ASSERT_GE(discs.size(), 3u);
  for (const std::string& disc : discs) {
    TXpl xpl = FindHdDvdPlaylist((DiscCorpus() / disc).string(), true);
    ASSERT_EQ(std::to_string(xpl.Titles.size()), oracle["hd." + disc + ".titles"]) << disc;
    for (int n = 1; n <= int(xpl.Titles.size()); n++) {
      const TXplTitle& t = xpl.Titles[size_t(XplTitleIndex(xpl, n - 1))];
      std::string key = "hd." + disc + ".t" + std::to_string(n) + ".";
      std::vector<std::string> files, times, names;
      for (uint32_t clip : t.Clips) files.push_back(xpl.Clips[clip].FileName);
      for (const TChapter& chapter : t.Chapters) {
        times.push_back(std::to_string(chapter.Time));
        names.push_back(chapter.Name);
      }
      EXPECT_EQ(Join(files, "+"), oracle[key + "files"]) << key;
      EXPECT_EQ(std::to_string(t.Duration), oracle[key + "duration_ms"]) << key;
      EXPECT_EQ(t.Name, oracle[key + "name"]) << key;
      EXPECT_EQ(std::to_string(t.Chapters.size()), oracle[key + "chapters"]) << key;
      EXPECT_EQ(Join(times, ","), oracle[key + "chapter_ms"]) << key;
      EXPECT_EQ(Join(names, "|"), oracle[key + "chapter_names"]) << key;
      EXPECT_EQ(test::Md5(DiscCorpus() / "expected" / (disc + ".t1.chapters.txt")),
                oracle["hd." + disc + ".t1.chapters_txt_md5"]);
      if (n == 1) {
        test::TempDir dir;
        std::ofstream(dir.path() / "t1.txt", std::ios::binary) << ChaptersToText(t.Chapters);
        EXPECT_EQ(test::Md5(dir.path() / "t1.txt"), oracle[key + "chapters_txt_md5"]) << key;
      }
    }
  }
}

// The VTI and playlist facts of the first clip's tracks, as the oracle gives them:
// "codec size scan aspect" for video, "codec|language|extra|..." for audio.
TEST_F(DiscCorpusTitles, HdDvdTrackFacts) {
  for (const std::string& disc : Discs("hd")) {
    TXpl xpl = FindHdDvdPlaylist((DiscCorpus() / disc).string(), true);
    ASSERT_FALSE(xpl.Titles.empty()) << disc;
    const TXplClip& clip = xpl.Clips[xpl.Titles[size_t(XplTitleIndex(xpl, 0))].Clips[0]];
    for (size_t v = 0; v < clip.Video.size(); v++) {
      std::string expected = oracle["hd." + disc + ".t1.video" + std::to_string(v + 1)];
      if (expected.empty()) continue;
      const TXplVideoTrack& video = clip.Video[v];
      std::string size = video.Width ? std::to_string(video.Width) + "x" + std::to_string(video.Height) : "?x?";
      std::string scan = video.Aspect.empty() && !video.Width ? "?" : video.Interlaced ? "i" : "p";
      std::string aspect = video.Aspect.empty() ? "?" : video.Aspect;
      EXPECT_EQ(video.Name + " " + size + " " + scan + " " + aspect, expected) << disc;
    }
    for (size_t a = 0; a < clip.Audio.size(); a++) {
      std::string expected = oracle["hd." + disc + ".t1.audio" + std::to_string(a + 1)];
      if (expected.empty()) continue;
      const TXplAudioTrack& audio = clip.Audio[a];
      std::string facts = audio.Name + "|" + audio.Language + "|" + audio.Extra + "|" + audio.Text +
                          "|" + audio.Description + "|";
      EXPECT_EQ(expected.substr(0, facts.size()), facts) << disc << " audio " << a + 1;
    }
  }
}

}  // namespace
}  // namespace sonvex::disctest
