// HD DVD advanced playlists: titles, clips, tracks, chapters, and the title filters.
#include "disc/hddvd.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <tuple>
#include <unordered_map>

#include "disc/discfiles.h"
#include "disc/languages.h"
#include "disc/listedtitle.h"
#include "disc/xmlscanner.h"
#include "framework/console.h"

namespace sonvex {
namespace {

// Playlists are a few hundred kilobytes; a larger file is no playlist.
constexpr uintmax_t kXplLimit = 8u << 20;

struct TCodecName {
  const char* alias;
  const char* name;
};

constexpr TCodecName kVideoCodecNames[] = {
    {"AVC", "h264/AVC"}, {"MPEG4", "h264/AVC"}, {"h264", "h264/AVC"}, {"H.264", "h264/AVC"},
    {"h264/AVC", "h264/AVC"}, {"vc1", "VC-1"}, {"vc-1", "VC-1"}, {"MS VC-1", "VC-1"},
    {"MS VC1", "VC-1"}, {"VC-1", "VC-1"}, {"mpeg2", "MPEG2"}, {"mpeg-2", "MPEG2"}};

constexpr TCodecName kAudioCodecNames[] = {
    {"DD+", "E-AC3"}, {"DDP", "E-AC3"}, {"DD-P", "E-AC3"}, {"DDPlus", "E-AC3"},
    {"DD-Plus", "E-AC3"}, {"DD Plus", "E-AC3"}, {"EC3", "E-AC3"}, {"EC-3", "E-AC3"},
    {"EAC3", "E-AC3"}, {"EAC-3", "E-AC3"}, {"e-ac3", "E-AC3"}, {"e-ac-3", "E-AC3"},
    {"DD", "AC3"}, {"AC3", "AC3"}, {"AC-3", "AC3"}, {"DolbyAC3", "AC3"}, {"Dolby AC3", "AC3"},
    {"Dolby AC-3", "AC3"}, {"DolbyAC-3", "AC3"},
    {"MLP", "TrueHD"}, {"THD", "TrueHD"}, {"TrueHD", "TrueHD"}, {"TruHD", "TrueHD"},
    {"True HD", "TrueHD"}, {"Tru HD", "TrueHD"}, {"True-HD", "TrueHD"}, {"Tru-HD", "TrueHD"},
    {"LPCM", "RAW/PCM"}, {"PCM", "RAW/PCM"}, {"L-PCM", "RAW/PCM"}, {"RAW/PCM", "RAW/PCM"},
    {"DTS", "DTS"}, {"DTSHD", "DTS-HD"}, {"DTS-HD", "DTS-HD"}, {"DTS HD", "DTS-HD"},
    {"DTSMA", "DTS Master Audio"}, {"DTS-MA", "DTS Master Audio"}, {"DTS MA", "DTS Master Audio"},
    {"DTS-HD MA", "DTS Master Audio"}, {"DTSHD MA", "DTS Master Audio"},
    {"DTSHD-MA", "DTS Master Audio"}, {"DTS Master Audio", "DTS Master Audio"},
    {"DTSHR", "DTS Hi-Res"}, {"DTS-HR", "DTS Hi-Res"}, {"DTS HR", "DTS Hi-Res"},
    {"DTS-HD HR", "DTS Hi-Res"}, {"DTSHD HR", "DTS Hi-Res"}, {"DTSHD-HR", "DTS Hi-Res"},
    {"DTS Hi-Res", "DTS Hi-Res"}};

// EVO files that are never part of a film.
constexpr const char* kNonFilmClips[] = {
    "MENU.EVO", "BLACK.EVO", "PARALOGO.EVO", "HDintro.EVO", "intro_black.evo", "gdmx_logo.evo",
    "SCREENSAVER.EVO", "DELOGO.EVO", "MAINMENU.EVO", "AudioSetup.EVO", "VideoSetup.EVO",
    "AudioConfig.evo", "VideoConfig.evo", "Download.evo", "FBI.EVO", "ucontrol.evo",
    "interpol.evo", "dvdcred.evo", "credits.evo", "introhddvd.evo"};
// Parts of EVO names that mark warnings, logos and menus.
constexpr const char* kNonFilmClipParts[] = {"MPAA", "menu_loop", "menu_intro", "warning",
                                             "scLogo", "piracy", "ucontrol", "brein_logo",
                                             "DimLogo", "GeniusLogo", "WhvLogo"};
// Title names: held anywhere, or the whole name. Both spellings of "Gallery" occur on discs.
constexpr const char* kNonFilmTitleParts[] = {
    "Main Menu", "main_menu", "mainmenu", "In-Movie Experience", "Photo Gallery", "Photo Gallary",
    "Intro Black", "Intro to HD DVD", "ucontrol", "u-control", "rechtetext", "piracy",
    "Screen Saver", "Screensaver"};
constexpr const char* kNonFilmTitleNames[] = {"ime", "warning", "Logo", "Black", "MainMoviePip"};

std::string Normalised(const std::string& codec, const TCodecName* table, size_t count) {
  for (size_t i = 0; i < count; i++)
    if (EqualNoCase(codec, table[i].alias)) return table[i].name;
  return codec;
}

int64_t ToInt(const std::string& text, int64_t fallback = 0) {
  if (text.empty()) return fallback;
  char* end = nullptr;
  long long value = std::strtoll(text.c_str(), &end, 10);
  return end && *end == 0 ? value : fallback;
}

struct TVideoAttribute {
  std::string codec;
  uint32_t width = 0, height = 0;
};
struct TAudioAttribute {
  std::string codec;
  uint32_t channels = 0, bits = 0, bitrate = 0, sampleRate = 0;
};

// A "langcode": two language letters, ":", an extension as a hexadecimal number (maybe "$"
// ahead of it).
void ParseLangcode(const std::string& code, std::string& language, uint32_t& extension) {
  std::string letters = code.substr(0, code.find(':'));
  language = letters.empty() || letters[0] == '*' ? letters : LanguageNameByTwoLetters(letters);
  extension = 0;
  size_t colon = code.find(':');
  if (colon == std::string::npos) return;
  std::string ext = code.substr(colon + 1);
  if (!ext.empty() && ext[0] == '$') ext.erase(0, 1);
  extension = uint32_t(std::strtoul(ext.c_str(), nullptr, 16));
}

struct TNavigation {
  std::map<int32_t, std::string> videoText;
  std::map<int32_t, TXplAudioTrack> audio;
  std::map<int32_t, TXplSubtitleTrack> subtitles;
};

TNavigation ReadNavigation(const std::string& text) {
  TNavigation navigation;
  for (const TXmlItem& item : ScanXml(text)) {
    int32_t track = int32_t(ToInt(GetAttribute(item, "track")));
    if (EqualNoCase(item.Name, "VideoTrack")) {
      navigation.videoText[track] = GetAttribute(item, "description");
    } else if (EqualNoCase(item.Name, "AudioTrack")) {
      TXplAudioTrack audio;
      uint32_t extension = 0;
      ParseLangcode(GetAttribute(item, "langcode"), audio.Language, extension);
      if (extension == 2) audio.Extra = "Visually Impaired";
      if (extension == 3 || extension == 4) audio.Extra = "Director's Comments";
      audio.Text = GetAttribute(item, "description");
      CleanAudioText(audio.Text, audio.Language);
      navigation.audio[track] = audio;
    } else if (EqualNoCase(item.Name, "SubtitleTrack")) {
      TXplSubtitleTrack subtitle;
      std::string forced = GetAttribute(item, "forced");
      subtitle.Forced = forced == "true" || forced == "1";
      uint32_t extension = 0;
      ParseLangcode(GetAttribute(item, "langcode"), subtitle.Language, extension);
      if (extension >= 5 && extension <= 7) subtitle.Extra = "Closed Caption";
      if (extension >= 13 && extension <= 15) subtitle.Extra = "Director's Comments";
      subtitle.BigCharacters = extension == 2 || extension == 6 || extension == 14;
      subtitle.ForChildren = extension == 3 || extension == 7 || extension == 15;
      subtitle.Text = GetAttribute(item, "description");
      CleanSubtitleText(subtitle.Text, subtitle.Language);
      navigation.subtitles[track] = subtitle;
    }
  }
  return navigation;
}

std::string ClipFileName(std::string src) {
  size_t cut = src.find_last_of("/\\");
  if (cut != std::string::npos) src.erase(0, cut + 1);
  if (src.size() >= 4 && EqualNoCase(src.substr(src.size() - 4), ".MAP"))
    src.replace(src.size() - 4, 4, ".EVO");
  return src;
}

const TVti* FindVti(const std::vector<TVti>& vti, const std::string& fileName) {
  for (const TVti& title : vti)
    if (EqualNoCase(title.Name, fileName)) return &title;
  return nullptr;
}

std::string FolderOf(const std::string& path) {
  std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

}  // namespace

int64_t ParseXplTime(const std::string& text) {
  if (text.empty()) return 0;
  int64_t parts[4] = {0, 0, 0, 0};
  size_t start = 0;
  for (int i = 0; i < 4 && start <= text.size(); i++) {
    size_t colon = text.find(':', start);
    if (colon == std::string::npos) colon = text.size();
    // A time field beyond any real title's is clamped, so that no product overflows.
    parts[i] = std::clamp<int64_t>(ToInt(text.substr(start, colon - start)), -1000000, 1000000);
    start = colon + 1;
  }
  return parts[0] * 3600000 + parts[1] * 60000 + parts[2] * 1000 + parts[3] * 1000 / 60;
}

bool IsFixedNonFilmClip(const std::string& fileName) {
  for (const char* name : kNonFilmClips)
    if (EqualNoCase(fileName, name)) return true;
  return false;
}

bool HoldsNonFilmClipPart(const std::string& fileName) {
  for (const char* part : kNonFilmClipParts)
    if (ContainsNoCase(fileName, part)) return true;
  return false;
}

bool IsNonFilmTitleName(const std::string& name) {
  for (const char* part : kNonFilmTitleParts)
    if (ContainsNoCase(name, part)) return true;
  for (const char* whole : kNonFilmTitleNames)
    if (EqualNoCase(name, whole)) return true;
  return false;
}

TXpl ReadXpl(const std::string& path, const std::vector<TVti>& vti) {
  std::vector<uint8_t> data;
  if (!ReadWholeFile(path, data, kXplLimit)) return {};
  return ParseXpl(std::string(data.begin(), data.end()), path, vti);
}

TXpl ParseXpl(const std::string& fileText, const std::string& path, const std::vector<TVti>& vti) {
  TXpl xpl;
  // Comments go first, so that a "<" inside one does no harm; an open comment runs to the end.
  std::string text;
  for (size_t at = 0; at < fileText.size();) {
    size_t open = fileText.find("<!--", at);
    text.append(fileText, at, open == std::string::npos ? std::string::npos : open - at);
    if (open == std::string::npos) break;
    size_t close = fileText.find("-->", open + 4);
    at = close == std::string::npos ? fileText.size() : close + 3;
  }
  size_t declaration = text.find("<?xml");
  if (declaration == std::string::npos) return xpl;
  size_t end = text.find('>', declaration);
  if (end == std::string::npos) return xpl;
  TXmlList top = ScanXml(text.substr(end + 1));
  TXmlList playlist = ScanXml(GetElementText(top, "Playlist"));
  std::string configuration = GetElementText(playlist, "Configuration");
  std::string mediaAttributes = GetElementText(playlist, "MediaAttributeList");
  std::string titleSet = GetElementText(playlist, "TitleSet");
  if (configuration.empty() || mediaAttributes.empty() || titleSet.empty()) return xpl;

  std::map<int64_t, TVideoAttribute> videoAttributes;
  std::map<int64_t, TAudioAttribute> audioAttributes;
  for (const TXmlItem& item : ScanXml(mediaAttributes)) {
    int64_t index = ToInt(GetAttribute(item, "index"), 1);
    if (EqualNoCase(item.Name, "VideoAttributeItem")) {
      TVideoAttribute& video = videoAttributes[index];
      video.codec = Normalised(GetAttribute(item, "codec"), kVideoCodecNames,
                               std::size(kVideoCodecNames));
      video.width = uint32_t(ToInt(GetAttribute(item, "horizontalResolution")));
      video.height = uint32_t(ToInt(GetAttribute(item, "verticalResolution")));
    } else if (EqualNoCase(item.Name, "AudioAttributeItem")) {
      TAudioAttribute& audio = audioAttributes[index];
      audio.codec = Normalised(GetAttribute(item, "codec"), kAudioCodecNames,
                               std::size(kAudioCodecNames));
      audio.channels = uint32_t(ToInt(GetAttribute(item, "channels")));
      audio.bits = uint32_t(ToInt(GetAttribute(item, "sampleDepth")));
      audio.bitrate = uint32_t(ToInt(GetAttribute(item, "bitrate")));
      uint32_t rate = uint32_t(ToInt(GetAttribute(item, "sampleRate")) * 1000);
      if (rate == 22000) rate = 22050;
      if (rate == 44000) rate = 44100;
      if (rate == 88000) rate = 88200;
      if (rate == 176000) rate = 176400;
      audio.sampleRate = rate;
    }
  }

  std::string folder = FolderOf(path);
  std::unordered_map<std::string, uint32_t> clipIndex;  // lower-case file name to clip
  for (const TXmlItem& titleItem : ScanXml(titleSet)) {
    if (!EqualNoCase(titleItem.Name, "Title")) continue;
    TXplTitle title;
    title.Number = uint32_t(ToInt(GetAttribute(titleItem, "titleNumber")));
    title.Duration = ParseXplTime(GetAttribute(titleItem, "titleDuration"));
    title.Name = GetAttribute(titleItem, "displayName");
    if (title.Name.empty()) title.Name = GetAttribute(titleItem, "description");
    if (title.Name.empty()) title.Name = GetAttribute(titleItem, "id");
    TXmlList children = ScanXml(titleItem.Text);
    TNavigation navigation = ReadNavigation(GetElementText(children, "TrackNavigationList"));

    for (const TXmlItem& clipItem : children) {
      if (!EqualNoCase(clipItem.Name, "PrimaryAudioVideoClip")) continue;
      std::string name = ClipFileName(GetAttribute(clipItem, "src"));
      if (name.empty() || IsFixedNonFilmClip(name) || HoldsNonFilmClipPart(name)) continue;
      if (FindDiscPath(folder, "../HVDVD_TS/" + name).empty() &&
          FindDiscPath(folder, name).empty() && FindDiscPath(folder, "../HDDVD_TS/" + name).empty())
        continue;
      auto known = clipIndex.find(LowerText(name));
      if (known != clipIndex.end()) {
        title.Clips.push_back(known->second);
        continue;
      }
      TXplClip clip;
      clip.Duration = ParseXplTime(GetAttribute(clipItem, "titleTimeEnd")) -
                      ParseXplTime(GetAttribute(clipItem, "titleTimeBegin"));
      clip.Description = GetAttribute(clipItem, "description");
      clip.FileName = name;
      const TVti* info = vti.empty() ? nullptr : FindVti(vti, name);
      for (const TXmlItem& track : ScanXml(clipItem.Text)) {
        int32_t number = int32_t(ToInt(GetAttribute(track, "track")));
        std::string description = GetAttribute(track, "description");
        int64_t attribute = ToInt(GetAttribute(track, "mediaAttr"), 1);
        if (EqualNoCase(track.Name, "Video")) {
          TXplVideoTrack video;
          video.Track = number;
          video.Angle = int32_t(ToInt(GetAttribute(track, "angleNumber")));
          video.Description = description;
          auto found = navigation.videoText.find(number);
          if (found != navigation.videoText.end()) video.Description = found->second;
          auto format = videoAttributes.find(attribute);
          if (format != videoAttributes.end()) {
            video.Name = format->second.codec;
            video.Width = format->second.width;
            video.Height = format->second.height;
          }
          size_t position = clip.Video.size();
          if (info && info->VideoAttributes.size() > position) {
            const TVtiVideo& set = info->VideoAttributes[position];
            if (!set.Codec.empty()) video.Name = set.Codec;
            video.Aspect = set.Aspect;
            video.Interlaced = set.Interlaced;
            if (set.Width) video.Width = set.Width;
            if (set.Height) video.Height = set.Height;
          }
          clip.Video.push_back(video);
        } else if (EqualNoCase(track.Name, "Audio")) {
          TXplAudioTrack audio;
          auto found = navigation.audio.find(number);
          if (found != navigation.audio.end()) audio = found->second;
          audio.Track = number;
          audio.Stream = int32_t(ToInt(GetAttribute(track, "streamNumber")));
          audio.Description = description;
          CleanAudioText(audio.Description, audio.Language);
          auto format = audioAttributes.find(attribute);
          if (format != audioAttributes.end()) {
            audio.Name = format->second.codec;
            audio.Channels = format->second.channels;
            audio.Bits = format->second.bits;
            audio.Bitrate = format->second.bitrate;
            audio.SampleRate = format->second.sampleRate;
          }
          size_t position = clip.Audio.size();
          if (info && info->AudioAttributes.size() > position) {
            const TVtiAudio& set = info->AudioAttributes[position];
            if (!set.Codec.empty()) audio.Name = set.Codec;
            if (set.Bits) audio.Bits = set.Bits;
            if (set.SampleRate) audio.SampleRate = set.SampleRate;
            if (set.Channels) audio.Channels = set.Channels;
          }
          clip.Audio.push_back(audio);
        } else if (EqualNoCase(track.Name, "Subtitle")) {
          TXplSubtitleTrack subtitle;
          auto found = navigation.subtitles.find(number);
          if (found != navigation.subtitles.end()) subtitle = found->second;
          subtitle.Track = number;
          subtitle.Stream = int32_t(ToInt(GetAttribute(track, "streamNumber")));
          subtitle.Description = description;
          CleanSubtitleText(subtitle.Description, subtitle.Language);
          clip.Subtitles.push_back(subtitle);
        }
      }
      clipIndex[LowerText(name)] = uint32_t(xpl.Clips.size());
      title.Clips.push_back(uint32_t(xpl.Clips.size()));
      xpl.Clips.push_back(std::move(clip));
    }

    for (const TXmlItem& list : children) {
      if (!EqualNoCase(list.Name, "ChapterList")) continue;
      for (const TXmlItem& chapter : ScanXml(list.Text)) {
        if (!EqualNoCase(chapter.Name, "Chapter")) continue;
        std::string name = GetAttribute(chapter, "displayName");
        if (name.empty()) name = GetAttribute(chapter, "description");
        title.Chapters.push_back({ParseXplTime(GetAttribute(chapter, "titleTimeBegin")), name});
      }
      break;
    }
    if (title.Chapters.size() == 1 && title.Chapters[0].Time == 0) title.Chapters.clear();
    xpl.Titles.push_back(std::move(title));
  }

  // The filters, from the last title to the first; a removed title is replaced by the last.
  // Titles ahead of the one looked at are untouched by then, so "an earlier title with the same
  // length, clip and chapter count and clips" is an earlier one of the file's order.
  using TKey = std::tuple<int64_t, size_t, size_t, std::vector<uint32_t>>;
  std::map<TKey, size_t> firstWithKey;
  for (size_t i = 0; i < xpl.Titles.size(); i++) {
    const TXplTitle& t = xpl.Titles[i];
    firstWithKey.emplace(TKey{t.Duration, t.Clips.size(), t.Chapters.size(), t.Clips}, i);
  }
  for (size_t i = xpl.Titles.size(); i-- > 0;) {
    const TXplTitle& t = xpl.Titles[i];
    bool remove = t.Clips.empty() || IsNonFilmTitleName(t.Name) ||
                  firstWithKey[TKey{t.Duration, t.Clips.size(), t.Chapters.size(), t.Clips}] < i;
    for (uint32_t clip : t.Clips) {
      const std::string& name = xpl.Clips[clip].FileName;
      if (IsFixedNonFilmClip(name) || HoldsNonFilmClipPart(name)) remove = true;
    }
    if (!remove) continue;
    if (i != xpl.Titles.size() - 1) xpl.Titles[i] = std::move(xpl.Titles.back());
    xpl.Titles.pop_back();
  }

  for (TXplClip& clip : xpl.Clips) {
    for (TXplVideoTrack& video : clip.Video)
      if (video.Name.empty()) video.Name = video.Description;
    for (TXplSubtitleTrack& subtitle : clip.Subtitles) {
      if (!subtitle.Text.empty()) continue;
      std::string text = subtitle.Extra.empty() ? "" : ", " + subtitle.Extra;
      if (subtitle.BigCharacters) text += ", big characters";
      if (subtitle.ForChildren) text += ", for children";
      subtitle.Text = text.size() >= 2 ? text.substr(2) : text;
    }
  }
  return xpl;
}

int XplTitleIndex(const TXpl& xpl, int number) {
  if (number < 0 || size_t(number) >= xpl.Titles.size()) return -1;
  std::vector<int> order(xpl.Titles.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = int(i);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return xpl.Titles[size_t(a)].Duration > xpl.Titles[size_t(b)].Duration;
  });
  return order[size_t(number)];
}

void PrintTitles(const TXpl& xpl) {
  auto quoted = [](const std::string& text) { return text.empty() ? "" : ", \"" + text + "\""; };
  for (size_t n = 0; n < xpl.Titles.size(); n++) {
    const TXplTitle& title = xpl.Titles[size_t(XplTitleIndex(xpl, int(n)))];
    if (n) WriteLine(0, "");
    std::string prefix = std::to_string(n + 1) + ") ";
    std::string indent(prefix.size(), ' ');
    std::string files;
    TListedTitle listed{int32_t(n + 1), {}, 0, title.Duration, {}, title.Name, {}};
    for (uint32_t clip : title.Clips) {
      files += (files.empty() ? "" : "+") + xpl.Clips[clip].FileName;
      listed.clips.push_back(xpl.Clips[clip].FileName);
    }
    WriteLine(0, prefix + files + ", " + TitleTimeText(title.Duration));
    if (!title.Name.empty()) WriteLine(0, indent + "\"" + title.Name + "\"");
    auto track = [&](const std::string& line) {
      WriteLine(0, line);
      listed.tracks.push_back(line.substr(indent.size() + 2));
    };
    if (title.Clips.empty()) {
      RecordTitle(listed);
      continue;
    }
    const TXplClip& clip = xpl.Clips[title.Clips[0]];
    for (const TXplVideoTrack& video : clip.Video) {
      std::string line = indent + "- " + (video.Name.empty() ? "Video" : video.Name);
      if (video.Width && video.Height) {
        if (video.Width == 1920 && video.Height == 1080)
          line += ", 1080";
        else if (video.Height == 480)
          line += ", 480";
        else
          line += ", " + std::to_string(video.Width) + "x" + std::to_string(video.Height);
        line += video.Interlaced ? "i" : "p";
      }
      if (!video.Aspect.empty()) line += " (" + video.Aspect + ")";
      if (video.Description != video.Name) line += quoted(video.Description);
      track(line);
    }
    for (const TXplAudioTrack& audio : clip.Audio) {
      std::string line = indent + "- " + (audio.Name.empty() ? "Audio" : audio.Name);
      if (!audio.Language.empty()) line += ", " + audio.Language;
      if (audio.Channels) line += ", " + std::to_string(audio.Channels) + " channels";
      if (audio.Bits) line += ", " + std::to_string(audio.Bits) + " bits";
      if (audio.Bitrate) line += ", " + std::to_string(audio.Bitrate) + "kbit/s";
      line += quoted(audio.Description);
      if (!audio.Extra.empty()) line += "  \"" + audio.Extra + "\"";
      if (!audio.Text.empty() && audio.Text != audio.Description) line += "  \"" + audio.Text + "\"";
      track(line);
    }
    for (const TXplSubtitleTrack& subtitle : clip.Subtitles) {
      std::string line = indent + "- Subtitle";
      if (!subtitle.Language.empty()) line += ", " + subtitle.Language;
      if (subtitle.Forced) line += ", forced";
      line += quoted(subtitle.Description);
      if (!subtitle.Text.empty() && subtitle.Text != subtitle.Description)
        line += "  \"" + subtitle.Text + "\"";
      track(line);
    }
    RecordTitle(listed);
  }
}

TXpl FindHdDvdPlaylist(const std::string& path, bool withVti) {
  std::vector<TVti> vti;
  if (withVti)
    for (const char* relative : {"HVDVD_TS/HVA00001.VTI", "HVA00001.VTI", "HDDVD_TS/HVA00001.VTI",
                                 "../HVDVD_TS/HVA00001.VTI", "../HDDVD_TS/HVA00001.VTI"}) {
      std::string file = FindDiscPath(path, relative);
      if (IsDiscFile(file)) vti = ReadVti(file);
      if (!vti.empty()) break;
    }
  for (const char* relative : {"ADV_OBJ/VPLST000.XPL", "VPLST000.XPL", "../ADV_OBJ/VPLST000.XPL"}) {
    std::string file = FindDiscPath(path, relative);
    if (!IsDiscFile(file)) continue;
    TXpl xpl = ReadXpl(file, vti);
    if (!xpl.Titles.empty()) return xpl;
  }
  return {};
}

std::string FindHdDvdEvoFolder(const std::string& path) {
  for (const char* relative : {"HVDVD_TS", "../HVDVD_TS", "HDDVD_TS", "../HDDVD_TS"}) {
    std::string folder = FindDiscPath(path, relative);
    if (IsDiscFolder(folder)) return folder;
  }
  return path;
}

bool DetectHdDvd(const std::string& path) {
  TXpl xpl = FindHdDvdPlaylist(path, true);
  if (xpl.Titles.empty()) return false;
  PrintTitles(xpl);
  return true;
}

bool SelectHdDvdTitle(std::string& source, int number, bool& failed) {
  TXpl xpl = FindHdDvdPlaylist(source, false);
  if (xpl.Titles.empty()) return false;
  int index = XplTitleIndex(xpl, number - 1);
  if (index < 0) {
    failed = true;
    WriteLine(2, "HD DVD disc doesn't contain a title set with this number.");
    return false;
  }
  std::string folder = FindHdDvdEvoFolder(source);
  std::string joined;
  for (uint32_t clip : xpl.Titles[size_t(index)].Clips) {
    std::string file = FindDiscPath(folder, xpl.Clips[clip].FileName);
    if (file.empty()) file = WithSlash(folder) + xpl.Clips[clip].FileName;
    joined += (joined.empty() ? "\"" : "+\"") + file + "\"";
  }
  source = joined;
  return true;
}

}  // namespace sonvex
