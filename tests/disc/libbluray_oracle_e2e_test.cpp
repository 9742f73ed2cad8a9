// Every Blu-ray tree of the corpus (public/bluray and gen/disc) listed by the sonvex binary and
// checked against libbluray's own parsers: the playlists (bd_get_playlist_info: clips of each
// angle, in and out times, marks) and the clip information (bd_read_clpi: coding type, format,
// rate, aspect, channels, language). The title rules are applied to libbluray's facts here: a
// playlist that visits a clip twice goes, a missing clip file shortens it, under 15 minutes goes,
// one title per angle, equal contents are one title, longest first. The chapter text of the main
// title ("1) 1: ch.txt") must give libbluray's mark times to the millisecond.
#include <gtest/gtest.h>

#ifdef SONVEX_HAVE_LIBBLURAY
#include <libbluray/bluray.h>
#include <libbluray/clpi_data.h>
#include <libbluray/log_control.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "disc/languages.h"
#include "support/e2e.h"

namespace sonvex::test {
namespace {

// A sub-folder of `folder` whose name equals `name` in any case; empty if none.
fs::path FindFolder(const fs::path& folder, const std::string& name) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    std::string found = entry.path().filename().string();
    if (entry.is_directory() && found.size() == name.size() &&
        std::equal(found.begin(), found.end(), name.begin(),
                   [](char a, char b) { return std::tolower(a) == std::tolower(b); }))
      return entry.path();
  }
  return {};
}

// Every folder of the corpus that holds a PLAYLIST folder: a disc's BDMV folder.
std::vector<fs::path> BdmvFolders() {
  std::vector<fs::path> found;
  for (const fs::path& top : {CorpusDir() / "public" / "bluray", CorpusDir() / "gen" / "disc"}) {
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(top, error); it != fs::recursive_directory_iterator();
         ++it) {
      if (!it->is_directory()) continue;
      std::string name = it->path().filename().string();
      std::transform(name.begin(), name.end(), name.begin(), ::toupper);
      if (name == "PLAYLIST" && !FindFolder(it->path().parent_path(), "CLIPINF").empty() &&
          it->path().parent_path().filename() != "BACKUP")
        found.push_back(it->path().parent_path());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

// The disc as sonvex meets it, in a scratch folder: "<disc>/BDMV", with a clip file for every
// clip information file that has none (a link to a small real M2TS, so that a title can be
// analysed). gen/disc folders are used as they are: their missing clips are on purpose.
fs::path ScratchDisc(const fs::path& bdmv, const TempDir& dir, int index) {
  if (bdmv.string().find("/gen/disc/") != std::string::npos) return bdmv.parent_path();
  fs::path root = dir.path() / ("disc" + std::to_string(index));
  fs::create_directories(root);
  RunShell("cp -r " + ShellQuote(bdmv.string()) + " " + ShellQuote((root / "BDMV").string()) +
               " && chmod -R u+w " + ShellQuote(root.string()),
           dir.path());
  fs::path stream = FindFolder(root / "BDMV", "STREAM");
  if (stream.empty()) fs::create_directories(stream = root / "BDMV" / "STREAM");
  fs::path tiny = CorpusDir() / "gen" / "disc" / "_media" / "tiny.m2ts";
  for (const auto& entry : fs::directory_iterator(FindFolder(root / "BDMV", "CLIPINF"))) {
    fs::path clip = stream / (entry.path().stem().string() + ".m2ts");
    if (entry.path().extension() == ".clpi" && fs::is_regular_file(clip) && fs::file_size(clip) == 0)
      fs::remove(clip);
    if (entry.path().extension() == ".clpi" && !fs::exists(clip)) fs::create_symlink(tiny, clip);
  }
  return root;
}

// libbluray finds a disc's folders by their upper-case names only: the playlists and clip
// information as it wants them, for the oracle.
fs::path OracleCopy(const fs::path& bdmv, const TempDir& dir, int index) {
  fs::path root = dir.path() / ("oracle" + std::to_string(index));
  fs::create_directories(root / "BDMV");
  for (const char* folder : {"PLAYLIST", "CLIPINF"})
    RunShell("cp -r " + ShellQuote(FindFolder(bdmv, folder).string()) + " " +
                 ShellQuote((root / "BDMV" / folder).string()),
             dir.path());
  return root;
}

// One title as libbluray's facts and the title rules give it.
struct TOracleTitle {
  std::string name;  // "00800.mpls"
  unsigned angle = 0;
  int64_t ms = 0;
  std::vector<std::string> clips;    // "00081"
  std::vector<uint64_t> times;       // in and out time of each clip taken, 90 kHz
  std::vector<int64_t> chapters;     // ms; only where no clip is missing
  bool missingClips = false;
  // libbluray's playlist info names the clips of angle 1 whatever angle it is asked for, so the
  // clips of a further angle are known by number only (gen/disc's ORACLES.tsv, made from the
  // playlist bytes, has them all; DiscCorpusTitles checks those).
  bool clipsOfAngle1 = true;
  std::string Key() const {
    std::string key = std::to_string(ms) + (clipsOfAngle1 ? "" : " angle " + std::to_string(angle));
    for (size_t i = 0; i < clips.size(); i++)
      key += " " + clips[i] + ":" + std::to_string(times[2 * i]) + "-" + std::to_string(times[2 * i + 1]);
    for (int64_t chapter : chapters) key += " c" + std::to_string(chapter);
    return key;
  }
};

std::vector<TOracleTitle> OracleTitles(BLURAY* bd, const fs::path& root, const fs::path& stream) {
  fs::path bdmv = root / "BDMV";
  std::vector<fs::path> playlists;
  for (const auto& entry : fs::directory_iterator(FindFolder(bdmv, "PLAYLIST")))
    if (entry.path().extension() == ".mpls" && entry.path().stem().string().size() == 5)
      playlists.push_back(entry.path());
  std::sort(playlists.begin(), playlists.end());
  std::vector<TOracleTitle> titles;
  for (const fs::path& file : playlists) {
    uint32_t number = uint32_t(std::stoul(file.stem().string()));
    BLURAY_TITLE_INFO* first = bd_get_playlist_info(bd, number, 0);
    if (!first) continue;
    unsigned angles = first->angle_count;
    std::set<std::string> seen;
    bool twice = false;
    for (uint32_t c = 0; c < first->clip_count; c++)
      twice |= !seen.insert(first->clips[c].clip_id).second;
    bd_free_title_info(first);
    if (twice) continue;
    for (unsigned a = 0; a < std::max(angles, 1u); a++) {
      BLURAY_TITLE_INFO* info = bd_get_playlist_info(bd, number, a);
      if (!info) continue;
      TOracleTitle title;
      title.name = file.filename().string();
      title.angle = angles < 2 ? 0 : a + 1;
      title.clipsOfAngle1 = a == 0;
      uint64_t sum = 0;
      for (uint32_t c = 0; c < info->clip_count; c++) {
        const BLURAY_CLIP_INFO& clip = info->clips[c];
        if (!fs::exists(stream / (std::string(clip.clip_id) + ".m2ts"))) {
          title.missingClips = true;
          continue;
        }
        title.clips.push_back(clip.clip_id);
        title.times.push_back(clip.in_time);
        title.times.push_back(clip.out_time);
        sum += clip.out_time - clip.in_time;
      }
      if (!title.missingClips)
        for (uint32_t m = 0; m < info->mark_count; m++)
          title.chapters.push_back(int64_t((info->marks[m].start + 45) / 90));
      title.ms = int64_t((sum + 45) / 90);
      bd_free_title_info(info);
      if (!title.clips.empty() && title.ms >= 900000) titles.push_back(title);
    }
  }
  return titles;
}

// Listing lines for the streams of a clip information file, as libbluray reads it.
std::vector<std::string> OracleStreamLines(const fs::path& clpi) {
  CLPI_CL* cl = bd_read_clpi(clpi.string().c_str());
  if (!cl) return {};
  struct TType { uint8_t type; bool video; const char* text; };
  static const TType kTypes[] = {
      {0x02, true, "MPEG2"}, {0x1B, true, "h264/AVC"}, {0xEA, true, "VC-1"}, {0x24, true, "h265/HEVC"},
      {0x80, false, "RAW/PCM"}, {0x81, false, "AC3"}, {0x82, false, "DTS"}, {0x83, false, "TrueHD"},
      {0x84, false, "E-AC3"}, {0x85, false, "DTS Hi-Res"}, {0x86, false, "DTS Master Audio"},
      {0xA1, false, "E-AC3 (secondary)"}, {0xA2, false, "DTS-HD (secondary)"}};
  static const std::map<int, std::string> kFormats = {{1, "480i"}, {2, "576i"}, {3, "480p"},
      {4, "1080i"}, {5, "720p"}, {6, "1080p"}, {7, "576p"}, {8, "2160p"}};
  static const std::map<int, std::string> kRates = {{1, "24 /1.001"}, {2, "24"}, {3, "25"},
      {4, "30 /1.001"}, {6, "50"}, {7, "60 /1.001"}};
  static const std::map<int, std::string> kAspects = {{2, " (4:3)"}, {3, " (16:9)"}};
  static const std::map<int, std::string> kChannels = {{1, ", mono"}, {3, ", stereo"},
      {6, ", multi-channel"}, {12, ", multi-channel"}};
  static const std::map<int, std::string> kAudioRates = {{1, ", 48khz"}, {4, ", 96khz"},
      {14, ", 96khz"}, {5, ", 192khz"}, {12, ", 192khz"}};
  auto text = [](const std::map<int, std::string>& table, int value) {
    auto it = table.find(value);
    return it == table.end() ? std::string() : it->second;
  };
  std::vector<std::string> video, audio;
  if (cl->program.num_prog > 0) {
    const CLPI_PROG& program = cl->program.progs[0];
    for (unsigned s = 0; s < program.num_streams; s++) {
      const CLPI_PROG_STREAM& st = program.streams[s];
      for (const TType& type : kTypes) {
        if (type.type != st.coding_type) continue;
        if (type.video) {
          std::string facts = text(kFormats, st.format) + text(kRates, st.rate) + text(kAspects, st.aspect);
          video.push_back(std::string("- ") + type.text + (facts.empty() ? "" : ", " + facts));
        } else {
          std::string lang(st.lang, 3);
          bool letters = std::all_of(lang.begin(), lang.end(), ::isalpha);
          audio.push_back(std::string("- ") + type.text + (letters ? ", " + LanguageName(lang) : "") +
                          text(kChannels, st.format) + text(kAudioRates, st.rate));
        }
      }
    }
  }
  bd_free_clpi(cl);
  video.insert(video.end(), audio.begin(), audio.end());
  return video;
}

// A title as the sonvex listing shows it.
struct TListedTitle {
  std::string name, time;
  unsigned angle = 0;
  std::vector<std::string> clips;
  std::vector<std::string> streams;  // "- ..." lines
};

std::vector<TListedTitle> ParseListing(const std::string& listing) {
  static const std::regex head(R"(^\d+\) (\d{5}\.mpls)(?: \(angle (\d+)\))?(?:, ([0-9.m2ts+]+))?, (\d+:\d\d:\d\d)$)");
  static const std::regex group(R"(\(([0-9]+)[^)]*\))");
  std::vector<TListedTitle> titles;
  std::istringstream in(listing);
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (std::regex_match(line, m, head)) {
      TListedTitle title;
      title.name = m[1];
      title.angle = m[2].matched ? unsigned(std::stoul(m[2])) : 0;
      title.time = m[4];
      std::istringstream clips(m[3].str());
      for (std::string clip; std::getline(clips, clip, '+');) title.clips.push_back(clip.substr(0, 5));
      titles.push_back(title);
    } else if (!titles.empty() && line.find("   [") == 0 && line.size() > 9) {
      // "[7+8+(9|10)].m2ts": plain numbers, an item of several angles in brackets
      std::string list = std::regex_replace(line.substr(4, line.size() - 10), group, "$1");
      std::istringstream clips(list);
      for (std::string clip; std::getline(clips, clip, '+');) {
        char name[8];
        std::snprintf(name, sizeof name, "%05lu", std::stoul(clip));
        titles.back().clips.push_back(name);
      }
    } else if (!titles.empty() && line.find("- ") != std::string::npos && line[0] == ' ') {
      titles.back().streams.push_back(line.substr(line.find("- ")));
    }
  }
  return titles;
}

std::string TimeText(int64_t ms) {
  int64_t s = (ms + 500) / 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", (long long)(s / 3600), (long long)(s / 60 % 60),
                (long long)(s % 60));
  return text;
}

std::vector<int64_t> ChapterTimes(const std::string& text) {
  static const std::regex line(R"(CHAPTER\d+=(\d+):(\d\d):(\d\d)\.(\d\d\d)\r)");
  std::vector<int64_t> times;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), line); it != std::sregex_iterator(); ++it)
    times.push_back(((std::stoll((*it)[1]) * 60 + std::stoll((*it)[2])) * 60 + std::stoll((*it)[3])) * 1000 +
                    std::stoll((*it)[4]));
  return times;
}

TEST(LibblurayOracle, EveryCorpusTreeListsTheTitlesLibblurayGives) {
  SKIP_WITHOUT_CORPUS();
  std::vector<fs::path> folders = BdmvFolders();
  ASSERT_GE(folders.size(), 20u);  // 14 public trees, 7 gen/disc folders
  bd_set_debug_mask(0);
  TempDir dir;
  int index = 0, discs = 0, mainTitles = 0;
  for (const fs::path& bdmv : folders) {
    SCOPED_TRACE(bdmv.string());
    fs::path root = ScratchDisc(bdmv, dir, index);
    fs::path oracleRoot = OracleCopy(bdmv, dir, index++);
    BLURAY* bd = bd_open(oracleRoot.string().c_str(), nullptr);
    ASSERT_NE(bd, nullptr);
    std::vector<TOracleTitle> oracle = OracleTitles(bd, oracleRoot, FindFolder(FindFolder(root, "BDMV"), "STREAM"));
    bd_close(bd);

    RunResult run = RunSonvex({root.string()}, dir.path());
    std::vector<TListedTitle> listed = ParseListing(run.out);
    if (oracle.empty()) {
      EXPECT_EQ(run.exitCode, 1);
      EXPECT_EQ(run.out + run.err, "HD DVD / Blu-Ray disc structure not found.\n");
      continue;
    }
    discs++;
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

    // One listed title for each group of equal contents, longest first.
    std::map<std::string, std::vector<const TOracleTitle*>> groups;
    std::map<std::pair<std::string, unsigned>, const TOracleTitle*> byName;
    for (const TOracleTitle& title : oracle) {
      groups[title.Key()].push_back(&title);
      byName[{title.name, title.angle}] = &title;
    }
    ASSERT_EQ(listed.size(), groups.size()) << run.out;
    std::set<std::string> groupsListed;
    for (size_t n = 0; n < listed.size(); n++) {
      const TListedTitle& title = listed[n];
      SCOPED_TRACE(std::to_string(n + 1) + ") " + title.name);
      auto found = byName.find({title.name, title.angle});
      ASSERT_NE(found, byName.end()) << run.out;
      const TOracleTitle& expected = *found->second;
      EXPECT_TRUE(groupsListed.insert(expected.Key()).second) << "two titles of equal contents";
      EXPECT_EQ(title.time, TimeText(expected.ms));
      if (expected.clipsOfAngle1) {
        EXPECT_EQ(title.clips, expected.clips);
      } else {
        EXPECT_EQ(title.clips.size(), expected.clips.size());
      }
      if (n > 0) {
        const TOracleTitle* before = byName[std::make_pair(listed[n - 1].name, listed[n - 1].angle)];
        EXPECT_LE(expected.ms, before->ms);
      }
      fs::path clpi = oracleRoot / "BDMV" / "CLIPINF" / (expected.clips[0] + ".clpi");
      EXPECT_EQ(title.streams, OracleStreamLines(clpi));
    }

    // The chapters of the main title, to the millisecond.
    const TOracleTitle& main = *byName[std::make_pair(listed[0].name, listed[0].angle)];
    if (main.missingClips || main.chapters.size() < 2) continue;
    RunResult chapters = RunSonvex({root.string(), "1)", "1:", "ch.txt"}, dir.path());
    ASSERT_EQ(chapters.exitCode, 0) << chapters.out << chapters.err;
    EXPECT_EQ(ChapterTimes(ReadFile(dir.path() / "ch.txt")), main.chapters);
    fs::remove(dir.path() / "ch.txt");
    mainTitles++;
  }
  EXPECT_GE(discs, 12);
  EXPECT_GE(mainTitles, 10);
}

}  // namespace
}  // namespace sonvex::test
#else
TEST(LibblurayOracle, EveryCorpusTreeListsTheTitlesLibblurayGives) {
  GTEST_SKIP() << "libbluray-dev not installed";
}
#endif
