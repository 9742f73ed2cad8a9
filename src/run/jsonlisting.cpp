// The JSON writer and the "-json" documents of a run.
#include "run/jsonlisting.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>

#include "disc/languages.h"
#include "files/destfile.h"
#include "framework/console.h"
#include "run/cmdline.h"

namespace sonvex {

void TJsonWriter::Separate(const char* key) {
  if (!first) out += ',';
  first = false;
  if (key) out += JsonString(key) + ':';
}

TJsonWriter& TJsonWriter::Open(const char* key, char bracket) {
  Separate(key);
  out += bracket;
  closers.push_back(bracket == '{' ? '}' : ']');
  first = true;
  return *this;
}

TJsonWriter& TJsonWriter::Close() {
  if (closers.empty()) return *this;
  out += closers.back();
  closers.pop_back();
  first = false;
  return *this;
}

TJsonWriter& TJsonWriter::Field(const char* key, const std::string& value) {
  Separate(key);
  out += JsonString(value);
  return *this;
}

TJsonWriter& TJsonWriter::Field(const char* key, int64_t value) {
  Separate(key);
  out += std::to_string(value);
  return *this;
}

TJsonWriter& TJsonWriter::Field(const char* key, double value) {
  Separate(key);
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  out += text;
  return *this;
}

TJsonWriter& TJsonWriter::Flag(const char* key, bool value) {
  Separate(key);
  out += value ? "true" : "false";
  return *this;
}

namespace {

// The length of the UTF-8 sequence at `at`, 0 when the bytes there are not one.
size_t Utf8Length(const std::string& text, size_t at) {
  uint8_t lead = uint8_t(text[at]);
  size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3
                                  : (lead & 0xF8) == 0xF0 ? 4 : 0;
  if (length == 0 || at + length > text.size()) return 0;
  uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
  for (size_t i = 1; i < length; i++) {
    uint8_t next = uint8_t(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3F);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t at = 0; at < text.size();) {
    char c = text[at];
    size_t length = Utf8Length(text, at);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      at++;
      continue;
    }
    if (length > 1) {
      out.append(text, at, length);
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (uint8_t(c) < 0x20 || c == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(uint8_t(c)));
      out += escape;
    } else {
      out += c;
    }
    at += length;
  }
  return out + "\"";
}

void StartJsonRun(TJsonRun& run) {
  SetJsonProgress(true);
  SetLogHook([&run](int level, const std::string& text) {
    std::fputs(text.c_str(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    if (level) (level == 1 ? run.warnings : run.errors).push_back(text);
  });
  SetTitleRecorder([&run](const TListedTitle& title) { run.titles.push_back(title); });
}

bool WantsJson(int argc, char** argv) {
  for (int i = 1; i < argc; i++)
    if (LowerCase(argv[i]) == "-json") return true;
  return false;
}

std::vector<std::string> ExistingOutputs(const std::vector<TAction>& actions) {
  std::vector<std::string> candidates = MadeFiles(), names;
  // A twin of a bit depth settles under the name without its ".24bit" or ".16bit".
  for (std::string name : MadeFiles()) {
    for (const char* twin : {".24bit", ".16bit"})
      if (size_t at = name.rfind(twin); at != std::string::npos) name.erase(at, 6);
    candidates.push_back(name);
  }
  for (const TAction& action : actions) {
    int32_t count = std::max(action.fileCount, 0);
    for (int32_t index = 0; index < std::max(count, 1); index++)
      candidates.push_back(IndexedName(action.dest, index, count));
    candidates.push_back(action.dest + ".gaps");  // the gaps found, for a later pass
  }
  for (const std::string& name : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(name, error) &&
        std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(name);
  }
  return names;
}

void FinishJsonRun(const std::string& document) {
  SetLogHook(nullptr);
  SetTitleRecorder(nullptr);
  SetJsonProgress(false);
  std::fputs(document.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

namespace {

// The ISO 639-2 code of an English language name, from the rows of codes.
std::string LanguageCode(const std::string& name) {
  for (std::string_view row : kLanguageRows) {
    size_t last = row.rfind('|');
    if (last != std::string_view::npos && row.substr(last + 1) == name) return std::string(row.substr(0, 3));
  }
  return {};
}

bool Holds(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

const char* KindName(TTrackKind kind) {
  switch (kind) {
    case TTrackKind::Video: return "video";
    case TTrackKind::Audio: return "audio";
    case TTrackKind::Subtitle: return "subtitle";
    case TTrackKind::Chapters: return "chapters";
    default: return "joined";
  }
}

// `line` is the listing's text of the track, when there was a listing line for it.
void AudioFields(TJsonWriter& json, const IAudioFormatDetails& audio, const std::string& line) {
  std::string codec = audio.Format();
  json.Field("codec", codec).Field("description", line.empty() ? audio.Description() : line);
  if (audio.Channels()) json.Field("channels", int64_t(audio.Channels()));
  if (audio.ChannelMask()) json.Field("channel_mask", int64_t(audio.ChannelMask()));
  if (audio.Bits()) json.Field("bits", int64_t(audio.Bits()));
  if (audio.SampleRate()) json.Field("sample_rate", int64_t(audio.SampleRate()));
  if (audio.Bitrate()) json.Field("bit_rate", int64_t(audio.Bitrate()));
  if (audio.Dialnorm()) json.Field("dialnorm", -int64_t(audio.Dialnorm()));
  if (audio.Duration()) json.Field("duration_ms", int64_t(audio.Duration()));
  std::string text = audio.Description();
  if (codec == "thd/ac3" || Holds(text, "core")) json.Flag("core", true);
  if (Holds(text, "Atmos") || Holds(text, "JOC")) json.Flag("atmos", true);
}

void VideoFields(TJsonWriter& json, const IVideoFormatDetails& video, const std::string& line) {
  json.Field("codec", video.Format()).Field("description", line.empty() ? video.Description() : line);
  if (video.Width()) json.Field("width", int64_t(video.Width()));
  if (video.Height()) json.Field("height", int64_t(video.Height()));
  if (video.FrameCount()) json.Field("frames", int64_t(video.FrameCount()));
  // The rate of an interlaced stream counts fields, two to a frame.
  if (video.RateNumerator() && video.RateDenominator())
    json.Field("frame_rate", double(video.RateNumerator()) / video.RateDenominator() /
                                 (video.Interlaced() ? 2 : 1));
  if (video.Interlaced()) json.Flag("interlaced", true);
  if (Holds(video.Description(), "HDR")) json.Flag("hdr", true);
}

void LanguageFields(TJsonWriter& json, const std::string& code, const std::string& name) {
  std::string iso = code.size() == 3 ? code : LanguageCode(name);
  if (!iso.empty()) json.Field("language", iso);
  if (!name.empty()) json.Field("language_name", name);
}

void TrackJson(TJsonWriter& json, const TSourceInfo& info, const TDiscFacts& disc, const TJsonRun& run,
               int32_t number) {
  TTrackRef ref = FindTrack(info, number);
  json.Open(nullptr, '{').Field("number", int64_t(number)).Field("kind", KindName(ref.kind));
  auto details = ref.entry.details;
  // The listing's line: the stream's own text with the delay, language and name it adds.
  auto found = run.trackLines.find(number);
  std::string line = found == run.trackLines.end() ? "" : found->second;
  std::string code;
  if (ref.kind == TTrackKind::Video && details && details->VideoDetails()) {
    VideoFields(json, *details->VideoDetails(), line);
  } else if (ref.kind == TTrackKind::Audio && details && details->AudioDetails()) {
    AudioFields(json, *details->AudioDetails(), line);
    code = details->AudioDetails()->Language();
  } else if (ref.kind == TTrackKind::Subtitle && details && details->SubtitleDetails()) {
    json.Field("codec", details->SubtitleDetails()->Format())
        .Field("description", line.empty() ? details->SubtitleDetails()->Description() : line);
    code = details->SubtitleDetails()->Language();
  }
  if ((ref.kind == TTrackKind::Video || ref.kind == TTrackKind::Audio) && ref.entry.delay)
    json.Field("delay_ms", int64_t(ref.entry.delay));
  if (ref.kind == TTrackKind::Audio || ref.kind == TTrackKind::Subtitle) {
    int kind = ref.kind == TTrackKind::Audio ? 1 : 2;
    std::string name = code.empty() ? "" : LanguageName(code);
    auto found = disc.languages.find({kind, ref.entry.id});
    if (name.empty() && found != disc.languages.end()) name = found->second;
    LanguageFields(json, code, name);
    auto title = disc.names.find({kind, ref.entry.id});
    if (title != disc.names.end()) json.Field("name", title->second);
  }
  json.Close();
}

// "CHAPTER01=0:00:00.000" and "CHAPTER01NAME=Intro" pairs into time and name.
void ChaptersJson(TJsonWriter& json, const std::string& text) {
  json.Open("chapters", '[');
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find_first_of("\r\n", at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    size_t equal = line.find('=');
    if (equal == std::string::npos || line.compare(0, 7, "CHAPTER") != 0) continue;
    std::string value = line.substr(equal + 1);
    if (line.substr(0, equal).find("NAME") != std::string::npos) {
      if (!value.empty()) json.Field("name", value);
      continue;
    }
    unsigned h = 0, m = 0, s = 0, ms = 0;
    if (std::sscanf(value.c_str(), "%u:%u:%u.%u", &h, &m, &s, &ms) != 4) continue;
    if (json.Text().back() != '[') json.Close();
    json.Open(nullptr, '{').Field("time_ms", int64_t(((h * 60 + m) * 60 + s) * 1000LL + ms));
  }
  if (json.Text().back() != '[') json.Close();
  json.Close();
}

// "[a02] Audio has a gap of 200ms at playtime 0:00:05." and its overlap twin.
void GapsJson(TJsonWriter& json, const std::vector<std::string>& warnings) {
  static const std::regex kGap("Audio (has a gap of|overlaps for) ([0-9]+)ms at playtime ([0-9]+):([0-9]+):([0-9]+)\\.$");
  json.Open("gaps", '[');
  std::smatch m;
  for (const std::string& text : warnings) {
    if (!std::regex_search(text, m, kGap)) continue;
    int64_t length = std::stoll(m[2]), seconds = (std::stoll(m[3]) * 60 + std::stoll(m[4])) * 60 + std::stoll(m[5]);
    json.Open(nullptr, '{')
        .Field("time_ms", seconds * 1000)
        .Field("length_ms", m[1] == "overlaps for" ? -length : length)
        .Close();
  }
  json.Close();
}

void Strings(TJsonWriter& json, const char* key, const std::vector<std::string>& lines) {
  json.Open(key, '[');
  for (const std::string& line : lines) json.Field(nullptr, line);
  json.Close();
}

}  // namespace

std::string SourceJson(const TSourceInfo& info, const TDiscFacts& disc, const TJsonRun& run,
                       const std::vector<std::string>& sources,
                       const std::vector<std::string>& outputs, bool passed, int exitCode) {
  TJsonWriter json;
  json.Open(nullptr, '{');
  if (info.container) {
    const IContainerFormatDetails& c = *info.container;
    json.Open("container", '{').Field("format", c.Format()).Field("name", c.Name());
    if (c.Duration()) json.Field("duration_ms", int64_t(c.Duration()));
    uintmax_t size = 0;
    for (const std::string& source : sources) {
      std::error_code error;
      uintmax_t one = std::filesystem::file_size(source, error);
      if (!error) size += one;
    }
    if (size) json.Field("size", int64_t(size));
    if (!disc.titleName.empty()) json.Field("title", disc.titleName);
    json.Field("description", run.containerLine.empty() ? c.Description() : run.containerLine).Close();
    json.Open("tracks", '[');
    if (info.joinedContainer)
      json.Open(nullptr, '{').Field("number", int64_t(1)).Field("kind", "joined")
          .Field("description", "Joined " + c.Name() + " file").Close();
    if (!info.chapterText.empty())
      json.Open(nullptr, '{').Field("number", int64_t(info.trackBase)).Field("kind", "chapters")
          .Field("description", disc.chapterLine).Close();
    for (int32_t number = info.trackBase + 1; number <= LastTrackNumber(info); number++)
      TrackJson(json, info, disc, run, number);
    json.Close();
    if (!info.chapterText.empty()) ChaptersJson(json, info.chapterText);
  } else if (info.audioDetails || info.videoDetails) {
    json.Open("tracks", '[').Open(nullptr, '{').Field("number", int64_t(1));
    if (info.audioDetails) {
      json.Field("kind", "audio");
      AudioFields(json, *info.audioDetails, "");
      std::string code = info.audioDetails->Language();
      LanguageFields(json, code, code.empty() ? "" : LanguageName(code));
    } else {
      json.Field("kind", "video");
      VideoFields(json, *info.videoDetails, "");
    }
    json.Close().Close();
  }
  if (passed) {
    json.Open("outputs", '[');
    for (const std::string& name : outputs) {
      std::error_code error;
      auto size = std::filesystem::file_size(name, error);
      json.Open(nullptr, '{').Field("name", name);
      if (!error) json.Field("size", int64_t(size));
      json.Close();
    }
    json.Close();
    GapsJson(json, run.warnings);
  }
  Strings(json, "warnings", run.warnings);
  Strings(json, "errors", run.errors);
  json.Field("exit_code", int64_t(exitCode)).Close();
  return json.Text();
}

std::string TitlesJson(const TJsonRun& run, int exitCode) {
  TJsonWriter json;
  json.Open(nullptr, '{').Open("titles", '[');
  for (const TListedTitle& title : run.titles) {
    json.Open(nullptr, '{').Field("number", int64_t(title.number));
    if (!title.playlist.empty()) json.Field("playlist", title.playlist);
    if (title.angle) json.Field("angle", int64_t(title.angle));
    json.Field("duration_ms", title.durationMs);
    if (!title.name.empty()) json.Field("name", title.name);
    Strings(json, "clips", title.clips);
    Strings(json, "tracks", title.tracks);
    json.Close();
  }
  json.Close();
  Strings(json, "warnings", run.warnings);
  Strings(json, "errors", run.errors);
  json.Field("exit_code", int64_t(exitCode)).Close();
  return json.Text();
}

}  // namespace sonvex
