// What the stream tests of every family share: building synthetic bitstreams, whole files in and
// out, the lines the stages log, and the outside tools (ffmpeg, ffprobe) as oracles.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "framework/console.h"
#include "support/e2e.h"

namespace sonvex::test {

using Bytes = std::vector<uint8_t>;

// MSB-first bit writer for synthetic headers.
class BitWriter {
public:
  void Put(int bits, uint64_t value) {
    for (int i = bits - 1; i >= 0; i--, count++) {
      if (count % 8 == 0) bytes.push_back(0);
      if ((value >> i) & 1) bytes.back() |= uint8_t(0x80 >> (count % 8));
    }
  }
  Bytes bytes;
  size_t count = 0;
};

inline Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
inline Bytes Repeat(const Bytes& part, int n) {
  Bytes out;
  for (int i = 0; i < n; i++) out.insert(out.end(), part.begin(), part.end());
  return out;
}
inline Bytes Slice(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + long(from), bytes.begin() + long(to));
}

inline Bytes ReadBytes(const fs::path& path) {
  std::string text = ReadFile(path);
  return Bytes(text.begin(), text.end());
}
inline void WriteBytes(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}
inline std::string Corpus(const std::string& relative) { return (CorpusDir() / relative).string(); }

// Runs a shell command; its standard output, and its exit code in `code`.
inline std::string Pipe(const std::string& command, int* code = nullptr) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char chunk[65536];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
  int status = pclose(pipe);
  if (code) *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

// ffprobe's facts (`entries` as for -show_entries) of the first audio stream, key -> value.
inline std::map<std::string, std::string> ProbeFacts(const std::string& file,
                                                     const std::string& entries,
                                                     const std::string& input = "") {
  std::map<std::string, std::string> facts;
  std::istringstream lines(Pipe("ffprobe -v error " + input + " -select_streams a:0 -show_entries " +
                                entries + " -of default=nw=1 " + ShellQuote(file)));
  for (std::string line; std::getline(lines, line);)
    if (size_t eq = line.find('='); eq != std::string::npos)
      facts.emplace(line.substr(0, eq), line.substr(eq + 1));
  return facts;
}

// ffmpeg's decode as raw little-endian PCM ("s16le", "s24le"); empty when it failed.
inline Bytes FfmpegDecode(const std::string& file, const std::string& format,
                          const std::string& inputOptions = "") {
  int code = 0;
  std::string out = Pipe("ffmpeg -nostdin -hide_banner -loglevel quiet " + inputOptions + " -i " +
                             ShellQuote(file) + " -f " + format + " -",
                         &code);
  return code ? Bytes() : Bytes(out.begin(), out.end());
}

inline int32_t Sample24(const uint8_t* p) {
  return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
}
inline int32_t Sample16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

// Compares PCM sample by sample and reports the first difference beyond the tolerance.
inline ::testing::AssertionResult SamplesMatch(const Bytes& ours, const Bytes& theirs,
                                               uint32_t bytes, int32_t tolerance,
                                               uint32_t channels) {
  if (ours.size() != theirs.size())
    return ::testing::AssertionFailure()
           << "sizes differ: " << ours.size() << " vs " << theirs.size() << " bytes";
  for (size_t i = 0; i + bytes <= ours.size(); i += bytes) {
    int32_t a = bytes == 3 ? Sample24(&ours[i]) : Sample16(&ours[i]);
    int32_t b = bytes == 3 ? Sample24(&theirs[i]) : Sample16(&theirs[i]);
    if (std::abs(a - b) > tolerance)
      return ::testing::AssertionFailure()
             << "first difference at frame " << i / bytes / channels << ", channel "
             << i / bytes % channels << ": " << a << " vs " << b;
  }
  return ::testing::AssertionSuccess();
}

// The lines the stages log while it lives, with their levels (0 info, 1 warning, 2 error).
struct TLog {
  TLog() {
    SetLogHook([this](int level, const std::string& text) { lines.push_back({level, text}); });
  }
  ~TLog() { SetLogHook(nullptr); }
  TLog(const TLog&) = delete;
  bool Has(int level, const std::string& text) const {
    return std::find(lines.begin(), lines.end(), std::pair{level, text}) != lines.end();
  }
  int Count(const std::string& text) const {
    return int(std::count_if(lines.begin(), lines.end(), [&](auto& l) { return l.second == text; }));
  }
  // The texts of the lines at `minLevel` or above.
  std::vector<std::string> Texts(int minLevel = 0) const {
    std::vector<std::string> texts;
    for (auto& [level, text] : lines)
      if (level >= minLevel) texts.push_back(text);
    return texts;
  }
  std::vector<std::pair<int, std::string>> lines;
};

}  // namespace sonvex::test
