// Disc folders and titles in the main run.
#include "run/titles.h"

#include <algorithm>
#include <climits>
#include <filesystem>

#include "disc/bluray.h"
#include "disc/discfiles.h"
#include "disc/hddvd.h"
#include "run/cmdline.h"

namespace fs = std::filesystem;

namespace sonvex {
namespace {

// The playlist that a ".mpls" source was resolved through: its chapters hold even when the
// playlist is too short to be listed as a title.
TM2tsPlaylist selectedPlaylist;

std::string FolderOf(const std::string& path) {
  std::string folder = fs::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

bool ClipsMatch(const TM2tsPlaylist& playlist, const std::vector<std::string>& sources) {
  if (playlist.Items.size() != sources.size()) return false;
  char name[32];
  for (size_t i = 0; i < sources.size(); i++) {
    std::snprintf(name, sizeof name, "%05u.m2ts", playlist.Items[i].Clips[0]);
    if (!EqualNoCase(fs::path(sources[i]).filename().string(), name)) return false;
  }
  return true;
}

bool ResolveTitle(const std::string& folder, int title, std::string& source, bool& reported) {
  if (IsPlaylistSource(folder)) {
    TM2tsPlaylist playlist = ReadPlaylist(folder, false, 0);
    if (!playlist.Valid) return false;
    selectedPlaylist = playlist;
    source = PlaylistSource(playlist, FindBluRayStreamFolder(FolderOf(folder)));
    return true;
  }
  bool failed = false;
  std::string resolved = folder;
  if (SelectHdDvdTitle(resolved, title, failed)) {
    source = resolved;
    return true;
  }
  if (!failed) {
    resolved = folder;
    if (SelectBluRayTitle(resolved, title, failed)) {
      source = resolved;
      return true;
    }
  }
  reported = failed;
  return false;
}

}  // namespace

bool ListDiscTitles(const std::string& folder) {
  if (!IsDiscFolder(folder)) return false;
  return DetectHdDvd(folder) || DetectBluRay(folder);
}

void InstallTitleResolver() { SetTitleResolver(ResolveTitle); }

bool IsPlaylistSource(const std::string& source) {
  return source.size() > 5 && EqualNoCase(source.substr(source.size() - 5), ".mpls") &&
         IsDiscFile(source);
}

namespace {

// Step of an HD DVD source: a playlist title whose EVO files are the sources, in order, gives
// its name and chapters, and the names and languages of its first clip's tracks. Playlist
// track numbers count from 1 where the EVO's stream ids count from 0.
void FindHdDvdFacts(const std::vector<std::string>& sources, const IContainerFormatDetails& container,
                    TDiscFacts& facts) {
  std::string folder = FolderOf(sources.front());
  TXpl xpl;
  for (const char* relative : {"../ADV_OBJ/VPLST000.XPL", "VPLST000.XPL"}) {
    std::string file = FindDiscPath(folder, relative);
    if (IsDiscFile(file)) xpl = ReadXpl(file, {});
    if (!xpl.Titles.empty()) break;
  }
  for (const TXplTitle& title : xpl.Titles) {
    if (title.Clips.size() != sources.size()) continue;
    bool same = true;
    for (size_t i = 0; i < sources.size() && same; i++)
      same = EqualNoCase(xpl.Clips[title.Clips[i]].FileName, fs::path(sources[i]).filename().string());
    if (!same) continue;
    facts.titleName = title.Name;
    if (title.Chapters.size() >= 2) {
      facts.chapterText = ChaptersToText(title.Chapters);
      facts.chapterLine = "Chapters, " + std::to_string(title.Chapters.size()) + " chapters " +
                          (title.Chapters[0].Name.empty() ? "without names" : "with names");
    }
    const TXplClip& clip = xpl.Clips[title.Clips[0]];
    for (const TXplAudioTrack& audio : clip.Audio) {
      std::pair<int, int32_t> key{1, audio.Stream - 1};
      if (!audio.Language.empty()) facts.languages[key] = audio.Language;
      std::string name = !audio.Description.empty() ? audio.Description
                         : !audio.Text.empty()      ? audio.Text
                                                    : audio.Extra;
      if (!name.empty()) facts.names[key] = name;
    }
    // Subtitle numbers: when the playlist's smallest and largest equal the stream's, the
    // playlist counts from the stream's base, and its numbers are one higher than they say.
    int32_t low = INT32_MAX, high = INT32_MIN, streamLow = INT32_MAX, streamHigh = INT32_MIN;
    for (const TXplSubtitleTrack& subtitle : clip.Subtitles) {
      low = std::min(low, subtitle.Stream);
      high = std::max(high, subtitle.Stream);
    }
    TTrackEntry entry;
    for (int32_t i = 0; i < container.SubtitleCount(); i++)
      if (container.GetSubtitle(i, entry)) {
        streamLow = std::min(streamLow, entry.id);
        streamHigh = std::max(streamHigh, entry.id);
      }
    int32_t shift = low == streamLow && high == streamHigh ? 1 : 0;
    for (const TXplSubtitleTrack& subtitle : clip.Subtitles) {
      std::pair<int, int32_t> key{2, subtitle.Stream + shift - 1};
      if (!subtitle.Language.empty()) facts.languages[key] = subtitle.Language;
      std::string name = !subtitle.Description.empty() ? subtitle.Description : subtitle.Text;
      if (!name.empty()) facts.names[key] = name;
    }
    return;
  }
}

// Step of an M2TS source: the playlist whose clips are the sources gives the chapters, and
// the clip information of the first source the languages of the streams by PID.
void FindBluRayFacts(const std::vector<std::string>& sources, TDiscFacts& facts) {
  std::string folder = FolderOf(sources.front());
  const TM2tsPlaylist* found = ClipsMatch(selectedPlaylist, sources) ? &selectedPlaylist : nullptr;
  TM2tsPlaylists list;
  if (!found) {
    list = FindBluRayPlaylists(folder, false);
    for (const TM2tsPlaylist& playlist : list)
      if (ClipsMatch(playlist, sources)) {
        found = &playlist;
        break;
      }
  }
  if (found && !found->Chapters.empty()) {
    facts.chapterText = ChaptersToText(found->Chapters);
    facts.chapterLine = "Chapters, " + std::to_string(found->Chapters.size()) + " chapters";
  }

  std::string clpi = fs::path(sources.front()).stem().string() + ".clpi";
  for (const std::string& relative :
       {"../CLIPINF/" + clpi, clpi, "CLIPINF/" + clpi, "BDMV/CLIPINF/" + clpi}) {
    std::string file = FindDiscPath(folder, relative);
    if (!IsDiscFile(file)) continue;
    TM2tsStreams streams = ReadClipInfo(file);
    if (streams.empty()) continue;
    for (const TM2tsStream& stream : streams)
      if (!stream.Language.empty())
        facts.languages[{stream.Kind == 1 ? 1 : 2, int32_t(stream.Pid)}] = stream.Language;
    break;
  }
}

}  // namespace

TDiscFacts FindDiscFacts(const std::vector<std::string>& sources,
                         const IContainerFormatDetails& container) {
  TDiscFacts facts;
  if (sources.empty()) return facts;
  FindHdDvdFacts(sources, container, facts);
  if (container.Format() == "m2ts") FindBluRayFacts(sources, facts);
  return facts;
}

}  // namespace sonvex
