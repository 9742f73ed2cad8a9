// The disc facts that the main run finds for an analysed source: an HD DVD title of the same
// EVO files gives its name, chapters, and the languages and names of the tracks by stream id;
// an M2TS clip the languages of its clip info by PID.
#include "run/titles.h"

#include <gtest/gtest.h>

#include "support/e2e.h"

namespace sonvex {
namespace {

namespace fs = std::filesystem;

fs::path Disc(const std::string& name) { return test::CorpusDir() / "gen" / "disc" / name; }

TEST(DiscFacts, HdDvdTitleOfTheSameFiles) {
  SKIP_WITHOUT_CORPUS();
  TContainerBlock evo;
  evo.format = "evo";
  for (int32_t id = 0; id < 4; id++) evo.subtitle.push_back({id, nullptr, 0});
  fs::path folder = Disc("hd-x001") / "HVDVD_TS";
  TDiscFacts facts = FindDiscFacts({(folder / "PEVOB_1.EVO").string(), (folder / "PEVOB_2.EVO").string()}, evo);
  EXPECT_EQ(facts.titleName, "Feature Presentation");
  EXPECT_EQ(facts.chapterLine, "Chapters, 29 chapters with names");
  EXPECT_EQ(test::Md5(Disc("expected") / "hd-x001.t1.chapters.txt"),
            "520ed38c9d699737dda67c974de927da");
  EXPECT_EQ(facts.chapterText, test::ReadFile(Disc("expected") / "hd-x001.t1.chapters.txt"));
  std::map<std::pair<int, int32_t>, std::string> languages = {
      {{1, 0}, "English"}, {{1, 1}, "French"}, {{1, 2}, "Spanish"}, {{1, 3}, "English"},
      {{2, 0}, "English"}, {{2, 1}, "English"}, {{2, 2}, "French"}, {{2, 3}, "Spanish"}};
  EXPECT_EQ(facts.languages, languages);
  EXPECT_EQ(facts.names[std::make_pair(1, 3)], "Commentary");
  EXPECT_EQ(facts.names[std::make_pair(2, 1)], "SDH");

  // Subtitle ids that span the playlist's own numbers: the playlist counts from the base.
  TContainerBlock shifted;
  shifted.format = "evo";
  for (int32_t id = 1; id <= 4; id++) shifted.subtitle.push_back({id, nullptr, 0});
  TDiscFacts second = FindDiscFacts({(folder / "PEVOB_1.EVO").string(), (folder / "PEVOB_2.EVO").string()}, shifted);
  EXPECT_EQ(second.names[std::make_pair(2, 2)], "SDH");

  // Only the first file: no title has that file list.
  EXPECT_TRUE(FindDiscFacts({(folder / "PEVOB_1.EVO").string()}, evo).titleName.empty());
}

TEST(DiscFacts, M2tsClipInfoLanguagesByPid) {
  SKIP_WITHOUT_CORPUS();
  TContainerBlock m2ts;
  m2ts.format = "m2ts";
  fs::path stream = Disc("bd-d7-missing") / "BDMV" / "STREAM";
  TDiscFacts facts = FindDiscFacts({(stream / "00006.m2ts").string(), (stream / "00007.m2ts").string()}, m2ts);
  EXPECT_EQ(facts.chapterLine, "Chapters, 11 chapters");
  EXPECT_EQ(facts.languages[std::make_pair(1, 0x1100)], "Japanese");
  EXPECT_EQ(facts.languages[std::make_pair(1, 0x1102)], "English");
}

}  // namespace
}  // namespace sonvex
