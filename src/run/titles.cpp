// Disc folders and titles in the main run.
#include "run/titles.h"

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

TDiscFacts FindDiscFacts(const std::vector<std::string>& sources, const std::string& format) {
  TDiscFacts facts;
  if (sources.empty() || format != "m2ts") return facts;
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
      if (!stream.Language.empty()) facts.languages[int32_t(stream.Pid)] = stream.Language;
    break;
  }
  return facts;
}

}  // namespace sonvex
