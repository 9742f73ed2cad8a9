// HD DVD playlists and title information: the XML scanner, playlist times, the clip and title
// filters with their name lists, track facts from the playlist and the VTI attribute tables.
#include "disc/hddvd.h"

#include <gtest/gtest.h>

#include "disc/disctestutil.h"
#include "disc/xmlscanner.h"

namespace sonvex::disctest {
namespace {

TEST(XmlScanner, OneLevelWithAttributesAndText) {
  TXmlList list = ScanXml(
      "<A x=\"1\" y = \"two  words\"><B/></A>\n<Empty></Empty><C\r\n\tz=\"3\" /><Open>no end");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].Name, "A");
  EXPECT_EQ(list[0].Text, "<B/>");
  EXPECT_EQ(GetAttribute(list, 0, "X"), "1");
  EXPECT_EQ(GetAttribute(list, 0, "y"), "two words");  // runs of blanks count as one
  EXPECT_EQ(list[1].Name, "Empty");
  EXPECT_EQ(list[1].Text, " ");
  EXPECT_EQ(list[2].Name, "C");
  EXPECT_EQ(GetAttribute(list, 2, "z"), "3");
  EXPECT_EQ(GetAttribute(list, 2, "missing"), "");
  EXPECT_EQ(GetElementText(list, "a"), "<B/>");
  EXPECT_EQ(GetElementText(list, "Open"), "");
  // The first end tag ends an element, also for nested elements of the same name.
  TXmlList nested = ScanXml("<T><T>in</T>out</T>");
  ASSERT_EQ(nested.size(), 1u);
  EXPECT_EQ(nested[0].Text, "<T>in");
}

TEST(XplTime, HoursMinutesSecondsAndSixtiethFrames) {
  EXPECT_EQ(ParseXplTime("00:10:00:30"), 600500);
  EXPECT_EQ(ParseXplTime("01:42:50:14"), 6170233);
  EXPECT_EQ(ParseXplTime(""), 0);
  EXPECT_EQ(ParseXplTime("00:00:00:59"), 983);
}

TEST(XplFilters, NameLists) {
  struct Case {
    const char* name;
    bool fixedClip, clipPart, titleName;
  };
  const Case cases[] = {
      {"MENU.EVO", true, false, false},        {"black.evo", true, false, false},
      {"L0_mainMovie.EVO", false, false, false}, {"scLogo_movie.EVO", false, true, false},
      {"Feature_menu_intro.EVO", false, true, false}, {"Main Menu", false, false, true},
      {"The mainmenu loop", false, false, true}, {"Photo Gallary", false, false, true},
      {"Logo", false, false, true},           {"Logos of the studio", false, false, false},
      {"warning", false, true, true},          {"Warning Signs", false, true, false},
      {"IME", false, false, true},             {"Screensaver 2", false, false, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsFixedNonFilmClip(c.name), c.fixedClip) << c.name;
    EXPECT_EQ(HoldsNonFilmClipPart(c.name), c.clipPart) << c.name;
    EXPECT_EQ(IsNonFilmTitleName(c.name), c.titleName) << c.name;
  }
}

// A playlist whose EVO files stand beside it.
struct XplDisc {
  test::TempDir dir;
  TXpl Read(const std::string& titles, std::initializer_list<const char*> evos,
            const std::vector<TVti>& vti = {}) {
    for (const char* evo : evos) WriteBytes(dir.path() / "HVDVD_TS" / evo, {});
    fs::create_directories(dir.path() / "ADV_OBJ");
    std::string text =
        "<?xml version=\"1.0\"?>\n<!-- <Title> in a comment -->\n"
        "<Playlist><Configuration><Aperture size=\"1920x1080\"/></Configuration>"
        "<MediaAttributeList><VideoAttributeItem index=\"1\" codec=\"vc1\"/>"
        "<AudioAttributeItem index=\"2\" codec=\"DDPlus\" channels=\"6\" sampleRate=\"44\"/>"
        "</MediaAttributeList><TitleSet>" + titles + "</TitleSet></Playlist>";
    return ParseXpl(text, (dir.path() / "ADV_OBJ" / "VPLST000.XPL").string(), vti);
  }
};

std::string Title(const std::string& name, const std::string& duration,
                  const std::vector<std::string>& clips, const std::string& inner = "") {
  std::string text = "<Title displayName=\"" + name + "\" titleDuration=\"" + duration + "\">";
  for (const auto& clip : clips)
    text += "<PrimaryAudioVideoClip src=\"file:///dvddisc/HVDVD_TS/" + clip +
            "\" titleTimeBegin=\"00:00:00:00\" titleTimeEnd=\"" + duration + "\"/>";
  return text + inner + "</Title>";
}

TEST(XplFilters, TitlesThatGo) {
  XplDisc disc;
  std::string chapters =
      "<ChapterList><Chapter titleTimeBegin=\"00:00:00:00\" displayName=\"a\"/>"
      "<Chapter titleTimeBegin=\"00:10:00:30\" description=\"b\"/></ChapterList>";
  TXpl xpl = disc.Read(
      Title("Feature", "01:30:00:00", {"MOVIE.MAP"}, chapters) +
      Title("Feature PiP", "01:30:00:00", {"MOVIE.MAP"}, chapters) +       // duplicate
      Title("Main Menu", "02:00:00:00", {"MOVIE2.MAP"}) +                   // name part
      Title("Logo", "02:00:00:00", {"MOVIE2.MAP"}) +                        // whole name
      Title("Logo and more", "00:20:00:00", {"MOVIE2.MAP"}) +               // stays
      Title("Legal", "00:01:00:00", {"FBI.MAP"}) +                          // fixed list: no clip
      Title("Missing", "03:00:00:00", {"GONE.MAP"}) +                       // no file: no clip
      Title("Promo", "00:05:00:00", {"x_piracy.MAP"}) +                     // name part: no clip
      Title("One chapter", "00:40:00:00", {"MOVIE.MAP", "BLACK.MAP"},
            "<ChapterList><Chapter titleTimeBegin=\"00:00:00:00\"/></ChapterList>"),
      {"MOVIE.EVO", "MOVIE2.EVO", "FBI.EVO", "x_piracy.EVO", "BLACK.EVO"});
  std::vector<std::string> names;
  for (int n = 0; n < int(xpl.Titles.size()); n++)
    names.push_back(xpl.Titles[size_t(XplTitleIndex(xpl, n))].Name);
  EXPECT_EQ(names, (std::vector<std::string>{"Feature", "One chapter", "Logo and more"}));
  const TXplTitle& feature = xpl.Titles[size_t(XplTitleIndex(xpl, 0))];
  ASSERT_EQ(feature.Chapters.size(), 2u);
  EXPECT_EQ(feature.Chapters[1].Time, 600500);
  EXPECT_EQ(feature.Chapters[1].Name, "b");
  const TXplTitle& second = xpl.Titles[size_t(XplTitleIndex(xpl, 1))];
  EXPECT_TRUE(second.Chapters.empty());
  ASSERT_EQ(second.Clips.size(), 1u);  // BLACK.EVO is never part of a film
  EXPECT_EQ(second.Clips[0], feature.Clips[0]);  // the shared EVO is one clip record
}

TEST(XplTracks, PlaylistFactsAndVtiWins) {
  XplDisc disc;
  std::string clip =
      "<Title displayName=\"Film\" titleDuration=\"01:00:00:00\">"
      "<PrimaryAudioVideoClip src=\"A.MAP\" titleTimeEnd=\"01:00:00:00\">"
      "<Video track=\"1\" mediaAttr=\"1\"/>"
      "<Audio track=\"1\" mediaAttr=\"2\" description=\"English 5.1\"/>"
      "<Audio track=\"2\" mediaAttr=\"2\" description=\"Commentary\"/>"
      "<Subtitle track=\"1\" description=\"English\"/></PrimaryAudioVideoClip>"
      "<TrackNavigationList><AudioTrack track=\"1\" langcode=\"en:00\"/>"
      "<AudioTrack track=\"2\" langcode=\"fr:03\" description=\"Francais Director\"/>"
      "<SubtitleTrack track=\"1\" langcode=\"de:$E\" forced=\"true\"/></TrackNavigationList>"
      "</Title>";
  TXpl plain = disc.Read(clip, {"A.EVO"});
  ASSERT_EQ(plain.Clips.size(), 1u);
  const TXplClip& c = plain.Clips[0];
  ASSERT_EQ(c.Video.size(), 1u);
  EXPECT_EQ(c.Video[0].Name, "VC-1");
  ASSERT_EQ(c.Audio.size(), 2u);
  EXPECT_EQ(c.Audio[0].Name, "E-AC3");
  EXPECT_EQ(c.Audio[0].Channels, 6u);
  EXPECT_EQ(c.Audio[0].SampleRate, 44100u);
  EXPECT_EQ(c.Audio[0].Language, "English");
  EXPECT_EQ(c.Audio[0].Description, "");
  EXPECT_EQ(c.Audio[1].Language, "French");
  EXPECT_EQ(c.Audio[1].Extra, "Director's Comments");
  EXPECT_EQ(c.Audio[1].Text, "Director");
  EXPECT_EQ(c.Audio[1].Description, "Commentary");
  ASSERT_EQ(c.Subtitles.size(), 1u);
  EXPECT_EQ(c.Subtitles[0].Language, "German");
  EXPECT_TRUE(c.Subtitles[0].Forced);
  EXPECT_EQ(c.Subtitles[0].Text, "Director's Comments, big characters");

  TVti vti;
  vti.Name = "a.evo";
  vti.VideoAttributes.push_back({"h264/AVC", "16:9", true, 1440, 1080});
  vti.AudioAttributes.push_back({"TrueHD", 0, 96000, 7, 8});
  TXpl filled = disc.Read(clip, {"A.EVO"}, {vti});
  const TXplClip& f = filled.Clips[0];
  EXPECT_EQ(f.Video[0].Name, "h264/AVC");
  EXPECT_EQ(f.Video[0].Width, 1440u);
  EXPECT_TRUE(f.Video[0].Interlaced);
  EXPECT_EQ(f.Audio[0].Name, "TrueHD");
  EXPECT_EQ(f.Audio[0].Channels, 8u);
  EXPECT_EQ(f.Audio[1].Name, "E-AC3");  // the VTI has one audio set only
}

TEST(VtiAttributes, VideoWords) {
  struct Case {
    uint8_t word[4];
    const char* codec;
    const char* aspect;
    bool interlaced;
    uint32_t width, height;
  };
  const Case cases[] = {
      {{0x43, 0x00, 0xB0, 0}, "h264/AVC", "16:9", true, 1440, 1080},
      {{0x63, 0x10, 0xC0, 0}, "VC-1", "16:9", false, 1920, 1080},
      {{0x20, 0x30, 0x50, 0}, "MPEG2", "4:3", false, 720, 480},
      {{0x41, 0x00, 0x80, 0}, "h264/AVC", "", true, 1280, 720},
      {{0x00, 0x00, 0x60, 0}, "", "4:3", true, 0, 0},
  };
  for (const Case& c : cases) {
    TVtiVideo v = DecodeVtiVideo(c.word);
    EXPECT_EQ(v.Codec, c.codec);
    EXPECT_EQ(v.Aspect, c.aspect);
    EXPECT_EQ(v.Interlaced, c.interlaced) << c.codec;
    EXPECT_EQ(v.Width, c.width) << c.codec;
    EXPECT_EQ(v.Height, c.height) << c.codec;
  }
}

TEST(VtiAttributes, AudioWords) {
  struct Case {
    uint8_t word[4];
    const char* codec;
    uint32_t bits, rate, channels;
  };
  const Case cases[] = {
      {{0x00, 0x00, 0x04, 0}, "AC3", 0, 48000, 2},
      {{0x1C, 0x00, 0x14, 0}, "E-AC3", 0, 48000, 6},
      {{0x04, 0x40, 0x1C, 0}, "TrueHD", 0, 192000, 8},
      {{0x10, 0x20, 0x84, 0}, "LPCM", 24, 96000, 2},
      {{0x14, 0x80, 0x40, 0}, "LPCM", 20, 12000, 1},
      {{0x18, 0xA0, 0x20, 0}, "DTS-HD", 0, 24000, 2},
      {{0x08, 0x00, 0x00, 0}, "MPEG2", 0, 48000, 1},
  };
  for (const Case& c : cases) {
    TVtiAudio a = DecodeVtiAudio(c.word);
    EXPECT_EQ(a.Codec, c.codec);
    EXPECT_EQ(a.Bits, c.bits) << c.codec;
    EXPECT_EQ(a.SampleRate, c.rate) << c.codec;
    EXPECT_EQ(a.Channels, c.channels) << c.codec;
  }
}

Bytes MakeVti(uint32_t attributeSector, uint32_t titleSector) {
  Bytes b(3 * 2048, 0);
  PutText(b, 0, "ADVANCED-VTS");
  Put32(b, 184, attributeSector);                 // attribute table sector
  Put32(b, 188, titleSector);                     // title table sector
  size_t table = 2048;
  Put16(b, table, 1);                             // one attribute record
  Put32(b, table + 8, 12);                        // its offset
  b[table + 12] = 4;                              // two video streams
  b[table + 14] = 0x63, b[table + 16] = 0xC0;     // VC-1 16:9 1920x1080
  b[table + 18] = 0x43, b[table + 20] = 0xB0;     // h264 16:9 1440x1080
  b[table + 27] = 1;                              // one audio stream
  b[table + 28] = 0x1C, b[table + 30] = 0x14;     // E-AC3 48 kHz 6 channels
  table = 4096;
  Put32(b, table, 1);                             // one title
  Put32(b, table + 8, 12);
  PutText(b, table + 14, "FEATURE.EVO");
  Put32(b, table + 12 + 262, 1);                  // attribute index from 1
  Put32(b, table + 12 + 266, 900);
  Put32(b, table + 12 + 270, 900 + 90 * 5400000); // 1:30:00
  return b;
}

TEST(VtiFile, TitlesWithTheirAttributes) {
  std::vector<TVti> vti = ParseVti(MakeVti(1, 2));
  ASSERT_EQ(vti.size(), 1u);
  EXPECT_EQ(vti[0].Name, "FEATURE.EVO");
  EXPECT_EQ(vti[0].Duration, 5400000);
  ASSERT_EQ(vti[0].VideoAttributes.size(), 2u);
  EXPECT_EQ(vti[0].VideoAttributes[1].Codec, "h264/AVC");
  ASSERT_EQ(vti[0].AudioAttributes.size(), 1u);
  EXPECT_EQ(vti[0].AudioAttributes[0].Channels, 6u);
  EXPECT_TRUE(ParseVti(MakeVti(1, 7)).empty());  // title table outside the file
  Bytes bad = MakeVti(1, 2);
  bad.pop_back();
  EXPECT_TRUE(ParseVti(bad).empty());  // not whole sectors
  bad = MakeVti(1, 2);
  bad[0] = 'X';
  EXPECT_TRUE(ParseVti(bad).empty());
}

TEST(XplDamage, CutsAndUnclosedThingsNeverHang) {
  XplDisc disc;
  std::string good =
      "<?xml?><Playlist><Configuration/><MediaAttributeList> </MediaAttributeList><TitleSet>" +
      Title("Film", "01:00:00:00", {"A.MAP"}) + "</TitleSet></Playlist>";
  EXPECT_EQ(ParseXpl(good, (disc.dir.path() / "x.XPL").string(), {}).Titles.size(), 0u);
  WriteBytes(disc.dir.path() / "A.EVO", {});
  EXPECT_EQ(ParseXpl(good, (disc.dir.path() / "x.XPL").string(), {}).Titles.size(), 1u);
  for (size_t cut = 0; cut < good.size(); cut++)
    EXPECT_LE(ParseXpl(good.substr(0, cut), (disc.dir.path() / "x.XPL").string(), {}).Titles.size(),
              1u);
  for (const char* piece : {"<Playlist><!-- ", "<Playlist>", "<TitleSet x=\"", "<", "</"}) {
    std::string deep = "<?xml?>";
    for (int i = 0; i < 100000; i++) deep += piece;
    EXPECT_TRUE(ParseXpl(deep, "x.XPL", {}).Titles.empty()) << piece;
  }
}

}  // namespace
}  // namespace sonvex::disctest
