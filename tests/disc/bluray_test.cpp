// Blu-ray playlists and clip info on synthetic files: the filters (under 15 minutes, a clip
// visited twice, duplicates, angles, a missing clip that shortens a playlist), chapter times,
// the order of titles, the listing lines, stream descriptions, and damaged files.
#include "disc/bluray.h"

#include <gtest/gtest.h>

#include "disc/disctestutil.h"

namespace sonvex::disctest {
namespace {

const Bytes kAvc1080 = {0x1B, 0x61, 0x30};  // h264, 1080p 24/1.001, 16:9
const Bytes kHevc2160 = {0x24, 0x81, 0x30};  // HEVC, 2160p 24/1.001, 16:9
const Bytes kAc3English = {0x81, 0x61, 'e', 'n', 'g'};
const Bytes kTrueHdGerman = {0x83, 0x65, 'g', 'e', 'r'};
const Bytes kPgsFrench = {0x90, 'f', 'r', 'a'};

std::vector<std::string> Names(const TM2tsPlaylists& list) {
  std::vector<std::string> names;
  for (int n = 0; n < int(list.size()); n++) {
    const TM2tsPlaylist& p = list[size_t(TitleIndex(list, n))];
    names.push_back(p.Name + (p.Angle ? "#" + std::to_string(p.Angle) : ""));
  }
  return names;
}

TEST(BluRayPlaylists, FiltersOfTheTitleList) {
  struct Case {
    const char* what;
    std::vector<Item> items;
    std::initializer_list<uint32_t> clipsOnDisc;
    bool listed;
    int64_t duration;
  };
  const Case cases[] = {
      {"exactly 15:00.000 is listed", {{{1}, 0, Minutes45(15)}}, {1}, true, 900000},
      {"one tick under 15 minutes is not", {{{1}, 0, Minutes45(15) - 46}}, {1}, false, 0},
      {"a clip visited twice drops the playlist", {{{1}, 0, Minutes45(50)}, {{2}, 0, 45}, {{1}, 0, 45}},
       {1, 2}, false, 0},
      {"a missing clip shortens it", {{{1}, 0, Minutes45(20)}, {{2}, 0, Minutes45(30)}}, {1}, true,
       1200000},
      {"no clip on the disc at all", {{{1}, 0, Minutes45(90)}}, {}, false, 0},
      {"in and out times both count", {{{1}, Minutes45(1), Minutes45(17)}}, {1}, true, 960000},
  };
  for (const Case& c : cases) {
    ScratchDisc disc;
    disc.Clips(c.clipsOnDisc);
    disc.Playlist(0, MakeMpls(c.items, {}));
    TM2tsPlaylists list = ReadPlaylists(disc.Bdmv().string(), false);
    ASSERT_EQ(list.size(), c.listed ? 1u : 0u) << c.what;
    if (c.listed) { EXPECT_EQ(list[0].Duration, c.duration) << c.what; }
  }
}

TEST(BluRayPlaylists, PlaybackTypeAndMagic) {
  struct Case {
    std::string magic;
    uint8_t playbackType;
    bool listed;
  };
  for (const Case& c : {Case{"MPLS0100", 1, true}, Case{"MPLS0200", 1, true},
                        Case{"MPLS0300", 1, true}, Case{"MPLS0400", 1, false},
                        Case{"MPLS0200", 2, false}, Case{"HDMV0200", 1, false}}) {
    ScratchDisc disc;
    disc.Clips({5});
    disc.Playlist(1, MakeMpls({{{5}, 0, Minutes45(60)}}, {}, c.magic, c.playbackType));
    EXPECT_EQ(ReadPlaylists(disc.Bdmv().string(), false).size(), c.listed ? 1u : 0u)
        << c.magic << " type " << int(c.playbackType);
  }
}

TEST(BluRayPlaylists, MarksCountInTheShortenedItemList) {
  ScratchDisc disc;
  disc.Clips({1, 3});
  // Clip 2 is missing: item 1 of the file is dropped, and the index 1 of the second mark then
  // means clip 3; the third mark's index 2 lies past the shortened list and ends the chapters.
  disc.Playlist(0, MakeMpls({{{1}, 900, 900 + Minutes45(10)},
                             {{2}, 0, Minutes45(10)},
                             {{3}, 4500, 4500 + Minutes45(10)}},
                            {{0, 900}, {1, 4500 + 45000}, {2, 4500}, {0, 901}}));
  TM2tsPlaylist p = ReadPlaylist((disc.Bdmv() / "PLAYLIST" / "00000.mpls").string(), false);
  EXPECT_TRUE(p.Valid);
  EXPECT_EQ(p.Duration, 1200000);
  ASSERT_EQ(p.Items.size(), 2u);
  EXPECT_EQ(p.Items[1].Start, int64_t(Minutes45(10)) * 2);
  ASSERT_EQ(p.Chapters.size(), 2u);
  EXPECT_EQ(p.Chapters[0].Time, 0);
  EXPECT_EQ(p.Chapters[1].Time, 600000 + 1000);
}

TEST(BluRayPlaylists, ChapterTimesRoundToTheMillisecond) {
  ScratchDisc disc;
  disc.Clips({1});
  // 45 kHz ticks: 22 ticks are 0.489 ms, 23 ticks 0.511 ms.
  disc.Playlist(0, MakeMpls({{{1}, 0, Minutes45(16)}}, {{0, 22}, {0, 23}, {0, 45 * 275}}));
  TM2tsPlaylist p = ReadPlaylist((disc.Bdmv() / "PLAYLIST" / "00000.mpls").string(), false);
  ASSERT_EQ(p.Chapters.size(), 3u);
  EXPECT_EQ(p.Chapters[0].Time, 0);
  EXPECT_EQ(p.Chapters[1].Time, 1);
  EXPECT_EQ(p.Chapters[2].Time, 275);
}

TEST(BluRayPlaylists, DuplicatesAnglesAndOrder) {
  ScratchDisc disc;
  disc.Clips({1, 2, 3, 4, 5, 6});
  disc.Playlist(10, MakeMpls({{{1}, 0, Minutes45(30)}}, {{0, 0}}));
  disc.Playlist(11, MakeMpls({{{1}, 0, Minutes45(30)}}, {{0, 0}}));  // same as 00010
  disc.Playlist(12, MakeMpls({{{1}, 0, Minutes45(30)}}, {{0, 45}}));  // another chapter time
  // Three angles on the second item; the third item has only one clip, so every copy keeps it.
  disc.Playlist(13, MakeMpls({{{2}, 0, Minutes45(20)}, {{3, 4, 5}, 0, Minutes45(20)},
                              {{6}, 0, Minutes45(20)}}, {}));
  TM2tsPlaylists list = ReadPlaylists(disc.Bdmv().string(), false);
  // The duplicate 00011 is replaced by the last entry, angle 3 of 00013, which then stands
  // ahead of its sister copies among the titles of equal length.
  EXPECT_EQ(Names(list), (std::vector<std::string>{"00013.mpls#3", "00013.mpls#1", "00013.mpls#2",
                                                   "00010.mpls", "00012.mpls"}));
  for (const TM2tsPlaylist& p : list) {
    for (const TM2tsPlayItem& item : p.Items) EXPECT_EQ(item.Clips.size(), 1u);
    if (p.Name == "00013.mpls") {
      EXPECT_EQ(p.Items[1].Clips[0], 2 + p.Angle) << "angle " << p.Angle;
      EXPECT_EQ(p.Items[2].Clips[0], 6u) << "angle " << p.Angle;
    }
  }
}

TEST(BluRayPlaylists, AnglesOnTheSameClipsAreOneTitle) {
  ScratchDisc disc;
  disc.Clips({7});
  disc.Playlist(14, MakeMpls({{{7, 7}, 0, Minutes45(90)}}, {}));
  TM2tsPlaylists list = ReadPlaylists(disc.Bdmv().string(), false);
  EXPECT_EQ(Names(list), std::vector<std::string>{"00014.mpls#1"});
}

TEST(BluRayPlaylists, SamePlaylistComparesContentNotName) {
  TM2tsPlaylist a;
  a.Valid = true;
  a.Name = "00001.mpls";
  a.Duration = 1000000;
  a.Items.push_back({{1, 9}, 1, 0, 90000000, 0});
  a.Chapters.push_back({0, ""});
  TM2tsPlaylist b = a;
  b.Name = "00002.mpls";
  b.Angle = 3;
  b.Items[0].Clips[1] = 8;  // further angle clips don't count
  EXPECT_TRUE(SamePlaylist(a, b));
  struct Change {
    const char* what;
    void (*apply)(TM2tsPlaylist&);
  };
  const Change changes[] = {
      {"duration", [](TM2tsPlaylist& p) { p.Duration++; }},
      {"first clip", [](TM2tsPlaylist& p) { p.Items[0].Clips[0] = 2; }},
      {"connection", [](TM2tsPlaylist& p) { p.Items[0].Connection = 5; }},
      {"in time", [](TM2tsPlaylist& p) { p.Items[0].InTime = 2; }},
      {"chapter time", [](TM2tsPlaylist& p) { p.Chapters[0].Time = 1; }},
      {"chapter name", [](TM2tsPlaylist& p) { p.Chapters[0].Name = "x"; }},
      {"stream", [](TM2tsPlaylist& p) { p.Streams.push_back({0x1100, 1, "AC3", "English"}); }},
  };
  for (const Change& change : changes) {
    TM2tsPlaylist c = a;
    change.apply(c);
    EXPECT_FALSE(SamePlaylist(a, c)) << change.what;
  }
}

TEST(BluRayClipInfo, StreamDescriptions) {
  struct Case {
    Bytes info;
    uint8_t kind;
    const char* description;
    const char* language;
  };
  const Case cases[] = {
      {kAvc1080, 0, "h264/AVC, 1080p24 /1.001 (16:9)", ""},
      {kHevc2160, 0, "h265/HEVC, 2160p24 /1.001 (16:9)", ""},
      {{0xEA, 0x44, 0x20}, 0, "VC-1, 1080i30 /1.001 (4:3)", ""},
      {{0x02, 0x00, 0x00}, 0, "MPEG2", ""},
      {kAc3English, 1, "AC3, English, multi-channel, 48khz", "English"},
      {kTrueHdGerman, 1, "TrueHD, German, multi-channel, 192khz", "German"},
      {{0x80, 0x3E, 'j', 'p', 'n'}, 1, "RAW/PCM, Japanese, stereo, 96khz", "Japanese"},
      {{0x86, 0x11, 'x', 'y', 'z'}, 1, "DTS Master Audio, xyz, mono, 48khz", "xyz"},
      {{0xA1, 0x00, 0, 0, 0}, 1, "E-AC3 (secondary)", ""},
      {kPgsFrench, 2, "", "French"},
      {{0x92, 0x01, 'd', 'e', 'u'}, 3, "", "German"},
  };
  for (const Case& c : cases) {
    TM2tsStreams streams = ParseClipInfo(MakeClpi({{0x1011, c.info}}));
    ASSERT_EQ(streams.size(), 1u) << c.description;
    EXPECT_EQ(streams[0].Pid, 0x1011u);
    EXPECT_EQ(streams[0].Kind, c.kind) << c.description;
    EXPECT_EQ(streams[0].Description, c.description);
    EXPECT_EQ(streams[0].Language, c.language) << c.description;
  }
  // Unknown coding types give no record; the ones behind them still do.
  EXPECT_EQ(ParseClipInfo(MakeClpi({{0x1200, {0x91, 0}}, {0x1100, kAc3English}})).size(), 1u);
  EXPECT_EQ(ParseClipInfo(MakeClpi({{0x1011, kAvc1080}}, "HDMV0300")).size(), 1u);
  EXPECT_TRUE(ParseClipInfo(MakeClpi({{0x1011, kAvc1080}}, "HDMV0400")).empty());
}

TEST(BluRayPlaylists, ListingLines) {
  ScratchDisc disc;
  disc.Clips({1, 2, 3, 4, 5, 6, 10, 11});
  disc.ClipInfo(1, MakeClpi({{0x1011, kAvc1080}, {0x1100, kAc3English}, {0x1200, kPgsFrench}}));
  disc.Playlist(1, MakeMpls({{{1}, 0, Minutes45(30)}, {{2}, 0, Minutes45(30)},
                             {{3}, 0, Minutes45(30)}, {{4, 5}, 0, Minutes45(30)}},
                            {}));
  disc.Playlist(2, MakeMpls({{{10}, 0, Minutes45(60)}, {{11}, 0, 45000}}, {}));
  ConsoleLines console;
  ASSERT_TRUE(DetectBluRay(disc.Root().string()));
  EXPECT_EQ(console.Text(),
            "1) 00001.mpls (angle 1), 2:00:00\n"
            "   [1+2+3+4].m2ts\n"
            "   - h264/AVC, 1080p24 /1.001 (16:9)\n"
            "   - AC3, English, multi-channel, 48khz\n"
            "\n"
            "2) 00001.mpls (angle 2), 2:00:00\n"
            "   [1+2+3+5].m2ts\n"
            "   - h264/AVC, 1080p24 /1.001 (16:9)\n"
            "   - AC3, English, multi-channel, 48khz\n"
            "\n"
            "3) 00002.mpls, 00010.m2ts+00011.m2ts, 1:00:01\n");
}

TEST(BluRayPlaylists, SelectionGivesQuotedClipsOrTheMessage) {
  ScratchDisc disc;
  disc.Clips({7, 8});
  disc.Playlist(3, MakeMpls({{{8}, 0, Minutes45(16)}, {{7}, 0, Minutes45(16)}}, {}));
  std::string stream = (disc.Bdmv() / "STREAM").string();
  for (const std::string& from : {disc.Root().string(), disc.Bdmv().string(), stream}) {
    std::string source = from;
    bool failed = false;
    ASSERT_TRUE(SelectBluRayTitle(source, 1, failed)) << from;
    EXPECT_EQ(fs::path(source.substr(1, source.find('"', 1) - 1)).filename(), "00008.m2ts");
    EXPECT_NE(source.find("\"+\""), std::string::npos);
  }
  for (int number : {0, 2}) {
    ConsoleLines console;
    std::string source = disc.Root().string();
    bool failed = false;
    EXPECT_FALSE(SelectBluRayTitle(source, number, failed));
    EXPECT_TRUE(failed);
    EXPECT_EQ(console.Text(), "Blu-Ray disc doesn't contain a title set with this number.\n");
  }
  test::TempDir empty;
  std::string source = empty.path().string();
  bool failed = false;
  EXPECT_FALSE(SelectBluRayTitle(source, 1, failed));
  EXPECT_FALSE(failed);
}

// Every cut of a good playlist and clip info, and bytes flipped in every place: nothing is
// read outside the file, and a cut playlist is never listed with items it doesn't hold.
TEST(BluRayPlaylists, DamagedFilesAreSimplyAbsent) {
  ScratchDisc disc;
  disc.Clips({1, 2});
  Bytes mpls = MakeMpls({{{1, 2}, 0, Minutes45(20)}, {{2}, 0, Minutes45(20)}}, {{0, 0}, {1, 9}});
  Bytes clpi = MakeClpi({{0x1011, kAvc1080}, {0x1100, kAc3English}});
  std::string path = (disc.Bdmv() / "PLAYLIST" / "00001.mpls").string();
  for (size_t cut = 0; cut < mpls.size(); cut++) {
    TM2tsPlaylist p = ParsePlaylist(Bytes(mpls.begin(), mpls.begin() + long(cut)), path, true);
    if (p.Valid) { EXPECT_EQ(p.Items.size(), 2u) << cut; }
  }
  for (size_t cut = 0; cut < clpi.size(); cut++)
    EXPECT_TRUE(ParseClipInfo(Bytes(clpi.begin(), clpi.begin() + long(cut))).empty()) << cut;
  for (size_t at = 0; at < mpls.size(); at++) {
    Bytes bad = mpls;
    bad[at] ^= 0xFF;
    ParsePlaylist(bad, path, true);
  }
  for (size_t at = 0; at < clpi.size(); at++) {
    Bytes bad = clpi;
    bad[at] ^= 0xFF;
    ParseClipInfo(bad);
  }
}

}  // namespace
}  // namespace sonvex::disctest
