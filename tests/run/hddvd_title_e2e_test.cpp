// An HD DVD title end to end. The corpus's HD DVD folders hold empty EVO placeholders, so the
// disc is built here: an advanced playlist whose feature plays the two parts of the corpus's
// joined EVO stream (gen/evo/evo_dev_join_1.evo + _2.evo) with two named chapters, and a shorter
// title of the second part alone. "n)" must give the same bytes as the parts joined by hand,
// and those must equal the elementary stream that went into the EVO files (gen/evo/ORACLES.tsv).
#include <gtest/gtest.h>

#include <map>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

fs::path EvoCorpus() { return CorpusDir() / "gen" / "evo"; }

std::map<std::string, std::string> EvoOracles() {
  std::map<std::string, std::string> facts;
  std::istringstream in(ReadFile(EvoCorpus() / "ORACLES.tsv"));
  for (std::string line; std::getline(in, line);) {
    size_t tab = line.find('\t');
    if (tab != std::string::npos) facts[line.substr(0, tab)] = line.substr(tab + 1);
  }
  return facts;
}

constexpr const char* kPlaylist = R"(<?xml version="1.0" encoding="UTF-8"?>
<Playlist xmlns="http://www.dvdforum.org/2005/HDDVDVideo/Playlist" majorVersion="1" minorVersion="0">
  <Configuration><StreamingBuffer size="0"/></Configuration>
  <MediaAttributeList>
    <VideoAttributeItem index="1" codec="AVC"/>
    <AudioAttributeItem index="1" codec="AC-3" channels="2"/>
    <AudioAttributeItem index="2" codec="DTS" channels="6"/>
  </MediaAttributeList>
  <TitleSet timeBase="60fps" defaultLanguage="en">
    <Title id="second" titleNumber="1" displayName="Second Half" titleDuration="00:00:03:00">
      <PrimaryAudioVideoClip src="file:///dvddisc/HVDVD_TS/PART_2.MAP" titleTimeBegin="00:00:00:00" titleTimeEnd="00:00:03:00"/>
    </Title>
    <Title id="feature" titleNumber="2" displayName="Feature" titleDuration="00:00:06:00">
      <PrimaryAudioVideoClip src="file:///dvddisc/HVDVD_TS/PART_1.MAP" titleTimeBegin="00:00:00:00" titleTimeEnd="00:00:03:00">
        <Video track="1" mediaAttr="1"/>
        <Audio track="1" streamNumber="1" mediaAttr="1"/>
        <Audio track="2" streamNumber="2" mediaAttr="2"/>
      </PrimaryAudioVideoClip>
      <PrimaryAudioVideoClip src="file:///dvddisc/HVDVD_TS/PART_2.MAP" titleTimeBegin="00:00:03:00" titleTimeEnd="00:00:06:00"/>
      <ChapterList>
        <Chapter titleTimeBegin="00:00:00:00" displayName="Opening"/>
        <Chapter titleTimeBegin="00:00:02:30" displayName="Ending"/>
      </ChapterList>
      <TrackNavigationList>
        <AudioTrack track="1" langcode="en:00" description="English"/>
        <AudioTrack track="2" langcode="de:03" description="Kommentar"/>
      </TrackNavigationList>
    </Title>
  </TitleSet>
</Playlist>
)";

TEST(HdDvdTitle, TitleRunsItsJoinedEvoFiles) {
  SKIP_WITHOUT_CORPUS();
  if (!fs::exists(EvoCorpus() / "evo_dev_join_1.evo")) GTEST_SKIP() << "no EVO corpus";
  std::map<std::string, std::string> oracle = EvoOracles();
  TempDir dir;
  fs::path disc = dir.path() / "DISC";
  fs::create_directories(disc / "ADV_OBJ");
  fs::create_directories(disc / "HVDVD_TS");
  std::ofstream(disc / "ADV_OBJ" / "VPLST000.XPL") << kPlaylist;
  for (int part : {1, 2}) {
    std::string n = std::to_string(part);
    fs::create_symlink(EvoCorpus() / ("evo_dev_join_" + n + ".evo"), disc / "HVDVD_TS" / ("PART_" + n + ".EVO"));
    std::ofstream(disc / "HVDVD_TS" / ("PART_" + n + ".MAP"));
  }

  // The listing: longest first, each title with its name.
  RunResult listing = RunSonvex({disc.string()}, dir.path());
  ASSERT_EQ(listing.exitCode, 0) << listing.out << listing.err;
  std::vector<std::string> titleLines;
  for (const std::string& line : listing.Lines())
    if (line.rfind("   - ", 0) != 0) titleLines.push_back(line);
  EXPECT_EQ(titleLines, (std::vector<std::string>{"1) PART_1.EVO+PART_2.EVO, 0:00:06", "   \"Feature\"", "",
                                                  "2) PART_2.EVO, 0:00:03", "   \"Second Half\""}))
      << listing.out;

  // "1)" runs the joined EVO files: the title's name, its chapters and the playlist's languages.
  // The container's delay of the track is taken back, so that the bytes stay as they came.
  std::string undo = "-" + oracle["evo_dev_join.track2.delay_ms"] + "ms";
  RunResult run = RunSonvex({disc.string(), "1)", "4:", "a.ac3", undo}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("1: Joined EVO file")) << run.out;
  EXPECT_TRUE(run.HasLine("2: Chapters, 2 chapters with names")) << run.out;
  EXPECT_NE(run.out.find("\"Feature\""), std::string::npos) << run.out;
  EXPECT_EQ(Md5(dir.path() / "a.ac3"), oracle["evo_dev_join.track2.es_md5"]);

  // By hand: the same files joined with "+" give the same bytes.
  fs::path evo = disc / "HVDVD_TS";
  RunResult hand = RunSonvex({(evo / "PART_1.EVO").string() + "+" + (evo / "PART_2.EVO").string(), "4:", "b.ac3", undo},
                             dir.path());
  ASSERT_EQ(hand.exitCode, 0) << hand.out << hand.err;
  EXPECT_TRUE(ReadFile(dir.path() / "a.ac3") == ReadFile(dir.path() / "b.ac3"));

  // The chapter text, and the second title, which is one file and has no chapters.
  RunResult chapters = RunSonvex({disc.string(), "1)", "2:", "ch.txt"}, dir.path());
  ASSERT_EQ(chapters.exitCode, 0) << chapters.out << chapters.err;
  EXPECT_EQ(ReadFile(dir.path() / "ch.txt"),
            "CHAPTER01=00:00:00.000\r\nCHAPTER01NAME=Opening\r\n"
            "CHAPTER02=00:00:02.500\r\nCHAPTER02NAME=Ending\r\n");
  RunResult second = RunSonvex({disc.string(), "2)", "2:", "c.ac3"}, dir.path());
  ASSERT_EQ(second.exitCode, 0) << second.out << second.err;
  EXPECT_FALSE(second.HasLine("1: Joined EVO file")) << second.out;
  RunResult alone = RunSonvex({(evo / "PART_2.EVO").string(), "2:", "d.ac3"}, dir.path());
  ASSERT_EQ(alone.exitCode, 0) << alone.out << alone.err;
  EXPECT_GT(fs::file_size(dir.path() / "c.ac3"), 50000u);
  EXPECT_TRUE(ReadFile(dir.path() / "c.ac3") == ReadFile(dir.path() / "d.ac3"));
}

}  // namespace
}  // namespace sonvex::test
