// Names and texts of the main run.
#include "run/naming.h"

#include <filesystem>

#include "run/cmdline.h"

namespace sonvex {
namespace {

std::string Plural(uint64_t n, const char* unit) {
  return std::to_string(n) + " " + unit + (n > 1 ? "s" : "");
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

void CutAt(std::string& text, const std::string& marker) {
  size_t at = text.find(marker);
  if (at != std::string::npos) text.resize(at);
}

}  // namespace

std::string FormatDuration(uint32_t milliseconds) {
  uint64_t seconds = (uint64_t(milliseconds) + 500) / 1000;
  uint64_t hours = seconds / 3600, minutes = seconds / 60 % 60;
  seconds %= 60;
  std::string text;
  if (hours) {
    if (seconds >= 30 && ++minutes == 60) {
      minutes = 0;
      hours++;
    }
    text = Plural(hours, "hour");
    if (minutes) text += ", " + Plural(minutes, "minute");
    return minutes ? text : "exactly " + text;
  }
  if (minutes) {
    text = Plural(minutes, "minute");
    if (seconds) text += ", " + Plural(seconds, "second");
    return seconds ? text : "exactly " + text;
  }
  return seconds >= 2 ? std::to_string(seconds) + " seconds" : "1 second";
}

std::string FileStem(const std::string& name) { return std::filesystem::path(name).stem().string(); }

std::string FileExtension(const std::string& name) {
  return LowerCase(std::filesystem::path(name).extension().string());
}

std::string TidyFileName(const std::string& name) {
  size_t slash = name.rfind('/');
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  std::string out = name.substr(0, start);
  for (size_t i = start; i < name.size(); i++) {
    char c = name[i];
    if (std::string("\"*/:<>?\\|").find(c) == std::string::npos) out += c;
  }
  return out;
}

bool ExtensionIn(const std::string& extension, const std::string& alternatives) {
  std::string ext = LowerCase(extension);
  size_t start = 0;
  while (start <= alternatives.size()) {
    size_t bar = alternatives.find('|', start);
    if (bar == std::string::npos) bar = alternatives.size();
    if (LowerCase(alternatives.substr(start, bar - start)) == ext) return true;
    start = bar + 1;
  }
  return false;
}

std::string DemuxVideoText(const std::string& description) {
  std::string text = description;
  ReplaceAll(text, "\"", "'");
  ReplaceAll(text, "h264/AVC", "h264");
  ReplaceAll(text, "h265/HEVC", "h265");
  CutAt(text, " (");
  CutAt(text, " /");
  ReplaceAll(text, "/", "-");
  return text;
}

std::string DemuxAudioText(const std::string& description) {
  std::string text = description;
  ReplaceAll(text, "\"", "'");
  CutAt(text, ", dialnorm:");
  ReplaceAll(text, "kbit/s", "kbps");
  ReplaceAll(text, "RAW/PCM", "PCM");
  ReplaceAll(text, "TrueHD/AC3", "TrueHD+AC3");
  ReplaceAll(text, "/", "-");
  return text;
}

}  // namespace sonvex
