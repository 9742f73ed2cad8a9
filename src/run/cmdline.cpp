// Command line parsing.
#include "run/cmdline.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "framework/console.h"

namespace sonvex {
namespace {

TitleResolver titleResolver;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool EqualsNoCase(const std::string& a, const std::string& b) { return LowerCase(a) == LowerCase(b); }

bool StartsNoCase(const std::string& text, const std::string& prefix) {
  return text.size() >= prefix.size() && LowerCase(text.substr(0, prefix.size())) == LowerCase(prefix);
}

bool EndsNoCase(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         LowerCase(text.substr(text.size() - suffix.size())) == LowerCase(suffix);
}

// Options that work anywhere on the line.
bool GlobalOption(const std::string& opt, TOptions& options, TAction*& current) {
  int64_t n;
  if (EndsNoCase(opt, "mb") && ParseNumber(opt.substr(0, opt.size() - 2), n)) {
    options.megabytes = int32_t(n);
  } else if (EqualsNoCase(opt, "test")) {
    options.test = true;
  } else if (EqualsNoCase(opt, "json")) {
    options.json = true;
  } else if (EqualsNoCase(opt, "demux") || EqualsNoCase(opt, "check")) {
    (EqualsNoCase(opt, "demux") ? options.demux : options.check) = true;
    // A placeholder action collects the options that every generated action copies.
    if (options.actions.empty()) {
      TAction placeholder;
      placeholder.dest = "%globaloptions%";
      options.actions.push_back(placeholder);
    }
    current = &options.actions.front();
  } else if (StartsNoCase(opt, "log=")) {
    options.logName = RemoveQuotes(opt.substr(4));
  } else if (StartsNoCase(opt, "ignoreDiscon") && StartsNoCase("ignoreDiscontinuity", opt)) {
    options.ignoreDiscontinuity = true;
  } else if (EqualsNoCase(opt, "logPids")) {
    options.logPids = true;
  } else if (EqualsNoCase(opt, "logDts")) {
    options.logDts = true;
  } else {
    return false;
  }
  return true;
}

bool IsRemapShape(const std::string& opt, bool& firstFiveRight) {
  size_t n = opt.size();
  if (n != 11 && n != 13 && n != 15) return false;
  firstFiveRight = true;
  for (size_t pos : {2, 4, 6, 8, 10})
    if (opt[pos - 1] != ',') firstFiveRight = false;
  bool allRight = firstFiveRight;
  if (n >= 13 && opt[11] != ',') allRight = false;
  if (n == 15 && opt[13] != ',') allRight = false;
  return allRight;
}

constexpr int kSampleRates[] = {192000, 176400, 96000, 88200, 48000, 44100, 24000, 22050};

// Options that apply to the current action. Returns false after printing an error.
bool ActionOption(const std::string& opt, TAction& a) {
  std::string low = LowerCase(opt);
  int64_t n = 0;
  auto warnGone = [&](const char* name) {
    WriteLine(1, std::string("The \"") + name + "\" parameter is no longer supported.");
  };
  if (low == "oldmediatype") {
    a.oldMediaType = true;
  } else if (low == "orbitlee") {
    warnGone("orbitLee");
  } else if (low == "nero" || low == "sonic" || low == "arcsoft" || low == "libav") {
    a.useNero = low == "nero";
    a.useSonic = low == "sonic";
    a.useArcSoft = low == "arcsoft";
    a.useLibav = low == "libav";
  } else if (low == "downmix") {
    a.downmix = true;
  } else if (low == "down6") {
    a.down6 = true;
  } else if (low == "down2") {
    a.down2 = true;
  } else if (low == "mixlfe") {
    a.mixLfe = true;
  } else if (low == "24p") {
    a.force24p = true;
  } else if (low == "30p" || low == "60i") {
    a.keepPulldown = true;
  } else if (low == "seektoiframes") {
    a.seekToIFrames = true;
  } else if (low.rfind("skip", 0) == 0 && (low.size() == 5 || low.size() == 6) &&
             ParseNumber(low.substr(4), n) && n >= 1 && n <= 99) {
    a.skipHeaders = int32_t(n);
  } else if (low.rfind("down", 0) == 0 && low.size() == 6 && ParseNumber(low.substr(4), n) &&
             n >= 14 && n <= 23) {
    a.reduceTo = int32_t(n);
  } else if (low == "keep24") {
    warnGone("keep24");
  } else if (ParseNumber(low, n) && std::find(std::begin(kSampleRates), std::end(kSampleRates), n) !=
                                        std::end(kSampleRates)) {
    a.sampleRate = int32_t(n);
  } else if (low.size() == 1 && low[0] >= '1' && low[0] <= '8') {
    a.channels = low[0] - '0';
  } else if (low == "16" || low == "24") {
    a.bits = low == "16" ? 16 : 24;
  } else if (low.rfind("quality=", 0) == 0 && low.size() == 9 && low[8] >= '0' && low[8] <= '4') {
    a.quality = low[8] - '0';
  } else if (low == "blu-ray") {
    a.remap = "bluray";
  } else if (low == "core") {
    a.core = true;
  } else if (low == "debug") {
  } else if (low == "slowdown") {
    a.slowdown = true;
    a.speedup = false;
  } else if (low == "speedup") {
    a.speedup = true;
    a.slowdown = false;
  } else if (low == "override") {
    a.override = true;
  } else if (low == "dontrepairdts") {
    a.dontRepairDts = true;
  } else if (low == "dontpatchdts") {
    a.dontPatchDts = true;
  } else if (low == "strippulldown") {
    a.stripPulldown = true;
  } else if (low == "keeppulldown") {
    a.keepPulldown = true;
  } else if (low.rfind("resampleto", 0) == 0 && ParseNumber(low.substr(10), n) && n >= 22050 &&
             n <= 192000) {
    a.resampleTo = int32_t(n);
  } else if (low == "big" || low == "little") {
    a.endian = low == "little" ? 1 : 2;
  } else if (low == "mono") {
    a.mono = true;
  } else if (low == "extensible") {
    a.extensible = true;
  } else if (low == "check16bit") {
    a.check16bit = true;
  } else if (low == "allowdrc") {
    warnGone("allowDrc");
  } else if (low == "keepdialnorm") {
    a.keepDialnorm = true;
  } else if (low.size() > 2 && low.substr(low.size() - 2) == "ms" &&
             ParseNumber(low.substr(0, low.size() - 2), n)) {
    a.delay = int32_t(-n);
  } else {
    bool firstFiveRight = false;
    if (IsRemapShape(opt, firstFiveRight)) {
      a.remap = opt;
    } else if (firstFiveRight) {
      WriteLine(2, "Command line parameter \"" + opt + "\" has an incorrect format.");
      return false;
    } else if (ParseNumber(low, n) && ((n >= 32 && n <= 640) || n == 768 || n == 1536)) {
      a.bitrate = int32_t(n);
    } else {
      WriteLine(2, "Command line parameter \"" + opt + "\" is unknown.");
      return false;
    }
  }
  return true;
}

TAction& CurrentForDestination(TOptions& options) {
  for (auto& action : options.actions)
    if (action.dest.empty()) return action;
  options.actions.emplace_back();
  return options.actions.back();
}

// On Linux a leading "/" starts an absolute path; it marks an option only in a token that holds
// no further "/", such as "/core".
bool IsOptionToken(const std::string& token) {
  if (token.empty()) return false;
  if (token[0] == '-') return true;
  return token[0] == '/' && token.find('/', 1) == std::string::npos;
}

std::string CutLeadingDash(std::string name) {
  if (!name.empty() && name[0] == '-') name.erase(0, 1);
  return name;
}

bool IsPlaylistFile(const std::string& name) {
  std::error_code error;
  return name.size() > 5 && LowerCase(name.substr(name.size() - 5)) == ".mpls" &&
         std::filesystem::is_regular_file(name, error);
}

bool ResolveTitle(const std::string& folder, int title, std::string& source) {
  bool reported = false;
  if (titleResolver && titleResolver(folder, title, source, reported)) return true;
  if (!reported) WriteLine(2, "HD DVD / Blu-Ray disc structure not found.");
  return false;
}

bool CheckRemap(const std::string& remap) {
  size_t n = remap.size() == 15 ? 8 : remap.size() == 13 ? 7 : 6;
  std::vector<bool> seen(8, false);
  for (size_t i = 0; i < remap.size(); i += 2) {
    char c = remap[i];
    if (c < '0' || c > '7') return false;
    seen[size_t(c - '0')] = true;
  }
  for (size_t ch = 0; ch < n; ch++)
    if (!seen[ch]) return false;
  return true;
}

}  // namespace

std::string LowerCase(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return text;
}

std::string RemoveQuotes(const std::string& text) {
  std::string out;
  for (char c : text)
    if (c != '"') out += c;
  return out;
}

std::string TrimControl(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && uint8_t(text[begin]) <= 32) begin++;
  while (end > begin && uint8_t(text[end - 1]) <= 32) end--;
  return text.substr(begin, end - begin);
}

bool ParseNumber(const std::string& text, int64_t& value) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (i == text.size() || text.size() - i > 12) return false;
  int64_t v = 0;
  for (; i < text.size(); i++) {
    if (!IsDigit(text[i])) return false;
    v = v * 10 + (text[i] - '0');
  }
  value = negative ? -v : v;
  return true;
}

std::string RawCommandLine(int argc, char** argv) {
  std::string line;
  for (int i = 0; i < argc; i++) {
    std::string arg = argv[i];
    if (i) line += ' ';
    // An option keeps its dash in front so that the tokenizer still sees an option: the quotes
    // go around its value ("-log=my log.txt" -> -log="my log.txt").
    size_t equals = arg.find('=');
    if (arg.find(' ') == std::string::npos)
      line += arg;
    else if (arg[0] == '-' && equals != std::string::npos && equals < arg.find(' '))
      line += arg.substr(0, equals + 1) + "\"" + arg.substr(equals + 1) + "\"";
    else
      line += "\"" + arg + "\"";
  }
  return line;
}

std::vector<std::string> Tokenize(const std::string& input, char separator) {
  std::string line = TrimControl(input);
  if (separator == ' ') {
    // A track mark glued to what follows becomes a token of its own: "1:name" -> "1: name".
    for (size_t i = line.size() >= 2 ? line.size() - 2 : 0; i >= 1 && i + 1 < line.size(); i--) {
      if (line[i] == ':' && IsDigit(line[i - 1]) && line[i + 1] != ' ') line.insert(i + 1, " ");
    }
    // "path"-640 written without a blank.
    size_t at = LowerCase(line).find("\"-640");
    if (at != std::string::npos) line.insert(at + 1, " ");
  }
  std::vector<std::string> tokens;
  std::string token;
  bool quoted = false, inToken = false;
  for (char c : line) {
    if (c == '"') quoted = !quoted;
    if (c == separator && !quoted) {
      if (inToken) tokens.push_back(token);
      token.clear();
      inToken = false;
    } else {
      token += c;
      inToken = true;
    }
  }
  if (inToken) tokens.push_back(token);
  return tokens;
}

void SetTitleResolver(TitleResolver resolver) { titleResolver = std::move(resolver); }

// The walk over the arguments; `source` is the source argument as given.
bool WalkArguments(const std::vector<std::string>& tokens, TOptions& options, std::string& source) {
  TAction* current = nullptr;
  for (size_t index = 1; index < tokens.size(); index++) {
    const std::string& token = tokens[index];
    if (IsOptionToken(token)) {
      std::string opt = token.substr(1);
      if (GlobalOption(opt, options, current)) continue;
      if (!current) {
        WriteLine(2, "Please specify the source and dest files first and then the options.");
        return false;
      }
      if (!ActionOption(opt, *current)) return false;
      continue;
    }
    int64_t n = 0;
    if (EndsNoCase(token, "ms") && ParseNumber(token.substr(0, token.size() - 2), n)) {
      if (!current) {
        WriteLine(2, "Please specify the source and dest files first and then the delay.");
        return false;
      }
      current->delay = int32_t(n);
    } else if (!token.empty() && token.back() == ':' &&
               ParseNumber(token.substr(0, token.size() - 1), n)) {
      current = &CurrentForDestination(options);
      current->track = int32_t(n);
      if (n < 1) {
        WriteLine(2, "The source file doesn't contain a track with the number " +
                         std::to_string(n) + ".");
        return false;
      }
    } else if (!token.empty() && token.back() == ')' &&
               ParseNumber(token.substr(0, token.size() - 1), n)) {
      source = RemoveQuotes(source);
      if (index == 1) {
        source = ".";
      } else if (index == 2) {
        if (source.empty()) {
          WriteLine(2, "The parameter \"" + token + "\" can only follow a source file name.");
          return false;
        }
      } else {
        WriteLine(2, "The parameter \"" + token + "\" can only be 1st or 2nd parameter.");
        return false;
      }
      if (!ResolveTitle(source, int(n), source)) return false;
    } else if (source.empty()) {
      source = token;
    } else {
      std::string dest = CutLeadingDash(TrimControl(RemoveQuotes(token)));
      current = &CurrentForDestination(options);
      current->dest = dest;
      std::filesystem::path name(dest);
      if (LowerCase(name.stem().string()) == "stdout" && !name.has_parent_path())
        SetConsoleOff(true);
    }
  }
  return true;
}

bool ParseCommandLine(const std::string& rawLine, TOptions& options) {
  std::string source;
  if (!WalkArguments(Tokenize(rawLine), options, source)) {
    // The log copy needs to know the source even when the walk stopped.
    if (!source.empty() && options.sources.empty()) options.sources.push_back(RemoveQuotes(source));
    return false;
  }

  if (!source.empty() && source.find('+') == std::string::npos) {
    std::string plain = RemoveQuotes(source);
    std::error_code error;
    // A folder stands for title 1 of its disc; a Blu-ray playlist file for its own title.
    if (std::filesystem::is_directory(plain, error) || IsPlaylistFile(plain)) {
      if (!ResolveTitle(plain, 1, source)) {
        options.sources.assign(1, "");
        return false;
      }
    } else {
      source = "\"" + plain + "\"";
    }
  }
  for (const std::string& part : Tokenize(source, '+')) {
    std::string name = CutLeadingDash(TrimControl(RemoveQuotes(part)));
    if (name.empty()) continue;
    std::error_code error;
    if (std::filesystem::exists(name, error)) {
      options.sources.push_back(name);
    } else {
      WriteLine(2, "Source file \"" + name + "\" not found.");
      options.sources.assign(1, "");
      return false;
    }
  }
  if (options.sources.empty() && !options.test) {
    WriteLine(2, "No source file was specified.");
    return false;
  }
  for (const auto& action : options.actions) {
    if (action.remap.empty() || action.remap == "bluray") continue;
    if (!CheckRemap(action.remap)) {
      WriteLine(2, "Command line parameter \"" + action.remap + "\" has an incorrect format.");
      return false;
    }
  }
  if (!options.actions.empty() && options.actions.back().dest.empty()) {
    WriteLine(2, "Destination file name is missing for track number " +
                     std::to_string(options.actions.back().track) + ".");
    return false;
  }
  return true;
}

}  // namespace sonvex
