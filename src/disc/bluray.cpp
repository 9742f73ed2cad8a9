// Blu-ray playlists and clip information. All numbers in these files are big-endian; every read
// goes through TByteView, so a damaged file ends its reading instead of reading elsewhere.
#include "disc/bluray.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>

#include "disc/discfiles.h"
#include "disc/languages.h"
#include "disc/listedtitle.h"
#include "framework/console.h"

namespace sonvex {
namespace {

bool ParseClipNumber(const std::string& digits, uint32_t& number) {
  if (digits.size() != 5) return false;
  number = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + uint32_t(c - '0');
  }
  return true;
}

std::string ClipName(uint32_t clip, const char* extension) {
  char name[32];
  std::snprintf(name, sizeof name, "%05u%s", clip, extension);
  return name;
}

std::string FolderOf(const std::string& path) {
  std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

// A language code of three letters; anything else (such as three NUL bytes) is no language.
std::string LanguageOf(const std::string& code) {
  for (char c : code)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return "";
  return LanguageName(code);
}

struct TCodingType {
  uint8_t type;
  uint8_t kind;
  const char* text;
};

constexpr TCodingType kCodingTypes[] = {
    {0x02, 0, "MPEG2, "},          {0x1B, 0, "h264/AVC, "},     {0xEA, 0, "VC-1, "},
    {0x24, 0, "h265/HEVC, "},      {0x80, 1, "RAW/PCM"},        {0x81, 1, "AC3"},
    {0x82, 1, "DTS"},              {0x83, 1, "TrueHD"},         {0x84, 1, "E-AC3"},
    {0x85, 1, "DTS Hi-Res"},       {0x86, 1, "DTS Master Audio"},
    {0xA1, 1, "E-AC3 (secondary)"}, {0xA2, 1, "DTS-HD (secondary)"},
    {0x90, 2, ""},                 {0x92, 3, ""}};

constexpr const char* kVideoFormats[] = {"", "480i", "576i", "480p", "1080i", "720p", "1080p",
                                         "576p", "2160p"};
constexpr const char* kVideoRates[] = {"", "24 /1.001", "24", "25", "30 /1.001", "", "50",
                                       "60 /1.001"};

std::string VideoDescription(const char* text, uint32_t formatRate, uint32_t aspect) {
  std::string description = text;
  uint32_t format = formatRate >> 4, rate = formatRate & 15;
  bool any = false;
  auto add = [&](const char* part) {
    if (*part) any = true;
    description += part;
  };
  if (format < std::size(kVideoFormats)) add(kVideoFormats[format]);
  if (rate < std::size(kVideoRates)) add(kVideoRates[rate]);
  if (aspect >> 4 == 2) add(" (4:3)");
  if (aspect >> 4 == 3) add(" (16:9)");
  if (!any) description.resize(description.size() - 2);
  return description;
}

std::string AudioDescription(const char* text, uint32_t channelsRate, const std::string& language) {
  std::string description = text;
  if (!language.empty()) description += ", " + language;
  uint32_t channels = channelsRate >> 4, rate = channelsRate & 15;
  if (channels == 1) description += ", mono";
  if (channels == 3) description += ", stereo";
  if (channels == 6 || channels == 12) description += ", multi-channel";
  if (rate == 1) description += ", 48khz";
  if (rate == 4 || rate == 14) description += ", 96khz";
  if (rate == 5 || rate == 12) description += ", 192khz";
  return description;
}

}  // namespace

TM2tsStreams ReadClipInfo(const std::string& path) {
  std::vector<uint8_t> data;
  if (!ReadWholeFile(path, data)) return {};
  return ParseClipInfo(data);
}

TM2tsStreams ParseClipInfo(const std::vector<uint8_t>& data) {
  TByteView file(data);
  std::string magic = file.Text(0, 8);
  if (magic != "HDMV0100" && magic != "HDMV0200" && magic != "HDMV0300") return {};
  uint64_t body = uint64_t(file.U32(12)) + 4;  // behind the ProgramInfo block's length
  uint32_t count = file.U8(body + 8);
  uint64_t entry = body + 10;
  TM2tsStreams streams;
  for (uint32_t i = 0; i < count && !file.Failed(); i++) {
    uint32_t pid = file.U16(entry);
    uint64_t info = entry + 3;  // the coding info, its first byte the stream coding type
    uint32_t type = file.U8(info);
    for (const TCodingType& coding : kCodingTypes) {
      if (coding.type != type) continue;
      TM2tsStream stream;
      stream.Pid = pid;
      stream.Kind = coding.kind;
      if (coding.kind == 0) {
        stream.Description = VideoDescription(coding.text, file.U8(info + 1), file.U8(info + 2));
      } else if (coding.kind == 1) {
        stream.Language = LanguageOf(file.Text(info + 2, 3));
        stream.Description = AudioDescription(coding.text, file.U8(info + 1), stream.Language);
      } else {
        stream.Language = LanguageOf(file.Text(info + (coding.kind == 2 ? 1 : 2), 3));
      }
      streams.push_back(stream);
    }
    entry = info + file.U8(entry + 2);
  }
  if (file.Failed()) return {};
  return streams;
}

TM2tsPlaylist ReadPlaylist(const std::string& path, bool withStreams, int64_t minimumLength) {
  std::vector<uint8_t> data;
  if (!ReadWholeFile(path, data)) {
    TM2tsPlaylist playlist;
    playlist.Name = std::filesystem::path(path).filename().string();
    return playlist;
  }
  return ParsePlaylist(data, path, withStreams, minimumLength);
}

TM2tsPlaylist ParsePlaylist(const std::vector<uint8_t>& data, const std::string& path,
                            bool withStreams, int64_t minimumLength) {
  TM2tsPlaylist playlist;
  playlist.Name = std::filesystem::path(path).filename().string();
  TByteView file(data);
  std::string magic = file.Text(0, 8);
  if (magic != "MPLS0100" && magic != "MPLS0200" && magic != "MPLS0300") return playlist;
  uint64_t list = file.U32(8), marks = file.U32(12);
  if (file.U8(45) != 1 || file.Failed()) return playlist;  // playback type: sequential

  std::string folder = FolderOf(path);
  uint32_t count = file.U16(list + 6);
  uint64_t item = list + 10;
  int64_t sum = 0;
  bool clipsListed = false;
  std::set<std::string> clipFiles;  // lower-case names in "../STREAM" and beside the playlist
  for (uint32_t i = 0; i < count; i++) {
    uint64_t next = item + file.U16(item) + 2;
    uint32_t clip = 0;
    if (!ParseClipNumber(file.Text(item + 2, 5), clip) || file.Failed()) {
      playlist.Items.clear();
      return playlist;
    }
    for (const TM2tsPlayItem& taken : playlist.Items)
      if (taken.Clips[0] == clip) return playlist;  // a menu or a loop, not a film
    if (!clipsListed) {
      clipsListed = true;
      std::string streams = FindDiscPath(folder, "../STREAM");
      for (const std::string& dir : {streams, folder})
        if (IsDiscFolder(dir))
          for (const std::string& name : ListDiscFiles(dir, ".m2ts")) clipFiles.insert(LowerText(name));
    }
    if (!clipFiles.count(ClipName(clip, ".m2ts"))) {
      item = next;  // a clip missing from the disc shortens the playlist
      continue;
    }
    if (playlist.Items.empty() && withStreams) {
      std::string clpi = ClipName(clip, ".clpi");
      std::string info = FindDiscPath(folder, "../CLIPINF/" + clpi);
      if (!info.empty()) playlist.Streams = ReadClipInfo(info);
      if (playlist.Streams.empty()) {
        info = FindDiscPath(folder, clpi);
        if (!info.empty()) playlist.Streams = ReadClipInfo(info);
      }
    }
    TM2tsPlayItem entry;
    entry.Clips.push_back(clip);
    uint32_t flags = file.U8(item + 12);
    entry.Connection = flags & 15;
    entry.InTime = int64_t(file.U32(item + 14)) * 2;
    entry.OutTime = int64_t(file.U32(item + 18)) * 2;
    entry.Start = sum;
    if (flags & 0x10) {
      uint32_t angles = file.U8(item + 34);
      for (uint32_t k = 1; k < angles; k++) {
        uint32_t other = 0;
        if (!ParseClipNumber(file.Text(item + 36 + 10 * uint64_t(k - 1), 5), other)) break;
        entry.Clips.push_back(other);
      }
      playlist.Angle = std::max(playlist.Angle, std::max<uint32_t>(angles, 1));
    }
    if (file.Failed()) {
      playlist.Items.clear();
      return playlist;
    }
    sum += entry.OutTime - entry.InTime;
    playlist.Items.push_back(entry);
    item = next;
  }
  if (playlist.Items.empty()) return playlist;
  playlist.Duration = (sum + 45) / 90;
  playlist.Valid = playlist.Duration >= minimumLength;

  // Every mark is a chapter. Its item index counts in the list as it is after missing clips
  // were dropped; an index past its end ends the chapter list there.
  uint32_t markCount = file.U16(marks + 4);
  for (uint32_t m = 0; m < markCount; m++) {
    uint64_t mark = marks + 6 + 14 * uint64_t(m);
    uint32_t index = file.U16(mark + 2);
    int64_t time = int64_t(file.U32(mark + 4)) * 2;
    if (file.Failed() || index >= playlist.Items.size()) break;
    const TM2tsPlayItem& at = playlist.Items[index];
    playlist.Chapters.push_back({(time - at.InTime + at.Start + 45) / 90, ""});
  }
  return playlist;
}

TM2tsPlaylists ReadPlaylists(const std::string& folder, bool withStreams) {
  TM2tsPlaylists list;
  std::string playlists = FindDiscPath(folder, "PLAYLIST");
  if (!IsDiscFolder(playlists)) return list;
  for (const std::string& name : ListDiscFiles(playlists, ".mpls")) {
    TM2tsPlaylist playlist = ReadPlaylist(WithSlash(playlists) + name, withStreams);
    if (!playlist.Valid) continue;
    if (playlist.Angle < 2) {
      playlist.Angle = 0;
      list.push_back(std::move(playlist));
      continue;
    }
    for (uint32_t a = 0; a < playlist.Angle; a++) {
      TM2tsPlaylist copy = playlist;
      for (TM2tsPlayItem& item : copy.Items)
        item.Clips.assign(1, a < item.Clips.size() ? item.Clips[a] : item.Clips[0]);
      copy.Angle = a + 1;
      list.push_back(std::move(copy));
    }
  }
  // Duplicates: from the last entry down, an entry equal to an earlier one is replaced by the
  // last entry. This changes the order of the list, and so decides ties of equal length.
  for (size_t i = list.size(); i-- > 1;) {
    for (size_t j = 0; j < i; j++) {
      if (!SamePlaylist(list[j], list[i])) continue;
      if (i != list.size() - 1) list[i] = std::move(list.back());
      list.pop_back();
      break;
    }
  }
  return list;
}

bool SamePlaylist(const TM2tsPlaylist& a, const TM2tsPlaylist& b) {
  if (a.Valid != b.Valid || a.Duration != b.Duration || a.Items.size() != b.Items.size() ||
      a.Streams.size() != b.Streams.size() || a.Chapters.size() != b.Chapters.size())
    return false;
  for (size_t i = 0; i < a.Items.size(); i++) {
    const TM2tsPlayItem &x = a.Items[i], &y = b.Items[i];
    if (x.Clips[0] != y.Clips[0] || x.Connection != y.Connection || x.InTime != y.InTime ||
        x.OutTime != y.OutTime || x.Start != y.Start)
      return false;
  }
  for (size_t i = 0; i < a.Streams.size(); i++) {
    const TM2tsStream &x = a.Streams[i], &y = b.Streams[i];
    if (x.Pid != y.Pid || x.Kind != y.Kind || x.Description != y.Description ||
        x.Language != y.Language)
      return false;
  }
  for (size_t i = 0; i < a.Chapters.size(); i++)
    if (a.Chapters[i].Time != b.Chapters[i].Time || a.Chapters[i].Name != b.Chapters[i].Name)
      return false;
  return true;
}

int TitleIndex(const TM2tsPlaylists& list, int number) {
  if (number < 0 || size_t(number) >= list.size()) return -1;
  std::vector<int> order(list.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = int(i);
  std::stable_sort(order.begin(), order.end(),
                   [&](int a, int b) { return list[size_t(a)].Duration > list[size_t(b)].Duration; });
  return order[size_t(number)];
}

void PrintPlaylists(const TM2tsPlaylists& list) {
  for (size_t n = 0; n < list.size(); n++) {
    const TM2tsPlaylist& playlist = list[size_t(TitleIndex(list, int(n)))];
    if (n) WriteLine(0, "");
    std::string prefix = std::to_string(n + 1) + ") ";
    std::string indent(prefix.size(), ' ');
    std::string head = prefix + playlist.Name;
    TListedTitle listed{int32_t(n + 1), playlist.Name, int32_t(playlist.Angle), playlist.Duration, {}, {}, {}};
    for (const TM2tsPlayItem& item : playlist.Items) listed.clips.push_back(ClipName(item.Clips[0], ".m2ts"));
    if (playlist.Angle > 0) head += " (angle " + std::to_string(playlist.Angle) + ")";
    if (playlist.Items.size() >= 4) {
      if (playlist.Duration > 0) head += ", " + TitleTimeText(playlist.Duration);
      std::string clips;
      for (const TM2tsPlayItem& item : playlist.Items) {
        if (!clips.empty()) clips += "+";
        if (item.Clips.size() == 1) {
          clips += std::to_string(item.Clips[0]);
          continue;
        }
        clips += "(";
        for (size_t c = 0; c < item.Clips.size(); c++)
          clips += (c ? "|" : "") + std::to_string(item.Clips[c]);
        clips += ")";
      }
      WriteLine(0, head);
      WriteLine(0, indent + "[" + clips + "].m2ts");
    } else {
      head += ", ";
      for (size_t i = 0; i < playlist.Items.size(); i++)
        head += (i ? "+" : "") + ClipName(playlist.Items[i].Clips[0], ".m2ts");
      WriteLine(0, head + ", " + TitleTimeText(playlist.Duration));
    }
    for (uint8_t kind : {0, 1})
      for (const TM2tsStream& stream : playlist.Streams)
        if (stream.Kind == kind && !stream.Description.empty()) {
          WriteLine(0, indent + "- " + stream.Description);
          listed.tracks.push_back(stream.Description);
        }
    RecordTitle(listed);
  }
}

TM2tsPlaylists FindBluRayPlaylists(const std::string& path, bool withStreams) {
  for (const char* relative : {"BDMV", ".", "../BDMV", "..", "../.."}) {
    std::string folder = FindDiscPath(path, relative);
    if (!IsDiscFolder(folder)) continue;
    TM2tsPlaylists list = ReadPlaylists(folder, withStreams);
    if (!list.empty()) return list;
  }
  return {};
}

std::string FindBluRayStreamFolder(const std::string& path) {
  for (const char* relative : {"BDMV/STREAM", "STREAM", "../BDMV/STREAM", "../STREAM", "../../STREAM"}) {
    std::string folder = FindDiscPath(path, relative);
    if (IsDiscFolder(folder)) return folder;
  }
  return path;
}

std::string PlaylistSource(const TM2tsPlaylist& playlist, const std::string& streamFolder) {
  std::string source;
  for (const TM2tsPlayItem& item : playlist.Items) {
    std::string name = ClipName(item.Clips[0], ".m2ts");
    std::string file = FindDiscPath(streamFolder, name);
    if (file.empty()) file = WithSlash(streamFolder) + name;
    source += (source.empty() ? "\"" : "+\"") + file + "\"";
  }
  return source;
}

bool DetectBluRay(const std::string& path) {
  TM2tsPlaylists list = FindBluRayPlaylists(path, true);
  if (list.empty()) return false;
  PrintPlaylists(list);
  return true;
}

bool SelectBluRayTitle(std::string& source, int number, bool& failed) {
  TM2tsPlaylists list = FindBluRayPlaylists(source, false);
  if (list.empty()) return false;
  int index = TitleIndex(list, number - 1);
  if (index < 0) {
    failed = true;
    WriteLine(2, "Blu-Ray disc doesn't contain a title set with this number.");
    return false;
  }
  source = PlaylistSource(list[size_t(index)], FindBluRayStreamFolder(source));
  return true;
}

}  // namespace sonvex
