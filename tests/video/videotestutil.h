// Helpers of the video reader tests: reading corpus files, pushing a stream through a reader,
// and ffprobe's facts about a stream.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "framework/console.h"
#include "support/capture.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;

inline std::string CorpusPath(const std::string& name) {
  return std::string(SONVEX_CORPUS) + "/" + name;
}

inline bool CorpusPresent() { return std::filesystem::is_directory(SONVEX_CORPUS); }

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(file)),
                              std::istreambuf_iterator<char>());
}

inline std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, n);
  pclose(pipe);
  return out;
}

// "key=value" lines of ffprobe for the first video stream.
inline std::map<std::string, std::string> ProbeVideo(const std::string& path,
                                                     bool countFrames = false) {
  std::map<std::string, std::string> facts;
  std::istringstream lines(RunCommand(
      std::string("ffprobe -v error -select_streams v:0 ") + (countFrames ? "-count_frames " : "") +
      "-show_entries stream=width,height,field_order,r_frame_rate,avg_frame_rate,"
      "display_aspect_ratio,nb_read_frames "
      "-of default=nw=1 '" + path + "'"));
  std::string line;
  while (std::getline(lines, line)) {
    auto eq = line.find('=');
    if (eq != std::string::npos && !facts.count(line.substr(0, eq)))
      facts[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return facts;
}

struct ReaderRun {
  bool ok = false;
  std::shared_ptr<TCapture> capture;
  std::vector<std::string> lines;  // what the reader logged, with the level in front
};

// Pushes `stream` through `reader` in pieces of `piece` bytes, as the source of a bare file does.
inline ReaderRun PushStream(const UpStreamRef& reader, const std::vector<uint8_t>& stream,
                            size_t piece = 16384, int64_t position = -1) {
  ReaderRun run;
  run.capture = TCapture::Create();
  reader->AppendUpStream(run.capture);
  std::vector<std::string>* lines = &run.lines;
  SetLogHook([lines](int level, const std::string& text) {
    lines->push_back(std::to_string(level) + " " + text);
  });
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += piece)
    ok = reader->Write(0, false, stream.data() + at,
                       uint32_t(std::min(piece, stream.size() - at)), position, false);
  if (ok) ok = reader->Finish();
  SetLogHook(nullptr);
  run.ok = ok;
  return run;
}

}  // namespace sonvex::videotest
